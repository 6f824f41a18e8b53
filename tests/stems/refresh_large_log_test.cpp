// Where a refresh begins a large log, and that no size of a log costs memory.
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "log_lines.hpp"
#include "sanitizers.hpp"
#include "spots/refresh_reference.hpp"
#include "stems/refresh_fixture.hpp"

namespace spotserver {
namespace {

using ::testing::ElementsAre;
using ::testing::Key;
using ::testing::UnorderedElementsAre;

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

// Of lines longer than the last step of the search it finds the very first.
TEST_F(Refresh, LargeLogIsBegunAtTheFirstLineOfTheLast89700Seconds) {
  std::string log;
  for (int age = 89'720; age >= 89'690; --age) {
    log += heard("N0AAA", age);
    log.insert(log.size() - 1, std::string(70'000, ' '));
  }
  writeLog(log);
  refresh();
  EXPECT_EQ(data.accepted_lines, 12u);  // aged 89,701, one before the begin, to 89,690
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
