#include "faults/aftermath.hpp"

#include <csignal>
#include <filesystem>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "file_facts.hpp"
#include "history_file.hpp"

namespace spotserver::faults {
namespace {

using e2e::exists;
using e2e::readFile;
using e2e::Station;
using testing::ElementsAre;

constexpr std::int64_t kHertz = 14'074'000;
constexpr std::uint64_t kDecodes = 3;

bool isWhole(const std::string& path, const std::string& kind) {
  const std::string text = readFile(path);
  return text.starts_with("-----BEGIN " + kind + "-----\n") &&
         text.ends_with("-----END " + kind + "-----\n");
}

}  // namespace

KnownRecord::KnownRecord(bool with_history)
    : with_history_(with_history),
      minute_(e2e::wallClock() / 60 - 10),
      heard_{{minute_ * 60, "14.074", "FT8", "K1ABC"}} {}

void KnownRecord::giveTo(const Station& station) const {
  station.writeLog(logText(heard_));
  if (!with_history_) return;
  HistoryFile history(station.stateDir() + "/history.sqlite3");
  history.add(
      {.frequency = kHertz, .minute = minute_, .mask = 1, .counts = countsBlob({kDecodes})});
}

void KnownRecord::expectToldBy(const Station& station) const {
  const std::string body = station.activity().body;
  const std::int64_t now = e2e::generatedAt(body);
  const std::vector<e2e::Slot> slots = {
      {static_cast<double>(minute_ * 60), 15, heard_[0].mhz, kDecodes}};
  EXPECT_EQ(body, with_history_ ? e2e::expectedDocument({}, now, slots, heard_)
                                : e2e::expectedFromLog({}, now, heard_));
}

void expectWholeIdentity(const Station& station) {
  if (!exists(station.configDir())) return;
  for (const std::string& name : namesIn(station.configDir())) {
    if (name.find(".key") == std::string::npos) continue;
    EXPECT_EQ(modeOf(station.configDir() + "/" + name), 0600) << name;
  }
  if (exists(station.key())) {
    EXPECT_TRUE(isWhole(station.key(), "PRIVATE KEY"));
  }
  if (exists(station.certificate())) {
    EXPECT_TRUE(isWhole(station.certificate(), "CERTIFICATE"));
  }
}

void expectGoodStart(const Station& station, const std::vector<std::string>& arguments,
                     const KnownRecord& record) {
  if (exists(station.key()) && !exists(station.certificate())) {
    const e2e::Outcome outcome = runToEnd(station.usualLaunch(arguments));
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.errors, "TLS certificate error: Cannot create key (exists or unwritable): " +
                                  station.key() + "\n");
    std::filesystem::remove(station.key());
  }
  e2e::ServerProcess server = station.serve(arguments);
  record.expectToldBy(station);
  EXPECT_THAT(namesIn(station.configDir()), ElementsAre("spot-server.crt", "spot-server.key"));
  EXPECT_EQ(readFile(station.workFile("spot.pid")), std::to_string(server.pid()) + "\n");
  server.signal(SIGTERM);
  EXPECT_EQ(server.waitForExit(e2e::kStopLimit), 0);
  EXPECT_THAT(namesIn(station.work()), ElementsAre("cty.dat"));
  expectWholeIdentity(station);
}

}  // namespace spotserver::faults
