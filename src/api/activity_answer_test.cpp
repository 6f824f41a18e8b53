#include "api/activity_answer.hpp"

#include <random>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "api/activity_document.hpp"
#include "api/activity_document_reference.hpp"
#include "failing_memory.hpp"
#include "gunzip.hpp"

namespace spotserver {
namespace {

constexpr double kNow = 1'763'175'600;

// An answer of `bands` bands through one hour.
ActivitySnapshot hourOf(int bands) {
  ActivitySnapshot snapshot{.generated = kNow, .mode = "live", .hours = 1, .smoothing = 3};
  std::mt19937 random(5);
  for (int i = 0; i < bands; ++i) {
    BandView band{.id = std::to_string(10 + i) + "m", .color = "#f2c40c"};
    for (int minute = 0; minute <= 60; ++minute) {
      band.points.push_back({kNow - 3600 + minute * 60, static_cast<double>(random() % 100) * 20});
    }
    snapshot.bands.push_back(std::move(band));
  }
  return snapshot;
}

std::string plainAt(ActivitySnapshot snapshot, double generated) {
  snapshot.generated = generated;
  return plainDocument(snapshot);
}

TEST(ActivityAnswer, IsTheDocumentWithAnotherTime) {
  const ActivityAnswer answer(hourOf(3));
  for (const double now : {kNow, kNow + 1, kNow + 59, kNow - 7200, 0.0}) {
    EXPECT_EQ(answer.document(now), plainAt(hourOf(3), now));
  }
}

TEST(ActivityAnswer, TheGzippedDocumentUnpacksToThePlainOne) {
  const ActivityAnswer answer(hourOf(3));
  for (const double now : {kNow, kNow + 1, kNow + 59, kNow - 7200, 0.0}) {
    const auto gzipped = answer.gzippedDocument(now);
    ASSERT_TRUE(gzipped) << now;
    EXPECT_EQ(gunzip(*gzipped), plainAt(hourOf(3), now));
  }
}

TEST(ActivityAnswer, WithoutMemoryALaterCallTriesAgain) {
  for (bool failed = true, gzip = false;; gzip = !gzip) {
    for (long good = 0; failed || good == 0; ++good) {
      const ActivityAnswer answer(hourOf(3));
      {
        const FailingMemory memory(good);
        try {
          if (gzip) answer.gzippedDocument(kNow);
          if (!gzip) answer.document(kNow);
        } catch (const std::bad_alloc&) {
        }
        failed = memory.failed();
      }
      EXPECT_EQ(answer.document(kNow), plainAt(hourOf(3), kNow)) << good;
      EXPECT_EQ(gunzip(answer.gzippedDocument(kNow).value()), plainAt(hourOf(3), kNow)) << good;
    }
    if (gzip) break;
  }
}

TEST(ActivityAnswer, IsAFifthOfItsSizeWhenGzipped) {
  const ActivityAnswer answer(hourOf(13));
  EXPECT_LT(answer.gzippedDocument(kNow)->size() * 5, answer.document(kNow).size());
}

TEST(ActivityAnswer, AShortDocumentIsNotWorthCompressing) {
  EXPECT_FALSE(ActivityAnswer(hourOf(0)).gzippedDocument(kNow));
  EXPECT_TRUE(ActivityAnswer(hourOf(1)).gzippedDocument(kNow));
}

TEST(ActivityAnswer, GivenAgainTakesThreePiecesOfMemoryHoweverLongItIs) {
  for (const int bands : {1, 13, 400}) {
    const ActivityAnswer answer(hourOf(bands));
    answer.gzippedDocument(kNow);
    const long before = FailingMemory::taken();
    answer.document(kNow + 1);
    const long plain = FailingMemory::taken();
    answer.gzippedDocument(kNow + 1);
    EXPECT_LE(plain - before, 3) << bands;
    EXPECT_LE(FailingMemory::taken() - plain, 3) << bands;
  }
}

TEST(ActivityAnswer, ManyThreadsAtOnceGetTheSameText) {
  const ActivityAnswer answer(hourOf(13));
  const std::string expected = plainDocument(hourOf(13));
  std::vector<std::string> plain(16);
  std::vector<std::string> gzipped(plain.size());
  std::vector<std::jthread> threads;
  for (std::size_t i = 0; i < plain.size(); ++i) {
    threads.emplace_back([&, i] {
      gzipped[i] = answer.gzippedDocument(kNow).value_or("");
      plain[i] = answer.document(kNow);
    });
  }
  threads.clear();
  for (std::size_t i = 0; i < plain.size(); ++i) {
    EXPECT_EQ(plain[i], expected) << i;
    EXPECT_EQ(gunzip(gzipped[i]), expected) << i;
  }
}

}  // namespace
}  // namespace spotserver
