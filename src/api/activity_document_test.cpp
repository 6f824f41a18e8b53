#include "api/activity_document.hpp"

#include <limits>
#include <random>

#include <gtest/gtest.h>

#include "api/activity_document_reference.hpp"

namespace spotserver {
namespace {

ActivitySnapshot oneBand() {
  return {.generated = 1'763'175'600,
          .mode = "live",
          .hours = 1,
          .smoothing = 3,
          .window_spots = 12,
          .window_intervals = 1,
          .window_unique_callsigns = 9,
          .bands = {{.id = "20m",
                     .color = "#f2c40c",
                     .rate_now = 2880,
                     .spots = 12,
                     .intervals = 1,
                     .unique_callsigns = 9,
                     .points = {{1'763'172'000, std::nullopt}, {1'763'175'600, 2880}}}}};
}

TEST(ActivityDocument, OneBandByteForByte) {
  EXPECT_EQ(activityDocument(oneBand()),
            "{\"generated\":1763175600,\"mode\":\"live\",\"hours\":1,\"smoothing\":3,"
            "\"window_spots\":12,\"window_intervals\":1,\"window_unique_callsigns\":9,"
            "\"bands\":[{\"id\":\"20m\",\"color\":\"#f2c40c\",\"rate_now\":2880,\"spots\":12,"
            "\"intervals\":1,\"unique_callsigns\":9,\"points\":[{\"t\":1763172000,\"rate\":null},"
            "{\"t\":1763175600,\"rate\":2880}]}]}");
}

TEST(ActivityDocument, WithoutBandsTheArrayIsEmpty) {
  ActivitySnapshot empty{.generated = 60, .mode = "demo", .hours = 24, .smoothing = 5};
  EXPECT_EQ(activityDocument(empty),
            "{\"generated\":60,\"mode\":\"demo\",\"hours\":24,\"smoothing\":5,\"window_spots\":0,"
            "\"window_intervals\":0,\"window_unique_callsigns\":0,\"bands\":[]}");
}

TEST(ActivityDocument, BandsAndPointsAreSeparatedByCommas) {
  ActivitySnapshot snapshot{.generated = 60, .mode = "live", .hours = 1, .smoothing = 1};
  snapshot.bands = {{.id = "20m", .color = "#f2c40c", .points = {{0, 1}, {60, 2}, {120, 3}}},
                    {.id = "13.500000 MHz", .color = "#63b6ee"}};
  EXPECT_EQ(activityDocument(snapshot),
            "{\"generated\":60,\"mode\":\"live\",\"hours\":1,\"smoothing\":1,\"window_spots\":0,"
            "\"window_intervals\":0,\"window_unique_callsigns\":0,\"bands\":["
            "{\"id\":\"20m\",\"color\":\"#f2c40c\",\"rate_now\":null,\"spots\":0,\"intervals\":0,"
            "\"unique_callsigns\":0,\"points\":[{\"t\":0,\"rate\":1},{\"t\":60,\"rate\":2},"
            "{\"t\":120,\"rate\":3}]},"
            "{\"id\":\"13.500000 MHz\",\"color\":\"#63b6ee\",\"rate_now\":null,\"spots\":0,"
            "\"intervals\":0,\"unique_callsigns\":0,\"points\":[]}]}");
}

TEST(ActivityDocument, RatesHaveAtMostThreeDecimals) {
  const struct {
    std::optional<double> rate;
    const char* text;
  } cases[] = {{12.5, "12.5"},
               {2880, "2880"},
               {1.0 / 3, "0.333"},
               {0, "0"},
               {std::nullopt, "null"},
               {std::numeric_limits<double>::infinity(), "null"},
               {std::numeric_limits<double>::quiet_NaN(), "null"}};
  for (const auto& c : cases) {
    ActivitySnapshot snapshot = oneBand();
    snapshot.bands[0].rate_now = c.rate;
    snapshot.bands[0].points = {{60, c.rate}};
    const std::string document = activityDocument(snapshot);
    const std::string text = c.text;
    EXPECT_NE(document.find("\"rate_now\":" + text + ",\"spots\""), std::string::npos) << document;
    EXPECT_NE(document.find("[{\"t\":60,\"rate\":" + text + "}]"), std::string::npos) << document;
  }
}

TEST(ActivityDocument, TimesAreWholeSeconds) {
  ActivitySnapshot snapshot = oneBand();
  snapshot.generated = 1'763'175'600.25;
  snapshot.bands[0].points = {{1'763'175'600.75, 1}};
  const std::string document = activityDocument(snapshot);
  EXPECT_EQ(document.rfind("{\"generated\":1763175600,", 0), 0u) << document;
  EXPECT_NE(document.find("{\"t\":1763175601,"), std::string::npos) << document;
}

TEST(ActivityDocument, CountsUseAllSixtyFourBits) {
  ActivitySnapshot snapshot = oneBand();
  snapshot.window_spots = std::numeric_limits<std::uint64_t>::max();
  snapshot.bands[0].intervals = std::numeric_limits<std::uint64_t>::max();
  const std::string document = activityDocument(snapshot);
  EXPECT_NE(document.find("\"window_spots\":18446744073709551615,"), std::string::npos);
  EXPECT_NE(document.find("\"intervals\":18446744073709551615,"), std::string::npos);
}

TEST(ActivityDocument, StringsAreEscaped) {
  ActivitySnapshot snapshot = oneBand();
  snapshot.mode = "a\"b";
  snapshot.bands[0].id = "c\\d";
  snapshot.bands[0].color = "\n";
  const std::string document = activityDocument(snapshot);
  EXPECT_NE(document.find(R"("mode":"a\"b",)"), std::string::npos) << document;
  EXPECT_NE(document.find(R"({"id":"c\\d","color":"\n",)"), std::string::npos) << document;
}

TEST(ActivityDocument, HeadAndTailMeetBehindTheTime) {
  ActivitySnapshot snapshot = oneBand();
  EXPECT_EQ(documentHead(1'763'175'660), "{\"generated\":1763175660");
  const std::string tail = documentTail(snapshot);
  EXPECT_EQ(tail.rfind(",\"mode\":\"live\",", 0), 0u) << tail;
  EXPECT_EQ(documentHead(snapshot.generated) + tail, activityDocument(snapshot));
  snapshot.generated += 59;
  EXPECT_EQ(documentTail(snapshot), tail);
}

TEST(ActivityDocument, IsThePlainlyWrittenOne) {
  std::mt19937 random(3);
  for (int i = 0; i < 300; ++i) {
    const auto script = randomScript(random, random() % 4000);
    const ActivitySnapshot snapshot = SnapshotScript(script).make();
    ASSERT_EQ(activityDocument(snapshot), plainDocument(snapshot)) << i;
  }
}

}  // namespace
}  // namespace spotserver
