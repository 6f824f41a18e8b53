// The computer's clock is wrong and then corrected: the day is there at the next request, whatever
// the time between two looks. The server runs under libfaketime, which reads the time that the test
// wants from a file.
#include <ctime>
#include <filesystem>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "hostile/process_facts.hpp"
#include "hostile/troubled_files.hpp"
#include "sanitizers.hpp"

namespace spotserver::hostile {
namespace {

using e2e::Heard;
using e2e::ServerProcess;
using e2e::Station;

constexpr std::int64_t kHour = 3600;
constexpr std::int64_t kYear = 365 * 24 * kHour;

// Where Debian's package puts it, on whatever processor; empty when it is not installed.
std::string fakeTimeLibrary() {
  std::error_code none;
  for (const auto& entry : std::filesystem::directory_iterator("/usr/lib", none)) {
    const auto library = entry.path() / "faketime/libfaketimeMT.so.1";
    if (std::filesystem::exists(library, none)) return library;
  }
  return "";
}

class WrongClock : public testing::Test {
 protected:
  void SetUp() override {
    if (kSanitized) GTEST_SKIP() << "nothing can be preloaded";
    library_ = fakeTimeLibrary();
    ASSERT_NE(library_, "") << "install the package faketime";
    // A decode every twenty minutes of the last day.
    for (std::int64_t age = 23 * kHour; age > 0; age -= kHour / 3) {
      heard_.push_back({now_ - age, "14.074", "FT8", "K1ABC"});
    }
  }

  // Sets the server's clock so many seconds ahead, or behind when negative.
  void setClock(std::int64_t ahead) const {
    // Renamed into place: the server may look at any moment.
    e2e::writeFile(station_.workFile("clock.new"), (ahead < 0 ? "" : "+") + std::to_string(ahead));
    std::filesystem::rename(station_.workFile("clock.new"), station_.workFile("clock"));
  }

  ServerProcess serve(const std::string& reload) const {
    e2e::Launch launch =
        station_.usualLaunch({"--reload", reload, "--history-db", historyPathOf(station_)});
    launch.environment["LD_PRELOAD"] = library_;
    launch.environment["FAKETIME_TIMESTAMP_FILE"] = station_.workFile("clock");
    launch.environment["FAKETIME_NO_CACHE"] = "1";
    launch.environment["FAKETIME_DONT_FAKE_MONOTONIC"] = "1";
    launch.environment["NO_FAKE_STAT"] = "1";
    ServerProcess server(launch);
    server.awaitOutput(e2e::kReady);
    return server;
  }

  // The answer is made at a time so far from ours.
  std::string answerAhead(std::int64_t ahead) const {
    const std::string body = station_.activity("?hours=24").body;
    EXPECT_NEAR(static_cast<double>(e2e::generatedAt(body) - ahead),
                static_cast<double>(e2e::wallClock()), 60);
    return body;
  }

  void expectTheDay() const {
    const std::string body = answerAhead(0);
    EXPECT_EQ(body, e2e::expectedFromLog({24, 3}, e2e::generatedAt(body), heard_));
  }

  const Station station_;
  const std::int64_t now_ = e2e::wallClock() / 60 * 60;
  std::string library_;
  std::vector<Heard> heard_;
};

TEST_F(WrongClock, AheadAndThenSetBack) {
  for (const std::int64_t ahead : {11 * kHour / 60, 3 * kHour, 2 * kYear}) {
    SCOPED_TRACE(ahead);
    setClock(ahead);
    station_.writeLog(logText(heard_));
    ServerProcess server = serve("3600");
    answerAhead(ahead);
    setClock(0);
    expectTheDay();
  }
}

TEST_F(WrongClock, BehindAndThenSetForward) {
  for (const std::int64_t behind : {2 * kHour, 3 * 24 * kHour, 2 * kYear}) {
    SCOPED_TRACE(behind);
    setClock(-behind);
    station_.writeLog(logText(heard_));
    ServerProcess server = serve("3600");
    answerAhead(-behind);
    setClock(0);
    expectTheDay();
  }
}

TEST_F(WrongClock, HistoryIsReadAnewToo) {
  std::filesystem::create_directories(station_.stateDir());
  HistoryFile history(historyPathOf(station_));
  std::vector<e2e::Slot> slots;
  for (std::int64_t age = 23 * kHour; age > 0; age -= kHour) {
    const std::int64_t minute = (now_ - age) / 60;
    history.add({.minute = minute, .mask = 1, .counts = countsBlob({5})});
    slots.push_back({static_cast<double>(minute * 60), 15, "14.074", 5});
  }
  for (const std::int64_t ahead : {3 * kHour, -3 * kHour}) {
    SCOPED_TRACE(ahead);
    setClock(ahead);
    ServerProcess server = serve("3600");
    answerAhead(ahead);
    setClock(0);
    const std::string body = answerAhead(0);
    EXPECT_EQ(body, e2e::expectedDocument({24, 3}, e2e::generatedAt(body), slots, {}));
  }
}

TEST_F(WrongClock, DecoderInTheYear2099FillsNoMemory) {
  setClock(0);
  constexpr std::int64_t kFarAhead = 4'090'000'000;  // in 2099
  std::string lines = logText(heard_);
  const auto line = [](int i) {
    const std::string callsign =
        "K" + std::to_string(i % 10) +
        std::string{char('A' + i / 10 % 26), char('A' + i / 260 % 26), char('A' + i / 6760 % 26)};
    return e2e::logLine({kFarAhead, "14.074", "FT8", callsign});
  };
  lines.reserve(lines.size() + 200'000 * line(0).size());
  for (int i = 0; i < 200'000; ++i) lines += line(i);
  station_.writeLog(logText(heard_));
  ServerProcess server = serve("0");
  expectTheDay();
  const long long before = peakMemory(server.pid());
  station_.appendLog(lines.substr(logText(heard_).size()));
  expectTheDay();
  EXPECT_LT(peakMemory(server.pid()) - before, 20'000) << "KiB";
}

}  // namespace
}  // namespace spotserver::hostile
