// Activity from a decode log as it lives: it grows, is cut, replaced, ends in half a line, is big.
#include <filesystem>
#include <fstream>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "e2e/activity_model.hpp"
#include "e2e/station.hpp"

namespace spotserver::e2e {
namespace {

using testing::ElementsAre;

// The latest whole minute at least `seconds` ago: a slot of every mode may begin there.
std::int64_t minuteBefore(std::int64_t seconds) { return (wallClock() - seconds) / 60 * 60; }

// The clock is all that has to move on.
// The server's clock is std::time, which runs a few milliseconds behind the precise one.
void awaitNextSecond() {
  const std::int64_t now = wallClock();
  while (wallClock() == now) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

struct Counts {
  std::int64_t spots;
  std::int64_t intervals;
  std::int64_t callsigns;
  bool operator==(const Counts&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Counts& counts) {
  return out << counts.spots << " spots, " << counts.intervals << " intervals, " << counts.callsigns
             << " callsigns";
}

// The window counts of a fresh 6-hour answer.
Counts countsOf(const Station& station) {
  const Response answer = station.activity();
  EXPECT_EQ(answer.status, 200);
  return {numberOf(answer.body, "window_spots"), numberOf(answer.body, "window_intervals"),
          numberOf(answer.body, "window_unique_callsigns")};
}

TEST(ActivityFromLog, WholeHourOfOnePointAMinute) {
  const Station station;
  const std::int64_t start = minuteBefore(1200);
  std::vector<Heard> decodes;
  for (int slot = 0; slot < 60; ++slot) {
    for (int decode = 0; decode <= slot % 4; ++decode) {
      decodes.push_back(
          {start + 15 * slot, "14.074", "FT8", "K" + std::to_string(slot % 7) + "ABC"});
    }
  }
  station.writeLog(logText(decodes));
  ServerProcess server = station.serve({"--history-db", "off"});

  const Response answer = station.activity("?hours=1&smoothing=3");
  EXPECT_EQ(answer.status_line, "HTTP/1.1 200 OK");
  EXPECT_EQ(answer.header("Content-Type"), "application/json");
  const std::int64_t now = generatedAt(answer.body);
  EXPECT_EQ(answer.body, expectedFromLog({1, 3}, now, decodes));

  std::size_t points = 0;
  for (std::size_t at = 0; (at = answer.body.find("{\"t\":", at)) != std::string::npos; ++at) {
    ++points;
  }
  EXPECT_EQ(points, 61u);
}

TEST(ActivityFromLog, EveryModeAndBandInEveryView) {
  const Station station;
  const std::int64_t hour_ago = minuteBefore(3500);
  const std::int64_t recent = minuteBefore(240);
  const std::vector<Heard> decodes = {{hour_ago - 80'000, "7.074", "FT8", "DL1ABC"},
                                      {hour_ago - 20'000, "50.313", "FT8", "G4XYZ"},
                                      {hour_ago - 9'000, "1.840", "FT8", "K1ABC"},
                                      {hour_ago, "14.0971", "WSPR", "K1ABC"},
                                      {hour_ago, "14.080", "FT4", "K1DEF"},
                                      {hour_ago + 7, "14.080", "FT4", "K1DEF"},
                                      {hour_ago + 20, "7.078", "JS8-FAST", "G4XYZ"},
                                      {hour_ago + 24, "7.078", "JS8-TURBO", "G4XYZ"},
                                      {hour_ago + 30, "7.078", "JS8-SLOW", "G0ABC"},
                                      {hour_ago + 30, "7.078", "JS8", ""},
                                      {recent, "13.500000", "FT8", "2E0XYZ"},
                                      {recent, "2.5", "FT8", "2E0XYZ"},
                                      {recent, "430.5", "FT8", "K1ABC"},
                                      {recent, "144.174", "FT8", "K1ABC"},
                                      {recent + 15, "144.174", "FT8", "K1ABC"}};
  station.writeLog(logText(decodes));
  ServerProcess server = station.serve({"--history-db", "off"});
  for (const int hours : {1, 6, 24}) {
    for (const int smoothing : {1, 3, 5}) {
      const std::string query =
          "?hours=" + std::to_string(hours) + "&smoothing=" + std::to_string(smoothing);
      const std::string body = station.activity(query).body;
      EXPECT_EQ(body, expectedFromLog({hours, smoothing}, generatedAt(body), decodes)) << query;
    }
  }
  EXPECT_THAT(
      bandIds(station.activity("?hours=24").body),
      ElementsAre("160m", "40m", "20m", "6m", "2m", "70cm", "13.500000 MHz", "2.500000 MHz"));
}

TEST(ActivityFromLog, EmptyStation) {
  const Station station;
  ServerProcess server = station.serve({"--history-db", "off"});
  const std::string body = station.activity().body;
  EXPECT_EQ(body, "{\"generated\":" + std::to_string(generatedAt(body)) +
                      ",\"mode\":\"live\",\"hours\":6,\"smoothing\":3,\"window_spots\":0,"
                      "\"window_intervals\":0,\"window_unique_callsigns\":0,\"bands\":[]}");
}

TEST(ActivityFromLog, GeneratedIsTheWallClock) {
  const Station station;
  ServerProcess server = station.serve();
  const std::int64_t before = wallClock();
  const std::int64_t generated = generatedAt(station.activity().body);
  EXPECT_GE(generated, before);
  EXPECT_LE(generated, wallClock());
}

TEST(ActivityFromLog, LogThatGrows) {
  const Station station;
  std::vector<Heard> decodes = {{minuteBefore(600), "14.074", "FT8", "K1ABC"}};
  station.writeLog(logText(decodes));
  ServerProcess server = station.serve({"--history-db", "off"});
  for (int round = 1; round <= 5; ++round) {
    const std::string body = station.activity().body;
    EXPECT_EQ(body, expectedFromLog({}, generatedAt(body), decodes)) << round;
    decodes.push_back(
        {decodes.back().time + 60, "14.074", "FT8", "G" + std::to_string(round) + "AA"});
    station.appendLog(logLine(decodes.back()));
  }
  const std::string body = station.activity().body;
  EXPECT_EQ(body, expectedFromLog({}, generatedAt(body), decodes));
}

TEST(ActivityFromLog, LogThatAppearsAfterTheStart) {
  const Station station;
  ServerProcess server = station.serve({"--history-db", "off"});
  EXPECT_EQ(countsOf(station), (Counts{0, 0, 0}));
  station.writeLog(logLine({minuteBefore(60), "14.074", "FT8", "K1ABC"}));
  EXPECT_EQ(countsOf(station), (Counts{1, 1, 1}));
}

TEST(ActivityFromLog, LogThatVanishesAndComesBack) {
  const Station station;
  const std::int64_t time = minuteBefore(600);
  station.writeLog(logLine({time, "14.074", "FT8", "K1ABC"}));
  ServerProcess server = station.serve({"--history-db", "off"});
  std::filesystem::rename(station.log(), station.log() + ".old");
  EXPECT_EQ(countsOf(station), (Counts{1, 1, 1})) << "the store keeps what it has";
  station.writeLog(
      logText({{time + 15, "7.074", "FT8", "K2ABC"}, {time + 30, "7.074", "FT8", ""}}));
  EXPECT_EQ(countsOf(station), (Counts{2, 2, 2})) << "new spots; the callsigns heard stay known";
}

TEST(ActivityFromLog, TruncatedLogIsReadAgain) {
  const Station station;
  const std::int64_t time = minuteBefore(600);
  station.writeLog(logText({{time, "14.074", "FT8", "K1ABC"},
                            {time + 15, "14.074", "FT8", "K2ABC"},
                            {time + 30, "14.074", "FT8", "K3ABC"}}));
  ServerProcess server = station.serve({"--history-db", "off"});
  EXPECT_EQ(countsOf(station), (Counts{3, 3, 3}));
  station.writeLog(logLine({time + 45, "7.074", "FT8", "K4ABC"}));  // the same file, shorter
  EXPECT_EQ(countsOf(station), (Counts{1, 1, 4}));
  station.writeLog("");
  EXPECT_EQ(countsOf(station), (Counts{0, 0, 4}));
  station.appendLog(logLine({time + 60, "7.074", "FT8", "K5ABC"}));
  EXPECT_EQ(countsOf(station), (Counts{1, 1, 5}));
}

TEST(ActivityFromLog, ReplacedLogIsReadFromItsStart) {
  const Station station;
  const std::int64_t time = minuteBefore(600);
  station.writeLog(logLine({time, "14.074", "FT8", "K1ABC"}));
  ServerProcess server = station.serve({"--history-db", "off"});
  EXPECT_EQ(countsOf(station), (Counts{1, 1, 1}));
  // Longer than the old one: only the identity of the file tells.
  const std::vector<Heard> fresh = {{time + 15, "7.074", "FT8", "K2ABC"},
                                    {time + 30, "7.074", "FT8", "K3ABC"},
                                    {time + 45, "7.074", "FT8", "K4ABC"}};
  writeFile(station.log() + ".new", logText(fresh));
  std::filesystem::rename(station.log() + ".new", station.log());
  EXPECT_EQ(countsOf(station), (Counts{3, 3, 4}));
}

TEST(ActivityFromLog, UnfinishedLastLineWaits) {
  const Station station;
  const std::int64_t time = minuteBefore(600);
  const std::string last = logLine({time + 15, "14.074", "FT8", "K2ABC"});
  station.writeLog(logLine({time, "14.074", "FT8", "K1ABC"}) + last.substr(0, last.size() - 1));
  ServerProcess server = station.serve({"--history-db", "off"});
  EXPECT_EQ(countsOf(station), (Counts{1, 1, 1}));
  EXPECT_EQ(countsOf(station), (Counts{1, 1, 1}));
  station.appendLog("\n");
  EXPECT_EQ(countsOf(station), (Counts{2, 2, 2}));
  EXPECT_EQ(countsOf(station), (Counts{2, 2, 2})) << "counted once";
}

TEST(ActivityFromLog, CarriageReturnsAndJunkLines) {
  const Station station;
  const std::int64_t time = minuteBefore(600);
  const std::string good = logLine({time, "14.074", "FT8", "K1ABC"});
  std::string transmitted = good;
  transmitted.replace(transmitted.find(" Rx "), 4, " Tx ");
  std::string lower_case = good;
  lower_case.replace(lower_case.find("FT8"), 3, "ft8");
  station.writeLog(good.substr(0, good.size() - 1) + "\r\n" + transmitted + lower_case + "\n\r\n" +
                   std::string("\0\xff\n", 3) +
                   "250230_101530 14.074 Rx FT8 -12 0.2 1234 CQ K9X\n");
  ServerProcess server = station.serve({"--history-db", "off"});
  EXPECT_EQ(countsOf(station), (Counts{1, 1, 1}));
}

TEST(ActivityFromLog, SendersOfNoKnownCountryAreNotCounted) {
  const Station station;
  const std::int64_t time = minuteBefore(600);
  station.writeLog(logText({{time, "14.074", "FT8", "Q1ABC"}, {time, "14.074", "FT8", "DL1ABC"}}));
  ServerProcess server = station.serve({"--history-db", "off"});
  EXPECT_EQ(countsOf(station), (Counts{2, 1, 1}));
  // A new country file holds for the lines read from then on.
  std::ofstream(station.countryFile(), std::ios::app)
      << "Quizland:                 14:  28:  EU:   51.00:   -10.00:    -1.0:  Q:\n    Q;\n";
  std::filesystem::last_write_time(
      station.countryFile(),
      std::filesystem::last_write_time(station.countryFile()) + std::chrono::seconds(2));
  station.appendLog(logLine({time + 15, "14.074", "FT8", "Q2ABC"}));
  EXPECT_EQ(countsOf(station), (Counts{3, 2, 2}));
}

// The answer of one minute is kept: same bands, newer clock; a new line makes a new one at once.
TEST(ActivityFromLog, AnswerIsReusedWithinItsMinuteUntilTheLogGrows) {
  const Station station;
  std::vector<Heard> decodes = {{minuteBefore(300), "14.074", "FT8", "K1ABC"}};
  station.writeLog(logText(decodes));
  ServerProcess server = station.serve({"--history-db", "off"});
  std::string first;
  std::string second = station.activity().body;
  do {  // once more if the minute turned in between
    first = second;
    awaitNextSecond();
    second = station.activity().body;
  } while (generatedAt(first) / 60 != generatedAt(second) / 60);
  EXPECT_GT(generatedAt(second), generatedAt(first));
  EXPECT_EQ(bandsOf(second), bandsOf(first));

  decodes.push_back({decodes[0].time + 15, "14.074", "FT8", "K2ABC"});
  station.appendLog(logLine(decodes[1]));
  const std::string third = station.activity().body;
  EXPECT_EQ(third, expectedFromLog({}, generatedAt(third), decodes));
}

TEST(ActivityFromLog, ReloadIntervalHoldsBackTheNextLook) {
  const Station station;
  const std::int64_t time = minuteBefore(600);
  station.writeLog(logLine({time, "14.074", "FT8", "K1ABC"}));
  ServerProcess server = station.serve({"--history-db", "off", "--reload", "3600"});
  station.appendLog(logLine({time + 15, "14.074", "FT8", "K2ABC"}));
  EXPECT_EQ(countsOf(station), (Counts{1, 1, 1}));
}

// Two days ago, `bytes` of them.
std::string oldLines(std::size_t bytes) {
  const std::string line = logLine({minuteBefore(172'800), "3.573", "FT8", "K1OLD"});
  std::string text;
  while (text.size() + line.size() <= bytes) text += line;
  return text;
}

std::string recentLines(std::size_t bytes, std::vector<Heard>& decodes) {
  const std::int64_t start = minuteBefore(3000);
  std::string text;
  for (int n = 0; text.size() < bytes; ++n) {
    decodes.push_back({start + n / 80 * 15, "14.074", "FT8", "K" + std::to_string(n % 10) + "NEW"});
    text += logLine(decodes.back());
  }
  return text;
}

TEST(BigLog, OldHalfIsSkippedAndTheRecentHalfCountsInFull) {
  const Station station;
  // A recent line at the very front is out of order: only a whole reading could find it.
  const std::string stray = logLine({minuteBefore(600), "144.174", "FT8", "G4STR"});
  std::vector<Heard> decodes;
  const std::string recent = recentLines(700'000, decodes);
  station.writeLog(stray + oldLines(1'400'000) + recent);
  ServerProcess server = station.serve({"--history-db", "off"});
  const std::string body = station.activity("?hours=1&smoothing=5").body;
  EXPECT_EQ(body, expectedFromLog({1, 5}, generatedAt(body), decodes));
  EXPECT_THAT(bandIds(body), ElementsAre("20m"));

  const Heard next{decodes.back().time + 15, "7.074", "FT8", "K1ABC"};
  decodes.push_back(next);
  station.appendLog(logLine(next));
  const std::string grown = station.activity("?hours=1&smoothing=5").body;
  EXPECT_EQ(grown, expectedFromLog({1, 5}, generatedAt(grown), decodes));
}

// One mebibyte exactly is read whole, one byte more is searched for its start.
TEST(BigLog, SearchBeginsAboveOneMebibyte) {
  constexpr std::size_t kMebibyte = 1'048'576;
  const std::string stray = logLine({minuteBefore(600), "144.174", "FT8", "G4STR"});
  for (const std::size_t size : {kMebibyte, kMebibyte + 1}) {
    const Station station;
    std::vector<Heard> decodes;
    const std::string recent = recentLines(400'000, decodes);
    std::string log = stray + oldLines(kMebibyte - stray.size() - recent.size() - 1);
    log += std::string(size - log.size() - recent.size() - 1, '#') + "\n" + recent;
    ASSERT_EQ(log.size(), size);
    station.writeLog(log);
    ServerProcess server = station.serve({"--history-db", "off"});
    const std::vector<std::string> ids = bandIds(station.activity().body);
    if (size == kMebibyte) {
      EXPECT_THAT(ids, ElementsAre("20m", "2m"));
    } else {
      EXPECT_THAT(ids, ElementsAre("20m"));
    }
  }
}

TEST(BigLog, WholeDayOldLogIsFoundEmpty) {
  const Station station;
  station.writeLog(oldLines(2'000'000));
  ServerProcess server = station.serve({"--history-db", "off"});
  EXPECT_EQ(bannerValue(server.output(), "spots held:"), "0");
  station.appendLog(logLine({minuteBefore(60), "14.074", "FT8", "K1ABC"}));
  EXPECT_EQ(countsOf(station), (Counts{1, 1, 1}));
}

}  // namespace
}  // namespace spotserver::e2e
