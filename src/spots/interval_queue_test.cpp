#include "spots/interval_queue.hpp"

#include <new>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "failing_memory.hpp"

namespace spotserver {
namespace {

using testing::ElementsAre;

std::vector<std::string> texts(const IntervalQueue& queue) {
  std::vector<std::string> all;
  for (const Interval& one : queue) {
    all.push_back(std::to_string(static_cast<int>(one.start)) + " " + one.band + " " +
                  std::to_string(one.count));
  }
  return all;
}

TEST(IntervalQueue, GivesBackWhatItWasGiven) {
  IntervalQueue queue = {{10, "20m", 1}, {20, "13.500000 MHz", 2}};
  queue.push_back({20, "20m", 3});
  EXPECT_THAT(texts(queue), ElementsAre("10 20m 1", "20 13.500000 MHz 2", "20 20m 3"));
  EXPECT_EQ(queue.size(), 3u);
  EXPECT_EQ(queue[1].band, "13.500000 MHz");
  EXPECT_EQ(queue[0].start, 10);
  queue.pruneBefore(10.5);
  EXPECT_THAT(texts(queue), ElementsAre("20 13.500000 MHz 2", "20 20m 3"));
  queue.clear();
  EXPECT_TRUE(queue.empty());
}

TEST(IntervalQueue, LetsTheOldestGoOneByOne) {
  IntervalQueue queue;
  std::vector<Interval> expected;
  for (int i = 0; i < 100; ++i) {
    const Interval interval{15.0 * i, i % 3 == 0 ? "20m" : "40m", static_cast<std::uint64_t>(i)};
    queue.push_back(interval);
    expected.push_back(interval);
  }
  while (!expected.empty()) {
    ASSERT_EQ(queue.size(), expected.size());
    EXPECT_EQ(queue[0].count, expected.front().count);
    EXPECT_EQ(queue[queue.size() - 1].start, expected.back().start);
    std::size_t seen = 0;
    queue.forEach([&](double start, std::uint32_t band, std::uint64_t) {
      EXPECT_EQ(start, expected[seen].start);
      EXPECT_EQ(queue.band(band), expected[seen++].band);
    });
    EXPECT_EQ(seen, expected.size());
    queue.pruneBefore(queue[0].start + 0.5);
    expected.erase(expected.begin());
    if (expected.size() % 10 != 5) continue;
    queue.push_back({9'000, "30m", 7});  // behind a gap that may not be closed yet
    queue.replaceFrom(9'000, {}, {});
  }
  EXPECT_TRUE(queue.empty());
}

TEST(IntervalQueue, TheFastVisitSeesTheSame) {
  const IntervalQueue queue = {{10, "20m", 1}, {20, "40m", 2}, {30, "20m", 3}};
  std::vector<std::string> seen;
  queue.forEach([&](double start, std::uint32_t band, std::uint64_t count) {
    ASSERT_LT(band, queue.bandEnd());
    seen.push_back(std::to_string(static_cast<int>(start)) + " " + queue.band(band) + " " +
                   std::to_string(count));
  });
  EXPECT_EQ(seen, texts(queue));
}

TEST(IntervalQueue, ReplacesEverythingFromATimeOn) {
  const std::vector<std::string> bands = {"40m", "20m"};
  const std::vector<IntervalQueue::Fresh> fresh = {{20, 7, 1}, {25, 8, 0}};
  const struct {
    double from;
    std::vector<std::string> held;
  } cases[] = {{40, {"10 20m 1", "20 20m 2", "30 6m 3", "20 20m 7", "25 40m 8"}},
               {30, {"10 20m 1", "20 20m 2", "20 20m 7", "25 40m 8"}},
               {20, {"10 20m 1", "20 20m 7", "25 40m 8"}},
               {0, {"20 20m 7", "25 40m 8"}}};
  for (const auto& c : cases) {
    IntervalQueue queue = {{10, "20m", 1}, {20, "20m", 2}, {30, "6m", 3}};
    queue.replaceFrom(c.from, fresh, bands);
    EXPECT_EQ(texts(queue), c.held) << c.from;
  }
  IntervalQueue queue = {{10, "20m", 1}, {20, "20m", 2}};
  queue.replaceFrom(20, {}, {});
  EXPECT_THAT(texts(queue), ElementsAre("10 20m 1"));
}

TEST(IntervalQueue, BandsLeaveWithTheirLastInterval) {
  IntervalQueue queue;
  for (int i = 0; i < 10'000; ++i) {
    const std::vector<std::string> bands = {std::to_string(i) + " MHz", "never used"};
    queue.replaceFrom(i, std::vector<IntervalQueue::Fresh>{{i + 0.0, 1, 0}, {i + 0.5, 1, 0}},
                      bands);
    while (queue.size() > 100) queue.pruneBefore(queue[0].start + 1);
    ASSERT_LE(queue.bandEnd(), 104u) << i;
  }
}

TEST(IntervalQueue, MemoryThatRunsOutChangesNothing) {
  const std::vector<std::string> bands = {"a band with a long name", "another, just as long"};
  const std::vector<IntervalQueue::Fresh> fresh(100, IntervalQueue::Fresh{20, 7, 1});
  IntervalQueue before = {{10, "20m", 1}, {20, "20m", 2}};
  const std::vector<std::string> untouched = texts(before);
  bool enough = false;
  for (long n = 0; !enough; ++n) {
    IntervalQueue queue = before;
    bool failed = false;
    {
      const FailingMemory memory(n);
      try {
        queue.replaceFrom(20, fresh, bands);
      } catch (const std::bad_alloc&) {
        failed = true;
      }
      enough = !memory.failed();
    }
    ASSERT_EQ(failed, !enough) << n;
    ASSERT_TRUE(enough || texts(queue) == untouched) << n;
    queue.replaceFrom(20, fresh, bands);
    ASSERT_EQ(queue.size(), 101u) << n;
    ASSERT_EQ(queue[100].band, bands[1]) << n;
  }
}

}  // namespace
}  // namespace spotserver
