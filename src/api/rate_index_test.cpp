#include "api/rate_index.hpp"

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "api/rate_index_reference.hpp"
#include "heard_intervals.hpp"

namespace launcher {
namespace {

TEST(MinuteOf, FloorsOnBothSidesOfTheEpoch) {
  const struct {
    double t;
    std::int64_t minute;
  } cases[] = {{0, 0},
               {59.999, 0},
               {60, 1},
               {-0.001, -1},
               {-60, -1},
               {-60.5, -2},
               {kNow, 29'386'260},
               {kNow - 0.5, 29'386'259}};
  for (const auto& c : cases) EXPECT_EQ(minuteOf(c.t), c.minute) << c.t;
}

TEST(MinuteOf, StopsAtTheEndsOfTheInteger) {
  const auto lowest = std::numeric_limits<std::int64_t>::min();
  const auto highest = std::numeric_limits<std::int64_t>::max();
  const struct {
    double t;
    std::int64_t minute;
  } cases[] = {{0x1p62 * 60, std::int64_t{1} << 62},
               {0x1p63 * 60, highest},
               {1e300, highest},
               {kInfinity, highest},
               {-0x1p63 * 60, lowest},
               {-1e300, lowest},
               {-kInfinity, lowest}};
  for (const auto& c : cases) EXPECT_EQ(minuteOf(c.t), c.minute) << c.t;
}

TEST(ChannelKey, HasSixDecimalsAlways) {
  const struct {
    const char* mode;
    double hz;
    const char* key;
  } cases[] = {{"FT8", 14'074'000, "FT8/14.074000"},
               {"JS8-FAST", 7'078'000, "JS8-FAST/7.078000"},
               {"unknown", 0, "unknown/0.000000"},
               {"WSPR", 14'095'600.4, "WSPR/14.095600"},
               {"", 136'000, "/0.136000"}};
  for (const auto& c : cases) EXPECT_EQ(channelKey(c.mode, c.hz), c.key) << c.key;
}

TEST(ChannelKey, AnAbsurdFrequencyIsWrittenOutInFull) {
  EXPECT_EQ(channelKey("FT8", 1e300).size(), 4u + 295u + 7u);
  EXPECT_NE(channelKey("FT8", 1e300), channelKey("FT8", 1.0000001e300));
}

TEST(AddInterval, FilesTheIntervalUnderItsBandMinuteAndSecond) {
  BandRateIndex index;
  addInterval(index, "FT8/14.074000", 12, kNow + 60, kNow + 45, 15, k20m);
  ASSERT_EQ(index.size(), 1u);
  const BandRateEntry& band = index.at("20m");
  EXPECT_EQ(band.first_start, kNow + 45);
  EXPECT_EQ(band.max_length, 15);
  const auto by_minute = byMinute(band);
  ASSERT_EQ(by_minute.size(), 1u);
  const IntervalBucket& bucket = by_minute.at(29'386'260);
  ASSERT_EQ(bucket.size(), 1u);
  const IntervalRecord& record = bucket.at("FT8/14.074000@45");
  EXPECT_EQ(record.start, kNow + 45);
  EXPECT_EQ(record.end, kNow + 60);
  EXPECT_EQ(record.count, 12u);
}

TEST(AddInterval, KeysTakeTheWholeSecondOfTheMinute) {
  const struct {
    double start;
    std::int64_t minute;
    const char* key;
  } cases[] = {{0, 0, "a@0"},      {7.5, 0, "a@7"},  {59.9, 0, "a@59"}, {60, 1, "a@0"},
               {-0.5, -1, "a@59"}, {-60, -1, "a@0"}, {-52.5, -1, "a@7"}};
  for (const auto& c : cases) {
    BandRateIndex index;
    addInterval(index, "a", 1, 100, c.start, 1, k20m);
    ASSERT_TRUE(index.contains("20m")) << c.start;
    const auto by_minute = byMinute(index.at("20m"));
    ASSERT_TRUE(by_minute.contains(c.minute)) << c.start;
    EXPECT_TRUE(by_minute.at(c.minute).contains(c.key)) << c.start;
  }
}

TEST(AddInterval, OffPlanFrequenciesGetEntriesToo) {
  BandRateIndex index;
  addInterval(index, "FT8/13.500000", 1, kNow, kNow - 15, 15, 13'500'000);
  EXPECT_EQ(recordsOf(index, "13.500000 MHz"), 1u);
}

TEST(AddInterval, RefusesSilently) {
  const double nan = std::nan("");
  const struct {
    const char* name;
    double now;
    double start;
    double length;
    double hz;
  } cases[] = {
      {"now not a number", nan, kNow - 15, 15, k20m},
      {"now infinite", kInfinity, kNow - 15, 15, k20m},
      {"start not a number", kNow, nan, 15, k20m},
      {"start infinite", kNow, -kInfinity, 15, k20m},
      {"length not a number", kNow, kNow - 15, nan, k20m},
      {"length infinite", kNow, kNow - 15, kInfinity, k20m},
      {"length zero", kNow, kNow - 15, 0, k20m},
      {"length negative", kNow, kNow - 15, -15, k20m},
      {"not finished", kNow, kNow - 13.5, 15, k20m},
      {"an end beyond any number", kLargest, kLargest, kLargest, k20m},
      {"too old", kNow, kNow - 89'100.5, 15, k20m},
      {"frequency not a number", kNow, kNow - 15, 15, nan},
      {"frequency infinite", kNow, kNow - 15, 15, kInfinity},
  };
  for (const auto& c : cases) {
    BandRateIndex index;
    addInterval(index, "FT8/14.074000", 1, c.now, c.start, c.length, c.hz);
    EXPECT_TRUE(index.empty()) << c.name;
  }
}

TEST(AddInterval, ARefusedIntervalLeavesOldMinutesAlone) {
  const struct {
    const char* name;
    double start;
    double length;
    double hz;
  } cases[] = {{"not finished", kNow, 15, k20m},
               {"too old", kNow - 90'000, 15, k20m},
               {"length zero", kNow - 15, 0, k20m},
               {"frequency not a number", kNow - 15, 15, std::nan("")}};
  for (const auto& c : cases) {
    BandRateIndex index;
    addFt8(index, kNow - 100'000, 1);
    addInterval(index, "FT8/14.074000", 1, kNow, c.start, c.length, c.hz);
    EXPECT_EQ(recordsOf(index, "20m"), 1u) << c.name;
    EXPECT_EQ(index.at("20m").first_start, kNow - 100'000) << c.name;
  }
}

TEST(AddInterval, AnEndOneSecondAheadIsTheLastAccepted) {
  BandRateIndex index;
  addInterval(index, "late", 1, kNow, std::nextafter(kNow - 14, kInfinity), 15, k20m);
  EXPECT_EQ(recordsOf(index, "20m"), 0u);
  addInterval(index, "in time", 1, kNow, kNow - 14, 15, k20m);
  EXPECT_EQ(recordsOf(index, "20m"), 1u);
}

TEST(AddInterval, AStartAtTheHorizonIsTheOldestAccepted) {
  BandRateIndex index;
  addInterval(index, "older", 1, kNow, std::nextafter(kNow - 89'100, 0), 15, k20m);
  EXPECT_EQ(recordsOf(index, "20m"), 0u);
  addInterval(index, "oldest", 1, kNow, kNow - 89'100, 15, k20m);
  EXPECT_EQ(recordsOf(index, "20m"), 1u);
}

TEST(AddInterval, TheFirstReportOfAnIntervalStays) {
  BandRateIndex index;
  addInterval(index, "FT8/14.074000", 12, kNow, kNow - 15, 15, k20m);
  addInterval(index, "FT8/14.074000", 99, kNow, kNow - 15, 15, k20m);
  const auto held = index.at("20m").by_source.at("FT8/14.074000").held();
  ASSERT_EQ(held.size(), 1u);
  EXPECT_EQ(held.front().count, 12u);
}

TEST(AddInterval, StartsWithinOneSecondAreOneInterval) {
  BandRateIndex index;
  addInterval(index, "a", 1, kNow, kNow - 15, 10, k20m);
  addInterval(index, "a", 1, kNow, kNow - 14.5, 10, k20m);
  EXPECT_EQ(recordsOf(index, "20m"), 1u);
  addInterval(index, "a", 1, kNow, kNow - 14, 10, k20m);
  EXPECT_EQ(recordsOf(index, "20m"), 2u);
}

TEST(AddInterval, ARefusedDuplicateStillWidensTheBand) {
  BandRateIndex index;
  addInterval(index, "a", 1, kNow, kNow - 30, 7.5, k20m);
  addInterval(index, "a", 5, kNow, kNow - 29.5, 20, k20m);
  EXPECT_EQ(index.at("20m").first_start, kNow - 30);
  EXPECT_EQ(index.at("20m").max_length, 20);
  addInterval(index, "b", 1, kNow, kNow - 44.5, 7.5, k20m);
  addInterval(index, "b", 5, kNow, kNow - 45, 6, k20m);
  EXPECT_EQ(index.at("20m").first_start, kNow - 45);
  EXPECT_EQ(index.at("20m").max_length, 20);
  EXPECT_EQ(recordsOf(index, "20m"), 2u);
}

TEST(AddInterval, OtherSourcesBandsAndMinutesAreOtherIntervals) {
  BandRateIndex index;
  addInterval(index, "a", 1, kNow, kNow - 120, 15, k20m);
  addInterval(index, "b", 1, kNow, kNow - 120, 15, k20m);
  addInterval(index, "a", 1, kNow, kNow - 60, 15, k20m);
  addInterval(index, "a", 1, kNow, kNow - 120, 15, k40m);
  EXPECT_EQ(recordsOf(index, "20m"), 3u);
  EXPECT_EQ(recordsOf(index, "40m"), 1u);
}

TEST(AddInterval, StartsInAnyOrderAreHeldAscending) {
  BandRateIndex index;
  for (const int slot : {3, 1, 5, 2, 4, 1, 5, 3}) {
    addInterval(index, "a", static_cast<std::uint64_t>(slot), kNow, kNow - 15 * slot, 15, k20m);
  }
  std::vector<std::uint64_t> counts;
  for (const IntervalRecord& record : index.at("20m").by_source.at("a").held()) {
    counts.push_back(record.count);
  }
  EXPECT_EQ(counts, (std::vector<std::uint64_t>{5, 4, 3, 2, 1}));
}

TEST(AddIntervals, AreAddedOneByOne) {
  BandRateIndex index;
  addFt8(index, kNow - 100'000, 1);
  const std::vector<SourceReport> reports = {
      {"a", k20m, 15, {{kNow - 30, 1}, {kNow - 10, 9}, {kNow - 15, 2}, {kNow - 30, 7}}},
      {"a", k20m + 1, 10, {{kNow - 30, 3}, {kNow - 45, 4}, {kNow - 90'000, 5}}},
      {"a", k40m, 0, {{kNow - 30, 6}}},
      {"b", k20m, 120, {}}};
  addIntervals(index, reports, kNow);
  ASSERT_EQ(index.size(), 1u);
  const auto held = index.at("20m").by_source.at("a").held();
  std::vector<std::uint64_t> counts;
  for (const IntervalRecord& record : held) counts.push_back(record.count);
  EXPECT_EQ(counts, (std::vector<std::uint64_t>{4, 1, 2}));
  EXPECT_EQ(index.at("20m").by_source.size(), 1u);
  EXPECT_EQ(index.at("20m").first_start, kNow - 45);
  EXPECT_EQ(index.at("20m").max_length, 15);
}

TEST(AddIntervals, RefusedOnesAloneLeaveOldMinutesAlone) {
  BandRateIndex index;
  addFt8(index, kNow - 100'000, 1);
  const SourceReport unfinished{"a", k20m, 15, {{kNow, 1}}};
  addIntervals(index, {&unfinished, 1}, kNow);
  addIntervals(index, {}, kNow);
  EXPECT_EQ(recordsOf(index, "20m"), 1u);
}

TEST(AddInterval, PrunesEveryBandFirst) {
  BandRateIndex index;
  addInterval(index, "a", 1, kNow - 89'100, kNow - 89'115, 15, k40m);
  addInterval(index, "a", 1, kNow, kNow - 15, 15, k20m);
  EXPECT_FALSE(index.contains("40m"));
  EXPECT_TRUE(index.contains("20m"));
}

TEST(PruneIndex, KeepsTheMinuteOfTheHorizonWhole) {
  BandRateIndex index;
  addFt8(index, kNow, 1);
  addFt8(index, kNow + 60, 1);
  pruneIndex(index, kNow + 59.5 + 89'100);  // the horizon lies within the first minute
  EXPECT_EQ(recordsOf(index, "20m"), 2u);
  pruneIndex(index, kNow + 60 + 89'100);
  EXPECT_EQ(recordsOf(index, "20m"), 1u);
}

TEST(PruneIndex, ABandKeepsItsFirstStartWhileItHasAMinute) {
  BandRateIndex index;
  addInterval(index, "a", 1, kNow, kNow - 120, 120, k20m);
  addFt8(index, kNow + 600, 1);
  pruneIndex(index, kNow + 600 + 89'100);
  ASSERT_EQ(recordsOf(index, "20m"), 1u);
  EXPECT_EQ(index.at("20m").first_start, kNow - 120);
  EXPECT_EQ(index.at("20m").max_length, 120);
}

TEST(PruneIndex, AnEmptyBandIsForgottenAndStartsAfresh) {
  BandRateIndex index;
  addInterval(index, "a", 1, kNow, kNow - 120, 120, k20m);
  pruneIndex(index, kNow + 2 * 89'100);
  EXPECT_TRUE(index.empty());
  addFt8(index, kNow + 2 * 89'100, 1);
  EXPECT_EQ(index.at("20m").first_start, kNow + 2 * 89'100);
  EXPECT_EQ(index.at("20m").max_length, 15);
}

TEST(PruneIndex, ATimeThatIsNotFiniteDropsNothing) {
  for (const double now : {std::nan(""), kInfinity, -kInfinity}) {
    BandRateIndex index;
    addFt8(index, kNow, 1);
    pruneIndex(index, now);
    EXPECT_EQ(recordsOf(index, "20m"), 1u) << now;
  }
}

TEST(PruneIndex, SourcesLeaveWithTheirLastInterval) {
  // A month of frequencies that are each heard once: what is held does not grow.
  BandRateIndex index;
  for (int minute = 0; minute < 30 * 1'440; ++minute) {
    const double start = kNow + minute * 60;
    const double in_band = 14'000'000 + minute;
    addInterval(index, channelKey("FT8", in_band), 1, start + 15, start, 15, in_band);
    if (minute % 720 != 0) continue;
    const double off_plan = 200'000'000 + minute;
    addInterval(index, channelKey("FT8", off_plan), 1, start + 15, start, 15, off_plan);
    ASSERT_LE(index.size(), 4u) << minute;
    ASSERT_LE(index.at("20m").by_source.size(), 1'487u) << minute;
  }
}

TEST(PruneIndex, ALongDayOfOneSourceLosesItsFrontOnly) {
  BandRateIndex index;
  for (int slot = 0; slot < 1'000; ++slot) addFt8(index, kNow + 15 * slot, 1);
  for (int minute = 0; minute < 250; ++minute) {
    pruneIndex(index, kNow + 60 * minute + 89'100);
    const auto held = index.at("20m").by_source.at("FT8/14.074000").held();
    ASSERT_EQ(held.size(), 1'000u - 4 * static_cast<std::size_t>(minute));
    ASSERT_EQ(held.front().start, kNow + 60 * minute);
  }
}

// Beyond what can be counted in whole seconds all starts are one.
TEST(SourceIntervals, StartsBeyondAllCountAreOneInterval) {
  const struct {
    double earlier, later;
  } cases[] = {{1e300, 2e300}, {-2e300, -1e300}, {0x1p70, kLargest}, {-kLargest, -0x1p70}};
  for (const auto& c : cases) {
    SourceIntervals source;
    source.add({c.earlier, c.earlier, 1});
    source.add({c.later, c.later, 2});
    ASSERT_EQ(source.held().size(), 1u) << c.earlier;
    EXPECT_EQ(source.held().front().count, 1u) << c.earlier;
  }
}

// Where the view begins in memory tells.
TEST(SourceIntervals, TheRestMovesToTheFrontWhenMoreThanAnEighthWasDropped) {
  SourceIntervals source;
  for (int minute = 0; minute < 800; ++minute) source.add({60.0 * minute, 60.0 * minute + 15, 1});
  const IntervalRecord* const front = source.held().data();
  source.dropBefore(100);
  EXPECT_EQ(source.held().data(), front + 100);
  source.dropBefore(101);
  EXPECT_EQ(source.held().data(), front);
  EXPECT_EQ(source.held().front().start, 60 * 101);
  EXPECT_EQ(source.held().size(), 699u);
}

}  // namespace
}  // namespace launcher
