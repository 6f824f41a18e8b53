#include "api/activity.hpp"

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "api/activity_reference.hpp"
#include "api/band_plan.hpp"
#include "failing_memory.hpp"
#include "spots/mode.hpp"

namespace spotserver {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr double kNow = 1'763'175'600;  // a whole minute
constexpr double k20m = 14'074'000;
constexpr double k40m = 7'074'000;
constexpr double kInfinity = std::numeric_limits<double>::infinity();

void addSpots(SpotData& data, double time, double frequency, int mode, int count) {
  for (int i = 0; i < count; ++i) {
    data.spots.append({time, frequency, mode, launcher::bandForFrequency(frequency).id, ""});
  }
}

std::vector<std::string> bandIds(const ActivitySnapshot& snapshot) {
  std::vector<std::string> ids;
  for (const BandView& band : snapshot.bands) ids.push_back(band.id);
  return ids;
}

TEST(BuildActivity, AnEmptyStoreIsAnEmptyAnswer) {
  const ActivitySnapshot snapshot = buildActivity(SpotData{}, 6, 3, kNow);
  EXPECT_EQ(snapshot.generated, kNow);
  EXPECT_EQ(text(snapshot), "live 6 3 0 0 0");
}

TEST(BuildActivity, OneSlotIsOneIntervalOfItsDecodes) {
  SpotData data;
  addSpots(data, kNow - 15, k20m, kFt8, 12);
  for (int i = 0; i < 9; ++i) recordCallsign(data, "N" + std::to_string(i), "20m", kNow - 15);
  const ActivitySnapshot snapshot = buildActivity(data, 1, 3, kNow);
  EXPECT_EQ(snapshot.generated, kNow);
  EXPECT_EQ(snapshot.mode, "live");
  EXPECT_EQ(snapshot.hours, 1);
  EXPECT_EQ(snapshot.smoothing, 3);
  EXPECT_EQ(snapshot.window_spots, 12u);
  EXPECT_EQ(snapshot.window_intervals, 1u);
  EXPECT_EQ(snapshot.window_unique_callsigns, 9u);
  ASSERT_EQ(snapshot.bands.size(), 1u);
  const BandView& band = snapshot.bands[0];
  EXPECT_EQ(band.id, "20m");
  EXPECT_EQ(band.color, "#f2c40c");
  EXPECT_EQ(band.rate_now, 2880);
  EXPECT_EQ(band.spots, 12u);
  EXPECT_EQ(band.intervals, 1u);
  EXPECT_EQ(band.unique_callsigns, 9u);
  ASSERT_EQ(band.points.size(), 61u);
  EXPECT_EQ(band.points[0].t, kNow - 3600);
  EXPECT_EQ(band.points[0].rate, std::nullopt);
  EXPECT_EQ(band.points[59].rate, std::nullopt);
  EXPECT_EQ(band.points[60].t, kNow);
  EXPECT_EQ(band.points[60].rate, 2880);
}

TEST(BuildActivity, TheSameDecodesOnTwoDialFrequenciesAreTwoIntervals) {
  SpotData data;
  addSpots(data, kNow - 15, k20m, kFt8, 4);
  addSpots(data, kNow - 15, k20m + 6000, kFt8, 6);
  const ActivitySnapshot snapshot = buildActivity(data, 1, 3, kNow);
  EXPECT_EQ(snapshot.window_spots, 10u);
  EXPECT_EQ(snapshot.window_intervals, 2u);
  EXPECT_EQ(snapshot.bands.at(0).rate_now, 10 * 3600 / 15);
}

TEST(BuildActivity, ModesAndTimesTellIntervalsApart) {
  SpotData data;
  addSpots(data, kNow - 30, k20m, kFt8, 1);
  addSpots(data, kNow - 30, k20m, kJs8, 2);
  addSpots(data, kNow - 15, k20m, kFt8, 3);
  addSpots(data, kNow - 30, k20m, kFt8, 4);
  const ActivitySnapshot snapshot = buildActivity(data, 1, 3, kNow);
  EXPECT_EQ(snapshot.window_spots, 10u);
  EXPECT_EQ(snapshot.window_intervals, 3u);
  EXPECT_EQ(snapshot.bands.at(0).rate_now, 10 * 3600 / 30);
}

TEST(BuildActivity, EachModeHasItsSlotLength) {
  // The band begins with its only slot, which ends now: the rate is one decode a slot.
  for (const int mode : {-1, 0, 1, 2, 3, 4, 5, 6, 7}) {
    SpotData data;
    addSpots(data, kNow - slotSeconds(mode), k20m, mode, 1);
    const ActivitySnapshot snapshot = buildActivity(data, 1, 3, kNow);
    EXPECT_EQ(snapshot.bands.at(0).rate_now, 3600 / slotSeconds(mode)) << modeName(mode);
  }
}

TEST(BuildActivity, SpotsWithinOneSecondOfAChannelAreSeveralIntervalsButOneRate) {
  SpotData data;
  addSpots(data, kNow - 30, k20m, kFt8, 2);
  addSpots(data, kNow - 29.5, k20m, kFt8, 5);
  const ActivitySnapshot snapshot = buildActivity(data, 1, 3, kNow);
  EXPECT_EQ(snapshot.window_spots, 7u);
  EXPECT_EQ(snapshot.window_intervals, 2u);
  EXPECT_EQ(snapshot.bands.at(0).rate_now, 2 * 3600 / 30);  // the earlier one stays
}

TEST(BuildActivity, ChannelsCloserThanTheirTextRateByTheLowerFrequency) {
  // Half a hertz reads the same in MHz with six decimals: both are intervals, the first one rates.
  SpotData data;
  addSpots(data, kNow - 15, k20m + 0.25, kFt8, 5);
  addSpots(data, kNow - 15, k20m, kFt8, 2);
  const ActivitySnapshot snapshot = buildActivity(data, 1, 3, kNow);
  EXPECT_EQ(snapshot.window_spots, 7u);
  EXPECT_EQ(snapshot.window_intervals, 2u);
  EXPECT_EQ(snapshot.bands.at(0).rate_now, 2 * 3600 / 15);
}

// A log may say 1e303 MHz, which is no number of hertz.
TEST(BuildActivity, AFrequencyThatIsNoNumberIsCountedButDoesNotRate) {
  for (const double frequency : {kInfinity, -kInfinity}) {
    SpotData data;
    addSpots(data, kNow - 30, frequency, kFt8, 2);
    addSpots(data, kNow - 15, k20m, kFt8, 12);
    const ActivitySnapshot snapshot = buildActivity(data, 1, 3, kNow);
    EXPECT_EQ(snapshot.window_intervals, 2u);
    ASSERT_EQ(snapshot.bands.size(), 2u);
    for (const BandView& band : snapshot.bands) {
      EXPECT_EQ(band.rate_now.has_value(), band.id == "20m") << band.id;
      EXPECT_EQ(band.points.back().rate, band.rate_now) << band.id;
      EXPECT_EQ(band.intervals, 1u) << band.id;
    }
  }
}

TEST(BuildActivity, TheWindowIncludesBothItsEnds) {
  const struct {
    const char* name;
    double time;
    bool counted;
  } cases[] = {{"just before the window", kNow - 3600.5, false},
               {"at its beginning", kNow - 3600, true},
               {"now", kNow, true},
               {"after now", kNow + 0.5, false}};
  for (const auto& c : cases) {
    SpotData data;
    addSpots(data, c.time, k20m, kFt8, 2);
    const ActivitySnapshot snapshot = buildActivity(data, 1, 3, kNow);
    EXPECT_EQ(snapshot.window_spots, c.counted ? 2u : 0u) << c.name;
    EXPECT_EQ(snapshot.window_intervals, c.counted ? 1u : 0u) << c.name;
    EXPECT_EQ(snapshot.bands.size(), c.counted ? 1u : 0u) << c.name;
  }
}

TEST(BuildActivity, WindowsAreOneSixAndTwentyFourHours) {
  SpotData data;
  for (const int hours : {1, 6, 24}) addSpots(data, kNow - hours * 3600, k20m, kFt8, 1);
  EXPECT_EQ(buildActivity(data, 1, 3, kNow).window_spots, 1u);
  EXPECT_EQ(buildActivity(data, 6, 3, kNow).window_spots, 2u);
  EXPECT_EQ(buildActivity(data, 24, 3, kNow).window_spots, 3u);
}

TEST(BuildActivity, ABandHeardOnlyBeforeTheWindowIsNotListed) {
  SpotData data;
  addSpots(data, kNow - 3600 - 15, k20m, kFt8, 5);
  addSpots(data, kNow - 15, k40m, kFt8, 1);
  recordCallsign(data, "N0CALL", "20m", kNow - 3600 - 15);
  const ActivitySnapshot snapshot = buildActivity(data, 1, 3, kNow);
  EXPECT_THAT(bandIds(snapshot), ElementsAre("40m"));
  EXPECT_EQ(snapshot.window_spots, 1u);
  EXPECT_EQ(snapshot.window_unique_callsigns, 0u);
}

TEST(BuildActivity, TheFirstPointsSeeAWholeSmoothingWindowAndASlot) {
  // For smoothing 3: everything from 300 s before the window on enters the curve.
  SpotData data;
  addSpots(data, kNow - 3600 - 300.5, k20m, kFt8, 100);  // too early
  addSpots(data, kNow - 3600 - 300, k20m, kFt8, 1);
  addSpots(data, kNow - 3600 - 15, k20m, kFt8, 6);
  addSpots(data, kNow - 15, k20m, kFt8, 1);  // lists the band
  const ActivitySnapshot snapshot = buildActivity(data, 1, 3, kNow);
  ASSERT_EQ(snapshot.bands.size(), 1u);
  EXPECT_EQ(snapshot.bands[0].spots, 1u);
  // The slot 300 s back makes the band old enough for a whole window of 180 s.
  EXPECT_EQ(snapshot.bands[0].points[0].rate, 6.0 * 3600 / 180);

  SpotData younger;
  addSpots(younger, kNow - 3600 - 300.5, k20m, kFt8, 100);
  addSpots(younger, kNow - 3600 - 15, k20m, kFt8, 6);
  addSpots(younger, kNow - 15, k20m, kFt8, 1);
  EXPECT_EQ(buildActivity(younger, 1, 3, kNow).bands.at(0).points[0].rate, 6.0 * 3600 / 15);
}

TEST(BuildActivity, AnUnfinishedIntervalCountsButDoesNotRate) {
  SpotData data;
  addSpots(data, kNow - 30, k20m, kFt8, 3);
  addSpots(data, kNow - 13.5, k20m, kFt8, 50);  // ends at now + 1.5
  const ActivitySnapshot snapshot = buildActivity(data, 1, 3, kNow);
  EXPECT_EQ(snapshot.window_spots, 53u);
  EXPECT_EQ(snapshot.window_intervals, 2u);
  EXPECT_EQ(snapshot.bands.at(0).rate_now, 3 * 3600 / 30);

  const ActivitySnapshot later = buildActivity(data, 1, 3, kNow + 2);
  EXPECT_EQ(later.bands.at(0).rate_now, 53.0 * 3600 / 32);
}

TEST(BuildActivity, ABandWithOnlyAnUnfinishedIntervalIsListedWithoutARate) {
  SpotData data;
  addSpots(data, kNow, k20m, kFt8, 3);
  const ActivitySnapshot snapshot = buildActivity(data, 1, 3, kNow);
  ASSERT_EQ(snapshot.bands.size(), 1u);
  EXPECT_EQ(snapshot.bands[0].spots, 3u);
  EXPECT_EQ(snapshot.bands[0].rate_now, std::nullopt);
  EXPECT_EQ(snapshot.bands[0].points.size(), 61u);
}

TEST(BuildActivity, BandsStandInPlanOrderAndOffPlanOnesBehindByTheirText) {
  SpotData data;
  for (const double frequency : {432'174'000.0, 2'200'000.0, 1'840'000.0, 13'500'000.0,
                                 100'000'000.0, 50'313'000.0, 9'000'000.0, k20m, 144'174'000.0}) {
    addSpots(data, kNow - 15, frequency, kFt8, 1);
  }
  const ActivitySnapshot snapshot = buildActivity(data, 1, 3, kNow);
  EXPECT_THAT(bandIds(snapshot), ElementsAre("160m", "20m", "6m", "2m", "70cm", "100.000000 MHz",
                                             "13.500000 MHz", "2.200000 MHz", "9.000000 MHz"));
  EXPECT_EQ(snapshot.bands[4].color, "#999900");
  EXPECT_EQ(snapshot.bands[5].color, "#63b6ee");
  EXPECT_EQ(snapshot.bands[5].rate_now, 240);
}

TEST(BuildActivity, CallsignsCountFromTheBeginningOfTheWindow) {
  SpotData data;
  addSpots(data, kNow - 15, k20m, kFt8, 1);
  addSpots(data, kNow - 15, k40m, kFt8, 1);
  addSpots(data, kNow - 15, 50'313'000, kFt8, 1);
  recordCallsign(data, "N0OLD", "20m", kNow - 3600.5);
  recordCallsign(data, "N0EDGE", "20m", kNow - 3600);
  recordCallsign(data, "N0NEW", "20m", kNow);
  recordCallsign(data, "N0NEW", "40m", kNow);
  recordCallsign(data, "N0ELSE", "15m", kNow);
  const ActivitySnapshot snapshot = buildActivity(data, 1, 3, kNow);
  ASSERT_THAT(bandIds(snapshot), ElementsAre("40m", "20m", "6m"));
  EXPECT_EQ(snapshot.window_unique_callsigns, 3u);
  EXPECT_EQ(snapshot.bands[0].unique_callsigns, 1u);
  EXPECT_EQ(snapshot.bands[1].unique_callsigns, 2u);
  EXPECT_EQ(snapshot.bands[2].unique_callsigns, 0u);  // nobody on record for the band
}

TEST(BuildActivity, TheHistoryIsTheSourceWhileInUse) {
  SpotData data;
  data.history_in_use = true;
  data.intervals = {{kNow - 30, "20m", 0}, {kNow - 15, "20m", 12}, {kNow - 15, "13.500000 MHz", 1}};
  launcher::addInterval(data.rates, "FT8/14.074000", 12, kNow, kNow - 15, 15, k20m);
  addSpots(data, kNow - 15, k40m, kFt8, 100);
  recordCallsign(data, "N0CALL", "20m", kNow);
  const ActivitySnapshot snapshot = buildActivity(data, 6, 3, kNow);
  EXPECT_EQ(snapshot.mode, "live");
  ASSERT_THAT(bandIds(snapshot), ElementsAre("20m", "13.500000 MHz"));
  EXPECT_EQ(snapshot.window_spots, 13u);
  EXPECT_EQ(snapshot.window_intervals, 3u);
  EXPECT_EQ(snapshot.bands[0].spots, 12u);
  EXPECT_EQ(snapshot.bands[0].intervals, 2u);
  EXPECT_EQ(snapshot.bands[0].unique_callsigns, 1u);
  EXPECT_EQ(snapshot.bands[0].rate_now, 2880);
  EXPECT_EQ(snapshot.bands[0].points.back().rate, 2880);
  EXPECT_EQ(snapshot.bands[1].color, "#63b6ee");
  EXPECT_EQ(snapshot.bands[1].rate_now, std::nullopt);  // not in the index
}

TEST(BuildActivity, TheHistoryWindowIncludesBothItsEnds) {
  const struct {
    const char* name;
    double start;
    bool counted;
  } cases[] = {{"just before the window", kNow - 3600.5, false},
               {"at its beginning", kNow - 3600, true},
               {"now", kNow, true},
               {"after now", kNow + 0.5, false}};
  for (const auto& c : cases) {
    SpotData data;
    data.history_in_use = true;
    data.intervals = {{c.start, "20m", 7}};
    const ActivitySnapshot snapshot = buildActivity(data, 1, 3, kNow);
    EXPECT_EQ(snapshot.window_spots, c.counted ? 7u : 0u) << c.name;
    EXPECT_EQ(snapshot.window_intervals, c.counted ? 1u : 0u) << c.name;
    EXPECT_EQ(snapshot.bands.size(), c.counted ? 1u : 0u) << c.name;
  }
}

TEST(BuildActivity, TheLogIsTheSourceWhileTheHistoryIsNotInUse) {
  SpotData data;
  data.intervals = {{kNow - 15, "20m", 12}};
  launcher::addInterval(data.rates, "FT8/14.074000", 12, kNow, kNow - 15, 15, k20m);
  addSpots(data, kNow - 15, k40m, kFt8, 3);
  const ActivitySnapshot snapshot = buildActivity(data, 6, 3, kNow);
  EXPECT_THAT(bandIds(snapshot), ElementsAre("40m"));
  EXPECT_EQ(snapshot.window_spots, 3u);
}

TEST(BuildActivity, ADemonstrationNeverLooksAtTheHistory) {
  SpotData data;
  data.demo = true;
  data.history_in_use = true;
  data.intervals = {{kNow - 15, "20m", 12}};
  addSpots(data, kNow - 15, k40m, kFt8, 3);
  const ActivitySnapshot snapshot = buildActivity(data, 6, 3, kNow);
  EXPECT_EQ(snapshot.mode, "demo");
  EXPECT_THAT(bandIds(snapshot), ElementsAre("40m"));
}

TEST(BuildActivity, OtherViewsThanTheAllowedAreInvalid) {
  SpotData data;
  addSpots(data, kNow - 15, k20m, kFt8, 1);
  EXPECT_THROW(buildActivity(data, 2, 3, kNow), std::invalid_argument);
  EXPECT_THROW(buildActivity(data, 6, 0, kNow), std::invalid_argument);
  EXPECT_THROW(buildActivity(data, 6, 41, kNow), std::invalid_argument);
  EXPECT_NO_THROW(buildActivity(data, 6, 40, kNow));
}

// A day of the two channels, an interval every `step` seconds; from the log or from the history.
SpotData dayOfTwoChannels(bool from_history, int step) {
  SpotData data;
  std::vector<launcher::SourceReport> reports;
  for (const double frequency : {k20m, k40m}) {
    reports.push_back({launcher::channelKey("FT8", frequency), frequency, 15, {}});
  }
  for (double time = kNow - 86'400; time < kNow - 15; time += step) {
    for (launcher::SourceReport& report : reports) {
      if (!from_history) addSpots(data, time, report.frequency_hz, kFt8, 1);
      report.slots.push_back({time, 1});
      data.intervals.push_back({time, launcher::bandForFrequency(report.frequency_hz).id, 1});
    }
  }
  data.history_in_use = from_history;
  if (from_history) launcher::addIntervals(data.rates, reports, kNow);
  return data;
}

TEST(BuildActivity, TakesPiecesOfMemoryByBandsAndNotByIntervals) {
  for (const bool from_history : {false, true}) {
    const auto taken = [from_history](int step) {
      const SpotData data = dayOfTwoChannels(from_history, step);
      const long before = FailingMemory::taken();
      buildActivity(data, 24, 3, kNow);
      return FailingMemory::taken() - before;
    };
    const long few = taken(3600);
    EXPECT_LE(few, 40) << from_history;
    EXPECT_EQ(taken(15), few) << from_history;
  }
}

TEST(BuildActivity, LeavesTheCacheAlone) {
  SpotData data;
  addSpots(data, kNow - 15, k20m, kFt8, 1);
  buildActivity(data, 6, 3, kNow);
  EXPECT_THAT(data.cache, IsEmpty());
}

// A random day, and its counts and curves by both ways. A tidy one is as decoders write it: in
// order, every slot where its mode has one, channels well apart.
void expectPlainCounts(unsigned seed, bool tidy, std::span<const double> frequencies) {
  std::mt19937_64 random(seed);
  const auto draw = [&](int below) { return static_cast<int>(random() % unsigned(below)); };
  SpotData data;
  std::vector<ParsedSpot> spots;
  const int hours = seed % 3 == 0 ? 1 : seed % 3 == 1 ? 6 : 24;
  const int smoothing = 1 + 2 * draw(3);
  const double now = kNow + draw(60);
  const double reach = hours * 3600.0 + 600;
  const int slots = draw(150);
  for (int slot = 0; slot < slots; ++slot) {
    const double ago = draw(2) == 0 ? draw(40) * 7.5 : std::floor(reach * draw(1000) / 1000);
    const int mode = draw(9);
    double time = kNow + 30 - ago + draw(3) * 0.25;
    if (tidy) time = std::floor(time / slotSeconds(mode)) * slotSeconds(mode);
    const double frequency = frequencies[static_cast<std::size_t>(draw(int(frequencies.size())))];
    for (int i = draw(6); i >= 0; --i) {
      const std::string band = launcher::bandForFrequency(frequency).id;
      const std::string callsign = "N" + std::to_string(draw(30));
      spots.push_back({time, frequency, mode, band, callsign});
      recordCallsign(data, callsign, band, time);
    }
  }
  const auto earlier = [](const ParsedSpot& a, const ParsedSpot& b) { return a.time < b.time; };
  if (tidy) std::stable_sort(spots.begin(), spots.end(), earlier);
  if (!tidy) std::shuffle(spots.begin(), spots.end(), random);
  for (const ParsedSpot& spot : spots) data.spots.append(spot);
  ASSERT_EQ(text(buildActivity(data, hours, smoothing, now)),
            PlainActivity(spots, data, hours, smoothing, now).text())
      << "seed " << seed;
}

TEST(BuildActivity, AgreesWithPlainCountingOverRandomDays) {
  // Some lie closer than a name tells, on both sides of a band's end, too; and two are no numbers.
  constexpr double kFrequencies[] = {k20m,          k20m + 6000, k40m,         13'500'000,
                                     2'200'000,     50'313'000,  14'349'999.8, 14'350'000,
                                     14'350'000.25, k40m + 0.25, k40m - 0.25,  13'500'000.3,
                                     0.0,           -0.0,        kInfinity,    -kInfinity};
  for (unsigned seed = 0; seed < 150; ++seed) expectPlainCounts(seed, false, kFrequencies);
}

TEST(BuildActivity, AgreesWithPlainCountingOverRandomDaysOfADecoder) {
  constexpr double kFrequencies[] = {k20m, k20m + 6000, k40m, 13'500'000, 50'313'000};
  for (unsigned seed = 0; seed < 300; ++seed) expectPlainCounts(seed, true, kFrequencies);
}

TEST(BuildActivity, ASlotLongerThanTheSmoothingWidensTheWindowOfItsBand) {
  // Heard first is a short slot; the WSPR slot ends 100 s ago, beyond the smoothing of a minute.
  SpotData data;
  addSpots(data, kNow - 900, k20m, kFt8, 1);
  addSpots(data, kNow - 220, k20m, kWspr, 3);
  const ActivitySnapshot snapshot = buildActivity(data, 1, 1, kNow);
  EXPECT_EQ(snapshot.bands.at(0).rate_now, 3 * 3600 / 120.0);
}

}  // namespace
}  // namespace spotserver
