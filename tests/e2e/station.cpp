#include "e2e/station.hpp"

#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include <sys/stat.h>

namespace spotserver::e2e {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kCountries =
    "United States:            05:  08:  NA:   37.60:    91.87:     5.0:  K:\n"
    "    AA,K,N,W;\n"
    "England:                  14:  27:  EU:   52.77:     1.47:     0.0:  G:\n"
    "    2E,G,M;\n"
    "Fed. Rep. of Germany:     14:  28:  EU:   51.00:   -10.00:    -1.0:  DL:\n"
    "    DA,DB,DC,DD,DE,DF,DG,DH,DJ,DK,DL;\n";

void put(const std::string& path, std::string_view content, std::ios::openmode how) {
  fs::create_directories(fs::path(path).parent_path());
  std::ofstream out(path, std::ios::binary | how);
  out.write(content.data(), static_cast<std::streamsize>(content.size()));
  out.close();
  if (!out) throw std::runtime_error("Cannot write " + path);
}

}  // namespace

Station::Station() {
  fs::create_directory(home());
  fs::create_directory(work());
  writeFile(countryFile(), kCountries);
}

void Station::writeLog(std::string_view content) const { writeFile(log(), content); }

void Station::appendLog(std::string_view content) const { put(log(), content, std::ios::app); }

Launch Station::launch(std::vector<std::string> arguments) const {
  Launch launch;
  launch.arguments = std::move(arguments);
  launch.directory = work();
  launch.environment = {{"HOME", home()}};
  return launch;
}

Launch Station::usualLaunch(const std::vector<std::string>& extra) const {
  std::vector<std::string> arguments = {"--port",  portText(), "--bind",   "127.0.0.1",
                                        "--token", kToken,     "--reload", "0"};
  arguments.insert(arguments.end(), extra.begin(), extra.end());
  return launch(std::move(arguments));
}

ServerProcess Station::serve(const std::vector<std::string>& extra) const {
  ServerProcess server(usualLaunch(extra));
  server.awaitOutput(kReady);
  return server;
}

Response Station::get(std::string_view path, const Headers& headers,
                      const std::string& source) const {
  return TlsClient(port(), source).request("GET", path, headers);
}

Response Station::activity(std::string_view query, const std::string& source) const {
  return get(std::string(kActivityPath) + std::string(query), bearer(kToken), source);
}

Headers bearer(std::string_view token) {
  return {{"Authorization", "Bearer " + std::string(token)}};
}

std::string text(const Banner& banner) {
  return "corvane-spot-server 0.3.0\n"
         "  mode:        " +
         banner.mode +
         "\n"
         "  source:      " +
         banner.source +
         "\n"
         "  history:     " +
         banner.history +
         "\n"
         "  listening:   https://" +
         banner.listening +
         "\n"
         "  certificate: " +
         banner.certificate +
         "\n"
         "  spots held:  " +
         banner.spots_held +
         "\n"
         "\n"
         "Configure the Corvane phone app with:\n"
         "  Host/IP:     <this machine's LAN address>\n"
         "  Port:        " +
         banner.port +
         "\n"
         "  Token:       " +
         banner.token +
         "\n"
         "  TLS SHA-256: " +
         banner.fingerprint +
         "\n"
         "\n"
         "Endpoints: GET /api/v1/health  GET /api/v1/activity?hours=6&smoothing=3\n"
         "Press Ctrl-C to stop.\n";
}

Banner usualBanner(const Station& station, const std::string& fingerprint) {
  Banner banner;
  banner.source = station.log();
  banner.listening = "127.0.0.1:" + station.portText();
  banner.certificate = station.certificate();
  banner.port = station.portText();
  banner.fingerprint = fingerprint;
  return banner;
}

std::string bannerValue(const std::string& banner, std::string_view label) {
  const std::string start = "\n  " + std::string(label);
  const std::size_t found = banner.find(start);
  if (found == std::string::npos) throw std::runtime_error("no " + start + " in: " + banner);
  const std::size_t value = banner.find_first_not_of(' ', found + start.size());
  return banner.substr(value, banner.find('\n', value) - value);
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("Cannot open " + path);
  return {std::istreambuf_iterator<char>(in), {}};
}

void writeFile(const std::string& path, std::string_view content) {
  put(path, content, std::ios::trunc);
}

bool exists(const std::string& path) {
  struct stat status;
  return lstat(path.c_str(), &status) == 0;
}

unsigned permissionsOf(const std::string& path) {
  struct stat status;
  if (stat(path.c_str(), &status) != 0) throw std::runtime_error("Cannot stat " + path);
  return status.st_mode & 07777u;
}

std::int64_t wallClock() { return std::time(nullptr); }

}  // namespace spotserver::e2e
