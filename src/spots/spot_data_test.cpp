#include "spots/spot_data.hpp"

#include <cmath>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "failing_memory.hpp"
#include "spots/heard_callsigns_reference.hpp"

namespace spotserver {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::SizeIs;
using ::testing::UnorderedElementsAre;

constexpr double kNow = 1'741'947'330;
constexpr double kCutoff = kNow - 89'100;

cty::Database someCountries() {
  return cty::Database(
      cty::parseCountries("Testland:  14:  27:  EU:  50.0:  -10.0:  -1.0:  N0:\n"
                          "    N0,DL;\n"));
}

std::vector<double> times(const SpotQueue& queue) {
  constexpr double kEver = std::numeric_limits<double>::infinity();
  std::vector<double> found;
  queue.forEach(-kEver, kEver, [&](const ParsedSpot& spot) { found.push_back(spot.time); });
  return found;
}

TEST(RecordCallsign, IsKeptOverallAndForItsBand) {
  SpotData data;
  recordCallsign(data, "N0CALL", "20m", 100);
  recordCallsign(data, "N0CALL", "40m", 90);
  recordCallsign(data, "DL1ABC", "20m", 80);
  EXPECT_THAT(lastHeard(data), UnorderedElementsAre(Pair("N0CALL", 100), Pair("DL1ABC", 80)));
  EXPECT_THAT(
      lastHeardByBand(data),
      ElementsAre(Pair("20m", UnorderedElementsAre(Pair("N0CALL", 100), Pair("DL1ABC", 80))),
                  Pair("40m", UnorderedElementsAre(Pair("N0CALL", 90)))));
}

TEST(RecordCallsign, LaterTimeReplacesAnEarlierOneNeverTheReverse) {
  const struct {
    double first, second, kept;
  } cases[] = {{100, 101, 101}, {101, 100, 101}, {100, 100, 100}};
  for (const auto& c : cases) {
    SpotData data;
    recordCallsign(data, "N0CALL", "20m", c.first);
    recordCallsign(data, "N0CALL", "20m", c.second);
    EXPECT_EQ(lastHeard(data).at("N0CALL"), c.kept) << c.first << ", " << c.second;
    EXPECT_EQ(lastHeardByBand(data).at("20m").at("N0CALL"), c.kept);
  }
}

TEST(IsCounted, WithoutACountryFileEverySenderIs) {
  const cty::Database none;
  for (const std::string& callsign :
       {std::string("N0CALL"), std::string("QQ0QQ"), std::string("<...>"), std::string(33, 'A')}) {
    EXPECT_TRUE(isCounted(none, callsign)) << callsign;
  }
}

TEST(IsCounted, CountryFileFiltersTheSenders) {
  const cty::Database countries = someCountries();
  const std::string longest = "N0CALL/" + std::string(25, 'P');
  ASSERT_EQ(longest.size(), 32u);
  const struct {
    std::string callsign;
    bool counted;
  } cases[] = {
      {"N0CALL", true},  {"DL1ABC/P", true}, {"QQ0QQ", false},       {"<...>", true},
      {"<QQ0QQ>", true}, {longest, false},   {longest + "P", false}, {"", false},
  };
  for (const auto& c : cases) EXPECT_EQ(isCounted(countries, c.callsign), c.counted) << c.callsign;
}

TEST(IsCounted, SenderOfMoreThan32CharactersIsNotWhateverItsCountry) {
  const cty::Database countries = someCountries();
  std::string callsign = "DL" + std::string(30, '1');
  EXPECT_TRUE(isCounted(countries, callsign)) << callsign.size();
  callsign += '1';
  EXPECT_FALSE(isCounted(countries, callsign)) << callsign.size();
}

TEST(PruneSpots, SpotAtTheCutoffStaysAndOneASecondOlderGoes) {
  SpotData data;
  for (const double time : {kCutoff + 1, kCutoff - 1, kCutoff, kNow, kCutoff - 0.5}) {
    data.spots.append({.time = time, .band = "20m", .callsign = ""});
  }
  pruneSpots(data, kNow);
  EXPECT_THAT(times(data.spots), ElementsAre(kCutoff + 1, kCutoff, kNow));
}

TEST(PruneSpots, SpotDatedInTheFutureHoldsBackNothing) {
  SpotData data;
  data.spots.append({.time = kNow + 1e9, .band = "20m", .callsign = ""});
  data.spots.append({.time = kCutoff - 1, .band = "20m", .callsign = ""});
  pruneSpots(data, kNow);
  EXPECT_THAT(times(data.spots), ElementsAre(kNow + 1e9));
}

TEST(PruneSpots, IntervalsGoFromTheFront) {
  SpotData data;
  for (const double start : {kCutoff - 60, kCutoff - 0.5, kCutoff, kCutoff + 15}) {
    data.intervals.push_back({start, "20m", 1});
  }
  pruneSpots(data, kNow);
  ASSERT_EQ(data.intervals.size(), 2u);
  EXPECT_EQ(data.intervals[0].start, kCutoff);
  pruneSpots(data, kNow + 100'000);
  EXPECT_THAT(data.intervals, IsEmpty());
}

TEST(PruneSpots, CallsignsLastHeardBeforeTheCutoffGoAndWithTheLastOneItsBand) {
  SpotData data;
  recordCallsign(data, "OLD", "20m", kCutoff - 1);
  recordCallsign(data, "AT", "20m", kCutoff);
  recordCallsign(data, "OLD", "40m", kCutoff - 2);
  recordCallsign(data, "MOVED", "40m", kCutoff - 3);
  recordCallsign(data, "MOVED", "15m", kNow);
  pruneSpots(data, kNow);
  EXPECT_THAT(lastHeard(data), UnorderedElementsAre(Pair("AT", kCutoff), Pair("MOVED", kNow)));
  EXPECT_THAT(lastHeardByBand(data),
              ElementsAre(Pair("15m", UnorderedElementsAre(Pair("MOVED", kNow))),
                          Pair("20m", UnorderedElementsAre(Pair("AT", kCutoff)))));
}

TEST(PruneSpots, CallsignsAreLookedThroughOnceAMinuteAndWhenTheClockWasSet) {
  for (const double later : {30, 60, -3600}) {
    SpotData data;
    pruneSpots(data, kNow);
    recordCallsign(data, "OLD", "20m", kCutoff - 7200);
    pruneSpots(data, kNow + 29.5);  // kNow is half past a minute
    EXPECT_THAT(lastHeard(data), SizeIs(1)) << later;
    pruneSpots(data, kNow + later);
    EXPECT_THAT(lastHeard(data), IsEmpty()) << later;
  }
}

TEST(PruneSpots, RateIndexLosesTheMinutesBeforeTheCutoffs) {
  SpotData data;
  const double minute = std::floor(kCutoff / 60) * 60;
  for (const double start : {minute - 15, minute}) {
    // Added as if it had just been heard: the index prunes itself at every addition.
    launcher::addInterval(data.rates, "FT8/14.074000", 1, start + 15, start, 15, 14'074'000);
  }
  const auto& source = data.rates.at("20m").by_source.at("FT8/14.074000");
  ASSERT_EQ(source.held().size(), 2u);
  pruneSpots(data, kNow);
  ASSERT_EQ(source.held().size(), 1u);
  EXPECT_EQ(source.held().front().start, minute);
  pruneSpots(data, kNow + 60);
  EXPECT_THAT(data.rates, IsEmpty());
}

TEST(PruneSpots, TakesNoMemory) {
  SpotData data;
  const std::string band = "10489.540000 MHz";  // longer than a string holds without memory
  data.intervals = {{kCutoff - 1, band, 1}, {kCutoff, band, 1}};
  data.spots.append({kCutoff - 1, 10'489'540'000, 0, band, "N0CALL"});
  recordCallsign(data, "N0CALL", band, kCutoff - 1);
  const FailingMemory none(0);
  pruneSpots(data, kNow);
  data.intervals.clear();
  data.spots.clear();
  EXPECT_FALSE(none.failed());
  EXPECT_TRUE(data.intervals.empty());
}

}  // namespace
}  // namespace spotserver
