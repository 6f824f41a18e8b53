// The two other sources: the receivers' history database, and the demo day.
#include <filesystem>
#include <memory>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include "e2e/activity_model.hpp"
#include "e2e/station.hpp"

namespace spotserver::e2e {
namespace {

using testing::ElementsAre;

// One row of the table `minutes`: one receiver's minute.
struct Row {
  const char* receiver = "rx1";
  std::int64_t hertz = 14'074'000;
  const char* mode = "FT8";
  std::int64_t minute = 0;                           // epoch seconds / 60
  int mask = 0b1111;                                 // bit i: listened through slot i
  std::vector<std::uint64_t> counts = {1, 2, 3, 4};  // decodes per slot
};

// The history as the receivers write it: a connection that stays open while the server reads.
class HistoryWriter {
 public:
  explicit HistoryWriter(const std::string& path, int schema = 2, const char* journal = "delete") {
    sqlite3* opened = nullptr;
    const int result = sqlite3_open(path.c_str(), &opened);
    database_.reset(opened);
    if (result != SQLITE_OK) throw std::runtime_error("Cannot open " + path);
    run("PRAGMA journal_mode=" + std::string(journal));
    run("PRAGMA user_version=" + std::to_string(schema));
    run("CREATE TABLE minutes(receiver TEXT NOT NULL, frequency INTEGER NOT NULL, mode TEXT NOT "
        "NULL, minute INTEGER NOT NULL, mask INTEGER NOT NULL, counts BLOB NOT NULL)");
  }

  void run(const std::string& sql) {
    if (sqlite3_exec(database_.get(), sql.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) {
      throw std::runtime_error(sql + ": " + sqlite3_errmsg(database_.get()));
    }
  }

  void add(const Row& row) {
    std::string blob;
    const std::size_t entries = std::string(row.mode) == "JS8-TURBO" ? 10 : 8;
    for (std::size_t i = 0; i < entries; ++i) {
      const std::uint64_t count = i < row.counts.size() ? row.counts[i] : 0;
      for (int shift = 0; shift < 64; shift += 8) {
        char hex[3];
        std::snprintf(hex, sizeof hex, "%02x", static_cast<unsigned>(count >> shift & 0xff));
        blob += hex;
      }
    }
    run("INSERT INTO minutes VALUES('" + std::string(row.receiver) + "'," +
        std::to_string(row.hertz) + ",'" + row.mode + "'," + std::to_string(row.minute) + "," +
        std::to_string(row.mask) + ",x'" + blob + "')");
  }

 private:
  std::unique_ptr<sqlite3, With<sqlite3_close>> database_;
};

std::vector<Slot> slotsOf(const std::vector<Row>& rows) {
  std::vector<Slot> slots;
  for (const Row& row : rows) {
    const double length = slotLength(row.mode);
    for (int i = 0; row.mask >> i != 0; ++i) {
      if ((row.mask >> i & 1) == 0) continue;
      slots.push_back({static_cast<double>(row.minute * 60) + i * length, length,
                       std::to_string(static_cast<double>(row.hertz) / 1e6),
                       row.counts.at(static_cast<std::size_t>(i))});
    }
  }
  return slots;
}

std::string historyPath(const Station& station) { return station.stateDir() + "/history.sqlite3"; }

// A writer at the default place.
HistoryWriter writerFor(const Station& station, int schema = 2, const char* journal = "delete") {
  std::filesystem::create_directories(station.stateDir());
  return HistoryWriter(historyPath(station), schema, journal);
}

std::vector<Row> lastMinutes() {
  const std::int64_t minute = wallClock() / 60;
  return {{"rx1", 14'074'000, "FT8", minute - 100},
          {"rx1", 14'074'000, "FT8", minute - 30, 0b0101, {3, 0, 7, 9}},
          {"rx1", 14'080'000, "FT4", minute - 30, 0xff, {1, 0, 2, 0, 3, 0, 4, 5}},
          {"rx2", 7'078'000, "JS8-TURBO", minute - 8, 0x3ff, {1, 1, 1, 1, 1, 1, 1, 1, 1, 2}},
          {"rx2", 7'078'000, "JS8-SLOW", minute - 7, 0b11, {0, 0}},
          {"rx2", 10'138'700, "WSPR", minute - 6, 1, {12}},
          {"rx1", 14'074'000, "FT8", minute - 4}};
}

TEST(History, AnswersFromItAndTakesCallsignsFromTheLog) {
  const Station station;
  HistoryWriter writer = writerFor(station);
  const std::vector<Row> rows = lastMinutes();
  for (const Row& row : rows) writer.add(row);
  const std::int64_t time = wallClock() - 900;
  const std::vector<Heard> heard = {{time, "14.074", "FT8", "K1ABC"},
                                    {time, "14.074", "FT8", "DL1ABC"},
                                    {time, "21.074", "FT8", "G4XYZ"}};
  station.writeLog(logText(heard));

  ServerProcess server = station.serve();
  Banner banner = usualBanner(station, TlsClient(station.port()).fingerprint());
  banner.history = historyPath(station);
  banner.spots_held = std::to_string(slotsOf(rows).size());
  EXPECT_EQ(server.output(), text(banner));
  for (const View view : {View{1, 1}, View{1, 3}, View{6, 5}, View{24, 3}}) {
    const std::string query =
        "?hours=" + std::to_string(view.hours) + "&smoothing=" + std::to_string(view.smoothing);
    const std::string body = station.activity(query).body;
    EXPECT_EQ(body, expectedDocument(view, generatedAt(body), slotsOf(rows), heard)) << query;
  }
}

TEST(History, GrowsWhileTheServerRuns) {
  for (const char* journal : {"delete", "wal"}) {
    SCOPED_TRACE(journal);
    const Station station;
    HistoryWriter writer = writerFor(station, 2, journal);
    std::vector<Row> rows = lastMinutes();
    for (const Row& row : rows) writer.add(row);
    ServerProcess server = station.serve();
    const std::int64_t minute = wallClock() / 60;
    for (const std::int64_t late : {minute - 3, minute - 2}) {
      rows.push_back({"rx1", 14'074'000, "FT8", late});
      writer.add(rows.back());
      const std::string body = station.activity("?hours=1").body;
      EXPECT_EQ(body, expectedDocument({1, 3}, generatedAt(body), slotsOf(rows), {}));
    }
  }
}

TEST(History, AppearsAfterTheStart) {
  const Station station;
  const std::int64_t time = wallClock() - 600;
  station.writeLog(logLine({time, "21.074", "FT8", "K1ABC"}));
  ServerProcess server = station.serve();
  EXPECT_THAT(bandIds(station.activity().body), ElementsAre("15m"));
  HistoryWriter writer = writerFor(station);
  const std::vector<Row> rows = {{"rx1", 14'074'000, "FT8", time / 60}};
  writer.add(rows[0]);
  const std::string body = station.activity().body;
  EXPECT_EQ(body, expectedDocument({}, generatedAt(body), slotsOf(rows),
                                   {{time, "21.074", "FT8", "K1ABC"}}));
}

TEST(History, UnreadableOneFallsBackToTheLog) {
  const Station station;
  const std::int64_t time = wallClock() - 600;
  station.writeLog(logLine({time, "21.074", "FT8", "K1ABC"}));
  {
    HistoryWriter writer = writerFor(station, 3);
    writer.add({"rx1", 14'074'000, "FT8", time / 60});
  }
  ServerProcess server = station.serve();
  EXPECT_EQ(bannerValue(server.output(), "history:"), historyPath(station) + " (not readable yet)");
  EXPECT_EQ(bannerValue(server.output(), "spots held:"), "1");
  const std::string body = station.activity().body;
  EXPECT_EQ(body, expectedFromLog({}, generatedAt(body), {{time, "21.074", "FT8", "K1ABC"}}));
}

TEST(History, BreaksWhileTheServerRuns) {
  const Station station;
  const std::int64_t time = wallClock() - 600;
  {
    HistoryWriter writer = writerFor(station);
    writer.add({"rx1", 14'074'000, "FT8", time / 60});
  }
  station.writeLog(logLine({time, "21.074", "FT8", "K1ABC"}));
  ServerProcess server = station.serve();
  EXPECT_THAT(bandIds(station.activity().body), ElementsAre("20m"));
  writeFile(historyPath(station), std::string(4096, 'x'));
  station.appendLog(logLine({time + 15, "7.074", "FT8", "K2ABC"}));
  EXPECT_THAT(bandIds(station.activity().body), ElementsAre("40m"));
}

TEST(History, OffMeansNone) {
  const Station station;
  const std::int64_t time = wallClock() - 600;
  HistoryWriter writer = writerFor(station);
  writer.add({"rx1", 14'074'000, "FT8", time / 60});
  station.writeLog(logLine({time, "21.074", "FT8", "K1ABC"}));
  ServerProcess server = station.serve({"--history-db", "off"});
  EXPECT_EQ(bannerValue(server.output(), "history:"), "none");
  EXPECT_THAT(bandIds(station.activity().body), ElementsAre("15m"));
}

TEST(History, StationWithoutALogStillGetsIt) {
  const Station station;
  HistoryWriter writer = writerFor(station);
  const std::vector<Row> rows = lastMinutes();
  for (const Row& row : rows) writer.add(row);
  ServerProcess server = station.serve();
  const std::string body = station.activity("?hours=24").body;
  EXPECT_EQ(body, expectedDocument({24, 3}, generatedAt(body), slotsOf(rows), {}));
}

// A database that its writer has locked holds a reader for five seconds; a stop does not wait for
// that.
TEST(History, LockedDatabaseDoesNotDelayAStop) {
  const Station station;
  HistoryWriter writer = writerFor(station);
  writer.add({"rx1", 14'074'000, "FT8", wallClock() / 60 - 10});
  ServerProcess server = station.serve();
  writer.run("BEGIN EXCLUSIVE");
  TlsClient phone(station.port());
  phone.send(requestText("GET", kActivityPath, bearer(kToken)));
  EXPECT_EQ(station.get(kHealthPath).status, 200) << "answered while the other waits";
  server.signal(SIGTERM);
  EXPECT_EQ(server.waitForExit(std::chrono::milliseconds(4500)), 0);
}

// Decodes of a demo that a window may lose between two looks at it, on a slow machine.
constexpr double kAgedMeanwhile = 40;

TEST(Demo, BothEndpointsAndTheBannerSaySo) {
  const Station station;
  station.writeLog(logLine({wallClock() - 60, "144.174", "FT8", "K1ABC"}));
  HistoryWriter writer = writerFor(station);
  writer.add({"rx1", 50'313'000, "FT8", wallClock() / 60 - 10});
  ServerProcess server = station.serve({"--demo"});

  Banner banner = usualBanner(station, TlsClient(station.port()).fingerprint());
  banner.mode = "demo (synthetic data)";
  banner.source = "<synthetic>";
  banner.spots_held = bannerValue(server.output(), "spots held:");
  EXPECT_EQ(server.output(), text(banner));
  EXPECT_NE(station.get(kHealthPath).body.find(",\"mode\":\"demo\","), std::string::npos);

  const std::string body = station.activity("?hours=24").body;
  EXPECT_NE(body.find(",\"mode\":\"demo\","), std::string::npos);
  EXPECT_THAT(bandIds(body), ElementsAre("40m", "20m", "17m", "15m"));
  // About 4,600 decodes a day; the first slot may begin just outside the window.
  EXPECT_NEAR(static_cast<double>(numberOf(body, "window_spots")), 4600, 400);
  EXPECT_NEAR(static_cast<double>(numberOf(body, "window_spots")), std::stod(banner.spots_held),
              kAgedMeanwhile);
  EXPECT_LE(numberOf(body, "window_unique_callsigns"), 160);
  EXPECT_GT(numberOf(body, "window_unique_callsigns"), 100);
}

TEST(Demo, NothingIsReadLater) {
  const Station station;
  ServerProcess server = station.serve({"--demo"});
  const std::int64_t before = numberOf(station.activity("?hours=6").body, "window_spots");
  station.writeLog(logText(std::vector<Heard>(500, {wallClock() - 60, "144.174", "FT8", "K1ABC"})));
  const std::string body = station.activity("?hours=6").body;
  EXPECT_NEAR(static_cast<double>(numberOf(body, "window_spots")), static_cast<double>(before),
              kAgedMeanwhile);
  EXPECT_THAT(bandIds(body), testing::Not(testing::Contains("2m")));
}

TEST(Demo, ConfigurationFileCanAskForIt) {
  const Station station;
  writeFile(station.workFile("spot.conf"), "demo=true\n");
  ServerProcess server = station.serve({"--config", "spot.conf"});
  EXPECT_EQ(bannerValue(server.output(), "mode:"), "demo (synthetic data)");
}

}  // namespace
}  // namespace spotserver::e2e
