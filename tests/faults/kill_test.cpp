// Killed at any system call of a start, the server leaves nothing half done: what is there is whole
// and private, and the next start works or says what is missing.
#include <csignal>
#include <filesystem>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "e2e/activity_model.hpp"
#include "faults/fault_driver.hpp"
#include "faults/made_identity.hpp"
#include "faults/traced_server.hpp"
#include "file_facts.hpp"
#include "scoped_limits.hpp"

namespace spotserver::faults {
namespace {

using e2e::exists;
using e2e::readFile;
using e2e::ServerProcess;
using e2e::Station;
using testing::ElementsAre;

namespace fs = std::filesystem;

// How many kills of each scenario a plain test run makes.
constexpr long kFew = 25;

bool isWhole(const std::string& path, const std::string& kind) {
  const std::string text = readFile(path);
  return text.starts_with("-----BEGIN " + kind + "-----\n") &&
         text.ends_with("-----END " + kind + "-----\n");
}

// Nobody but the owner can read anything in `directory` that may hold the key.
void expectPrivateKeys(const std::string& directory) {
  for (const std::string& name : namesIn(directory)) {
    if (name.find(".key") == std::string::npos) continue;
    EXPECT_EQ(modeOf(directory + "/" + name), 0600) << name;
  }
}

void expectWholeIdentity(const Station& station) {
  if (!exists(station.configDir())) return;
  expectPrivateKeys(station.configDir());
  if (exists(station.key())) {
    EXPECT_TRUE(isWhole(station.key(), "PRIVATE KEY"));
  }
  if (exists(station.certificate())) {
    EXPECT_TRUE(isWhole(station.certificate(), "CERTIFICATE"));
  }
}

// Starts again after a death. A key whose certificate was not written any more must be told and
// left alone; its owner takes it away.
void expectGoodStart(const Station& station, const std::vector<std::string>& extra,
                     const std::vector<e2e::Heard>& heard) {
  if (exists(station.key()) && !exists(station.certificate())) {
    const e2e::Outcome outcome = runToEnd(station.usualLaunch(extra));
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.errors, "TLS certificate error: Cannot create key (exists or unwritable): " +
                                  station.key() + "\n");
    fs::remove(station.key());
  }
  ServerProcess server = station.serve(extra);
  const std::string body = station.activity().body;
  EXPECT_EQ(body, e2e::expectedFromLog({}, e2e::generatedAt(body), heard));
  EXPECT_THAT(namesIn(station.configDir()), ElementsAre("spot-server.crt", "spot-server.key"));
  EXPECT_EQ(readFile(station.workFile("spot.pid")), std::to_string(server.pid()) + "\n");
  server.signal(SIGTERM);
  EXPECT_EQ(server.waitForExit(e2e::kStopLimit), 0);
  EXPECT_THAT(namesIn(station.work()), ElementsAre("cty.dat"));
  expectWholeIdentity(station);
}

class Killed : public testing::Test {
 protected:
  void SetUp() override {
    const Station station;
    if (!mayTrace(station.launch({"--version"}))) GTEST_SKIP() << "this system lets nobody trace";
  }

  // One old enough decode to be in every answer, and the same in every test.
  static std::vector<e2e::Heard> decodes() {
    return {{e2e::wallClock() / 60 * 60 - 600, "14.074", "FT8", "K1ABC"}};
  }

  // Kills a start on a copy of `prepare`d station at every place; `after` looks at what is left.
  template <typename Prepare, typename After>
  static void killEverywhere(const std::string& what, const std::vector<std::string>& arguments,
                             Prepare prepare, After after) {
    long calls = 0;
    {
      const Station station;
      prepare(station);
      calls = runKilledAt(station.usualLaunch(arguments), kNever).calls;
    }
    long killed = 0;
    for (const long n : Places(what, calls, kFew)) {
      SCOPED_TRACE(what + ", killed at call " + std::to_string(n));
      const Station station;
      prepare(station);
      killed += runKilledAt(station.usualLaunch(arguments), n).killed ? 1 : 0;
      after(station);
      if (testing::Test::HasFailure()) return;
    }
    std::printf("%s: %ld kills\n", what.c_str(), killed);
    EXPECT_GT(killed, 0);
  }
};

TEST_F(Killed, FirstStart) {
  const ScopedUmask everything_readable(0);
  const auto heard = decodes();
  killEverywhere(
      "first start", {"--pid-file", "spot.pid"},
      [&](const Station& station) { station.writeLog(logText(heard)); },
      [&](const Station& station) {
        expectWholeIdentity(station);
        expectGoodStart(station, {"--pid-file", "spot.pid"}, heard);
      });
}

TEST_F(Killed, SecondStart) {
  const MadeIdentity identity;
  const auto heard = decodes();
  killEverywhere(
      "second start", {"--pid-file", "spot.pid"},
      [&](const Station& station) {
        identity.giveTo(station);
        station.writeLog(logText(heard));
      },
      [&](const Station& station) {
        identity.expectUntouched(station);
        expectGoodStart(station, {"--pid-file", "spot.pid"}, heard);
        identity.expectUntouched(station);
      });
}

TEST_F(Killed, StartInTheBackground) {
  const MadeIdentity identity;
  const auto heard = decodes();
  killEverywhere(
      "start in the background", {"--daemon", "--pid-file", "spot.pid"},
      [&](const Station& station) {
        identity.giveTo(station);
        station.writeLog(logText(heard));
      },
      [&](const Station& station) {
        identity.expectUntouched(station);
        expectGoodStart(station, {"--pid-file", "spot.pid"}, heard);
      });
}

// The station's directories under their former name, with settings that point into them.
struct FormerHome {
  explicit FormerHome(const Station& station) : home(station.home()) {}
  std::string old(const char* base) const { return home + base + "/velkor-tuner"; }
  std::string now(const char* base) const { return home + base + "/corvane"; }
  std::string settings(const std::string& state) const {
    return "all-txt = " + state + "/ALL.TXT\n";
  }
  void make() const {
    e2e::writeFile(old("/.config") + "/velkor-tuner.conf", settings(old("/.local/state")));
    e2e::writeFile(old("/.config") + "/other.ini", settings(old("/.local/state")));
    e2e::writeFile(old("/.local/share") + "/data", "data\n");
    e2e::writeFile(old("/.local/state") + "/ALL.TXT", "log\n");
  }
  // Where `base` is now. Both names lead there once it has moved.
  std::string place(const char* base) const { return exists(now(base)) ? now(base) : old(base); }

  std::string home;
};

TEST_F(Killed, Migration) {
  killEverywhere(
      "migration", {"--version"}, [](const Station& station) { FormerHome(station).make(); },
      [](const Station& station) {
        const FormerHome home(station);
        const auto expectNothingLost = [&] {
          EXPECT_EQ(readFile(home.place("/.local/share") + "/data"), "data\n");
          EXPECT_EQ(readFile(home.place("/.local/state") + "/ALL.TXT"), "log\n");
          const std::string config = home.place("/.config");
          const bool renamed = exists(config + "/corvane.conf");
          EXPECT_NE(renamed, exists(config + "/velkor-tuner.conf"));
          for (const std::string& file :
               {config + (renamed ? "/corvane.conf" : "/velkor-tuner.conf"),
                config + "/other.ini"}) {
            EXPECT_THAT(readFile(file), testing::AnyOf(home.settings(home.old("/.local/state")),
                                                       home.settings(home.now("/.local/state"))));
          }
        };
        expectNothingLost();
        EXPECT_EQ(runToEnd(station.launch({"--version"})).status, 0);
        expectNothingLost();
        EXPECT_EQ(namesIn(home.place("/.config")).size(), 2u) << "no temporary file is left";
        for (const char* base : {"/.config", "/.local/share", "/.local/state"}) {
          EXPECT_TRUE(fs::is_directory(fs::symlink_status(home.now(base)))) << base;
        }
      });
}

}  // namespace
}  // namespace spotserver::faults
