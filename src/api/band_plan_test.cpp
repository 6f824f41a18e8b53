#include "api/band_plan.hpp"

#include <algorithm>
#include <cmath>
#include <limits>

#include <gtest/gtest.h>

namespace launcher {
namespace {

TEST(BandPlan, IsTheseThirteenBandsInThisOrder) {
  const struct {
    const char* id;
    double low;
    double high;
    const char* color;
  } plan[] = {
      {"160m", 1'800'000, 2'000'000, "#7cfc00"},     {"80m", 3'500'000, 4'000'000, "#e550e5"},
      {"60m", 5'000'000, 5'500'000, "#00008b"},      {"40m", 7'000'000, 7'300'000, "#5959ff"},
      {"30m", 10'100'000, 10'150'000, "#62d962"},    {"20m", 14'000'000, 14'350'000, "#f2c40c"},
      {"17m", 18'068'000, 18'168'000, "#f2f261"},    {"15m", 21'000'000, 21'450'000, "#cca166"},
      {"12m", 24'890'000, 24'990'000, "#b22222"},    {"10m", 28'000'000, 29'700'000, "#ff69b4"},
      {"6m", 50'000'000, 54'000'000, "#ff0000"},     {"2m", 144'000'000, 148'000'000, "#ff1493"},
      {"70cm", 420'000'000, 450'000'000, "#999900"},
  };
  ASSERT_EQ(bandTable().size(), std::size(plan));
  for (std::size_t i = 0; i < std::size(plan); ++i) {
    const BandInfo& band = bandTable()[i];
    EXPECT_EQ(band.id, plan[i].id);
    EXPECT_EQ(band.low_hz, plan[i].low) << band.id;
    EXPECT_EQ(band.high_hz, plan[i].high) << band.id;
    EXPECT_EQ(band.color, plan[i].color) << band.id;
    EXPECT_EQ(bandOrder(band.id), static_cast<int>(i)) << band.id;
  }
}

TEST(BandPlan, TheTableIsOneObject) { EXPECT_EQ(&bandTable(), &bandTable()); }

TEST(BandPlan, ColoursAreSevenLowerCaseCharacters) {
  const auto isLowerHex = [](char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); };
  for (const BandInfo& band : bandTable()) {
    EXPECT_EQ(band.color.size(), 7u) << band.id;
    EXPECT_EQ(band.color.front(), '#') << band.id;
    EXPECT_TRUE(std::all_of(band.color.begin() + 1, band.color.end(), isLowerHex)) << band.id;
  }
}

TEST(BandPlan, BothLimitsBelongToTheBand) {
  for (const BandInfo& band : bandTable()) {
    EXPECT_EQ(bandForFrequency(band.low_hz).id, band.id);
    EXPECT_EQ(bandForFrequency(band.high_hz).id, band.id);
    EXPECT_EQ(bandForFrequency((band.low_hz + band.high_hz) / 2).id, band.id);
  }
}

TEST(BandPlan, NothingIsRoundedIntoABand) {
  const double infinity = std::numeric_limits<double>::infinity();
  for (const BandInfo& band : bandTable()) {
    const double below = std::nextafter(band.low_hz, 0);
    const double above = std::nextafter(band.high_hz, infinity);
    EXPECT_EQ(bandForFrequency(below).low_hz, below) << band.id;
    EXPECT_EQ(bandForFrequency(above).high_hz, above) << band.id;
    EXPECT_EQ(bandOrder(bandForFrequency(below).id), kOffPlanOrder) << band.id;
    EXPECT_EQ(bandOrder(bandForFrequency(above).id), kOffPlanOrder) << band.id;
  }
}

TEST(BandPlan, ABandComesWithItsColourAndLimits) {
  const BandInfo band = bandForFrequency(14'074'000);
  EXPECT_EQ(band.id, "20m");
  EXPECT_EQ(band.color, "#f2c40c");
  EXPECT_EQ(band.low_hz, 14'000'000);
  EXPECT_EQ(band.high_hz, 14'350'000);
}

TEST(BandPlan, OffPlanFrequenciesGetABandOfTheirOwn) {
  const struct {
    double hz;
    const char* id;
  } cases[] = {
      {0, "0.000000 MHz"},
      {-1, "-0.000001 MHz"},
      {-14'074'000, "-14.074000 MHz"},
      {0.4, "0.000000 MHz"},
      {136'000, "0.136000 MHz"},
      {13'500'000, "13.500000 MHz"},
      {13'999'999, "13.999999 MHz"},
      {14'350'001, "14.350001 MHz"},
      {1'799'999, "1.799999 MHz"},
      {450'000'001, "450.000001 MHz"},
      {1'296'174'000, "1296.174000 MHz"},
  };
  for (const auto& c : cases) {
    const BandInfo band = bandForFrequency(c.hz);
    EXPECT_EQ(band.id, c.id) << c.hz;
    EXPECT_EQ(band.color, "#63b6ee") << c.hz;
    EXPECT_EQ(band.low_hz, c.hz);
    EXPECT_EQ(band.high_hz, c.hz);
    EXPECT_EQ(bandOrder(band.id), 1000) << c.hz;
  }
}

TEST(BandPlan, OffPlanFrequenciesOneHertzApartDiffer) {
  EXPECT_EQ(bandForFrequency(13'500'000).id, "13.500000 MHz");
  EXPECT_EQ(bandForFrequency(13'500'001).id, "13.500001 MHz");
}

TEST(BandPlan, AnAbsurdFrequencyKeepsSixtyThreeCharacters) {
  const std::string digits62 = bandForFrequency(1e300).id;
  EXPECT_EQ(digits62.size(), 63u);
  EXPECT_EQ(digits62.find_first_not_of("0123456789"), std::string::npos);
  EXPECT_EQ(bandForFrequency(-std::numeric_limits<double>::max()).id.size(), 63u);
  // 52 digits, point and six decimals leave exactly the four characters of " MHz".
  const std::string fits = bandForFrequency(std::ldexp(1.0, 190)).id;
  EXPECT_EQ(fits.size(), 63u) << fits;
  EXPECT_EQ(fits.substr(fits.size() - 4), " MHz");
  // One digit more, and the last character goes.
  const std::string cut = bandForFrequency(std::ldexp(1.0, 193)).id;
  EXPECT_EQ(cut.size(), 63u) << cut;
  EXPECT_EQ(cut.substr(cut.size() - 3), " MH");
}

TEST(BandPlan, NotANumberIsOffPlan) {
  EXPECT_EQ(bandForFrequency(std::nan("")).id, "nan MHz");
  EXPECT_EQ(bandForFrequency(std::numeric_limits<double>::infinity()).id, "inf MHz");
  EXPECT_EQ(bandForFrequency(std::nan("")).color, "#63b6ee");
}

TEST(BandOrder, MatchesExactlyOrNotAtAll) {
  EXPECT_EQ(bandOrder("2m"), 11);
  for (const char* id : {"", "2M", "2m ", " 2m", "2", "20", "0m", "70CM", "13.500000 MHz"}) {
    EXPECT_EQ(bandOrder(id), 1000) << id;
  }
  EXPECT_EQ(bandOrder(std::string_view("2m\0", 3)), 1000);
}

}  // namespace
}  // namespace launcher
