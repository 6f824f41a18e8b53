// A station owner's machine for one test: an empty home, a working directory with a country file,
// a port; and the servers started on it.
//   Station station;
//   station.writeLog(logText({{now - 60, "14.074", "FT8", "K1ABC"}}));
//   ServerProcess server = station.serve();
//   EXPECT_EQ(station.activity("?hours=1").status, 200);
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "e2e/server_process.hpp"
#include "e2e/tls_client.hpp"
#include "temp_dir.hpp"

namespace spotserver::e2e {

inline constexpr const char* kToken = "test-token 1";
inline constexpr const char* kReady = "Press Ctrl-C to stop.\n";  // end of the banner
inline constexpr const char* kHealthPath = "/api/v1/health";
inline constexpr const char* kActivityPath = "/api/v1/activity";

// A stop takes three seconds at most, whatever the clients do; the rest is for a machine that
// stands still meanwhile. A client that held it up would do so for ten or more.
inline constexpr std::chrono::seconds kStopLimit{8};

class Station {
 public:
  Station();

  int port() const { return lease_.port(); }
  std::string portText() const { return std::to_string(port()); }
  // Absolute paths. Of these only home() and work() exist at first.
  std::string home() const { return dir_.path("home"); }
  std::string work() const { return dir_.path("work"); }
  std::string workFile(std::string_view name) const { return work() + "/" + std::string(name); }
  std::string configDir() const { return home() + "/.config/corvane"; }
  std::string stateDir() const { return home() + "/.local/state/corvane"; }
  std::string certificate() const { return configDir() + "/spot-server.crt"; }
  std::string key() const { return configDir() + "/spot-server.key"; }
  // The decode log at its default place, and the country file that the server will find.
  std::string log() const { return stateDir() + "/ALL.TXT"; }
  std::string countryFile() const { return workFile("cty.dat"); }

  // Puts `text` into / at the end of the decode log.
  void writeLog(std::string_view text) const;
  void appendLog(std::string_view text) const;

  // `arguments` alone, in this home and working directory.
  Launch launch(std::vector<std::string> arguments) const;
  // Our port, 127.0.0.1, kToken and no waiting between two looks at the log, then `extra`.
  Launch usualLaunch(const std::vector<std::string>& extra = {}) const;
  // A usual launch that has printed its whole banner.
  ServerProcess serve(const std::vector<std::string>& extra = {}) const;

  // One request on a connection of its own.
  Response get(std::string_view path, const Headers& headers = {},
               const std::string& source = "127.0.0.1") const;
  // GET of the activity path with kToken.
  Response activity(std::string_view query = "", const std::string& source = "127.0.0.1") const;

 private:
  TempDir dir_;
  PortLease lease_;
};

// "Authorization: Bearer <token>".
Headers bearer(std::string_view token);

// The start-up banner, from its first line to its last.
struct Banner {
  std::string mode = "live (ALL.TXT)";
  std::string source;
  std::string history = "none";
  std::string listening;  // behind https://
  std::string certificate;
  std::string spots_held = "0";
  std::string port;
  std::string token = kToken;
  std::string fingerprint;
};
std::string text(const Banner& banner);
// The banner of a usual launch with the history switched off.
Banner usualBanner(const Station& station, const std::string& fingerprint);

// What stands behind "  <label>" on its line of the banner, e.g. bannerValue(b, "Token:").
std::string bannerValue(const std::string& banner, std::string_view label);

std::string readFile(const std::string& path);
// Creates the directories above it as needed.
void writeFile(const std::string& path, std::string_view content);
bool exists(const std::string& path);  // also a dangling link
unsigned permissionsOf(const std::string& path);
std::int64_t wallClock();  // whole UTC epoch seconds

}  // namespace spotserver::e2e
