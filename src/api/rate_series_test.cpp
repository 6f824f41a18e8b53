#include "api/rate_series.hpp"

#include <cmath>
#include <limits>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "api/band_plan.hpp"
#include "api/rate_index.hpp"
#include "api/rate_series_reference.hpp"
#include "file_facts.hpp"
#include "heard_intervals.hpp"

namespace launcher {
namespace {

using spotserver::errorOf;

TEST(RateAt, ABandJustHeardIsNotDiluted) {
  BandRateIndex index;
  addFt8(index, kNow - 15, 12);
  EXPECT_EQ(rateAt(index, "20m", 3, kNow), 2880);
}

TEST(RateAt, AQuietBandIsAGapAfterSeventyFiveSeconds) {
  BandRateIndex index;
  addFt8(index, kNow - 15, 12);
  EXPECT_EQ(rateAt(index, "20m", 3, kNow + 75), 12.0 * 3600 / 90);
  EXPECT_EQ(rateAt(index, "20m", 3, kNow + 75.5), std::nullopt);
  EXPECT_EQ(rateAt(index, "20m", 5, kNow + 200), std::nullopt);
}

TEST(RateAt, LongIntervalsStayFreshForTheirLengthAndFifteenSeconds) {
  BandRateIndex index;
  addInterval(index, "WSPR/14.095600", 4, kNow, kNow - 120, 120, k20m);
  EXPECT_EQ(rateAt(index, "20m", 5, kNow + 135), 4.0 * 3600 / 255);
  EXPECT_EQ(rateAt(index, "20m", 5, kNow + 135.5), std::nullopt);
}

TEST(RateAt, TheWindowIsOpenAtItsBeginningAndClosedAtItsEnd) {
  BandRateIndex index;
  addFt8(index, kNow - 600, 1000);      // so that the band is older than the window
  addFt8(index, kNow - 180 - 15, 100);  // ends exactly at the beginning of the window
  addFt8(index, kNow - 165 - 15, 7);    // ends inside
  addFt8(index, kNow - 15, 12);         // ends exactly at t
  addInterval(index, "FT8/14.074000", 50, kNow + 1, kNow - 14, 15, k20m);  // ends after t
  EXPECT_EQ(rateAt(index, "20m", 3, kNow), 19.0 * 3600 / 180);
}

TEST(RateAt, AWsprBandIsAveragedOverItsSlotAtLeast) {
  BandRateIndex index;
  addInterval(index, "w", 6, kNow - 120, kNow - 240, 120, k20m);
  addInterval(index, "w", 4, kNow, kNow - 120, 120, k20m);
  EXPECT_EQ(rateAt(index, "20m", 1, kNow), 4.0 * 3600 / 120);
  EXPECT_EQ(rateAt(index, "20m", 3, kNow), 10.0 * 3600 / 180);
}

TEST(RateAt, LongIntervalsThatStartFarBeforeTheWindowCount) {
  // Starts 119.5 s before the window opens, ends just inside it.
  BandRateIndex index;
  addInterval(index, "w", 6, kNow, kNow - 179.5 - 60, 120, k20m);
  addInterval(index, "a", 1, kNow, kNow - 15, 15, k20m);
  EXPECT_EQ(rateAt(index, "20m", 1, kNow), 7.0 * 3600 / 120);
}

TEST(RateAt, ASlotWithoutDecodesIsAZeroNotAGap) {
  BandRateIndex index;
  addFt8(index, kNow - 15, 0);
  EXPECT_EQ(rateAt(index, "20m", 3, kNow), 0);
}

TEST(RateAt, UnknownBandsAndTimesThatAreNotFiniteAreEmpty) {
  BandRateIndex index;
  addFt8(index, kNow - 15, 1);
  EXPECT_EQ(rateAt(index, "40m", 3, kNow), std::nullopt);
  EXPECT_EQ(rateAt(index, "", 3, kNow), std::nullopt);
  EXPECT_EQ(rateAt(index, "20M", 3, kNow), std::nullopt);
  EXPECT_EQ(rateAt(index, "20m", 3, std::nan("")), std::nullopt);
  EXPECT_EQ(rateAt(index, "20m", 3, kInfinity), std::nullopt);
  EXPECT_EQ(rateAt(index, "20m", 3, -kInfinity), std::nullopt);
}

TEST(RateAt, ABandWithoutIntervalsIsEmpty) {
  BandRateIndex index;
  index.try_emplace("20m", BandRateEntry{kNow - 15, 15, {}});
  EXPECT_EQ(rateAt(index, "20m", 3, kNow), std::nullopt);
}

TEST(RateAt, BeforeTheBandWasHeardThereIsNothing) {
  BandRateIndex index;
  addFt8(index, kNow, 12);
  EXPECT_EQ(rateAt(index, "20m", 3, kNow + 14), std::nullopt);
  EXPECT_EQ(rateAt(index, "20m", 3, kNow - 60), std::nullopt);
}

TEST(RateAt, AWindowOfNoLengthIsEmpty) {
  // Where doubles are 64 s apart a 15 s interval ends as it starts.
  const double far = 0x1p58;
  BandRateIndex index;
  addInterval(index, "a", 1, far, far, 15, k20m);
  ASSERT_EQ(recordsOf(index, "20m"), 1u);
  EXPECT_EQ(rateAt(index, "20m", 3, far), std::nullopt);
}

TEST(RateAt, SmoothingIsOneToFortyMinutes) {
  BandRateIndex index;
  addFt8(index, kNow - 15, 1);
  for (const int smoothing :
       {0, 41, -1, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()}) {
    for (const char* band : {"20m", "no such band"}) {
      EXPECT_EQ(errorOf([&] { rateAt(index, band, smoothing, kNow); }),
                "Smoothing must be 1..40 minutes")
          << smoothing << " " << band;
    }
  }
  EXPECT_EQ(rateAt(index, "20m", 1, kNow), 240);
  EXPECT_EQ(rateAt(index, "20m", 40, kNow), 240);
}

TEST(RateAt, CountsAddUpInSixtyFourBits) {
  BandRateIndex index;
  const std::uint64_t large = std::uint64_t{1} << 62;
  addFt8(index, kNow - 3600, 0);
  addFt8(index, kNow - 45, large);
  addFt8(index, kNow - 30, large);
  addFt8(index, kNow - 15, large);
  EXPECT_EQ(rateAt(index, "20m", 3, kNow), 3 * 0x1p62 * 3600 / 180);
}

TEST(RateSeries, TimesBeyondAllSenseAreHarmless) {
  for (const double t : {1e19, 0x1p63 * 60, 1e22, 1e100, kLargest}) {
    for (const double now : {t, -t}) {
      BandRateIndex index;
      addInterval(index, "a", 1, now, now, 15, k20m);
      EXPECT_EQ(recordsOf(index, "20m"), 1u) << now;
      EXPECT_EQ(rateAt(index, "20m", 3, now), std::nullopt) << now;
      addInterval(index, "b", 1, 0, -20, 15, k40m);
      pruneIndex(index, 0);
      EXPECT_EQ(index.contains("20m"), now > 0) << now;
      EXPECT_TRUE(index.contains("40m")) << now;
      EXPECT_LE(bandSeries(index, "40m", 3, 1, now).size(), 61u) << now;
    }
  }
}

TEST(BandSeries, HasAPointAMinuteAndEndsNow) {
  const struct {
    int hours;
    std::size_t points;
  } cases[] = {{1, 61}, {6, 361}, {24, 1441}};
  const BandRateIndex index;
  for (const auto& c : cases) {
    const std::vector<RatePoint> points = bandSeries(index, "20m", 3, c.hours, kNow + 17);
    ASSERT_EQ(points.size(), c.points) << c.hours;
    EXPECT_EQ(points.front().t, kNow + 17 - c.hours * 3600) << c.hours;
    EXPECT_EQ(points.back().t, kNow + 17) << c.hours;
    EXPECT_EQ(points.capacity(), c.points) << "and no room to spare";
    for (std::size_t i = 1; i < points.size(); ++i) {
      ASSERT_EQ(points[i].t - points[i - 1].t, 60) << c.hours << " " << i;
    }
  }
}

TEST(BandSeries, EveryPointIsTheRateThen) {
  BandRateIndex index;
  for (int slot = 240; slot > 40; --slot) addFt8(index, kNow - 15 * slot, 3);
  addFt8(index, kNow - 15, 12);
  const std::vector<RatePoint> points = bandSeries(index, "20m", 5, 1, kNow);
  for (const RatePoint& point : points) {
    EXPECT_EQ(point.rate, rateAt(index, "20m", 5, point.t)) << point.t;
  }
  EXPECT_EQ(points[0].rate, std::nullopt);  // the band's first slot begins here
  EXPECT_EQ(points[1].rate, 720);
  EXPECT_EQ(points[30].rate, 720);
  EXPECT_EQ(points[55].rate, std::nullopt);  // quiet
  EXPECT_EQ(points[60].rate, 12.0 * 3600 / 300);
}

// Sources of several lengths on two bands, each in order, some with an unfinished end; interval by
// interval into the sweep and as reports into the index.
TEST(CurveSweep, DrawsWhatAnIndexOfTheSameIntervalsDraws) {
  std::mt19937 random(7);
  for (int day = 0; day < 60; ++day) {
    const int hours = std::vector{1, 6, 24}[random() % 3];
    const int smoothing = std::vector{1, 3, 5, 40}[random() % 4];
    CurveSweep sweep(smoothing, hours, kNow);
    std::vector<SourceReport> reports;
    for (unsigned source = 0; source < 1 + random() % 4; ++source) {
      const double length = std::vector{7.5, 15.0, 120.0}[random() % 3];
      reports.push_back({std::to_string(source), random() % 2 == 0 ? k20m : k40m, length, {}});
      double time = kNow - static_cast<double>(random() % 88'000);
      for (; time < kNow; time += length * static_cast<double>(1 + random() % 50)) {
        reports.back().slots.push_back({time, random() % 30});
      }
    }
    for (const SourceReport& report : reports) {
      const auto band = bandForFrequency(report.frequency_hz).id;
      sweep.addSource(band, report.length_s, report.slots.front().start);
    }
    for (std::size_t source = 0; source < reports.size(); ++source) {
      for (const SlotCount& slot : reports[source].slots) sweep.add(source, slot.start, slot.count);
    }
    sweep.finish();
    BandRateIndex index;
    addIntervals(index, reports, kNow);
    for (const char* band : {"20m", "40m", "10m"}) {
      const auto expected = bandSeries(index, band, smoothing, hours, kNow);
      const auto drawn = sweep.curve(band);
      ASSERT_EQ(drawn.size(), expected.size());
      for (std::size_t i = 0; i < drawn.size(); ++i) {
        ASSERT_EQ(drawn[i].t, expected[i].t) << day << band << i;
        ASSERT_EQ(drawn[i].rate, expected[i].rate) << day << band << i;
      }
    }
  }
}

TEST(CurveSweep, ASourceWhoseFirstIntervalIsRefusedIsLeftOut) {
  CurveSweep sweep(3, 24, kNow);
  const auto refused = sweep.addSource("20m", 15, kNow - 90'000);
  const auto good = sweep.addSource("40m", 15, kNow - 30);
  sweep.add(refused, kNow - 15, 5);
  sweep.add(good, kNow - 30, 12);
  sweep.finish();
  EXPECT_EQ(sweep.curve("20m").back().rate, std::nullopt);
  EXPECT_EQ(sweep.curve("40m").back().rate, 1440);
}

TEST(CurveSweep, ASourceWithoutIntervalsHasNoRates) {
  CurveSweep sweep(3, 1, kNow);
  sweep.addSource("20m", 15, kNow - 30);
  sweep.finish();
  for (const RatePoint& point : sweep.curve("20m")) EXPECT_EQ(point.rate, std::nullopt);
}

TEST(CurveSweep, RefusesTheViewsThatASeriesRefuses) {
  EXPECT_THROW(CurveSweep(3, 2, kNow), std::invalid_argument);
  EXPECT_THROW(CurveSweep(0, 24, kNow), std::invalid_argument);
  EXPECT_THROW(CurveSweep(41, 24, kNow), std::invalid_argument);
}

TEST(BandSeries, HoursAreOneSixOrTwentyFour) {
  const BandRateIndex index;
  for (const int hours : {0, 2, 12, 23, 25, -1, -24, std::numeric_limits<int>::max()}) {
    for (const int smoothing : {3, 0}) {
      EXPECT_EQ(errorOf([&] { bandSeries(index, "20m", smoothing, hours, kNow); }),
                "History view must be 1, 6 or 24 hours")
          << hours << " " << smoothing;
    }
  }
}

TEST(BandSeries, SmoothingIsOneToFortyMinutes) {
  const BandRateIndex index;
  for (const int smoothing : {0, 41}) {
    EXPECT_EQ(errorOf([&] { bandSeries(index, "no such band", smoothing, 6, kNow); }),
              "Smoothing must be 1..40 minutes")
        << smoothing;
  }
}

TEST(BandSeries, ATimeThatIsNotFiniteIsOnePointWithoutARate) {
  BandRateIndex index;
  addFt8(index, kNow - 15, 1);
  for (const double now : {std::nan(""), kInfinity, -kInfinity}) {
    const std::vector<RatePoint> points = bandSeries(index, "20m", 3, 1, now);
    ASSERT_EQ(points.size(), 1u) << now;
    EXPECT_EQ(points[0].rate, std::nullopt) << now;
  }
}

TEST(RateSeries, AgreesWithAFlatListOverRandomScripts) {
  for (unsigned seed = 0; seed < 1000; ++seed) {
    std::mt19937_64 random(seed);
    std::vector<std::uint8_t> script(50 + random() % 1200);
    for (auto& byte : script) byte = static_cast<std::uint8_t>(random());
    ASSERT_EQ(RateScript(script).run(), "") << "seed " << seed;
  }
}

}  // namespace
}  // namespace launcher
