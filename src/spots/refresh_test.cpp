// Lines, country file and generation. What else a refresh has to get right stands by subject in
// tests/stems/refresh_*_test.cpp.
#include "spots/refresh.hpp"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <stop_token>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "log_lines.hpp"
#include "spots/refresh_reference.hpp"
#include "stems/refresh_fixture.hpp"

namespace spotserver {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Key;
using ::testing::Pair;
using ::testing::SizeIs;
using ::testing::UnorderedElementsAre;

TEST_F(Refresh, LineBecomesASpot) {
  writeLog("250314_101515    14.0740 Rx JS8-TURBO -12  0.2 1234 no sender\n");
  refresh();
  int visits = 0;
  data.spots.forEach(-kEver, kEver, [&](const ParsedSpot& spot) {
    ++visits;
    EXPECT_EQ(spot.time, kNow - 15);
    EXPECT_EQ(spot.frequency, 14'074'000);
    EXPECT_EQ(spot.mode, 4);
    EXPECT_EQ(spot.band, "20m");
    EXPECT_EQ(spot.callsign, "");
  });
  EXPECT_EQ(visits, 1);
  EXPECT_EQ(data.accepted_lines, 1u);
  EXPECT_EQ(data.newest_decode, kNow - 15);
  EXPECT_THAT(lastHeard(data), IsEmpty());
  EXPECT_THAT(lastHeardByBand(data), IsEmpty());
}

TEST_F(Refresh, NewestDecodeIsTheLatestInWhateverOrder) {
  writeLog(heard("N0AAA", 30) + heard("N0BBB", 10) + heard("N0CCC", 20));
  refresh();
  EXPECT_EQ(data.newest_decode, kNow - 10);
  EXPECT_THAT(callsigns(data), UnorderedElementsAre("N0AAA", "N0BBB", "N0CCC"));
}

TEST_F(Refresh, SenderIsRecordedOverallAndOnTheBandOfTheDialFrequency) {
  writeLog(decodeLine(kNow - 30, "CQ N0CALL FN42") + decodeLine(kNow - 15, "CQ N0CALL FN42", "99"));
  refresh();
  EXPECT_THAT(callsigns(data), ElementsAre("N0CALL", "N0CALL"));
  EXPECT_THAT(lastHeard(data), UnorderedElementsAre(Pair("N0CALL", kNow - 15)));
  EXPECT_THAT(lastHeardByBand(data),
              ElementsAre(Pair("20m", UnorderedElementsAre(Pair("N0CALL", kNow - 30))),
                          Pair("99.000000 MHz", UnorderedElementsAre(Pair("N0CALL", kNow - 15)))));
}

TEST_F(Refresh, RejectedLinesLeaveNoTrace) {
  writeLog("junk\n\n" + timestamp(kNow) + " 14.074 Tx FT8 -12 0.2 1234 CQ N0CALL FN42\n");
  refresh();
  EXPECT_TRUE(data.spots.empty());
  EXPECT_THAT(lastHeard(data), IsEmpty());
  EXPECT_EQ(data.accepted_lines, 0u);
  EXPECT_EQ(data.newest_decode, 0);
}

TEST_F(Refresh, OneCarriageReturnAtTheLinesEndIsNotPartOfIt) {
  // A JS8 message must end with its bracket: there a carriage return shows.
  const std::string line = timestamp(kNow) +
                           " 14.0956 Rx JS8 -12 0.2 1234 X [frame=1 flags=0 "
                           "sender=N0CALL grid=FN42]";
  writeLog(line + "\r\n" + line + "\r\r\n");
  refresh();
  EXPECT_THAT(callsigns(data), ElementsAre("N0CALL", ""));
}

TEST_F(Refresh, NulBytesAreData) {
  std::string line = heard("N0CALL");
  line.insert(line.size() - 1, 1, '\0');
  writeLog(line + heard("DL1ABC"));
  refresh();
  EXPECT_THAT(callsigns(data), ElementsAre("", "DL1ABC"));
}

TEST_F(Refresh, WithinTheMinimumIntervalNothingIsDone) {
  writeLog(heard("N0CALL"));
  refreshSpots(data, kNow, 15);
  appendLog(heard("DL1ABC"));
  refreshSpots(data, kNow + 14, 15);
  EXPECT_THAT(callsigns(data), ElementsAre("N0CALL"));
  EXPECT_EQ(data.last_refresh, kNow);
  refreshSpots(data, kNow + 15, 15);
  EXPECT_THAT(callsigns(data), ElementsAre("N0CALL", "DL1ABC"));
  EXPECT_EQ(data.last_refresh, kNow + 15);
}

TEST_F(Refresh, MinimumIntervalOfZeroReadsEveryTime) {
  writeLog(heard("N0CALL"));
  refresh();
  appendLog(heard("DL1ABC"));
  refresh();
  EXPECT_THAT(callsigns(data), SizeIs(2));
}

TEST_F(Refresh, SyntheticDataIsNeverTouched) {
  writeLog(heard("N0CALL"));
  data.demo = true;
  data.spots.append({.time = 1, .band = "20m", .callsign = "demo"});
  refresh();
  EXPECT_THAT(callsigns(data), ElementsAre("demo"));
  EXPECT_EQ(data.last_refresh, 0);
  EXPECT_EQ(data.generation, 0u);
}

TEST_F(Refresh, LastLineWithoutANewlineIsNotCountedUntilItIsCompleted) {
  const std::string line = heard("N0CALL");
  writeLog(line.substr(0, line.size() - 1));
  refresh();
  EXPECT_TRUE(data.spots.empty());
  EXPECT_EQ(data.accepted_lines, 0u);
  EXPECT_EQ(data.log.offset, 0u);
  appendLog("\n");
  refresh();
  EXPECT_THAT(callsigns(data), ElementsAre("N0CALL"));
  EXPECT_EQ(data.log.offset, line.size());
  refresh();
  EXPECT_THAT(callsigns(data), ElementsAre("N0CALL"));
}

TEST_F(Refresh, StoppedRefreshConsumesNothingAndLosesNothing) {
  writeLog(heard("N0AAA"));
  std::stop_source stop;
  stop.request_stop();
  refreshSpots(data, kNow, 0, stop.get_token());
  EXPECT_TRUE(data.spots.empty());
  EXPECT_EQ(data.generation, 0u);
  refresh();
  EXPECT_THAT(callsigns(data), ElementsAre("N0AAA"));
}

// What the country file does to senders.

TEST_F(Refresh, SenderOfNoCountryIsStoredWithAnEmptyCallsignAndNotCounted) {
  dir.write("cty.dat", kCountries);
  writeLog(heard("N0CALL") + heard("QQ0QQ") + heard("DL1ABC"));
  refresh();
  EXPECT_THAT(callsigns(data), ElementsAre("N0CALL", "", "DL1ABC"));
  EXPECT_THAT(lastHeard(data), UnorderedElementsAre(Key("N0CALL"), Key("DL1ABC")));
  EXPECT_THAT(lastHeardByBand(data).at("20m"), SizeIs(2));
  EXPECT_EQ(data.accepted_lines, 3u);
}

TEST_F(Refresh, WithoutACountryFileEverySenderIsCounted) {
  writeLog(heard("N0CALL") + heard("QQ0QQ"));
  refresh();
  EXPECT_THAT(callsigns(data), ElementsAre("N0CALL", "QQ0QQ"));
  EXPECT_THAT(lastHeard(data), UnorderedElementsAre(Key("N0CALL"), Key("QQ0QQ")));
}

TEST_F(Refresh, CountryFileIsTheFirstCandidateThatIsARegularFile) {
  std::filesystem::create_directory(dir.path("share"));
  std::filesystem::create_directory(dir.path("cty.dat"));
  dir.write("share/cty.dat", kCountries);
  writeLog(heard("QQ0QQ"));
  refresh();
  EXPECT_THAT(callsigns(data), ElementsAre(""));
  // A preferred file that appears later is taken from then on.
  std::filesystem::remove(dir.path("cty.dat"));
  dir.write("cty.dat", "Otherland: 14: 27: EU: 50.0: -10.0: -1.0: QQ0:\n    QQ0;\n");
  appendLog(heard("QQ0QQ"));
  refresh();
  EXPECT_THAT(callsigns(data), ElementsAre("", "QQ0QQ"));
  // When it goes, the next one's turn comes again.
  std::filesystem::remove(dir.path("cty.dat"));
  appendLog(heard("QQ0QQ"));
  refresh();
  EXPECT_THAT(callsigns(data), ElementsAre("", "QQ0QQ", ""));
}

TEST_F(Refresh, CountriesStayWhenNoCandidateIsLeft) {
  dir.write("cty.dat", kCountries);
  writeLog(heard("QQ0QQ"));
  refresh();
  std::filesystem::remove(dir.path("cty.dat"));
  appendLog(heard("QQ0QQ"));
  refresh();
  EXPECT_THAT(callsigns(data), ElementsAre("", ""));
}

TEST_F(Refresh, FifoInPlaceOfTheCountryFileIsPassedOver) {
  std::filesystem::create_directory(dir.path("share"));
  ASSERT_EQ(mkfifo(dir.path("cty.dat").c_str(), 0600), 0);
  dir.write("share/cty.dat", kCountries);
  writeLog(heard("QQ0QQ"));
  refresh();
  EXPECT_THAT(callsigns(data), ElementsAre(""));
}

TEST_F(Refresh, CountryFileIsReadBeforeTheLog) {
  writeLog(heard("N0AAA"));
  refresh();
  appendLog(heard("QQ0QQ"));
  dir.write("cty.dat", kCountries);
  refresh();
  EXPECT_THAT(callsigns(data), ElementsAre("N0AAA", ""));
}

// The generation.

TEST_F(Refresh, GenerationGrowsByOneWhenLinesWereConsumedOrTheLogIsAnother) {
  const std::string two_lines = heard("N0AAA") + heard("N0BBB");
  writeLog("");
  const struct {
    const char* name;
    std::function<void()> act;
    std::uint64_t growth;
  } steps[] = {
      {"empty log, first look", [] {}, 0},
      {"two lines", [&] { appendLog(two_lines); }, 1},
      {"nothing new", [] {}, 0},
      {"half a line", [&] { appendLog("junk"); }, 0},
      {"the other half, of a line that is rejected", [&] { appendLog("\n"); }, 1},
      {"truncated to nothing", [&] { writeLog(""); }, 1},
      {"still nothing", [] {}, 0},
      {"lines again", [&] { appendLog(two_lines); }, 1},
      {"written anew, same size", [&] { writeLog(heard("N0CCC") + heard("N0DDD")); }, 1},
      {"vanished", [&] { std::filesystem::remove(data.all_txt_path); }, 0},
      {"line longer than 1 MiB, of another log",
       [&] { writeLog(std::string((1 << 20) + 1, 'x') + "\n"); }, 1},
  };
  for (const auto& step : steps) {
    step.act();
    const auto before = data.generation;
    refresh();
    EXPECT_EQ(data.generation, before + step.growth) << step.name;
  }
}

TEST_F(Refresh, LineLongerThanOneMebibyteCountsAsConsumed) {
  writeLog("x");
  refresh();
  appendLog(std::string(1 << 20, 'x') + "\n");
  refresh();
  EXPECT_EQ(data.generation, 1u);
}

TEST_F(Refresh, HistoryReadAddsOneOfItsOwn) {
  writeLog(heard("N0AAA"));
  makeHistory();
  refresh();
  EXPECT_EQ(data.generation, 2u);
  refresh();
  EXPECT_EQ(data.generation, 3u);
}

}  // namespace
}  // namespace spotserver
