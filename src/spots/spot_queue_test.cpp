#include "spots/spot_queue.hpp"

#include <limits>
#include <random>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "failing_memory.hpp"
#include "spots/spot_queue_reference.hpp"

namespace spotserver {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr double kEver = std::numeric_limits<double>::infinity();
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

SpotQueue queueOf(std::initializer_list<std::pair<double, const char*>> spots) {
  SpotQueue queue;
  for (const auto& [time, callsign] : spots) {
    queue.append({.time = time, .band = "20m", .callsign = callsign});
  }
  return queue;
}

TEST(SpotQueue, StartsEmpty) {
  const SpotQueue queue;
  EXPECT_TRUE(queue.empty());
  EXPECT_EQ(queue.size(), 0u);
  EXPECT_THAT(callsignsBetween(queue, -kEver, kEver), IsEmpty());
}

TEST(SpotQueue, KeepsEveryField) {
  SpotQueue queue;
  queue.append({.time = 90.5, .frequency = 14'074'000, .mode = 4, .band = "20m", .callsign = "A"});
  int visits = 0;
  queue.forEach(90.5, 90.5, [&](const ParsedSpot& spot) {
    ++visits;
    EXPECT_EQ(spot.time, 90.5);
    EXPECT_EQ(spot.frequency, 14'074'000);
    EXPECT_EQ(spot.mode, 4);
    EXPECT_EQ(spot.band, "20m");
    EXPECT_EQ(spot.callsign, "A");
  });
  EXPECT_EQ(visits, 1);
}

TEST(SpotQueue, VisitsMinutesInOrderAndAMinuteInTheOrderOfArrival) {
  const SpotQueue queue =
      queueOf({{130, "c1"}, {59, "a1"}, {120, "c2"}, {60, "b1"}, {0, "a2"}, {-1, "z"}});
  EXPECT_THAT(callsignsBetween(queue, -kEver, kEver),
              ElementsAre("z", "a1", "a2", "b1", "c1", "c2"));
}

TEST(SpotQueue, BothBoundsOfAVisitBelongToIt) {
  const SpotQueue queue = queueOf({{99, "a"}, {100, "b"}, {150, "c"}, {200, "d"}, {201, "e"}});
  EXPECT_THAT(callsignsBetween(queue, 100, 200), ElementsAre("b", "c", "d"));
  EXPECT_THAT(callsignsBetween(queue, 100.5, 199.5), ElementsAre("c"));
  EXPECT_THAT(callsignsBetween(queue, 100, 100), ElementsAre("b"));
}

TEST(SpotQueue, BoundsInTheWrongOrderOrNoNumbersEncloseNothing) {
  const SpotQueue queue = queueOf({{100, "a"}});
  const struct {
    double from, to;
  } cases[] = {{101, 99}, {200, 0}, {kNaN, 200}, {0, kNaN}, {kNaN, kNaN}, {kEver, -kEver}};
  for (const auto& c : cases) {
    EXPECT_THAT(callsignsBetween(queue, c.from, c.to), IsEmpty()) << c.from << " to " << c.to;
  }
}

TEST(SpotQueue, PrunesWhatIsOlderThanTheCutoffWhereverItStands) {
  SpotQueue queue = queueOf({{4'102'444'800, "future"},
                             {100, "at"},
                             {99.9, "old"},
                             {101, "new"},
                             {20, "older"},
                             {4'102'444'800, "future too"}});
  queue.pruneBefore(100);
  EXPECT_EQ(queue.size(), 4u);
  EXPECT_THAT(callsignsBetween(queue, -kEver, kEver),
              ElementsAre("at", "new", "future", "future too"));
}

TEST(SpotQueue, PruningEverythingLeavesAnEmptyQueueThatFillsAgain) {
  SpotQueue queue = queueOf({{10, "a"}, {70, "b"}});
  queue.pruneBefore(71);
  EXPECT_TRUE(queue.empty());
  queue.append({.time = 5, .band = "20m", .callsign = "c"});
  EXPECT_EQ(queue.size(), 1u);
  EXPECT_THAT(callsignsBetween(queue, 0, 10), ElementsAre("c"));
}

TEST(SpotQueue, ClearForgetsAll) {
  SpotQueue queue = queueOf({{10, "a"}, {1e300, "b"}});
  queue.clear();
  EXPECT_TRUE(queue.empty());
  EXPECT_THAT(callsignsBetween(queue, -kEver, kEver), IsEmpty());
}

TEST(SpotQueue, TimesThatNoClockShowsAreKeptInOrder) {
  SpotQueue queue =
      queueOf({{kEver, "inf"}, {1e300, "huge"}, {-kEver, "-inf"}, {-1e300, "-huge"}, {0, "zero"}});
  EXPECT_EQ(queue.size(), 5u);
  EXPECT_THAT(callsignsBetween(queue, -1e300, 1e300), ElementsAre("-huge", "zero", "huge"));
  queue.pruneBefore(-1e300);
  EXPECT_THAT(callsignsBetween(queue, -kEver, kEver), ElementsAre("-huge", "zero", "inf", "huge"));
  queue.pruneBefore(kEver);
  EXPECT_THAT(callsignsBetween(queue, -kEver, kEver), ElementsAre("inf"));
}

TEST(SpotQueue, TimeThatIsNoNumberIsNotKeptAndPrunesNothing) {
  SpotQueue queue = queueOf({{kNaN, "nan"}, {10, "a"}});
  EXPECT_EQ(queue.size(), 1u);
  queue.pruneBefore(kNaN);
  EXPECT_THAT(callsignsBetween(queue, -kEver, kEver), ElementsAre("a"));
}

TEST(SpotQueue, SpotsOfOneTimeFrequencyAndModeAreOneInterval) {
  SpotQueue queue;
  const struct {
    double time, frequency;
    int mode;
    const char* band;
  } spots[] = {{130, 7e6, 0, "40m"},  {15, 14e6, 1, "20m"}, {15, 14e6, 0, "20m"},
               {30, 14e6, 0, "20m"},  {15, 14e6, 0, "20m"}, {15, 0.0, 0, "zero"},
               {15, -0.0, 0, "-zero"}};
  for (const auto& s : spots) queue.append({s.time, s.frequency, s.mode, s.band, ""});
  std::vector<std::string> seen;
  queue.forEachInterval(-kEver, kEver, [&](double time, std::uint32_t id, std::uint64_t count) {
    const Channel& channel = queue.channel(id);
    EXPECT_LT(id, queue.channelIdEnd());
    seen.push_back(std::to_string(static_cast<int>(time)) + " " + channel.band + " " +
                   std::to_string(channel.mode) + ": " + std::to_string(count));
  });
  EXPECT_THAT(seen, ElementsAre("15 20m 1: 1", "15 20m 0: 2", "30 20m 0: 1", "15 zero 0: 2",
                                "130 40m 0: 1"));
}

TEST(SpotQueue, IntervalsAreBoundedLikeSpots) {
  const SpotQueue queue = queueOf({{99, "a"}, {100, "b"}, {150, "c"}, {200, "d"}, {201, "e"}});
  EXPECT_THAT(intervalsBetween(queue, 100, 200), ::testing::SizeIs(3));
  EXPECT_THAT(intervalsBetween(queue, 200, 100), IsEmpty());
  EXPECT_THAT(intervalsBetween(queue, kNaN, 200), IsEmpty());
}

TEST(SpotQueue, SendersAndChannelsLeaveWithTheirLastSpot) {
  SpotQueue queue;
  for (const double time : {10, 11, 70, 130}) {
    const std::string name = std::to_string(static_cast<int>(time));
    queue.append({time, time, 0, name, "N0" + name});
    queue.append({time, 14e6, 0, "20m", "N0CALL"});
  }
  queue.pruneBefore(11);
  EXPECT_EQ(queue.senders(), 4u);
  queue.pruneBefore(70);
  EXPECT_EQ(queue.senders(), 3u);
  EXPECT_EQ(queue.channels(), 3u);
  queue.pruneBefore(1000);
  EXPECT_EQ(queue.senders(), 0u);
  EXPECT_EQ(queue.channels(), 0u);
}

TEST(SpotQueue, FullMemoryLeavesWhatWasHeld) {
  const std::string long_call(40, 'A');
  SpotQueue before = queueOf({{10, "a"}, {20, "b"}});
  bool failed = true;
  for (long n = 0; failed; ++n) {
    SpotQueue queue = before;
    try {
      const FailingMemory memory(n);
      queue.append(70, 7e6, 0, "a band with a very long name", long_call);
      failed = false;
    } catch (const std::bad_alloc&) {
      ASSERT_EQ(queue.size(), 2u);
      ASSERT_EQ(queue.senders(), 2u);
      ASSERT_EQ(queue.channels(), 1u);
      ASSERT_THAT(callsignsBetween(queue, -kEver, kEver), ElementsAre("a", "b"));
      ASSERT_THAT(intervalsBetween(queue, -kEver, kEver), ::testing::SizeIs(2));
      queue.append(70, 7e6, 0, "a band with a very long name", long_call);
    }
    ASSERT_THAT(callsignsBetween(queue, -kEver, kEver), ElementsAre("a", "b", long_call));
    ASSERT_THAT(intervalsBetween(queue, -kEver, kEver), ::testing::SizeIs(3));
  }
}

TEST(SpotQueue, RoomForSpotsGrowsByAQuarter) {
  long growths = 0;
  for (std::size_t room = 0; room < 100'000; room += room / 4 + 4) ++growths;
  SpotQueue queue = queueOf({{15, "N0CALL"}});
  const long before = FailingMemory::taken();
  for (int i = 1; i < 100'000; ++i) queue.append(15, 0, 0, "20m", "N0CALL");
  EXPECT_EQ(FailingMemory::taken() - before, growths - 1);
}

// Would not end within the test's time limit if every pruning looked at the spots of its minute.
TEST(SpotQueue, PruningThatRemovesNothingLooksAtNoSpot) {
  SpotQueue queue = queueOf({{60, "old"}});
  for (int i = 0; i < 1'000'000; ++i) queue.append(61, 0, 0, "20m", "N0CALL");
  for (int i = 0; i < 1'000'000; ++i) queue.pruneBefore(61);
  EXPECT_EQ(queue.size(), 1'000'000u);
}

// Would not end within the test's time limit if an arriving spot looked at every interval of its
// minute.
TEST(SpotQueue, MinuteOfManyOddFrequenciesInHostileOrderStaysCheap) {
  SpotQueue queue;
  for (int round = 0; round < 2; ++round) {
    for (int i = 0; i < 500'000; ++i) {
      queue.append(i % 2 == 0 ? 10 : 1000, 1e6 + i, 0, "odd", "N0CALL");
    }
  }
  EXPECT_EQ(queue.channels(), 500'000u);
  std::size_t intervals = 0;
  queue.forEachInterval(0, 1000, [&](double, std::uint32_t, std::uint64_t count) {
    ++intervals;
    EXPECT_EQ(count, 2u);
  });
  EXPECT_EQ(intervals, 500'000u);
}

TEST(SpotQueue, AnIntervalHeardAnewHoldsItsNewChannelOnly) {
  SpotQueue queue;
  queue.append({61, 0.0, 0, "zero", "N0CALL"});
  queue.append({65, 14e6, 0, "20m", "N0CALL"});
  queue.pruneBefore(62);
  queue.append({61, -0.0, 0, "other zero", "N0CALL"});
  EXPECT_EQ(queue.channels(), 2u);
  queue.pruneBefore(1000);
  EXPECT_EQ(queue.channels(), 0u);
}

TEST(SpotQueue, AgreesWithAFlatListOverRandomScripts) {
  std::mt19937 random(5);
  for (int round = 0; round < 2000; ++round) {
    const auto script = randomScript(random, random() % 600);
    ASSERT_EQ(SpotQueueScript(script).run(), "") << "round " << round;
  }
}

}  // namespace
}  // namespace spotserver
