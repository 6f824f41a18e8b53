// What a refresh does when the clock was set.
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
using ::testing::Pair;
using ::testing::SizeIs;
using ::testing::UnorderedElementsAre;

TEST_F(Refresh, ClockUpTo600SecondsBackWaits) {
  writeLog(heard("N0AAA"));
  refresh();
  appendLog(heard("N0BBB"));
  refresh(kNow - 600);
  EXPECT_THAT(callsigns(data), ElementsAre("N0AAA"));
  EXPECT_EQ(data.last_refresh, kNow);
}

TEST_F(Refresh, ClockMoreThan600SecondsBackReadsBothSourcesAnew) {
  writeLog(heard("N0AAA", 3000));
  HistoryFile history = makeHistory(kNow - 7200);
  refresh();
  ASSERT_THAT(data.intervals, SizeIs(4));
  addMinute(history, kNow - 3600);  // written late; the overlap alone would not see it
  const auto generation = data.generation;
  refreshSpots(data, kNow - 601, 15);
  EXPECT_EQ(data.last_refresh, kNow - 601);
  EXPECT_EQ(data.history_read_to, kNow - 601);
  EXPECT_THAT(data.intervals, SizeIs(8));
  EXPECT_EQ(data.accepted_lines, 2u);
  EXPECT_EQ(data.generation, generation + 2);
}

TEST_F(Refresh, ClockSetBackReadsAtOnceWhateverTheMinimumInterval) {
  writeLog(heard("N0AAA", 3000));
  refreshSpots(data, kNow, 1e6);
  refreshSpots(data, kNow - 601, 1e6);
  EXPECT_EQ(data.accepted_lines, 2u);
  EXPECT_THAT(callsigns(data), ElementsAre("N0AAA"));
}

TEST_F(Refresh, ClockSetBackEmptiesIntervalsAndRatesEvenIfTheHistoryIsGone) {
  makeHistory();
  refresh();
  ASSERT_THAT(data.rates, SizeIs(1));
  std::filesystem::remove(data.history_path);
  refresh(kNow - 601);
  EXPECT_THAT(data.intervals, IsEmpty());
  EXPECT_THAT(data.rates, IsEmpty());
  EXPECT_EQ(data.history_read_to, 0);
  EXPECT_FALSE(data.history_in_use);
}

TEST_F(Refresh, ClockSetBackWithoutALogEmptiesAndCounts) {
  writeLog(heard("N0AAA", 3000));
  refresh();
  std::filesystem::remove(data.all_txt_path);
  refresh(kNow - 601);
  EXPECT_TRUE(data.spots.empty());
  EXPECT_EQ(data.generation, 2u);
  EXPECT_THAT(lastHeard(data), UnorderedElementsAre(Key("N0AAA")));
}

TEST_F(Refresh, ClockThatWasYearsAheadCostsNothingOfTheDay) {
  writeLog(heard("N0AAA", 80'000) + heard("N0BBB"));
  makeHistory();
  refresh(kNow + 2e9);
  EXPECT_TRUE(data.spots.empty());
  EXPECT_THAT(data.intervals, IsEmpty());
  EXPECT_THAT(lastHeard(data), IsEmpty());
  refresh(kNow);
  EXPECT_THAT(data.intervals, SizeIs(4));
  EXPECT_THAT(lastHeard(data), UnorderedElementsAre(Key("N0AAA"), Key("N0BBB")));
}

// Computer and decoder have one clock: what was heard while it was wrong has its dates, which never
// grow old.
TEST_F(Refresh, CallsignsHeardWhileTheClockWasYearsAheadLeaveWhenItIsSet) {
  constexpr double kAhead = 2e9;
  writeLog(heard("N0OLD", 3600) + heard("N0BOTH", 3600) + heard("N0WRONG", -kAhead + 10) +
           heard("N0BOTH", -kAhead + 10));
  refresh(kNow + kAhead);
  EXPECT_THAT(lastHeard(data), UnorderedElementsAre(Key("N0WRONG"), Key("N0BOTH")));
  refresh(kNow);
  EXPECT_THAT(lastHeard(data),
              UnorderedElementsAre(Pair("N0OLD", kNow - 3600), Pair("N0BOTH", kNow - 3600)));
  EXPECT_THAT(lastHeardByBand(data).at("20m"), SizeIs(2));
  EXPECT_EQ(data.heard.remembered(), 2u);
}

// An hour ahead is what a decoder may be anyway.
TEST_F(Refresh, CallsignsHeardWhileTheClockWasAnHourAheadStayUntilTheyAgeOut) {
  writeLog(heard("N0AHEAD", -3600));
  refresh(kNow + 3610);
  writeLog(heard("N0AAA"));
  refresh(kNow);
  EXPECT_THAT(lastHeard(data), UnorderedElementsAre(Key("N0AAA"), Key("N0AHEAD")));
  refresh(kNow + 3600 + 89'101);
  EXPECT_THAT(lastHeard(data), IsEmpty());
}

TEST_F(Refresh, ClockThatWasYearsBehindCostsNothingOfTheDay) {
  writeLog(heard("N0AAA", 80'000) + heard("N0BBB"));
  refresh(kNow - 1e9);
  EXPECT_TRUE(data.spots.empty());
  refresh(kNow);
  EXPECT_THAT(callsigns(data), ElementsAre("N0AAA", "N0BBB"));
  EXPECT_THAT(lastHeard(data), SizeIs(2));
}

}  // namespace
}  // namespace spotserver
