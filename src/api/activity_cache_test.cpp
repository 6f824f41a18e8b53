#include "api/activity_cache.hpp"

#include <atomic>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "api/activity.hpp"
#include "api/activity_document.hpp"
#include "spots/spot_store.hpp"

namespace spotserver {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;

constexpr double kNow = 1'763'175'600;  // a whole minute

// Something that every answer shows: one more callsign of the last hour.
void hear(SpotData& data, const std::string& callsign) {
  recordCallsign(data, callsign, "20m", kNow - 15);
}

std::string built(const SpotData& data, int hours, int smoothing, double now) {
  return activityDocument(buildActivity(data, hours, smoothing, now));
}

TEST(ActivityAt, IsReusedWithinTheMinuteWithAFreshTime) {
  SpotData data;
  hear(data, "N0CALL");
  const std::string expected = documentTail(buildActivity(data, 6, 3, kNow));
  const auto first = activityAt(data, 6, 3, kNow);
  hear(data, "N1CALL");  // unseen: the generation did not move
  const auto second = activityAt(data, 6, 3, kNow + 59);
  EXPECT_EQ(second, first);
  EXPECT_EQ(first->document(kNow), "{\"generated\":1763175600" + expected);
  EXPECT_EQ(second->document(kNow + 59), "{\"generated\":1763175659" + expected);
}

TEST(ActivityAt, NewDataIsSeenWithinTheMinute) {
  SpotData data;
  hear(data, "N0CALL");
  const auto first = activityAt(data, 6, 3, kNow);
  hear(data, "N1CALL");
  ++data.generation;
  const auto second = activityAt(data, 6, 3, kNow + 1);
  EXPECT_EQ(second->document(kNow + 1), built(data, 6, 3, kNow + 1));
  EXPECT_THAT(second->document(kNow + 1), HasSubstr("\"window_unique_callsigns\":2"));
  EXPECT_THAT(first->document(kNow), HasSubstr("\"window_unique_callsigns\":1"))
      << "whoever was given the old answer still sends it whole";
}

TEST(ActivityAt, ANewMinuteIsComputedAnew) {
  SpotData data;
  hear(data, "N0CALL");
  const auto first = activityAt(data, 6, 3, kNow + 59);
  const auto later = activityAt(data, 6, 3, kNow + 60);
  EXPECT_NE(later, first);
  EXPECT_EQ(activityAt(data, 6, 3, kNow + 119), later);
  const auto earlier = activityAt(data, 6, 3, kNow + 59);  // the clock steps back
  EXPECT_NE(earlier, later);
}

TEST(ActivityAt, EveryViewHasItsOwnEntry) {
  SpotData data;
  hear(data, "N0CALL");
  for (int round = 0; round < 2; ++round) {
    const double now = kNow + round * 60;
    for (const int hours : {1, 6, 24}) {
      for (const int smoothing : {1, 3, 5}) {
        EXPECT_EQ(activityAt(data, hours, smoothing, now)->document(now),
                  built(data, hours, smoothing, now));
      }
    }
  }
  EXPECT_EQ(data.cache.size(), 9u);
}

TEST(ActivityAt, AFailedAnswerIsNotKept) {
  SpotData data;
  data.history_in_use = true;
  data.intervals = {{kNow - 15, "20m", 12}};
  EXPECT_THROW(activityAt(data, 2, 3, kNow), std::invalid_argument);
  EXPECT_THAT(data.cache, IsEmpty());
}

// The number behind "key": in a document.
double numberOf(const std::string& document, const std::string& key) {
  return std::stod(document.substr(document.find("\"" + key + "\":") + key.size() + 3));
}

TEST(ActivityAt, EveryAnswerIsWholeWhileTheDataMoves) {
  constexpr int kMoves = 200;
  SpotStore store;
  std::atomic<bool> moving = true;
  std::vector<std::jthread> phones;
  for (int phone = 0; phone < 16; ++phone) {
    phones.emplace_back([&, phone] {
      double heard = 0;
      for (bool last = false; !last;) {
        last = !moving;
        const double now = kNow + phone;
        const auto answer = activityAt(*store.lock(), 6, 3, now);
        const std::string document = answer->document(now);
        EXPECT_EQ(numberOf(document, "generated"), now);
        EXPECT_GE(numberOf(document, "window_unique_callsigns"), heard);
        EXPECT_EQ(document.substr(document.size() - 12), ",\"bands\":[]}");
        heard = numberOf(document, "window_unique_callsigns");
      }
      EXPECT_EQ(heard, kMoves);
    });
  }
  for (int move = 0; move < kMoves; ++move) {
    const auto held = store.lock();
    hear(*held, "N" + std::to_string(move) + "CALL");
    ++held->generation;
  }
  moving = false;
}

}  // namespace
}  // namespace spotserver
