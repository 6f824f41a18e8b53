// What a read makes of files. Single rows, files that mean harm, and histories that other processes
// hold stand in tests/stems/history_reader_*_test.cpp.
#include "history/history_reader.hpp"

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include "history_file.hpp"
#include "scoped_limits.hpp"
#include "stems/history_reading.hpp"
#include "temp_dir.hpp"

namespace spotserver {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

std::string fileBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

std::size_t openDescriptors() {
  std::size_t count = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    ++count;
  }
  return count;
}

TEST_F(HistoryReading, AllSevenModes) {
  HistoryFile file(path_);
  const struct {
    const char* mode;
    std::int64_t mask;
    double length;
  } cases[] = {{"FT8", 15, 15},        {"FT4", 255, 7.5},   {"JS8", 15, 15}, {"JS8-FAST", 63, 10},
               {"JS8-TURBO", 1023, 6}, {"JS8-SLOW", 3, 30}, {"WSPR", 1, 120}};
  std::int64_t minute = kMinute;
  for (const auto& c : cases) {
    const auto counts =
        countsBlob({1, 2, 3, 4, 5, 6, 7, 8, 9, 10}, c.mode == std::string("JS8-TURBO") ? 10 : 8);
    file.add({.frequency = 7'000'000,
              .mode = c.mode,
              .minute = minute,
              .mask = c.mask,
              .counts = counts});
    const double base = static_cast<double>(minute) * 60;
    const auto found = readHistory(path_, base, base + 120);
    std::vector<double> expected;
    for (int slot = 0; c.mask >> slot != 0; ++slot) expected.push_back(base + slot * c.length);
    EXPECT_EQ(starts(found), expected) << c.mode;
    for (std::size_t i = 0; i < found.size(); ++i) {
      EXPECT_EQ(found[i].mode, c.mode);
      EXPECT_EQ(found[i].frequency, 7'000'000.0) << c.mode;
      EXPECT_EQ(found[i].count, i + 1) << c.mode;
    }
    minute += 10;
  }
}

TEST_F(HistoryReading, SchemaVersionsUpToTwoAreRead) {
  HistoryFile file(path_);
  const struct {
    const char* version;
    const char* outcome;
  } cases[] = {{"-2147483648", "read"},
               {"-1", "read"},
               {"0", "read"},
               {"1", "read"},
               {"2", "read"},
               {"3", "Unsupported history schema"},
               {"2147483647", "Unsupported history schema"}};
  for (const auto& c : cases) {
    file.exec(std::string("PRAGMA user_version=") + c.version);
    EXPECT_EQ(failureOf(path_, kBase, kBase + 60), c.outcome) << c.version;
  }
}

TEST_F(HistoryReading, OneBadRowAmongGoodOnesFailsTheRead) {
  const struct {
    MinuteRow row;
    const char* message;
  } cases[] = {
      {{.mode = "ft8"}, "Invalid history mode"},
      {{.mask = 16}, "Invalid history mask"},
      {{.mask = 2'147'483'648}, "Invalid history mask"},
      {{.counts = std::string(32, '\0')}, "Invalid history counts"},
      {{.counts = ""}, "Invalid history counts"},
      {{.mode = "JS8-TURBO"}, "Invalid history counts"},
      {{.mode = "WSPR", .mask = 2}, "Invalid history mask"},
  };
  HistoryFile file(path_);
  for (int i = 0; i < 10; ++i) file.add({.minute = kMinute + i});
  for (auto c : cases) {
    c.row.receiver = "bad";
    c.row.minute = kMinute + 5;
    file.add(c.row);
    EXPECT_EQ(failureOf(path_, kBase, kBase + 600), c.message);
    file.exec("DELETE FROM minutes WHERE receiver='bad'");
  }
  for (const char* column : {"receiver", "mode"}) {
    file.exec(std::string("UPDATE minutes SET ") + column + "=NULL WHERE rowid=7");
    EXPECT_EQ(failureOf(path_, kBase, kBase + 600), "Invalid history text") << column;
    file.exec("UPDATE minutes SET receiver='RX1',mode='FT8'");
  }
  EXPECT_EQ(failureOf(path_, kBase, kBase + 600), "read");
}

TEST_F(HistoryReading, RowsOutsideTheWindowsMinutesAreNotLookedAt) {
  HistoryFile file(path_);
  for (std::int64_t minute : {kMinute - 1, kMinute, kMinute + 1, kMinute + 2}) {
    file.add({.mode = minute == kMinute ? "FT8" : "bad", .minute = minute});
  }
  EXPECT_THAT(readHistory(path_, kBase, kBase + 59.5), SizeIs(4));
  // The minute is selected, though no slot of it can lie in the window.
  EXPECT_EQ(failureOf(path_, kBase - 0.5, kBase + 59.5), "Invalid history mode");
  EXPECT_EQ(failureOf(path_, kBase, kBase + 60), "Invalid history mode");
}

TEST_F(HistoryReading, SlotBeforeTheWindowIsLeftOutThoughItsMinuteIsRead) {
  HistoryFile(path_).add({.minute = kMinute});
  EXPECT_THAT(starts(readHistory(path_, kBase + 15, kBase + 60)),
              ElementsAre(kBase + 15, kBase + 30, kBase + 45));
  EXPECT_THAT(starts(readHistory(path_, kBase + 15.5, kBase + 60)),
              ElementsAre(kBase + 30, kBase + 45));
}

TEST_F(HistoryReading, MinutesBeforeTheEpochAreRoundedDown) {
  HistoryFile(path_).add({.minute = -1});
  EXPECT_THAT(starts(readHistory(path_, -30, 0)), ElementsAre(-30, -15));
}

TEST_F(HistoryReading, WindowsBeyondAllMinutesHoldNothingAndHarmNothing) {
  HistoryFile(path_).add({.minute = kMinute});
  EXPECT_THAT(readHistory(path_, -kInfinity, kInfinity), SizeIs(4));
  EXPECT_THAT(readHistory(path_, -1e300, 1e300), SizeIs(4));
  EXPECT_THAT(readHistory(path_, 1e300, kInfinity), IsEmpty());
  EXPECT_THAT(readHistory(path_, kNoNumber, kNoNumber), IsEmpty());
  EXPECT_THAT(readHistory(path_, kBase + 60, kBase), IsEmpty());
}

TEST_F(HistoryReading, AscendingByStartThenByReceiver) {
  HistoryFile file(path_);
  file.add({.receiver = "south", .minute = kMinute, .counts = countsBlob({10, 20, 30, 40})});
  file.add({.receiver = "north", .mode = "WSPR", .minute = kMinute + 1, .mask = 1});
  file.add({.receiver = "north", .minute = kMinute, .counts = countsBlob({1, 2, 3, 4})});
  const auto found = readHistory(path_, kBase, kBase + 300);
  EXPECT_THAT(starts(found), ElementsAre(kBase, kBase, kBase + 15, kBase + 15, kBase + 30,
                                         kBase + 30, kBase + 45, kBase + 45, kBase + 60));
  EXPECT_THAT(countsOf(found), ElementsAre(1, 10, 2, 20, 3, 30, 4, 40, 1));
}

TEST_F(HistoryReading, TheLastMinuteIsInOrderToo) {
  HistoryFile file(path_);
  for (const char* receiver : {"south", "north"}) {
    file.add({.receiver = receiver, .minute = kMinute, .counts = countsBlob({1, 2, 3, 4})});
  }
  EXPECT_THAT(countsOf(readHistory(path_, kBase, kBase + 300)),
              ElementsAre(1, 1, 2, 2, 3, 3, 4, 4));
}

TEST_F(HistoryReading, AFileThatMayNotBeReadIsNoLackOfDescriptors) {
  const AsOrdinaryUser user;
  const TempDir dir;
  dir.write("history.sqlite3", "");
  ::chmod(dir.path("history.sqlite3").c_str(), 0);
  try {
    readHistory(dir.path("history.sqlite3"), kBase, kBase + 300);
    FAIL() << "read";
  } catch (const OutOfDescriptors&) {
    FAIL() << "taken for a lack of descriptors";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "unable to open database file");
  }
}

TEST_F(HistoryReading, ValuesOfOtherTypesAreConvertedAsSqliteDoes) {
  HistoryFile file(path_);
  file.exec("DROP TABLE minutes");
  file.exec("CREATE TABLE minutes(receiver,frequency,mode,minute,mask,counts)");
  const std::string minute = std::to_string(kMinute);
  const std::string letters(64, 'A');
  const struct {
    std::string values;
    std::string outcome;
  } cases[] = {
      {"17,14074000.9,'FT8'," + minute + ",'3','" + letters + "'",
       "[17 FT8 14074000: 4702111234474983745][17 FT8 14074000: 4702111234474983745]"},
      {"x'5258','7074000 Hz',x'465438'," + minute + ".0,1.9,zeroblob(64)", "[RX FT8 7074000: 0]"},
      {"'RX',NULL,'FT8'," + minute + ",4294967297,zeroblob(64)", "[RX FT8 0: 0]"},
      {"'RX',0,'FT8'," + minute + ",2147483648,zeroblob(64)", "Invalid history mask"},
      {"'RX',0,'FT8'," + minute + ",NULL,zeroblob(64)", ""},
      {"'RX',0,'FT8'," + minute + ",1,NULL", "Invalid history counts"},
      {"'RX',0,'FT8'," + minute + ",1,12345678", "Invalid history counts"},
      {"'RX',0,8," + minute + ",1,zeroblob(64)", "Invalid history mode"},
      {"'RX',0,'FT8','" + minute + "',1,zeroblob(64)", ""},  // a text is beyond every number
  };
  for (const auto& c : cases) {
    file.exec("DELETE FROM minutes");
    file.exec("INSERT INTO minutes VALUES(" + c.values + ")");
    std::string outcome;
    try {
      for (const auto& one : readHistory(path_, kBase, kBase + 60)) {
        std::ostringstream text;
        text << "[" << one.receiver << " " << one.mode << " "
             << static_cast<std::int64_t>(one.frequency) << ": " << one.count << "]";
        outcome += text.str();
      }
    } catch (const std::runtime_error& error) {
      outcome = error.what();
    }
    EXPECT_EQ(outcome, c.outcome) << c.values;
  }
}

TEST_F(HistoryReading, TextsOfAUtf16DatabaseAreRead) {
  {
    sqlite3* raw = nullptr;
    ASSERT_EQ(sqlite3_open(path_.c_str(), &raw), SQLITE_OK);
    sqlite3_exec(raw, "PRAGMA encoding='UTF-16'", nullptr, nullptr, nullptr);
    sqlite3_exec(raw, "CREATE TABLE scratch(a)", nullptr, nullptr, nullptr);
    sqlite3_close(raw);
  }
  HistoryFile(path_).add({.receiver = "Küche", .minute = kMinute, .mask = 1});
  const auto found = readHistory(path_, kBase, kBase + 60);
  ASSERT_THAT(found, SizeIs(1));
  EXPECT_EQ(found[0].receiver, "Küche");
  EXPECT_EQ(found[0].mode, "FT8");
}

TEST_F(HistoryReading, NeitherWritesTheFileNorLeavesOthersBesideIt) {
  HistoryFile(path_).add({.minute = kMinute});
  const std::string before = fileBytes(path_);
  EXPECT_THAT(readHistory(path_, kBase, kBase + 60), SizeIs(4));
  EXPECT_EQ(fileBytes(path_), before);
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir_.path()), {}), 1);
}

TEST_F(HistoryReading, MissingFileHoldsNothingAndIsNotCreated) {
  EXPECT_THAT(readHistory(path_, kBase, kBase + 60), IsEmpty());
  EXPECT_FALSE(std::filesystem::exists(path_));
}

TEST_F(HistoryReading, WhatIsNoRegularFileIsNotOpened) {
  std::filesystem::create_directory(dir_.path("folder"));
  ASSERT_EQ(::mkfifo(dir_.path("pipe").c_str(), 0600), 0);
  std::filesystem::create_symlink("pipe", dir_.path("link"));
  for (const std::string& path :
       {dir_.path("folder"), dir_.path("pipe"), dir_.path("link"), std::string("/dev/zero")}) {
    EXPECT_EQ(failureOf(path, kBase, kBase + 60), "Cannot open history") << path;
  }
}

TEST_F(HistoryReading, FifoInPlaceOfAJournalIsNotOpened) {
  HistoryFile(path_).add({.minute = kMinute});
  std::filesystem::create_symlink(path_, dir_.path("link"));
  for (const std::string suffix : {"-journal", "-wal", "-shm"}) {
    SCOPED_TRACE(suffix);
    ASSERT_EQ(::mkfifo((path_ + suffix).c_str(), 0600), 0);
    EXPECT_EQ(failureOf(path_, kBase, kBase + 60), "Cannot open history");
    EXPECT_EQ(failureOf(dir_.path("link"), kBase, kBase + 60), "Cannot open history");
    std::filesystem::remove(path_ + suffix);
  }
  EXPECT_THAT(readHistory(path_, kBase, kBase + 60), SizeIs(4));
}

TEST_F(HistoryReading, LinkToAHistoryIsFollowed) {
  HistoryFile(path_).add({.minute = kMinute});
  std::filesystem::create_symlink(path_, dir_.path("link"));
  EXPECT_THAT(readHistory(dir_.path("link"), kBase, kBase + 60), SizeIs(4));
}

TEST_F(HistoryReading, FilesThatAreNoHistoryFailWithSqlitesText) {
  EXPECT_EQ(failureOf(dir_.write("garbage", std::string(5000, '#')), kBase, kBase + 60),
            "file is not a database");
  EXPECT_EQ(failureOf(dir_.write("empty", ""), kBase, kBase + 60), "no such table: minutes");
  HistoryFile file(path_);
  file.exec("ALTER TABLE minutes DROP COLUMN mask");
  EXPECT_EQ(failureOf(path_, kBase, kBase + 60), "no such column: mask");
}

TEST_F(HistoryReading, DamagedPageFailsTheRead) {
  {
    HistoryFile file(path_);
    file.exec("BEGIN");
    for (int i = 0; i < 2000; ++i) file.add({.minute = kMinute + i});
    file.exec("COMMIT");
  }
  ASSERT_GT(std::filesystem::file_size(path_), 40'960u);
  std::fstream damage(path_, std::ios::binary | std::ios::in | std::ios::out);
  damage.seekp(20'480);
  damage << std::string(8192, '\xee');
  damage.close();
  EXPECT_EQ(failureOf(path_, kBase, kBase + 120'000), "database disk image is malformed");
}

TEST_F(HistoryReading, EveryPathReleasesWhatItOpened) {
  HistoryFile good(path_);
  good.add({.minute = kMinute});
  HistoryFile bad(dir_.path("bad"));
  bad.add({.mode = "bad", .minute = kMinute});
  const HistoryFile newer(dir_.path("newer"), 3);
  dir_.write("garbage", std::string(5000, '#'));
  dir_.write("empty", "");
  readHistory(path_, kBase, kBase + 60);  // whatever SQLite keeps for good it has after this
  const auto memory = sqlite3_memory_used();
  const auto descriptors = openDescriptors();
  for (const char* name : {"history.sqlite3", "bad", "newer", "garbage", "empty", "missing", "."}) {
    failureOf(dir_.path(name), kBase, kBase + 60);
    EXPECT_EQ(sqlite3_memory_used(), memory) << name;
    EXPECT_EQ(openDescriptors(), descriptors) << name;
  }
}

}  // namespace
}  // namespace spotserver
