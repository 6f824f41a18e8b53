#include "history/demo_data.hpp"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <map>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "spots/heard_callsigns_reference.hpp"
#include "spots/mode.hpp"
#include "spots/refresh.hpp"
#include "temp_dir.hpp"

namespace spotserver {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr double kNow = 1'760'000'000;  // 2025-10-09 08:53:20 UTC
constexpr double kInfinity = std::numeric_limits<double>::infinity();

SpotData demoDay(double now = kNow) {
  SpotData data;
  generateDemoSpots(data, now);
  return data;
}

// In the order they are held.
std::vector<ParsedSpot> spotsOf(const SpotData& data) {
  std::vector<ParsedSpot> spots;
  data.spots.forEach(-kInfinity, kInfinity, [&](const ParsedSpot& spot) { spots.push_back(spot); });
  return spots;
}

// One line a spot, ordered by time, frequency and callsign:
// "1759913595.0 14074000 0 20m OE1WL\n".
std::string textOf(const SpotData& data) {
  auto spots = spotsOf(data);
  std::sort(spots.begin(), spots.end(), [](const auto& a, const auto& b) {
    return std::tie(a.time, a.frequency, a.callsign) < std::tie(b.time, b.frequency, b.callsign);
  });
  std::string text;
  char line[100];
  for (const auto& spot : spots) {
    std::snprintf(line, sizeof line, "%.1f %.0f %d %s %s\n", spot.time, spot.frequency, spot.mode,
                  spot.band.c_str(), spot.callsign.c_str());
    text += line;
  }
  return text;
}

// FNV-1a of that text, 64 bits.
std::uint64_t hashOf(const SpotData& data) {
  std::uint64_t hash = 0xcbf29ce484222325;
  for (const char c : textOf(data)) hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001b3;
  return hash;
}

// The numbers come from an independent program: MT19937 and the multiplication method for Poisson
// counts, written anew in another language.
TEST(DemoDay, IsTheSameBitForBit) {
  const struct {
    double now;
    std::size_t spots;
    std::uint64_t hash;
    const char* first_line;
  } cases[] = {
      {kNow, 4648, 0xe5214e7540506ef3, "1759913595.0 14074000 0 20m OE1WL\n"},
      {kNow + 7, 4648, 0xd5fd644cbdb87df2, "1759913595.0 14074000 0 20m OE1WL\n"},
      {43'200, 4652, 0x8b6a58db6dad4259, "-43200.0 14074000 0 20m OE1WL\n"},  // from before 1970
  };
  for (const auto& c : cases) {
    const SpotData data = demoDay(c.now);
    const std::string text = textOf(data);
    EXPECT_EQ(data.spots.size(), c.spots) << c.now;
    EXPECT_EQ(hashOf(data), c.hash) << c.now;
    EXPECT_EQ(text.substr(0, text.find('\n') + 1), c.first_line) << c.now;
  }
}

TEST(DemoDay, TwoRunsAreIdentical) {
  EXPECT_EQ(hashOf(demoDay()), hashOf(demoDay()));
  EXPECT_NE(hashOf(demoDay()), hashOf(demoDay(kNow + 15)));
}

TEST(DemoDay, SpotsAreHeldInTheOrderOfTime) {
  const auto spots = spotsOf(demoDay());
  EXPECT_TRUE(std::is_sorted(spots.begin(), spots.end(),
                             [](const auto& a, const auto& b) { return a.time < b.time; }));
}

// With enough moments of now, the first and the last possible slot of the busiest channel are hit.
TEST(DemoDay, BeginsWithTheSlotADayAgoAndEndsTwoSecondsBeforeTheLastWholeSlot) {
  bool first_slot_hit = false;
  bool last_slot_hit = false;
  for (int i = 0; i < 40; ++i) {
    const double now = kNow + 997 * i;
    for (const auto& spot : spotsOf(demoDay(now))) {
      const double slot = slotSeconds(spot.mode);
      const double first = std::floor((now - 86'400) / slot) * slot;
      const double last = std::floor((now - slot - 2) / slot) * slot;
      ASSERT_GE(spot.time, first) << spot.band << " at " << now;
      ASSERT_LE(spot.time, now - slot - 2) << spot.band << " at " << now;
      first_slot_hit = first_slot_hit || spot.time == first;
      last_slot_hit = last_slot_hit || spot.time == last;
    }
  }
  EXPECT_TRUE(first_slot_hit);
  EXPECT_TRUE(last_slot_hit);
}

TEST(DemoDay, CallsignsArePrefixDigitAndOneToThreeLetters) {
  const std::set<std::string> known{"W",  "K",  "N",  "AA", "KD", "WB", "VE", "G",  "DL", "F",
                                    "EA", "JA", "VK", "PY", "LU", "SP", "OH", "SM", "I",  "OE"};
  std::set<std::string> prefixes;
  std::set<char> digits;
  std::set<std::size_t> letters;
  const SpotData data = demoDay();
  for (const auto& [callsign, heard] : lastHeard(data)) {
    const std::size_t digit = callsign.find_first_of("0123456789");
    ASSERT_NE(digit, std::string::npos) << callsign;
    const std::string suffix = callsign.substr(digit + 1);
    ASSERT_EQ(suffix.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZ"), std::string::npos)
        << callsign;
    prefixes.insert(callsign.substr(0, digit));
    digits.insert(callsign[digit]);
    letters.insert(suffix.size());
  }
  EXPECT_EQ(prefixes, known);
  EXPECT_THAT(digits, ElementsAre('1', '2', '3', '4', '5', '6', '7', '8', '9'));
  EXPECT_THAT(letters, ElementsAre(1, 2, 3));
  EXPECT_THAT(lastHeard(data), SizeIs(159));  // of the 160, one comes twice
}

TEST(DemoDay, ChannelsKeepToTheirBandModeAndSlots) {
  const struct {
    double frequency;
    const char* band;
    int mode;
    double slot;
    double per_day;  // expected: 24 * (base rate + amplitude / 2)
  } channels[] = {{14'074'000, "20m", kFt8, 15, 2160},
                  {7'074'000, "40m", kFt8, 15, 1140},
                  {21'074'000, "15m", kFt8, 15, 948},
                  {18'100'000, "17m", kFt4, 7.5, 360}};
  const auto spots = spotsOf(demoDay());
  std::size_t assigned = 0;
  for (const auto& c : channels) {
    double count = 0;
    bool odd_slot_hit = false;
    for (const auto& spot : spots) {
      if (spot.frequency != c.frequency) continue;
      ++count;
      ASSERT_EQ(spot.band, c.band);
      ASSERT_EQ(spot.mode, c.mode) << c.band;
      ASSERT_EQ(std::fmod(spot.time, c.slot), 0) << c.band;
      odd_slot_hit = odd_slot_hit || std::fmod(spot.time, 2 * c.slot) != 0;
    }
    EXPECT_TRUE(odd_slot_hit) << c.band;
    EXPECT_NEAR(count, c.per_day, 5 * std::sqrt(c.per_day)) << c.band;
    assigned += static_cast<std::size_t>(count);
  }
  EXPECT_EQ(assigned, spots.size());
}

TEST(DemoDay, CallsignsWereLastHeardAtTheirLatestSpot) {
  const SpotData data = demoDay();
  LastHeard all;
  LastHeardByBand by_band;
  for (const auto& spot : spotsOf(data)) {
    all[spot.callsign] = spot.time;
    by_band[spot.band][spot.callsign] = spot.time;
  }
  EXPECT_EQ(lastHeard(data), all);
  EXPECT_EQ(lastHeardByBand(data), by_band);
}

TEST(DemoMean, PeaksAtThePeakHourAndFallsToTheBaseRateTwelveHoursAway) {
  constexpr double kHour = 3600;
  constexpr double kMidnight = 20'000 * 86'400.0;
  const struct {
    std::size_t channel;
    double hour;
    double per_hour;
  } cases[] = {{0, 16, 125}, {0, 4, 55},  {0, 22, 90}, {0, 10, 90}, {1, 2, 65},
               {1, 14, 30},  {2, 14, 67}, {2, 2, 12},  {3, 15, 22}, {3, 3, 8}};
  for (const auto& c : cases) {
    const DemoChannel& channel = demoChannels()[c.channel];
    const double slot = c.channel == 3 ? 7.5 : 15;
    for (const double day : {0.0, -5.0, 1.0}) {
      EXPECT_NEAR(demoMean(channel, kMidnight + (day * 24 + c.hour) * kHour),
                  c.per_hour * slot / 3600, 1e-12)
          << channel.frequency << " at " << c.hour << " h";
    }
  }
  EXPECT_NEAR(demoMean(demoChannels()[0], kMidnight + 16 * kHour), 0.52, 0.005);
  EXPECT_NEAR(demoMean(demoChannels()[0], kMidnight + 4 * kHour), 0.23, 0.005);
}

TEST(DemoMean, IsNeverNegative) {
  EXPECT_EQ(demoMean({.frequency = 7'000'000, .mode = kFt8, .base_rate = -50}, kNow), 0);
}

TEST(DemoStore, WhatWasHeldBeforeIsGone) {
  SpotData data;
  data.spots.append({.time = kNow, .frequency = 50'313'000, .band = "6m", .callsign = "ZZ9ZZZZ"});
  recordCallsign(data, "ZZ9ZZZZ", "6m", kNow);
  data.generation = 41;
  generateDemoSpots(data, kNow);
  EXPECT_TRUE(data.demo);
  EXPECT_EQ(data.generation, 42u);
  EXPECT_EQ(hashOf(data), hashOf(demoDay()));
  EXPECT_FALSE(lastHeard(data).contains("ZZ9ZZZZ"));
  EXPECT_FALSE(lastHeardByBand(data).contains("6m"));
}

TEST(DemoStore, HistoryIsNotInUseAndThereAreNoIntervals) {
  const SpotData data = demoDay();
  EXPECT_FALSE(data.history_in_use);
  EXPECT_THAT(data.intervals, IsEmpty());
  EXPECT_THAT(data.rates, IsEmpty());
}

TEST(DemoStore, RefreshNeverReplacesTheDay) {
  const TempDir dir;
  SpotStore store;
  store.lock()->all_txt_path =
      dir.write("ALL.TXT", "251009_085300    14.074 Rx FT8    -10  0.2 1500 CQ W1AW FN31\n");
  generateDemoSpots(store, kNow);
  const auto day = hashOf(*store.lock());
  for (const double later : {0.0, 15.0, 86'400.0, 1e9}) store.refresh(kNow + later, 0);
  EXPECT_EQ(hashOf(*store.lock()), day);
  EXPECT_EQ(store.lock()->generation, 1u);
}

TEST(DemoDay, ClockBeyondAllCountingGivesAnEmptyOrShortDayAndEnds) {
  for (const double now : {kInfinity, -kInfinity, std::numeric_limits<double>::quiet_NaN(), 1e18,
                           -1e18, 1e300, std::numeric_limits<double>::max()}) {
    EXPECT_EQ(demoDay(now).spots.size(), 0u) << now;
    EXPECT_TRUE(demoDay(now).demo) << now;
  }
  for (const double now : {0.0, -1e9, 4e9, 1e12, 1e15, 1e17}) {
    EXPECT_LE(demoDay(now).spots.size(), 6000u) << now;
  }
}

}  // namespace
}  // namespace spotserver
