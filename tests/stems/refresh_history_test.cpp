// What a refresh takes from the history, in which order and from which window.
#include <cmath>
#include <cstdint>
#include <filesystem>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "history_file.hpp"
#include "spots/refresh_reference.hpp"
#include "stems/refresh_fixture.hpp"

namespace spotserver {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Key;
using ::testing::SizeIs;
using ::testing::UnorderedElementsAre;

TEST_F(Refresh, WithTheHistoryInUseLogLinesOnlySupplyCallsigns) {
  writeLog(heard("N0AAA"));
  makeHistory();
  refresh();
  appendLog(heard("N0BBB"));
  refresh();
  EXPECT_TRUE(data.history_in_use);
  EXPECT_TRUE(data.spots.empty());
  EXPECT_THAT(lastHeard(data), UnorderedElementsAre(Key("N0AAA"), Key("N0BBB")));
  EXPECT_THAT(lastHeardByBand(data).at("20m"), SizeIs(2));
  EXPECT_EQ(data.accepted_lines, 2u);
}

TEST_F(Refresh, HistoryIsReadBeforeTheLog) {
  writeLog(heard("N0AAA"));
  refresh();
  appendLog(heard("N0BBB"));
  makeHistory();
  refresh();
  // Had the log come first, N0BBB's spot would have been made and dropped; had the history come
  // after it, the spot would still be there.
  EXPECT_TRUE(data.spots.empty());
  EXPECT_THAT(data.intervals, SizeIs(4));
}

TEST_F(Refresh, StationWithoutALogHasItsHistory) {
  makeHistory();
  refresh();
  EXPECT_THAT(data.intervals, SizeIs(4));
  EXPECT_EQ(data.generation, 1u);
  refresh(kNow + 100'000);
  EXPECT_THAT(data.intervals, IsEmpty());
  EXPECT_THAT(data.rates, IsEmpty());
}

TEST_F(Refresh, FirstHistoryWindowIsTheRetention) {
  // The minute that begins first at or after kNow - 89,100, and the one before it.
  const auto first = static_cast<std::int64_t>(std::ceil((kNow - 89'100) / 60));
  HistoryFile history = makeHistory();
  history.add({.minute = first, .mask = 1});
  history.add({.minute = first - 1, .mask = 1});
  refresh();
  ASSERT_THAT(data.intervals, SizeIs(5));
  EXPECT_EQ(data.intervals[0].start, static_cast<double>(first) * 60);
}

TEST_F(Refresh, LaterHistoryWindowsOverlapTheLastOneBy300Seconds) {
  HistoryFile history = makeHistory();
  refresh();
  // Written late: only what lies in the last 300 s before the last refresh is still seen.
  history.add({.minute = static_cast<std::int64_t>(kNow - 300) / 60 + 1, .mask = 1});
  history.add({.minute = static_cast<std::int64_t>(kNow - 300) / 60, .mask = 1});
  refresh(kNow + 30);
  EXPECT_THAT(data.intervals, SizeIs(5));
  EXPECT_EQ(data.history_read_to, kNow + 30);
}

TEST_F(Refresh, SlotLateByExactly300SecondsIsSeenAndOneASecondLaterIsNot) {
  const auto minute = static_cast<std::int64_t>(kNow) / 60 - 10;
  for (const int seconds : {300, 301}) {
    data = SpotData{};
    data.history_path = dir.path(std::to_string(seconds));
    HistoryFile history(data.history_path);
    const double first = static_cast<double>(minute) * 60 + seconds;
    addMinute(history, first);
    refresh(first);
    ASSERT_TRUE(data.history_in_use);
    const std::size_t before = data.intervals.size();
    history.add({.minute = minute, .mask = 1});  // its first slot
    refresh(first + 30);
    EXPECT_EQ(data.intervals.size() - before, seconds == 300 ? 1u : 0u) << seconds;
  }
}

TEST_F(Refresh, AfterALongPauseTheHistoryIsReadNoFurtherBackThanTheRetention) {
  HistoryFile history = makeHistory();
  refresh();
  const double later = kNow + 1e6;
  // A row that no read gets through, where a window that began at the last read would meet it.
  history.add({.mode = "NOISE", .minute = static_cast<std::int64_t>(kNow + 5e5) / 60});
  addMinute(history, later);
  refresh(later);
  EXPECT_TRUE(data.history_in_use);
  EXPECT_THAT(data.intervals, SizeIs(4));
}

TEST_F(Refresh, HistoryThatFailsLeavesItsIntervalsAndTheLogGivesSpotsFromThenOn) {
  writeLog(heard("N0AAA"));
  makeHistory();
  refresh();
  std::filesystem::remove(data.history_path);
  dir.write("history.sqlite3", "no database");
  appendLog(heard("N0BBB"));
  refresh();
  EXPECT_FALSE(data.history_in_use);
  EXPECT_THAT(data.intervals, SizeIs(4));
  EXPECT_THAT(callsigns(data), ElementsAre("N0BBB"));
}

}  // namespace
}  // namespace spotserver
