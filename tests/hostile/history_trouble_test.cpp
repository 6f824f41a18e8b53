// A history that cannot be read, or not in any sensible time: the log answers in its place, the
// others are served meanwhile, and the history is back at the next look once it is well.
#include <algorithm>
#include <filesystem>
#include <optional>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "hostile/health_watch.hpp"
#include "hostile/process_facts.hpp"
#include "hostile/troubled_files.hpp"
#include "sanitizers.hpp"

namespace spotserver::hostile {
namespace {

using namespace std::chrono_literals;
using e2e::Clock;
using e2e::expectedDocument;
using e2e::generatedAt;
using e2e::Heard;
using e2e::ServerProcess;
using e2e::Slot;
using e2e::Station;

// The server gives a history up after five seconds; the rest is slack for a busy machine.
constexpr auto kAnswerLimit = 30s;
// Less than a locked history holds an answer up. Health is asked without a pause, so one that
// waited for the history would wait nearly all of its five seconds.
constexpr Milliseconds kHealthLimit = 4000ms;

// What a read may take at most, SQLite's part and ours together (KiB); sanitizers take more.
constexpr long long kReadingLimit = kSanitized ? 4'000'000 : 300'000;
constexpr long long kSmallLimit = kSanitized ? 4'000'000 : 20'000;

// A station with one minute in its history and one decode in its log, of which the server knows.
class HistoryTrouble : public testing::Test {
 protected:
  HistoryTrouble() {
    std::filesystem::create_directories(station_.stateDir());
    history_.emplace(historyPathOf(station_));
    const std::int64_t minute = e2e::wallClock() / 60 - 3;
    history_->add({.minute = minute, .mask = 1, .counts = countsBlob({3})});
    slots_ = {{static_cast<double>(minute * 60), 15, "14.074", 3}};
    first_ = {minute * 60, "14.074", "FT8", "K1ABC"};
    second_ = {minute * 60 + 30, "14.074", "FT8", "K2ABC"};
    station_.writeLog(logLine(first_));
    server_.emplace(station_.serve());
    expectTheHistory({first_});
  }

  void expectTheHistory(const std::vector<Heard>& heard) const {
    const std::string body = station_.activity().body;
    EXPECT_EQ(body, expectedDocument({}, generatedAt(body), slots_, heard));
  }

  // Asks while the history is in trouble and the log has one more line. What the log said while the
  // history was in use is not read again, but its senders are known.
  void expectTheLogAlone() {
    station_.appendLog(logLine(second_));
    const auto begin = Clock::now();
    const std::string body = station_.activity().body;
    EXPECT_LT(Clock::now() - begin, kAnswerLimit);
    const std::int64_t now = generatedAt(body);
    EXPECT_EQ(body,
              expectedDocument({}, now, e2e::slotsOfLog({second_}, {}, now), {first_, second_}));
  }

  Station station_;
  std::optional<HistoryFile> history_;
  std::optional<ServerProcess> server_;
  std::vector<Slot> slots_;
  Heard first_;
  Heard second_;
};

TEST_F(HistoryTrouble, LockedByItsWriter) {
  history_->exec("BEGIN EXCLUSIVE");
  HealthWatch health(station_.port());
  expectTheLogAlone();
  EXPECT_LT(longestOf(health.end()), kHealthLimit);
  history_->exec("COMMIT");
  expectTheHistory({first_, second_});
}

TEST_F(HistoryTrouble, FieldWithoutAnyMeasure) {
  const long long before = peakMemory(server_->pid());
  addHugeField(*history_, 40'000'000);
  expectTheLogAlone();
  EXPECT_LT(peakMemory(server_->pid()) - before, kSmallLimit) << "KiB";
  history_->exec("DELETE FROM minutes WHERE length(receiver) <> 3");
  expectTheHistory({first_, second_});
}

TEST_F(HistoryTrouble, EndlessView) {
  history_.reset();
  std::filesystem::rename(historyPathOf(station_), historyPathOf(station_) + ".kept");
  makeEndlessHistory(station_);
  const long long before = peakMemory(server_->pid());
  std::uintmax_t temporary = 0;
  std::jthread watch([&](const std::stop_token& stop) {
    while (!stop.stop_requested()) {
      temporary = std::max(temporary, temporaryBytes(server_->pid()));
      std::this_thread::sleep_for(5ms);
    }
  });
  expectTheLogAlone();
  watch.request_stop();
  watch.join();
  EXPECT_EQ(temporary, 0u);
  EXPECT_LT(peakMemory(server_->pid()) - before, kReadingLimit) << "KiB";

  std::filesystem::rename(historyPathOf(station_) + ".kept", historyPathOf(station_));
  expectTheHistory({first_, second_});
}

}  // namespace
}  // namespace spotserver::hostile
