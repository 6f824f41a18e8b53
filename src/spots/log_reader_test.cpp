#include "spots/log_reader.hpp"

#include <fstream>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "failing_memory.hpp"
#include "log_lines.hpp"
#include "spots/log_reader_reference.hpp"
#include "temp_dir.hpp"

namespace spotserver {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

using Lines = std::vector<std::string>;

constexpr double kNow = 1'741'947'330;  // 2025-03-14 10:15:30 UTC

RegularFile open(const std::string& path) {
  auto file = openRegularFile(path);
  if (!file) throw std::runtime_error("Cannot open " + path);
  return std::move(*file);
}

// One look at the log at `path`.
Lines look(const std::string& path, LogPosition& position, const LogLimits& limits = {}) {
  Lines lines;
  const RegularFile file = open(path);
  const std::uint64_t before = position.offset;
  const bool moved = readLogLines(
      file, position, [&](std::string_view line) { lines.emplace_back(line); }, {}, limits);
  EXPECT_EQ(moved, position.offset != before);
  EXPECT_LE(position.offset, position.scanned);
  return lines;
}

Lines look(const std::string& path) {
  LogPosition position;
  return look(path, position);
}

// A descriptor that is open but cannot be read.
RegularFile unreadable(const std::string& path) {
  RegularFile file = open(path);
  file.fd = Fd(::open(path.c_str(), O_WRONLY | O_CLOEXEC));
  return file;
}

TEST(ReadLogLines, HandsOutEveryCompleteLineWithoutItsNewline) {
  const std::string nul("a\0b", 3);
  const struct {
    const char* name;
    std::string text;
    Lines lines;
  } cases[] = {
      {"empty file", "", {}},
      {"one line", "one\n", {"one"}},
      {"unfinished only", "one", {}},
      {"unfinished last", "one\ntwo\nthr", {"one", "two"}},
      {"blank lines", "\n\none\n\n", {"", "", "one", ""}},
      {"carriage returns stay", "one\r\ntwo\rtoo\n\r\n", {"one\r", "two\rtoo", "\r"}},
      {"NUL is a byte as any other", nul + "\n" + nul + "\n" + nul, {nul, nul}},
      {"bytes beyond ASCII", "\xff\xfe\x80\n", {"\xff\xfe\x80"}},
  };
  TempDir dir;
  for (const auto& c : cases) EXPECT_EQ(look(dir.write("log", c.text)), c.lines) << c.name;
}

TEST(ReadLogLines, UnfinishedLastLineWaitsUntilItIsCompleted) {
  TempDir dir;
  const std::string log = dir.write("log", "one\ntw");
  LogPosition position;
  EXPECT_THAT(look(log, position), ElementsAre("one"));
  EXPECT_EQ(position.offset, 4u);
  EXPECT_THAT(look(log, position), IsEmpty());
  dir.append("log", "o");
  EXPECT_THAT(look(log, position), IsEmpty());
  EXPECT_EQ(position.offset, 4u);
  dir.append("log", "\nthree\n");
  EXPECT_THAT(look(log, position), ElementsAre("two", "three"));
  EXPECT_EQ(position.offset, 14u);
}

TEST(ReadLogLines, UnfinishedLineIsNotSearchedTwice) {
  TempDir dir;
  const std::string log = dir.write("log", "one\nabcdef");
  LogPosition position;
  look(log, position);
  EXPECT_EQ(position.scanned, 10u);
  // A newline put where it was searched before would be found by a second search only.
  dir.write("log", "one\nab\ndef");
  dir.append("log", "gh\n");
  EXPECT_THAT(look(log, position), ElementsAre("ab\ndefgh"));
}

TEST(ReadLogLines, ReadsOnlyAsFarAsTheFileWentWhenItWasOpened) {
  TempDir dir;
  dir.write("log", "one\ntwo\n");
  const RegularFile file = open(dir.path("log"));
  dir.append("log", "three\n");
  LogPosition position;
  Lines lines;
  readLogLines(file, position, [&](std::string_view line) { lines.emplace_back(line); });
  EXPECT_THAT(lines, ElementsAre("one", "two"));
  EXPECT_THAT(look(dir.path("log"), position), ElementsAre("three"));
}

TEST(ReadLogLines, LineOverTheLimitIsSkippedWhole) {
  const LogLimits limits{.chunk = 4, .longest_line = 10};
  const struct {
    std::size_t size;
    bool handed_out;
  } cases[] = {{9, true}, {10, true}, {11, false}, {12, false}, {500, false}};
  TempDir dir;
  for (const auto& c : cases) {
    const std::string line(c.size, 'x');
    LogPosition position;
    const Lines lines = look(dir.write("log", line + "\nnext\n"), position, limits);
    EXPECT_EQ(lines, c.handed_out ? Lines({line, "next"}) : Lines({"next"})) << c.size;
    EXPECT_EQ(position.offset, c.size + 6) << c.size;
  }
}

TEST(ReadLogLines, LimitIsOneMebibyte) {
  TempDir dir;
  const std::string longest(1'048'576, 'x');
  EXPECT_EQ(look(dir.write("log", longest + "\n")), Lines({longest}));
  EXPECT_THAT(look(dir.write("log", longest + "x\nnext\n")), ElementsAre("next"));
}

TEST(ReadLogLines, LineOverTheLimitIsSkippedWhenItComesInPieces) {
  const LogLimits limits{.chunk = 4, .longest_line = 10};
  TempDir dir;
  dir.write("log", "");
  LogPosition position;
  for (int piece = 0; piece < 20; ++piece) {
    EXPECT_THAT(look(dir.append("log", "xyz"), position, limits), IsEmpty()) << piece;
    EXPECT_EQ(position.offset, 0u) << piece;
  }
  EXPECT_THAT(look(dir.append("log", "\nnext\n"), position, limits), ElementsAre("next"));
}

TEST(ReadLogLines, SkippedLineCountsAsMoved) {
  TempDir dir;
  const RegularFile file = open(dir.write("log", "0123456789ab\n"));
  LogPosition position;
  EXPECT_TRUE(readLogLines(file, position, [](std::string_view) { FAIL(); }, {},
                           {.chunk = 4, .longest_line = 10}));
  EXPECT_FALSE(readLogLines(file, position, [](std::string_view) { FAIL(); }));
}

TEST(ReadLogLines, WithoutNewsNothingIsAllocated) {
  TempDir dir;
  const RegularFile file = open(dir.write("log", "one\ntwo"));
  const std::function<void(std::string_view)> ignore = [](std::string_view) {};
  LogPosition position;
  readLogLines(file, position, ignore);
  const long before = FailingMemory::taken();
  EXPECT_FALSE(readLogLines(file, position, ignore));
  EXPECT_EQ(FailingMemory::taken(), before);
}

TEST(ReadLogLines, EveryChunkSizeAndEveryCutGivesTheLinesOfGetline) {
  std::mt19937 random(7);
  for (int round = 0; round < 1000; ++round) {
    const auto script = randomScript(random, 20 + random() % 200);
    ASSERT_EQ(LogLinesScript(script).run(), "") << "round " << round;
  }
}

TEST(ReadLogLines, LineWhoseTakerThrewComesAgain) {
  TempDir dir;
  const RegularFile file = open(dir.write("log", "one\ntwo\nthree\nfour\nfive\n"));
  for (const std::size_t chunk : {1u, 5u, 9u, 100u}) {
    LogPosition position = startOfLog(file, 0);
    Lines lines;
    int calls = 0;
    const auto take = [&](std::string_view line) {
      if (++calls % 2 == 0) throw std::bad_alloc();
      lines.emplace_back(line);
    };
    int failures = 0;
    while (position.offset < file.size) {
      try {
        readLogLines(file, position, take, {}, {.chunk = chunk, .longest_line = 80});
      } catch (const std::bad_alloc&) {
        ++failures;
      }
      EXPECT_EQ(continuesLog(file, position), true) << chunk;
    }
    EXPECT_THAT(lines, ElementsAre("one", "two", "three", "four", "five")) << chunk;
    EXPECT_EQ(failures, 4) << chunk;
  }
}

TEST(ReadLogLines, StopEndsTheReadingBetweenTwoChunks) {
  TempDir dir;
  const RegularFile file = open(dir.write("log", "1\n2\n3\n4\n5\n6\n7\n8\n"));
  std::stop_source stop;
  LogPosition position;
  Lines lines;
  const auto take = [&](std::string_view line) {
    lines.emplace_back(line);
    if (line == "3") stop.request_stop();
  };
  const LogLimits limits{.chunk = 8, .longest_line = 80};
  EXPECT_TRUE(readLogLines(file, position, take, stop.get_token(), limits));
  EXPECT_THAT(lines, ElementsAre("1", "2", "3", "4"));
  EXPECT_FALSE(readLogLines(file, position, take, stop.get_token(), limits));
  EXPECT_TRUE(readLogLines(file, position, take, {}, limits));
  EXPECT_THAT(lines, ElementsAre("1", "2", "3", "4", "5", "6", "7", "8"));
}

TEST(ReadLogLines, FileThatShrankSinceItWasOpenedEndsTheReading) {
  TempDir dir;
  const RegularFile file = open(dir.write("log", "one\ntwo\nthree\n"));
  dir.write("log", "one\n");
  LogPosition position;
  Lines lines;
  EXPECT_TRUE(
      readLogLines(file, position, [&](std::string_view line) { lines.emplace_back(line); }));
  EXPECT_THAT(lines, ElementsAre("one"));
  EXPECT_EQ(position.offset, 4u);
}

TEST(ReadLogLines, CutLineThatVanishedIsNotHandedOut) {
  TempDir dir;
  const std::string log = dir.write("log", "abc");
  LogPosition position;
  look(log, position);
  RegularFile file = open(dir.append("log", "def\n"));
  // Nothing is left of the line's beginning, but its end is still promised.
  dir.write("log", "");
  EXPECT_FALSE(readLogLines(file, position, [](std::string_view) { FAIL(); }));
  EXPECT_EQ(position.offset, 0u);
}

TEST(ReadLogLines, UnreadableFileChangesNothing) {
  TempDir dir;
  const std::string log = dir.write("log", "one\nabc");
  LogPosition position;
  look(log, position);
  dir.append("log", "def\n");
  EXPECT_FALSE(readLogLines(unreadable(log), position, [](std::string_view) { FAIL(); }));
  EXPECT_EQ(position.offset, 4u);
  EXPECT_EQ(position.scanned, 7u);
  EXPECT_THAT(look(log, position), ElementsAre("abcdef"));
}

TEST(StartOfLog, AboveZeroTheRestOfALineIsSkipped) {
  TempDir dir;
  const std::string log = dir.write("log", "one\ntwo\nthree\n");
  const struct {
    std::uint64_t offset;
    Lines lines;
  } cases[] = {{0, {"one", "two", "three"}},
               {1, {"two", "three"}},
               {3, {"two", "three"}},
               {4, {"three"}},
               {13, {}},
               {14, {}}};
  for (const auto& c : cases) {
    LogPosition position = startOfLog(open(log), c.offset);
    EXPECT_EQ(look(log, position), c.lines) << c.offset;
  }
}

TEST(StartOfLog, RestOfALineIsSkippedHoweverLateItEnds) {
  TempDir dir;
  const std::string log = dir.write("log", "one two");
  LogPosition position = startOfLog(open(log), 4);
  EXPECT_THAT(look(log, position), IsEmpty());
  EXPECT_THAT(look(dir.append("log", " three"), position), IsEmpty());
  EXPECT_THAT(look(dir.append("log", "\nfour\n"), position), ElementsAre("four"));
}

class ContinuesLog : public ::testing::Test {
 protected:
  // Reads `read` in one look, then asks about a file that holds `now`.
  std::optional<bool> after(const std::string& read, const std::string& now) {
    LogPosition position;
    position.inode = open(dir.write("log", read)).inode;
    look(dir.path("log"), position);
    return continuesLog(open(dir.write("log", now)), position);
  }

  TempDir dir;
};

std::string with(std::string text, std::size_t at, char byte) {
  text[at] = byte;
  return text;
}

TEST_F(ContinuesLog, TellsALogThatWentOnFromOneWrittenAnew) {
  const std::string day(1000, 'd');
  const std::string nuls("one\n\0\0", 6);
  const struct {
    const char* name;
    std::string read;
    std::string now;
    bool continues;
  } cases[] = {
      {"nothing new", "one\n", "one\n", true},
      {"still empty", "", "", true},
      {"first bytes", "", "one\n", true},
      {"appended", "one\n", "one\ntwo\n", true},
      {"half line completed", "one\ntw", "one\ntwo\n", true},
      {"emptied", "one\n", "", false},
      {"one byte short", "one\n", "one", false},
      {"written anew, same size", "one\n", "two\n", false},
      {"written anew, grown past the end", "one\n", "two\nthree\n", false},
      {"half line cut off", "one\ntw", "one\n", false},
      {"half line became another", "one\ntw", "one\nthree\n", false},
      {"NUL bytes cut off", nuls, "one\n", false},
      {"long log appended", day + "\n", day + "\nnext\n", true},
      {"last byte another", day + "\n", day + "x\nnext\n", false},
      {"first byte remembered another", day + "\n", with(day, 873, 'x') + "\n", false},
      {"byte before that another", day + "\n", with(day, 872, 'x') + "\n", true},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(after(c.read, c.now), std::optional(c.continues)) << c.name;
  }
}

TEST_F(ContinuesLog, FirstLookContinuesNothing) {
  EXPECT_EQ(continuesLog(open(dir.write("log", "one\n")), LogPosition{}), false);
}

TEST_F(ContinuesLog, LogThatShrankBeforeItsStartWasReadIsAnother) {
  const LogPosition position = startOfLog(open(dir.write("log", "one\ntwo\n")), 6);
  EXPECT_EQ(continuesLog(open(dir.write("log", "one\ntwo\n")), position), true);
  EXPECT_EQ(continuesLog(open(dir.write("log", "one\ntw")), position), true);
  EXPECT_EQ(continuesLog(open(dir.write("log", "one\nt")), position), false);
}

TEST_F(ContinuesLog, OtherInodeIsAnotherLog) {
  const std::string log = dir.write("log", "one\n");
  LogPosition position = startOfLog(open(log), 0);
  look(log, position);
  std::filesystem::rename(log, dir.path("log.1"));
  dir.write("log", "one\n");
  EXPECT_EQ(continuesLog(open(log), position), false);
  EXPECT_EQ(continuesLog(open(dir.path("log.1")), position), true);
}

TEST_F(ContinuesLog, TailIsWholeHoweverTheLogCame) {
  std::mt19937 random(11);
  for (int round = 0; round < 50; ++round) {
    dir.write("log", "");
    std::string text;
    LogPosition position = startOfLog(open(dir.path("log")), 0);
    for (int piece = 0; piece < 40; ++piece) {
      std::string added(random() % 20, static_cast<char>('a' + random() % 26));
      if (random() % 3 == 0) added += '\n';
      text += added;
      look(dir.append("log", added), position, {.chunk = 1 + random() % 30, .longest_line = 80});
      const std::size_t size = std::min(text.size(), LogTail::kSize);
      ASSERT_EQ(position.tail.end, text.size());
      ASSERT_EQ(std::string_view(position.tail.bytes.data(), position.tail.size),
                std::string_view(text).substr(text.size() - size));
    }
  }
}

TEST_F(ContinuesLog, NothingIsKnownOfAnUnreadableFile) {
  const std::string log = dir.write("log", "one\n");
  LogPosition position = startOfLog(open(log), 0);
  look(log, position);
  EXPECT_EQ(continuesLog(unreadable(log), position), std::nullopt);
}

// A log of `size` bytes or a little more, whose lines are `step` seconds apart and end at kNow.
std::string evenLog(std::size_t size, double step) {
  const std::string line = decodeLine(kNow, "CQ N0CALL FN42");
  const std::size_t count = size / line.size() + 1;
  std::string text;
  text.reserve(count * line.size());
  for (std::size_t i = count; i > 0; --i) {
    text += decodeLine(kNow - step * static_cast<double>(i - 1), "CQ N0CALL FN42");
  }
  return text;
}

TEST(FindLogStart, LandsAtMost64KiBBeforeTheFirstLineWanted) {
  const std::string text = evenLog(3'000'000, 7);
  TempDir dir;
  const RegularFile file = open(dir.write("log", text));
  for (const double age : {0.0, 1.0, 500.0, 60'000.0, 200'000.0, 350'000.0}) {
    const std::uint64_t start = findLogStart(file, kNow - age);
    // The first line dated kNow - age or later.
    std::size_t wanted = 0;
    while (*parseAllTxtTime(text.substr(wanted, 13)) < kNow - age) {
      wanted = text.find('\n', wanted) + 1;
    }
    EXPECT_LE(start, wanted) << age;
    EXPECT_LE(wanted - start, 65'536u + 64) << age;
  }
}

TEST(FindLogStart, WholeLogWantedStartsAtZeroAndNoneWantedNearTheEnd) {
  TempDir dir;
  const RegularFile file = open(dir.write("log", evenLog(2'000'000, 7)));
  EXPECT_EQ(findLogStart(file, 0), 0u);
  const std::uint64_t start = findLogStart(file, kNow + 1);
  EXPECT_LT(start, file.size);
  EXPECT_GE(start, file.size - 65'536);
}

TEST(FindLogStart, SpanOf64KiBIsHalvedNoFurther) {
  TempDir dir;
  std::string old = evenLog(200'000, 0);
  old.resize(131'072);
  EXPECT_EQ(findLogStart(open(dir.write("log", old)), kNow + 1), 65'536u);
  old.resize(131'074);
  EXPECT_EQ(findLogStart(open(dir.write("log", old + "\n")), kNow + 1), 65'537u + 32'769u);
}

TEST(FindLogStart, LineExactlyAsOldAsTheTargetIsWanted) {
  // All lines carry one date: a second earlier wants all of them, a second later none.
  const std::string text = evenLog(300'000, 0);
  TempDir dir;
  const RegularFile file = open(dir.write("log", text));
  EXPECT_EQ(findLogStart(file, kNow), 0u);
  EXPECT_GT(findLogStart(file, kNow + 1), 200'000u);
}

TEST(FindLogStart, ProbeWithoutALineEndWithinOneMebibyteCountsAsOlder) {
  // The middle of the file lies in the blanks, so many bytes before the line end behind it.
  const auto probeFinds = [](std::size_t distance) {
    const std::string recent = decodeLine(kNow, "CQ N0CALL FN42");
    std::string text(2'500'000, ' ');
    text.replace(1'250'000 + distance, recent.size() + 1, "\n" + recent);
    TempDir dir;
    return findLogStart(open(dir.write("log", text)), kNow) < 1'250'000;
  };
  EXPECT_TRUE(probeFinds(100));
  for (const std::size_t chunk_edge : {65'535u, 65'536u, 65'537u}) {
    EXPECT_TRUE(probeFinds(chunk_edge)) << chunk_edge;
  }
  EXPECT_TRUE(probeFinds(1'048'575));
  EXPECT_FALSE(probeFinds(1'048'576));
}

TEST(FindLogStart, UnfinishedLastLineHasADate) {
  // The file's middle is followed by one line end and a line that still grows.
  const auto probeFinds = [](std::string_view last) {
    std::string text(100'000, ' ');
    text.back() = '\n';
    text += last;
    TempDir dir;
    return findLogStart(open(dir.write("log", text)), kNow) == 0;
  };
  const std::string stamp = timestamp(kNow);
  EXPECT_TRUE(probeFinds(stamp));
  EXPECT_TRUE(probeFinds(stamp + " 14.074"));
  EXPECT_FALSE(probeFinds(stamp.substr(0, 12)));
  EXPECT_FALSE(probeFinds(stamp.substr(0, 12) + "\n" + stamp + "\n"));
  EXPECT_FALSE(probeFinds(""));
}

TEST(FindLogStart, UnreadableFileIsReadFromNearItsEndAndThenNotAtAll) {
  TempDir dir;
  const std::string log = dir.write("log", evenLog(200'000, 7));
  EXPECT_GE(findLogStart(unreadable(log), 0), 100'000u);
}

// A log as stations have them, and worse: mostly in order, with junk, gaps, long and blank lines.
std::string oddLog(std::mt19937& random, std::size_t size) {
  double time = kNow;
  std::string text;
  while (text.size() < size) {
    time += static_cast<double>(random() % 30);
    switch (random() % 40) {
      case 0:
        text += "\n";
        break;
      case 1:
        text += std::string(random() % 40, 'j') + "\n";
        break;
      case 2:
        text += std::string(random() % 60'000, 'l') + "\n";
        break;
      case 3:
        text += decodeLine(time - 100'000, "CQ N0CALL FN42");
        break;
      case 4:
        text += decodeLine(time + 100'000, "CQ N0CALL FN42");
        break;
      case 5:
        text += timestamp(time).substr(0, random() % 14) + "\r\n";
        break;
      default:
        text += decodeLine(time, "CQ N0CALL FN42");
        break;
    }
  }
  if (random() % 2 == 0) text.resize(text.size() - random() % 60);
  return text;
}

TEST(FindLogStart, AgreesWithThePlainSearchOnRandomLogs) {
  std::mt19937 random(3);
  TempDir dir;
  for (int round = 0; round < 120; ++round) {
    const std::size_t size = 65'537 + random() % (round % 10 == 0 ? 3'000'000 : 500'000);
    const std::string text = oddLog(random, size);
    const RegularFile file = open(dir.write("log", text));
    std::ifstream in(dir.path("log"), std::ios::binary);
    const double last = static_cast<double>(text.size()) / 4;  // seconds, about
    for (int n = 0; n < 20; ++n) {
      const double target = kNow - 1000 + static_cast<double>(random() % 1000) / 900 * last;
      ASSERT_EQ(findLogStart(file, target), plainLogStart(in, file.size, target))
          << "round " << round << ", target " << target;
    }
  }
}

}  // namespace
}  // namespace spotserver
