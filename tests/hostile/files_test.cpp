// Files that would block, swell or stall a reader: start and refresh stay quick, and memory stays
// small.
#include <csignal>
#include <filesystem>
#include <optional>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "hostile/process_facts.hpp"
#include "hostile/troubled_files.hpp"
#include "sanitizers.hpp"

namespace spotserver::hostile {
namespace {

using namespace std::chrono_literals;
using e2e::Clock;
using e2e::ServerProcess;
using e2e::Station;

// Ten times what a start or a refresh may take on a quiet machine.
constexpr auto kQuick = 20s;

// KiB; sanitizers take more.
constexpr long long kMemoryLimit = kSanitized ? 4'000'000 : 64'000'000 / 1024;

template <typename Act>
Clock::duration timeOf(Act act) {
  const auto begin = Clock::now();
  act();
  return Clock::now() - begin;
}

std::int64_t spotsOf(const Station& station) {
  return e2e::numberOf(station.activity().body, "window_spots");
}

e2e::Heard heardAt(std::int64_t time) { return {time, "14.074", "FT8", "K1ABC"}; }

TEST(Files, FifosInAllPlacesHoldNothingUp) {
  const Station station;
  placeFifos(station);
  std::optional<ServerProcess> server;
  EXPECT_LT(timeOf([&] { server.emplace(station.serve()); }), kQuick);
  EXPECT_LT(timeOf([&] { EXPECT_EQ(spotsOf(station), 0); }), kQuick);

  for (const std::string& path : {station.log(), historyPathOf(station)}) {
    std::filesystem::remove(path);
  }
  station.writeLog(logLine(heardAt(e2e::wallClock() - 60)));
  EXPECT_EQ(spotsOf(station), 1) << "the log is read once it is one";
  server->signal(SIGTERM);
  EXPECT_EQ(server->waitForExit(e2e::kStopLimit), 0);
}

TEST(Files, LineWithoutAnEndCostsNeitherTimeNorMemory) {
  const Station station;
  const std::int64_t time = e2e::wallClock() - 600;
  station.writeLog(logLine(heardAt(time)));
  ServerProcess server = station.serve({"--history-db", "off"});
  EXPECT_EQ(spotsOf(station), 1);
  const long long before = peakMemory(server.pid());

  appendHole(station, std::uintmax_t{256} << 20);
  for (int look = 0; look < 3; ++look) {
    EXPECT_LT(timeOf([&] { EXPECT_EQ(spotsOf(station), 1); }), kQuick);
  }
  EXPECT_LT(peakMemory(server.pid()) - before, kMemoryLimit);

  station.appendLog("\n" + logLine(heardAt(time + 15)));
  EXPECT_EQ(spotsOf(station), 2) << "the line behind it counts";
}

TEST(Files, SparseTebibyteIsBegunAtItsEnd) {
  const Station station;
  station.writeLog("");
  appendHole(station, std::uintmax_t{1} << 40);
  std::optional<ServerProcess> server;
  EXPECT_LT(timeOf([&] { server.emplace(station.serve({"--history-db", "off"})); }), kQuick);
  const long long before = peakMemory(server->pid());
  station.appendLog("\n" + logLine(heardAt(e2e::wallClock() - 60)));
  EXPECT_LT(timeOf([&] { EXPECT_EQ(spotsOf(station), 1); }), kQuick);
  EXPECT_LT(peakMemory(server->pid()) - before, kMemoryLimit);
}

}  // namespace
}  // namespace spotserver::hostile
