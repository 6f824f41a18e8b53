#include "spots/heard_callsigns.hpp"

#include <random>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "spots/heard_callsigns_reference.hpp"

namespace spotserver {
namespace {

constexpr double kNow = 1'741'947'330;

TEST(HeardCallsigns, CountsThoseHeardAtTheTimeOrLater) {
  HeardCallsigns heard;
  heard.record("N0CALL", heard.band("20m"), 100);
  heard.record("N0CALL", heard.band("40m"), 90);
  heard.record("DL1ABC", heard.band("20m"), 80);
  const struct {
    double since;
    std::uint64_t all, on20m, on40m;
  } cases[] = {{80, 2, 2, 1}, {80.5, 1, 1, 1}, {90, 1, 1, 1}, {91, 1, 1, 0}, {101, 0, 0, 0}};
  for (const auto& c : cases) {
    EXPECT_EQ(heard.countSince(c.since), c.all) << c.since;
    EXPECT_EQ(heard.countSince("20m", c.since), c.on20m) << c.since;
    EXPECT_EQ(heard.countSince("40m", c.since), c.on40m) << c.since;
    EXPECT_EQ(heard.countSince("2m", c.since), 0u) << c.since;
  }
}

TEST(HeardCallsigns, PrunedCallsignsAreCountedAtNoTimeWhatever) {
  HeardCallsigns heard;
  heard.record("N0CALL", heard.band("20m"), 100);
  heard.record("DL1ABC", heard.band("20m"), 99);
  heard.pruneBefore(100);
  constexpr double kEver = std::numeric_limits<double>::infinity();
  EXPECT_EQ(heard.countSince(-kEver), 1u);
  EXPECT_EQ(heard.countSince("20m", -kEver), 1u);
  EXPECT_EQ(heard.remembered(), 1u);
}

TEST(HeardCallsigns, WhatWasLastHeardAfterATimeIsForgottenOnThatBand) {
  HeardCallsigns heard;
  heard.record("N0CALL", heard.band("20m"), 100);
  heard.record("DL1ABC", heard.band("20m"), 99);
  heard.record("DL1ABC", heard.band("40m"), 101);
  heard.record("G0XYZ", heard.band("40m"), 102);
  heard.recordIf([] { return false; }, "QQ0QQ", heard.band("20m"), 101);
  heard.forgetAfter(100);
  EXPECT_EQ(heard.countSince(0), 2u);
  EXPECT_EQ(heard.countSince("20m", 0), 2u);
  EXPECT_EQ(heard.countSince("40m", 0), 0u);
  EXPECT_EQ(heard.countSince(100), 1u) << "DL1ABC was last heard on 20m now";
  EXPECT_EQ(heard.bands(), 1u);
  EXPECT_EQ(heard.remembered(), 2u);
}

TEST(HeardCallsigns, OneThatCountedInTimeAndWasSeenAfterItStays) {
  HeardCallsigns heard;
  heard.record("N0CALL", heard.band("20m"), 100);
  heard.recordIf([] { return false; }, "N0CALL", heard.band("20m"), 200);
  heard.forgetAfter(100);
  EXPECT_EQ(heard.countSince(100), 1u);
  heard.pruneBefore(101);  // it is remembered no longer for having been seen
  EXPECT_EQ(heard.remembered(), 0u);
}

TEST(HeardCallsigns, VerdictIsAskedOnceUntilItIsForgotten) {
  HeardCallsigns heard;
  int asked = 0;
  bool counts = false;
  const auto hear = [&](double time) {
    const auto ask = [&] {
      ++asked;
      return counts;
    };
    return heard.recordIf(ask, "N0CALL", heard.band("20m"), time);
  };
  EXPECT_FALSE(hear(100));
  counts = true;
  EXPECT_FALSE(hear(101));
  EXPECT_EQ(asked, 1);
  EXPECT_EQ(heard.countSince(0), 0u);
  heard.forgetVerdicts();
  EXPECT_TRUE(hear(102));
  counts = false;
  EXPECT_TRUE(hear(103));
  EXPECT_EQ(asked, 2);
  heard.forgetVerdicts();
  EXPECT_FALSE(hear(104));
  // What was counted stays counted, at the time it was.
  EXPECT_EQ(heard.countSince(103), 1u);
  EXPECT_EQ(heard.countSince(104), 0u);
  heard.pruneBefore(104);
  EXPECT_EQ(heard.countSince(0), 0u);
  EXPECT_EQ(heard.remembered(), 1u);
  heard.pruneBefore(105);
  EXPECT_EQ(heard.remembered(), 0u);
}

TEST(HeardCallsigns, ThirtyDaysOfNewCallsignsAndBandsAreNoMoreThanOne) {
  HeardCallsigns heard;
  int serial = 0;
  std::size_t most = 0;
  for (int step = 0; step < 30 * 144; ++step) {
    const double now = kNow + 600 * step;
    for (int i = 0; i < 5; ++i) {
      const std::string name = std::to_string(++serial);
      heard.recordIf([&] { return serial % 2 == 0; }, name, heard.band(name + " MHz"), now);
    }
    heard.pruneBefore(now - launcher::kRetention);
    most = std::max({most, heard.remembered(), heard.bands()});
  }
  EXPECT_EQ(most, 5u * (89'100 / 600 + 1));
}

TEST(HeardCallsigns, AgreesWithPlainMapsOverRandomScripts) {
  std::mt19937 random(7);
  for (int round = 0; round < 1000; ++round) {
    const auto script = randomScript(random, random() % 1500);
    ASSERT_EQ(HeardScript(script).run(), "") << "round " << round;
  }
}

}  // namespace
}  // namespace spotserver
