#include "spots/refresh.hpp"

#include <filesystem>
#include <fstream>
#include <functional>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/stat.h>
#include <unistd.h>

#include "failing_memory.hpp"
#include "history_file.hpp"
#include "log_lines.hpp"
#include "sanitizers.hpp"
#include "spots/refresh_reference.hpp"
#include "temp_dir.hpp"

namespace spotserver {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Key;
using ::testing::Pair;
using ::testing::SizeIs;
using ::testing::UnorderedElementsAre;

constexpr double kNow = 1'741'947'330;  // 2025-03-14 10:15:30 UTC, half past a minute
constexpr double kEver = std::numeric_limits<double>::infinity();

constexpr const char* kCountries =
    "Testland:  14:  27:  EU:  50.0:  -10.0:  -1.0:  N0:\n"
    "    N0,DL;\n";

// The callsigns of all spots held, in their order.
std::vector<std::string> callsigns(const SpotData& data) {
  std::vector<std::string> found;
  data.spots.forEach(-kEver, kEver,
                     [&](const ParsedSpot& spot) { found.push_back(spot.callsign); });
  return found;
}

// A decode of `callsign` that is `age` seconds old at kNow.
std::string heard(const std::string& callsign, double age = 10) {
  return decodeLine(kNow - age, "CQ " + callsign + " FN42");
}

// A station's folder and the data read from it.
class Refresh : public ::testing::Test {
 protected:
  Refresh() {
    data.all_txt_path = dir.path("ALL.TXT");
    data.cty_candidates = {dir.path("cty.dat"), dir.path("share/cty.dat")};
  }

  void writeLog(const std::string& text) { dir.write("ALL.TXT", text); }
  void appendLog(const std::string& text) { dir.append("ALL.TXT", text); }
  void refresh(double now = kNow) { refreshSpots(data, now, 0); }

  // Sets the history up; it holds four slots of the minute that ended last at `time`.
  HistoryFile makeHistory(double time = kNow) {
    data.history_path = dir.path("history.sqlite3");
    HistoryFile history(data.history_path);
    addMinute(history, time);
    return history;
  }
  static void addMinute(HistoryFile& history, double time) {
    history.add({.minute = static_cast<std::int64_t>(time / 60) - 1});
  }

  TempDir dir;
  SpotData data;
};

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

// Another log than before.

TEST_F(Refresh, TruncatedLogEmptiesTheSpotsAndIsReadAgain) {
  writeLog(heard("N0AAA") + heard("N0BBB"));
  refresh();
  writeLog(heard("N0CCC"));
  refresh();
  EXPECT_THAT(callsigns(data), ElementsAre("N0CCC"));
  EXPECT_EQ(data.accepted_lines, 3u);
}

TEST_F(Refresh, LogCutByOneByteIsReadAgain) {
  const std::string log = heard("N0AAA") + heard("N0BBB");
  writeLog(log);
  refresh();
  std::filesystem::resize_file(data.all_txt_path, log.size() - 1);
  refresh();
  EXPECT_THAT(callsigns(data), ElementsAre("N0AAA"));
  appendLog("\n" + heard("N0CCC"));
  refresh();
  EXPECT_THAT(callsigns(data), ElementsAre("N0AAA", "N0BBB", "N0CCC"));
}

TEST_F(Refresh, ReplacedLogEmptiesTheSpotsAndKeepsTheCallsigns) {
  writeLog(heard("N0AAA"));
  refresh();
  dir.write("new", heard("N0BBB") + heard("N0CCC"));
  std::filesystem::rename(dir.path("new"), data.all_txt_path);
  refresh();
  EXPECT_THAT(callsigns(data), ElementsAre("N0BBB", "N0CCC"));
  EXPECT_THAT(lastHeard(data), UnorderedElementsAre(Key("N0AAA"), Key("N0BBB"), Key("N0CCC")));
  refresh(kNow + 89'100);
  EXPECT_THAT(lastHeard(data), IsEmpty());
}

TEST_F(Refresh, LogGrownPastItsOldEndAfterATruncationIsReadAgain) {
  writeLog(heard("N0AAA") + heard("N0BBB"));
  refresh();
  writeLog(heard("N0CCC") + heard("N0DDD") + heard("N0EEE"));
  refresh();
  EXPECT_THAT(callsigns(data), ElementsAre("N0CCC", "N0DDD", "N0EEE"));
}

TEST_F(Refresh, VanishedLogLeavesTheStoreAsItIs) {
  writeLog(heard("N0AAA"));
  refresh();
  const auto generation = data.generation;
  std::filesystem::rename(data.all_txt_path, dir.path("aside"));
  refresh();
  EXPECT_THAT(callsigns(data), ElementsAre("N0AAA"));
  EXPECT_EQ(data.generation, generation);
  // The same file back at its place goes on where it was left.
  std::filesystem::rename(dir.path("aside"), data.all_txt_path);
  appendLog(heard("N0BBB"));
  refresh();
  EXPECT_THAT(callsigns(data), ElementsAre("N0AAA", "N0BBB"));
  EXPECT_EQ(data.accepted_lines, 2u);
}

TEST_F(Refresh, WhateverElseLiesInTheLogsPlaceIsLeftAlone) {
  writeLog(heard("N0AAA"));
  refresh();
  const std::string& path = data.all_txt_path;
  const std::string aside = dir.path("aside");
  std::filesystem::rename(path, aside);
  const struct {
    const char* name;
    std::function<void()> place;
  } cases[] = {
      {"directory", [&] { std::filesystem::create_directory(path); }},
      {"FIFO", [&] { ASSERT_EQ(mkfifo(path.c_str(), 0600), 0); }},
      {"device", [&] { std::filesystem::create_symlink("/dev/zero", path); }},
      {"dangling link", [&] { std::filesystem::create_symlink(dir.path("none"), path); }},
      {"link to itself", [&] { std::filesystem::create_symlink(path, path); }},
  };
  for (const auto& c : cases) {
    c.place();
    refresh();
    EXPECT_THAT(callsigns(data), ElementsAre("N0AAA")) << c.name;
    std::filesystem::remove(path);
  }
  std::filesystem::rename(aside, path);
  appendLog(heard("N0BBB"));
  refresh();
  EXPECT_THAT(callsigns(data), ElementsAre("N0AAA", "N0BBB"));
}

TEST_F(Refresh, LogWithoutAPathIsNoLog) {
  data.all_txt_path = "";
  refresh();
  EXPECT_TRUE(data.spots.empty());
  EXPECT_EQ(data.last_refresh, kNow);
}

TEST_F(Refresh, LogThatOpensButCannotBeReadLeavesTheStoreAsItIs) {
  writeLog(heard("N0AAA"));
  refresh();
  // A regular file whose first page nobody can read; the store is to take it for the log it knows.
  data.all_txt_path = "/proc/self/mem";
  struct stat status {};
  ASSERT_EQ(stat(data.all_txt_path.c_str(), &status), 0);
  data.log.inode = status.st_ino;
  data.log.offset = 0;
  const auto generation = data.generation;
  refresh();
  EXPECT_THAT(callsigns(data), ElementsAre("N0AAA"));
  EXPECT_EQ(data.generation, generation);
}

TEST_F(Refresh, LinkToALogIsFollowed) {
  dir.write("real", heard("N0AAA"));
  std::filesystem::create_symlink(dir.path("real"), data.all_txt_path);
  refresh();
  EXPECT_THAT(callsigns(data), ElementsAre("N0AAA"));
}

TEST_F(Refresh, AnyScheduleOfGrowthAndReplacementEqualsAFreshStart) {
  std::mt19937 random(9);
  for (int round = 0; round < 500; ++round) {
    const auto script = randomScript(random, 1000);
    ASSERT_EQ(RefreshScript(script).run(), "") << "schedule " << round;
  }
}

// Where a large log is begun.

// `size` bytes or a line more of decodes every `step` seconds, the last one at `end`.
std::string longLog(std::size_t size, double step, double end) {
  const std::size_t count = size / heard("N0AAA").size() + 1;
  std::string text;
  for (std::size_t i = count; i > 0; --i) {
    text += decodeLine(end - step * static_cast<double>(i - 1), "CQ N0AAA FN42");
  }
  return text;
}

TEST_F(Refresh, LargeLogWhoseFirstHalfIsTooOldIsReadFromNearItsMiddle) {
  const std::string recent = longLog(1 << 20, 1, kNow);
  const std::string old = longLog(1 << 20, 1, kNow - 200'000);
  writeLog(old + recent);
  refresh();
  const std::size_t line = heard("N0AAA").size();
  EXPECT_EQ(data.spots.size(), recent.size() / line);
  EXPECT_GE(data.accepted_lines, recent.size() / line);
  EXPECT_LE(data.accepted_lines, (recent.size() + 65'536) / line);
}

TEST_F(Refresh, LogOfOneMebibyteIsReadWholeAndOneByteMoreIsSearched) {
  // Everything is too old to be held, so a search comes out near the end.
  std::string log = longLog((1 << 20) - 100, 1, kNow - 200'000);
  const std::size_t lines = log.size() / heard("N0AAA").size();
  log.append((1 << 20) - log.size() - 1, 'x');
  log += '\n';
  ASSERT_EQ(log.size(), 1u << 20);
  writeLog(log);
  refresh();
  EXPECT_EQ(data.accepted_lines, lines);

  SpotData other;
  other.all_txt_path = dir.write("larger", "\n" + log);
  refreshSpots(other, kNow, 0);
  EXPECT_GT(other.accepted_lines, 0u);
  EXPECT_LE(other.accepted_lines, 65'536 / heard("N0AAA").size());
}

TEST_F(Refresh, LargeLogIsBegunTenMinutesBeforeTheRetention) {
  // One line a second; what lies before now - 89,700 may be left out, what lies after may not.
  writeLog(longLog(8 << 20, 1, kNow));
  refresh();
  EXPECT_GE(data.accepted_lines, 89'701u);
  EXPECT_LE(data.accepted_lines, 89'701u + 65'536 / heard("N0AAA").size() + 1);
  EXPECT_EQ(data.spots.size(), 89'101u);
}

// Lines dated far ahead look like lines of the day to the search: it may begin too early for them,
// never too late.
TEST_F(Refresh, LargeLogWithLinesOfTheYear2099ShowsItsWholeDay) {
  constexpr double kFarAhead = 4'090'000'000;
  const std::string log = longLog(4 << 20, 2, kNow);  // of 34 hours
  const std::size_t line = heard("N0AAA").size();
  std::string ahead;
  while (ahead.size() < 300'000) ahead += decodeLine(kFarAhead, "CQ N0FAR FN42");
  for (const double share : {0.0, 0.1, 0.25, 0.3, 0.5, 0.75, 0.9, 1.0}) {
    const auto lines_before =
        static_cast<std::size_t>(share * static_cast<double>(log.size() / line));
    const std::size_t place = lines_before * line;
    writeLog(log.substr(0, place) + ahead + log.substr(place) + ahead);
    SpotData station;
    station.all_txt_path = data.all_txt_path;
    const double begin = kNow - launcher::kRetention;
    const auto day = plainSpots(data.all_txt_path, begin, kNow);
    ASSERT_EQ(day.size(), 89'100 / 2 + 1u);

    refreshSpots(station, kNow, 0);
    EXPECT_EQ(spotsHeld(station, begin, kNow), day) << share;
    EXPECT_EQ(station.spots.size(), day.size()) << share;
    EXPECT_THAT(lastHeard(station), UnorderedElementsAre(Key("N0AAA"))) << share;

    // The computer's clock follows the decoder's and is put right again.
    refreshSpots(station, kFarAhead, 0);
    EXPECT_THAT(lastHeard(station), UnorderedElementsAre(Key("N0FAR"))) << share;
    refreshSpots(station, kNow, 0);
    EXPECT_EQ(spotsHeld(station, begin, kNow), day) << share;
    EXPECT_EQ(station.spots.size(), day.size()) << share;
  }
}

TEST_F(Refresh, LargeLogIsSearchedOnceAndThenFollowed) {
  writeLog(longLog(2 << 20, 10, kNow - 1000));
  refresh();
  const auto lines = data.accepted_lines;
  const auto spots = data.spots.size();
  appendLog(heard("N0BBB"));
  refresh();
  EXPECT_EQ(data.accepted_lines, lines + 1);
  EXPECT_EQ(data.spots.size(), spots + 1);
}

TEST_F(Refresh, LogThatGrewLargeBeforeItsFirstLineEndedIsSearched) {
  writeLog("junk");
  refresh();
  appendLog("\n" + longLog(2 << 20, 10, kNow - 200'000));
  refresh();
  EXPECT_GT(data.accepted_lines, 0u);
  EXPECT_LE(data.accepted_lines, 65'536 / heard("N0AAA").size());
}

TEST_F(Refresh, PartialFirstLineThatIsUnfinishedIsSkippedWhenItEnds) {
  // The search comes out within the last line, which is too long to be one.
  writeLog(heard("N0AAA") + std::string(2 << 20, 'x'));
  refresh();
  EXPECT_GT(data.log.offset, 1u << 20);
  EXPECT_EQ(data.accepted_lines, 0u);
  appendLog(heard("N0BBB"));
  refresh();
  EXPECT_EQ(data.accepted_lines, 0u);
  appendLog(heard("N0CCC"));
  refresh();
  EXPECT_THAT(callsigns(data), ElementsAre("N0CCC"));
}

// How old is too old.

TEST_F(Refresh, SpotOf89100SecondsIsKeptAndOneASecondOlderDropped) {
  writeLog(heard("N0OLD", 89'101) + heard("N0AT", 89'100) + heard("N0NEW", 89'099));
  refresh();
  EXPECT_THAT(callsigns(data), ElementsAre("N0AT", "N0NEW"));
  EXPECT_THAT(lastHeard(data), UnorderedElementsAre(Key("N0AT"), Key("N0NEW")));
  refresh(kNow + 1);
  EXPECT_THAT(callsigns(data), ElementsAre("N0NEW"));
}

TEST_F(Refresh, LineDatedInTheFutureHoldsBackNoPruning) {
  writeLog(heard("N0OLD", 80'000) + heard("N0FUT", -50'000) + heard("N0NEW", 10));
  refresh();
  EXPECT_THAT(callsigns(data), ElementsAre("N0OLD", "N0NEW", "N0FUT"));
  refresh(kNow + 20'000);
  EXPECT_THAT(callsigns(data), ElementsAre("N0NEW", "N0FUT"));
}

TEST_F(Refresh, WithoutALogWhatIsTooOldGoesAllTheSame) {
  writeLog(heard("N0AAA"));
  refresh();
  std::filesystem::remove(data.all_txt_path);
  refresh(kNow + 80'000);
  EXPECT_THAT(callsigns(data), ElementsAre("N0AAA"));
  refresh(kNow + 90'000);
  EXPECT_TRUE(data.spots.empty());
  EXPECT_THAT(lastHeard(data), IsEmpty());
}

TEST_F(Refresh, LineDatedFarAheadIsHeldOnceTheClockGetsThere) {
  writeLog(heard("N0FAR", -89'101) + heard("N0AHEAD", -89'100) + heard("N0NEW"));
  refresh();
  EXPECT_EQ(data.spots.size(), 2u);
  EXPECT_EQ(data.left_out_from, kNow + 89'101);
  EXPECT_EQ(data.accepted_lines, 3u);
  refresh(kNow + 89'100);
  EXPECT_EQ(data.accepted_lines, 3u);
  const auto generation = data.generation;
  refresh(kNow + 89'101);
  EXPECT_EQ(data.spots.size(), 2u);  // N0AHEAD and N0FAR; N0NEW is too old now
  EXPECT_EQ(data.left_out_from, kEver);
  EXPECT_EQ(data.generation, generation + 1);
}

TEST_F(Refresh, DecoderWhoseClockIsAYearAheadFillsNoMemory) {
  for (int look = 0; look < 50; ++look) {
    const double now = kNow + 15 * look;
    std::string lines;
    for (int i = 0; i < 20; ++i) {
      const std::string callsign = "N0" + std::string{char('A' + i), char('A' + look % 26)};
      lines += decodeLine(now + 365 * 86'400.0, "CQ " + callsign + " FN42");
    }
    appendLog(lines);
    refresh(now);
  }
  EXPECT_TRUE(data.spots.empty());
  EXPECT_EQ(heardSince(data, 0), 0u);
  EXPECT_EQ(data.accepted_lines, 1000u);
}

// A line that was left out becomes old enough when the clock is at its date, and then all are held
// that lie up to a retention ahead of that: the next time is a retention later.
TEST_F(Refresh, DecoderMoreThanADayAheadLetsTheLogBeReadAnewOnceADayOnly) {
  constexpr double kAhead = 26 * 3600;
  constexpr int kDays = 5;
  std::vector<double> read_anew;
  for (double now = kNow; now < kNow + kDays * 86'400; now += 900) {
    appendLog(decodeLine(now + kAhead, "CQ N0AAA FN42"));
    const auto lines = data.accepted_lines;
    refresh(now);
    if (data.accepted_lines > lines + 1) read_anew.push_back(now);
    ASSERT_EQ(spotsHeld(data, now - launcher::kRetention, now),
              plainSpots(data.all_txt_path, now - launcher::kRetention, now));
    ASSERT_LE(data.spots.size(), 2 * 89'100 / 900 + 1u);
  }
  ASSERT_FALSE(read_anew.empty());
  EXPECT_EQ(read_anew.front(), kNow + kAhead);
  for (std::size_t i = 1; i < read_anew.size(); ++i) {
    EXPECT_GE(read_anew[i] - read_anew[i - 1], launcher::kRetention);
  }
}

// The clock is set.

TEST_F(Refresh, ClockUpTo600SecondsBackWaits) {
  writeLog(heard("N0AAA"));
  refresh();
  appendLog(heard("N0BBB"));
  refresh(kNow - 600);
  EXPECT_THAT(callsigns(data), ElementsAre("N0AAA"));
  EXPECT_EQ(data.last_refresh, kNow);
}

TEST_F(Refresh, ClockMoreThan600SecondsBackReadsBothSourcesAnew) {
  writeLog(heard("N0AAA", 3000));
  HistoryFile history = makeHistory(kNow - 7200);
  refresh();
  ASSERT_THAT(data.intervals, SizeIs(4));
  addMinute(history, kNow - 3600);  // written late; the overlap alone would not see it
  const auto generation = data.generation;
  refreshSpots(data, kNow - 601, 15);
  EXPECT_EQ(data.last_refresh, kNow - 601);
  EXPECT_EQ(data.history_read_to, kNow - 601);
  EXPECT_THAT(data.intervals, SizeIs(8));
  EXPECT_EQ(data.accepted_lines, 2u);
  EXPECT_EQ(data.generation, generation + 2);
}

TEST_F(Refresh, ClockSetBackReadsAtOnceWhateverTheMinimumInterval) {
  writeLog(heard("N0AAA", 3000));
  refreshSpots(data, kNow, 1e6);
  refreshSpots(data, kNow - 601, 1e6);
  EXPECT_EQ(data.accepted_lines, 2u);
  EXPECT_THAT(callsigns(data), ElementsAre("N0AAA"));
}

TEST_F(Refresh, ClockSetBackEmptiesIntervalsAndRatesEvenIfTheHistoryIsGone) {
  makeHistory();
  refresh();
  ASSERT_THAT(data.rates, SizeIs(1));
  std::filesystem::remove(data.history_path);
  refresh(kNow - 601);
  EXPECT_THAT(data.intervals, IsEmpty());
  EXPECT_THAT(data.rates, IsEmpty());
  EXPECT_EQ(data.history_read_to, 0);
  EXPECT_FALSE(data.history_in_use);
}

TEST_F(Refresh, ClockSetBackWithoutALogEmptiesAndCounts) {
  writeLog(heard("N0AAA", 3000));
  refresh();
  std::filesystem::remove(data.all_txt_path);
  refresh(kNow - 601);
  EXPECT_TRUE(data.spots.empty());
  EXPECT_EQ(data.generation, 2u);
  EXPECT_THAT(lastHeard(data), UnorderedElementsAre(Key("N0AAA")));
}

TEST_F(Refresh, ClockThatWasYearsAheadCostsNothingOfTheDay) {
  writeLog(heard("N0AAA", 80'000) + heard("N0BBB"));
  makeHistory();
  refresh(kNow + 2e9);
  EXPECT_TRUE(data.spots.empty());
  EXPECT_THAT(data.intervals, IsEmpty());
  EXPECT_THAT(lastHeard(data), IsEmpty());
  refresh(kNow);
  EXPECT_THAT(data.intervals, SizeIs(4));
  EXPECT_THAT(lastHeard(data), UnorderedElementsAre(Key("N0AAA"), Key("N0BBB")));
}

// Computer and decoder have one clock: what was heard while it was wrong has its dates, which never
// grow old.
TEST_F(Refresh, CallsignsHeardWhileTheClockWasYearsAheadLeaveWhenItIsSet) {
  constexpr double kAhead = 2e9;
  writeLog(heard("N0OLD", 3600) + heard("N0BOTH", 3600) + heard("N0WRONG", -kAhead + 10) +
           heard("N0BOTH", -kAhead + 10));
  refresh(kNow + kAhead);
  EXPECT_THAT(lastHeard(data), UnorderedElementsAre(Key("N0WRONG"), Key("N0BOTH")));
  refresh(kNow);
  EXPECT_THAT(lastHeard(data),
              UnorderedElementsAre(Pair("N0OLD", kNow - 3600), Pair("N0BOTH", kNow - 3600)));
  EXPECT_THAT(lastHeardByBand(data).at("20m"), SizeIs(2));
  EXPECT_EQ(data.heard.remembered(), 2u);
}

// An hour ahead is what a decoder may be anyway.
TEST_F(Refresh, CallsignsHeardWhileTheClockWasAnHourAheadStayUntilTheyAgeOut) {
  writeLog(heard("N0AHEAD", -3600));
  refresh(kNow + 3610);
  writeLog(heard("N0AAA"));
  refresh(kNow);
  EXPECT_THAT(lastHeard(data), UnorderedElementsAre(Key("N0AAA"), Key("N0AHEAD")));
  refresh(kNow + 3600 + 89'101);
  EXPECT_THAT(lastHeard(data), IsEmpty());
}

TEST_F(Refresh, ClockThatWasYearsBehindCostsNothingOfTheDay) {
  writeLog(heard("N0AAA", 80'000) + heard("N0BBB"));
  refresh(kNow - 1e9);
  EXPECT_TRUE(data.spots.empty());
  refresh(kNow);
  EXPECT_THAT(callsigns(data), ElementsAre("N0AAA", "N0BBB"));
  EXPECT_THAT(lastHeard(data), SizeIs(2));
}

// The history.

TEST_F(Refresh, WithTheHistoryInUseLogLinesOnlySupplyCallsigns) {
  writeLog(heard("N0AAA"));
  makeHistory();
  refresh();
  appendLog(heard("N0BBB"));
  refresh();
  EXPECT_TRUE(data.history_in_use);
  EXPECT_TRUE(data.spots.empty());
  EXPECT_THAT(lastHeard(data), UnorderedElementsAre(Key("N0AAA"), Key("N0BBB")));
  EXPECT_THAT(lastHeardByBand(data).at("20m"), SizeIs(2));
  EXPECT_EQ(data.accepted_lines, 2u);
}

TEST_F(Refresh, HistoryIsReadBeforeTheLog) {
  writeLog(heard("N0AAA"));
  refresh();
  appendLog(heard("N0BBB"));
  makeHistory();
  refresh();
  // Had the log come first, N0BBB's spot would have been made and dropped; had the history come
  // after it, the spot would still be there.
  EXPECT_TRUE(data.spots.empty());
  EXPECT_THAT(data.intervals, SizeIs(4));
}

TEST_F(Refresh, CountryFileIsReadBeforeTheLog) {
  writeLog(heard("N0AAA"));
  refresh();
  appendLog(heard("QQ0QQ"));
  dir.write("cty.dat", kCountries);
  refresh();
  EXPECT_THAT(callsigns(data), ElementsAre("N0AAA", ""));
}

TEST_F(Refresh, StationWithoutALogHasItsHistory) {
  makeHistory();
  refresh();
  EXPECT_THAT(data.intervals, SizeIs(4));
  EXPECT_EQ(data.generation, 1u);
  refresh(kNow + 100'000);
  EXPECT_THAT(data.intervals, IsEmpty());
  EXPECT_THAT(data.rates, IsEmpty());
}

TEST_F(Refresh, FirstHistoryWindowIsTheRetention) {
  // The minute that begins first at or after kNow - 89,100, and the one before it.
  const auto first = static_cast<std::int64_t>(std::ceil((kNow - 89'100) / 60));
  HistoryFile history = makeHistory();
  history.add({.minute = first, .mask = 1});
  history.add({.minute = first - 1, .mask = 1});
  refresh();
  ASSERT_THAT(data.intervals, SizeIs(5));
  EXPECT_EQ(data.intervals[0].start, static_cast<double>(first) * 60);
}

TEST_F(Refresh, LaterHistoryWindowsOverlapTheLastOneBy300Seconds) {
  HistoryFile history = makeHistory();
  refresh();
  // Written late: only what lies in the last 300 s before the last refresh is still seen.
  history.add({.minute = static_cast<std::int64_t>(kNow - 300) / 60 + 1, .mask = 1});
  history.add({.minute = static_cast<std::int64_t>(kNow - 300) / 60, .mask = 1});
  refresh(kNow + 30);
  EXPECT_THAT(data.intervals, SizeIs(5));
  EXPECT_EQ(data.history_read_to, kNow + 30);
}

TEST_F(Refresh, AfterALongPauseTheHistoryIsReadNoFurtherBackThanTheRetention) {
  HistoryFile history = makeHistory();
  refresh();
  const double later = kNow + 1e6;
  // A row that no read gets through, where a window that began at the last read would meet it.
  history.add({.mode = "NOISE", .minute = static_cast<std::int64_t>(kNow + 5e5) / 60});
  addMinute(history, later);
  refresh(later);
  EXPECT_TRUE(data.history_in_use);
  EXPECT_THAT(data.intervals, SizeIs(4));
}

TEST_F(Refresh, HistoryThatFailsLeavesItsIntervalsAndTheLogGivesSpotsFromThenOn) {
  writeLog(heard("N0AAA"));
  makeHistory();
  refresh();
  std::filesystem::remove(data.history_path);
  dir.write("history.sqlite3", "no database");
  appendLog(heard("N0BBB"));
  refresh();
  EXPECT_FALSE(data.history_in_use);
  EXPECT_THAT(data.intervals, SizeIs(4));
  EXPECT_THAT(callsigns(data), ElementsAre("N0BBB"));
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

// What breaks off half way.

TEST_F(Refresh, WhicheverAllocationFailsEveryLineCountsOnce) {
  std::string log;
  for (int i = 0; i < 30; ++i) {
    // Callsigns too long to be stored without an allocation of their own.
    log += decodeLine(kNow - 2 * i, "CQ N0AAA/N0BBB/N0CCC/" + std::to_string(i) + "A", "99.1");
    log += decodeLine(kNow - 2 * i - 1, "CQ N0" + std::string(1, static_cast<char>('A' + i % 26)));
  }
  writeLog(log + "half a li");
  SpotData whole;
  whole.all_txt_path = data.all_txt_path;
  refreshSpots(whole, kNow, 0);
  ASSERT_EQ(whole.accepted_lines, 60u);

  for (const bool once : {false, true}) {
    bool failed = true;
    for (long n = 0; failed; ++n) {
      SpotData broken;
      broken.all_txt_path = data.all_txt_path;
      {
        const FailingMemory memory(n, once);
        refreshSpots(broken, kNow, 0);
        failed = memory.failed();
      }
      ASSERT_EQ(broken.accepted_lines, broken.spots.size()) << n;
      ASSERT_EQ(broken.generation, broken.accepted_lines > 0 ? 1u : 0u) << n;
      refreshSpots(broken, kNow, 0);
      ASSERT_EQ(spotsHeld(broken, 0, kNow), spotsHeld(whole, 0, kNow)) << n;
      ASSERT_EQ(lastHeard(broken), lastHeard(whole)) << n;
      ASSERT_EQ(lastHeardByBand(broken), lastHeardByBand(whole)) << n;
      ASSERT_EQ(broken.accepted_lines, 60u) << n;
      ASSERT_EQ(broken.newest_decode, whole.newest_decode) << n;
    }
  }
}

// Fails when `held` is not what a fresh start at `now` comes to.
void expectTheDay(const SpotData& held, double now) {
  SpotData fresh;
  fresh.all_txt_path = held.all_txt_path;
  fresh.history_path = held.history_path;
  refreshSpots(fresh, now, 0);
  ASSERT_EQ(held.history_in_use, fresh.history_in_use);
  ASSERT_EQ(spotsHeld(held, -kEver, kEver), spotsHeld(fresh, -kEver, kEver));
  if (fresh.history_in_use) {
    ASSERT_EQ(intervalsHeld(held, -kEver), intervalsHeld(fresh, -kEver));
    ASSERT_EQ(ratesHeld(held, -kEver), ratesHeld(fresh, -kEver));
  }
  auto known = lastHeard(held);
  for (const auto& [callsign, time] : lastHeard(fresh)) ASSERT_EQ(known[callsign], time);
}

// Memory fails in the refresh after the files have changed; the next one makes up for it.
TEST_F(Refresh, WhicheverAllocationFailsTheNextRefreshMakesTheDayWhole) {
  constexpr double kLater = kNow + 60;
  const struct {
    const char* name;
    std::function<void(HistoryFile&)> act;
    double now;
  } changes[] = {
      {"history and log grew",
       [&](HistoryFile& history) {
         for (int i = 0; i < 5; ++i) {
           const auto minute = static_cast<std::int64_t>(kNow / 60) - 1;
           history.add({.frequency = 13'000'000 + i, .minute = minute});
         }
         appendLog(heard("N0NEW"));
       },
       kLater},
      {"another log", [&](HistoryFile&) { writeLog(heard("N0OTHER") + heard("N0NEW")); }, kLater},
      {"clock set back", [](HistoryFile&) {}, kNow - 700},
      {"history gone, another log",
       [&](HistoryFile&) {
         std::filesystem::remove(data.history_path);
         writeLog(heard("N0OTHER") + heard("N0NEW"));
       },
       kLater},
  };
  for (const auto& change : changes) {
    for (const bool once : {false, true}) {
      bool failed = true;
      for (long n = 0; failed; ++n) {
        SCOPED_TRACE(change.name + std::string(once ? " once " : " from ") + std::to_string(n));
        std::filesystem::remove(dir.path("history.sqlite3"));
        HistoryFile history = makeHistory(kNow - 7200);
        writeLog(heard("N0AAA", 3000) + heard("N0BBB", 2000));
        SpotData broken;
        broken.all_txt_path = data.all_txt_path;
        broken.history_path = data.history_path;
        refreshSpots(broken, kNow, 0);
        ASSERT_TRUE(broken.history_in_use);
        change.act(history);
        {
          const FailingMemory memory(n, once);
          refreshSpots(broken, change.now, 0);
          failed = memory.failed();
        }
        refreshSpots(broken, change.now, 0);
        expectTheDay(broken, change.now);
        if (HasFatalFailure()) return;
      }
    }
  }
}

// What it costs.

TEST_F(Refresh, LinesOfKnownCallsignsAndChannelsTakeNoMemoryOfTheirOwn) {
  dir.write("cty.dat", kCountries);
  const auto lines = [](double time) {
    std::string text;
    for (int i = 0; i < 10'000; ++i) {
      const std::string callsign = (i % 3 == 0 ? "QQ0A" : "N0A") + std::to_string(i % 50) + "A";
      text += decodeLine(time, "CQ " + callsign + " FN42", i / 7 % 2 == 0 ? "14.074" : "13.5");
    }
    return text;
  };
  writeLog(lines(kNow - 100));
  refresh();
  appendLog(lines(kNow - 10));
  const long before = FailingMemory::taken();
  refresh();
  const long taken = FailingMemory::taken() - before;
  EXPECT_EQ(data.spots.size(), 20'000u);
  EXPECT_LT(taken, 100);  // the minute's arrays as they grow, and the reader's buffers
}

TEST_F(Refresh, ThirtyDaysOfNewCallsignsAndOddFrequenciesAreHeldAsOneDay) {
  constexpr std::size_t kLines = 40;
  constexpr std::size_t kDay = kLines * (89'100 / 3600 + 1);
  int serial = 0;
  for (int hour = 0; hour < 30 * 24; ++hour) {
    const double now = kNow + 3600 * hour;
    if (hour % 24 == 0) {  // a new country file every day
      dir.write("cty.dat", kCountries + std::string(static_cast<std::size_t>(hour / 24), '\n'));
    }
    for (std::size_t i = 0; i < kLines; ++i) {
      const std::string megahertz = "13." + std::to_string(100'000 + ++serial);
      std::string callsign = "N0";
      for (const int place : {17'576, 676, 26, 1}) {
        callsign += static_cast<char>('A' + serial / place % 26);
      }
      appendLog(decodeLine(now - 10, "CQ " + callsign + " FN42", megahertz));
    }
    refresh(now);
    ASSERT_LE(data.spots.size(), kDay) << hour;
    ASSERT_LE(data.spots.senders(), kDay) << hour;
    ASSERT_LE(data.spots.channelIdEnd(), kDay + kLines) << hour;  // read before it is pruned
    ASSERT_LE(data.heard.remembered(), kDay) << hour;
    ASSERT_LE(data.heard.bands(), kDay) << hour;
  }
  EXPECT_EQ(data.spots.size(), kDay);
  EXPECT_EQ(data.spots.channels(), kDay);
  EXPECT_EQ(data.heard.remembered(), kDay);
  EXPECT_EQ(heardSince(data, 0), kDay);
}

// Bytes taken from the allocator and not given back; less what SQLite has, which writes here, too.
std::size_t bytesInUse() {
  return mallinfo2().uordblks - static_cast<std::size_t>(sqlite3_memory_used());
}

TEST_F(Refresh, ThirtyDaysOfOddHistoryFrequenciesAreHeldAsOneDay) {
  constexpr std::size_t kRows = 20;  // an hour, each of a frequency that was not heard before
  constexpr std::size_t kDay = kRows * (89'100 / 3600 + 1);
  HistoryFile history = makeHistory(kNow - 1e6);
  history.exec("CREATE INDEX by_minute ON minutes(minute,receiver)");
  std::int64_t serial = 0;
  std::size_t early = 0;
  for (int hour = 0; hour < 30 * 24; ++hour) {
    const double now = kNow + 3600 * hour;
    history.exec("BEGIN");
    for (std::size_t i = 0; i < kRows; ++i) {
      // Off-plan, a band of its own each, and on 20 m, a source of its own each.
      const std::int64_t base = i % 2 == 0 ? 13'000'000 : 14'000'000;
      history.add({.receiver = "RX" + std::to_string(serial),
                   .frequency = base + serial % 350'000,
                   .minute = static_cast<std::int64_t>(now / 60) - 2,
                   .mask = 1});
      ++serial;
    }
    history.exec("COMMIT");
    refresh(now);
    ASSERT_TRUE(data.history_in_use);
    ASSERT_LE(data.intervals.size(), kDay) << hour;
    ASSERT_LE(data.intervals.bandEnd(), kDay + kRows) << hour;  // read before it is pruned
    ASSERT_LE(data.rates.size(), kDay / 2 + 1) << hour;
    ASSERT_LE(data.rates.at("20m").by_source.size(), kDay / 2) << hour;
    ASSERT_LE(ratesHeld(data, -kEver).size(), kDay) << hour;
    if (hour == 3 * 24) early = bytesInUse();
  }
  EXPECT_EQ(data.intervals.size(), kDay);
  EXPECT_EQ(ratesHeld(data, -kEver).size(), kDay);
  if (!kSanitized) {
    EXPECT_LT(bytesInUse(), early + early / 10);
  }
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

// Logs of no sensible size.

// The most memory this process has had resident since it started, bytes.
long peakMemory() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("VmHWM:")) return std::stol(line.substr(6)) * 1024;
  }
  throw std::runtime_error("No VmHWM in /proc/self/status");
}

// Starts the peak anew at what is resident now.
void resetPeakMemory() { std::ofstream("/proc/self/clear_refs") << "5"; }

// Fails when `act` needs more than 64 MB. Sanitizers need memory of their own.
template <typename Act>
void expectLittleMemory(Act&& act) {
  resetPeakMemory();
  const long before = peakMemory();
  act();
  if (!kSanitized) {
    EXPECT_LT(peakMemory() - before, 64'000'000);
  }
}

TEST_F(Refresh, LineOfOneGibibyteTakesNoMemory) {
  writeLog(heard("N0AAA"));
  refresh();
  // A hole in the file reads as NUL bytes: one line without an end.
  std::filesystem::resize_file(data.all_txt_path, 1 << 30);
  expectLittleMemory([&] {
    refresh();
    EXPECT_THAT(callsigns(data), ElementsAre("N0AAA"));
    EXPECT_EQ(data.log.scanned, 1u << 30);
    appendLog("\n" + heard("N0BBB"));
    refresh();
    EXPECT_THAT(callsigns(data), ElementsAre("N0AAA", "N0BBB"));
  });
}

TEST_F(Refresh, SparseLogOfOneTebibyteIsBegunNearItsEnd) {
  writeLog(heard("N0AAA"));
  std::filesystem::resize_file(data.all_txt_path, std::uintmax_t{1} << 40);
  expectLittleMemory([&] {
    refresh();
    EXPECT_GE(data.log.offset, (std::uint64_t{1} << 40) - 65'536);
    appendLog("\n" + heard("N0BBB"));
    refresh();
    EXPECT_THAT(callsigns(data), ElementsAre("N0BBB"));
  });
}

}  // namespace
}  // namespace spotserver
