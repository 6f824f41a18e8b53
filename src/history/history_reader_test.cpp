#include "history/history_reader.hpp"

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <limits>
#include <random>
#include <sstream>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include "history/history_reader_reference.hpp"
#include "history_file.hpp"
#include "other_process.hpp"
#include "scoped_limits.hpp"
#include "spots/mode.hpp"
#include "temp_dir.hpp"

namespace spotserver {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr std::int64_t kMinute = 29'333'333;  // some minute in 2025
constexpr double kBase = kMinute * 60.0;
constexpr double kInfinity = std::numeric_limits<double>::infinity();
constexpr double kNoNumber = std::numeric_limits<double>::quiet_NaN();

// The message readHistory fails with, or "read" when it does not.
std::string failureOf(const std::string& path, double from, double to, std::stop_token stop = {},
                      const HistoryLimits& limits = {}) {
  try {
    readHistory(path, from, to, std::move(stop), limits);
    return "read";
  } catch (const std::runtime_error& error) {
    return error.what();
  }
}

std::vector<double> starts(const std::vector<HistoryObservation>& observations) {
  std::vector<double> result(observations.size());
  std::ranges::transform(observations, result.begin(), &HistoryObservation::start);
  return result;
}

std::vector<std::uint64_t> countsOf(const std::vector<HistoryObservation>& observations) {
  std::vector<std::uint64_t> result(observations.size());
  std::ranges::transform(observations, result.begin(), &HistoryObservation::count);
  return result;
}

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

// A read in a thread of its own.
class RunningRead {
 public:
  RunningRead(const std::string& path, const HistoryLimits& limits)
      : thread_([this, path, limits](std::stop_token stop) {
          id_ = ::gettid();
          outcome_ = failureOf(path, 0, kBase + 60, std::move(stop), limits);
          ended_ = true;
        }) {}

  // Returns when SQLite holds a megabyte for the rows of this read.
  void waitUntilItWorks() const {
    waitFor([] { return sqlite3_memory_used() >= 1 << 20; });
  }
  // Returns when it has gone to sleep a few times: it waits for a lock.
  void waitUntilItWaits() const {
    waitFor([this] { return id_ != 0 && sleepsOf(id_) >= 10; });
  }
  void stop() { thread_.request_stop(); }
  std::string outcome() {
    thread_.join();
    return outcome_;
  }

 private:
  template <typename Event>
  void waitFor(Event&& event) const {
    while (!ended_ && !event()) std::this_thread::yield();
  }

  static long sleepsOf(pid_t thread) {
    std::ifstream status("/proc/self/task/" + std::to_string(thread) + "/status");
    for (std::string line; std::getline(status, line);) {
      if (line.starts_with("voluntary_ctxt_switches:")) return std::stol(line.substr(24));
    }
    return 0;
  }

  std::atomic<pid_t> id_ = 0;
  std::atomic<bool> ended_ = false;
  std::string outcome_;
  std::jthread thread_;
};

// A view that never ends. It grows by one short text a row.
constexpr char kEndlessView[] =
    "CREATE VIEW minutes AS WITH RECURSIVE endless(n) AS (SELECT 0 UNION ALL SELECT n+1 FROM "
    "endless) SELECT 'RX' || n AS receiver,14074000 AS frequency,'FT8' AS mode,1 AS minute,"
    "1 AS mask,zeroblob(64) AS counts FROM endless";

// --- One row ---------------------------------------------------------------------------------

class OneRow : public testing::Test {
 protected:
  OneRow() {
    row_.receiver = "RX1";
    row_.frequency = 14'074'000;
    row_.mode = "FT8";
    row_.minute = kMinute;
    row_.mask = 1;
    row_.counts = counts_;
  }

  std::vector<HistoryObservation> expandIn(double from, double to) const {
    HistorySlots out;
    expandRow(row_, from, to, out);
    return observations(out);
  }

  const std::string counts_ = countsBlob({3, 0, 7, 9, 0, 0, 0, 0});
  HistoryRow row_;
};

TEST_F(OneRow, EverySetBitOfTheMaskIsOneObservation) {
  row_.mask = 0b0101;
  const auto out = expandIn(kBase, kBase + 59);
  ASSERT_THAT(out, SizeIs(2));
  EXPECT_EQ(out[0].receiver, "RX1");
  EXPECT_EQ(out[0].mode, "FT8");
  EXPECT_EQ(out[0].frequency, 14'074'000.0);
  EXPECT_THAT(starts(out), ElementsAre(kBase, kBase + 30));
  EXPECT_THAT(countsOf(out), ElementsAre(3, 7));
}

TEST_F(OneRow, ListeningWithoutADecodeIsAnObservation) {
  row_.mask = 0b0010;
  const auto out = expandIn(kBase, kBase + 59);
  EXPECT_THAT(starts(out), ElementsAre(kBase + 15));
  EXPECT_THAT(countsOf(out), ElementsAre(0));
}

TEST_F(OneRow, WithoutBitsThereIsNothing) {
  row_.mask = 0;
  EXPECT_THAT(expandIn(kBase, kBase + 59), IsEmpty());
}

TEST_F(OneRow, CountsAreLittleEndianWith64Bits) {
  const std::string counts = countsBlob({0x0102030405060708, ~std::uint64_t{0}});
  EXPECT_EQ(counts.substr(0, 8), "\x08\x07\x06\x05\x04\x03\x02\x01");
  row_.counts = counts;
  row_.mask = 0b0011;
  EXPECT_THAT(countsOf(expandIn(kBase, kBase + 59)),
              ElementsAre(0x0102030405060708, ~std::uint64_t{0}));
}

TEST_F(OneRow, SlotMayEndOneSecondAfterTheWindowButNotMore) {
  EXPECT_THAT(starts(expandIn(kBase, kBase + 14)), ElementsAre(kBase));
  EXPECT_THAT(expandIn(kBase, kBase + 13.5), IsEmpty());
}

TEST_F(OneRow, SlotMayStartAtTheWindowsStartButNotBefore) {
  EXPECT_THAT(starts(expandIn(kBase, kBase + 59)), ElementsAre(kBase));
  EXPECT_THAT(expandIn(kBase + 0.5, kBase + 59), IsEmpty());
}

TEST_F(OneRow, WsprIsOneSlotOf120SecondsFromItsMinuteOn) {
  row_.mode = "WSPR";
  EXPECT_THAT(starts(expandIn(kBase, kBase + 119)), ElementsAre(kBase));
  EXPECT_THAT(expandIn(kBase, kBase + 118.5), IsEmpty());
}

TEST_F(OneRow, WindowWithoutBoundsOrWithBoundsThatAreNoNumbers) {
  EXPECT_THAT(expandIn(-kInfinity, kInfinity), SizeIs(1));
  EXPECT_THAT(expandIn(kNoNumber, kInfinity), IsEmpty());
  EXPECT_THAT(expandIn(-kInfinity, kNoNumber), IsEmpty());
  row_.minute = std::numeric_limits<std::int64_t>::max();
  EXPECT_THAT(expandIn(-kInfinity, kInfinity), SizeIs(1));
}

TEST_F(OneRow, RefusalsNameTheFirstThingThatIsWrong) {
  using namespace std::string_view_literals;
  const std::string bytes(96, '\0');
  const std::string_view blob = bytes;
  constexpr auto kNull = std::nullopt;
  const struct {
    std::optional<std::string_view> receiver;
    std::optional<std::string_view> mode;
    std::int32_t mask;
    std::size_t blob_bytes;
    const char* message;
  } cases[] = {
      {kNull, "FT8", 1, 64, "Invalid history text"},
      {"RX1", kNull, 1, 64, "Invalid history text"},
      {kNull, "no mode", -1, 0, "Invalid history text"},
      {"RX1", "ft8", 1, 64, "Invalid history mode"},
      {"RX1", "FT8 ", 1, 64, "Invalid history mode"},
      {"RX1", " FT8", 1, 64, "Invalid history mode"},
      {"RX1", "FT8\0"sv, 1, 64, "Invalid history mode"},
      {"RX1", "", 1, 64, "Invalid history mode"},
      {"RX1", "unknown", 1, 64, "Invalid history mode"},
      {"RX1", "FST4", -1, 0, "Invalid history mode"},
      {"RX1", "FT8", 16, 64, "Invalid history mask"},
      {"RX1", "FT8", -1, 64, "Invalid history mask"},
      {"RX1", "FT8", std::numeric_limits<std::int32_t>::min(), 64, "Invalid history mask"},
      {"RX1", "FT8", std::numeric_limits<std::int32_t>::max(), 64, "Invalid history mask"},
      {"RX1", "WSPR", 2, 64, "Invalid history mask"},
      {"RX1", "JS8-TURBO", 1024, 0, "Invalid history mask"},
      {"RX1", "FT8", 1, 32, "Invalid history counts"},
      {"RX1", "FT8", 1, 63, "Invalid history counts"},
      {"RX1", "FT8", 1, 65, "Invalid history counts"},
      {"RX1", "FT8", 1, 80, "Invalid history counts"},
      {"RX1", "FT8", 0, 0, "Invalid history counts"},
      {"RX1", "JS8-TURBO", 1, 64, "Invalid history counts"},
      {"RX1", "JS8-TURBO", 1, 88, "Invalid history counts"},
      {"", "FT8", 1, 64, ""},
      {"RX1", "JS8-TURBO", 1023, 80, ""},
  };
  for (const auto& c : cases) {
    row_.receiver = c.receiver;
    row_.mode = c.mode;
    row_.mask = c.mask;
    row_.counts = blob.substr(0, c.blob_bytes);
    EXPECT_EQ(expand(row_, kBase, kBase + 200).refusal, c.message)
        << c.mode.value_or("NULL") << " mask " << c.mask << ", " << c.blob_bytes << " bytes";
  }
}

TEST_F(OneRow, RefusedRowAddsNothing) {
  HistorySlots out = slotsOf(std::vector<HistoryObservation>(1));
  row_.mask = 16;
  EXPECT_THROW(expandRow(row_, kBase, kBase + 59, out), std::runtime_error);
  EXPECT_THAT(out.slots, SizeIs(1));
  EXPECT_EQ(out.channels(), 1u);
}

TEST_F(OneRow, EveryModeAndMaskExpandsLikeThePlainReading) {
  std::mt19937 random(1);
  for (int mode = kFt8; mode <= kWspr; ++mode) {
    row_.mode = modeName(mode);
    for (std::int32_t mask = -2; mask <= 1025; ++mask) {
      row_.mask = mask;
      std::vector<std::uint64_t> counts(10);
      for (auto& count : counts) count = random();
      const std::string blob = countsBlob(counts, mode == kJs8Turbo ? 10 : 8);
      row_.counts = blob;
      const double from = kBase - 10 + static_cast<double>(random() % 300) / 4;
      const double to = from + static_cast<double>(random() % 600) / 4;
      EXPECT_EQ(describe(expand(row_, from, to)), describe(expandPlainly(row_, from, to)))
          << *row_.mode << " mask " << mask << " in " << from - kBase << ".." << to - kBase;
    }
  }
}

// --- Whole files -----------------------------------------------------------------------------

class HistoryReading : public testing::Test {
 protected:
  TempDir dir_;
  const std::string path_ = dir_.path("history.sqlite3");
};

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

// --- Hostile files ---------------------------------------------------------------------------

TEST_F(HistoryReading, EndlessViewEndsWithTheTime) {
  HistoryFile file(path_);
  file.exec("DROP TABLE minutes");
  file.exec(kEndlessView);
  const HistoryLimits limits{.time = std::chrono::milliseconds(50), .memory = std::size_t{4} << 30};
  sqlite3_memory_highwater(1);
  EXPECT_EQ(failureOf(path_, 0, 120, {}, limits), "interrupted");
  EXPECT_LT(sqlite3_memory_highwater(0), 1 << 30);  // it was the time
}

// Sorting stays in memory, up to the limit: SQLite's own limit for going to a file is far below.
TEST_F(HistoryReading, EndlessViewEndsWithTheMemory) {
  HistoryFile file(path_);
  file.exec("DROP TABLE minutes");
  file.exec(kEndlessView);
  sqlite3_memory_highwater(1);
  const HistoryLimits limits{.time = std::chrono::hours(1), .memory = 32u << 20};
  EXPECT_EQ(failureOf(path_, 0, 120, {}, limits), "interrupted");
  EXPECT_GT(sqlite3_memory_highwater(0), 32 << 20);
  EXPECT_LT(sqlite3_memory_highwater(0), 36 << 20);
  EXPECT_LT(sqlite3_memory_used(), 1 << 20);
}

TEST_F(HistoryReading, EndlessViewEndsWhenStopped) {
  {
    HistoryFile file(path_);
    file.exec("DROP TABLE minutes");
    file.exec(kEndlessView);
  }
  RunningRead read(path_, {.time = std::chrono::hours(1), .memory = std::size_t{4} << 30});
  read.waitUntilItWorks();
  read.stop();
  EXPECT_EQ(read.outcome(), "interrupted");
}

TEST_F(HistoryReading, WindowBeyondTheMemoryIsRefused) {
  HistoryFile file(path_);
  file.exec("CREATE INDEX by_minute ON minutes(minute,receiver)");
  file.exec(
      "WITH RECURSIVE n(i) AS (SELECT 0 UNION ALL SELECT i+1 FROM n WHERE i<29999) "
      "INSERT INTO minutes SELECT 'RX'||(i%10),7,'JS8-TURBO',1,1023,zeroblob(80) FROM n");
  // Far more than SQLite itself takes for it.
  const std::size_t needed = 300'000 * sizeof(HistorySlot) + 10 * (sizeof(HistoryChannel) + 3);
  EXPECT_EQ(failureOf(path_, 0, 120, {}, {.memory = needed - 1}), "History window too large");
  EXPECT_EQ(failureOf(path_, 0, 120, {}, {.memory = needed}), "read");
}

TEST_F(HistoryReading, HugeFieldFailsTheReadAndIsNotLoaded) {
  HistoryFile file(path_);
  file.add({.receiver = std::string(65'000, 'x'), .minute = kMinute, .mask = 1});
  EXPECT_THAT(readHistory(path_, kBase, kBase + 60), SizeIs(1));
  file.add({.receiver = std::string(66'000, 'x'), .minute = kMinute, .mask = 1});
  EXPECT_EQ(failureOf(path_, kBase, kBase + 60), "string or blob too big");
  for (const char* column : {"receiver", "frequency", "mode", "mask", "counts"}) {
    file.exec("DELETE FROM minutes");
    file.add({.minute = kMinute, .mask = 1});
    file.exec(std::string("UPDATE minutes SET ") + column + "=zeroblob(10000000)");
    sqlite3_memory_highwater(1);
    EXPECT_EQ(failureOf(path_, kBase, kBase + 60), "string or blob too big") << column;
    EXPECT_LT(sqlite3_memory_highwater(0), 6 << 20) << column;
  }
}

TEST_F(HistoryReading, ColumnsOfNoConcernMayBeLarge) {
  HistoryFile file(path_);
  file.add({.minute = kMinute, .mask = 1});
  file.exec("ALTER TABLE minutes ADD COLUMN notes");
  file.exec("UPDATE minutes SET notes=zeroblob(5000000)");
  EXPECT_THAT(readHistory(path_, kBase, kBase + 60), SizeIs(1));
}

// --- Other processes ---------------------------------------------------------------------------

// Makes a history with one row and keeps it locked against readers until the test hangs up.
void lockExclusively(const std::string& path, const Peer& test) {
  HistoryFile file(path);
  file.add({.minute = kMinute, .mask = 1});
  file.exec("BEGIN EXCLUSIVE");
  test.signal();
  test.wait();
  file.exec("COMMIT");
}

// That the read fails while the lock is held, and not only once it is gone, is what each of these
// tests shows: the lock goes after the read has returned.
TEST_F(HistoryReading, LockedHistoryFailsAfterTheTime) {
  OtherProcess writer([&](const Peer& test) { lockExclusively(path_, test); });
  writer.peer().wait();
  const HistoryLimits limits{.time = std::chrono::milliseconds(100)};
  const auto begun = std::chrono::steady_clock::now();
  EXPECT_EQ(failureOf(path_, kBase, kBase + 60, {}, limits), "database is locked");
  EXPECT_GE(std::chrono::steady_clock::now() - begun, limits.time);
  writer.peer().signal();
  EXPECT_EQ(writer.join(), 0);
  EXPECT_EQ(failureOf(path_, kBase, kBase + 60), "read");
}

TEST_F(HistoryReading, StopEndsTheWaitForALock) {
  OtherProcess writer([&](const Peer& test) { lockExclusively(path_, test); });
  writer.peer().wait();
  RunningRead read(path_, {.time = std::chrono::hours(1)});
  read.waitUntilItWaits();
  const auto stopped = std::chrono::steady_clock::now();
  read.stop();
  EXPECT_EQ(read.outcome(), "database is locked");
  EXPECT_LT(std::chrono::steady_clock::now() - stopped, std::chrono::milliseconds(500));
  writer.peer().signal();
  EXPECT_EQ(writer.join(), 0);
}

TEST_F(HistoryReading, LockThatGoesInTimeIsWaitedFor) {
  OtherProcess writer([&](const Peer& test) { lockExclusively(path_, test); });
  writer.peer().wait();
  RunningRead read(path_, {.time = std::chrono::hours(1)});
  read.waitUntilItWaits();
  writer.peer().signal();
  EXPECT_EQ(read.outcome(), "read");
  EXPECT_EQ(writer.join(), 0);
}

TEST_F(HistoryReading, StopBeforeTheReadEndsIt) {
  HistoryFile(path_).add({.minute = kMinute});
  std::stop_source stop;
  stop.request_stop();
  EXPECT_EQ(failureOf(path_, kBase, kBase + 60, stop.get_token()), "interrupted");
}

// Every read sees the rows of a moment, and later reads never fewer.
void readWhileWritten(const std::string& path, const std::string& journal_mode) {
  constexpr int kRows = 300;
  OtherProcess writer([&](const Peer& test) {
    HistoryFile file(path, 2, journal_mode);
    file.exec("PRAGMA wal_autocheckpoint=5");
    test.signal();
    test.wait();
    for (int i = 0; i < kRows; ++i) file.add({.minute = kMinute + i, .mask = 1});
    test.wait();
  });
  writer.peer().wait();
  writer.peer().signal();
  std::size_t seen = 0;
  while (seen < kRows) {
    const auto found =
        readHistory(path, kBase, kBase + 60 * kRows, {}, {.time = std::chrono::minutes(1)});
    ASSERT_GE(found.size(), seen);
    seen = found.size();
    for (std::size_t i = 0; i < seen; ++i) {
      ASSERT_EQ(found[i].start, kBase + 60 * static_cast<double>(i)) << "of " << seen;
    }
  }
  writer.peer().signal();
  EXPECT_EQ(writer.join(), 0);
}

TEST_F(HistoryReading, WriterWithWriteAheadLogIsReadWhileItAppends) {
  readWhileWritten(path_, "WAL");
}

TEST_F(HistoryReading, WriterWithRollbackJournalIsReadWhileItAppends) {
  readWhileWritten(path_, "DELETE");
}

// A history in a folder that its reader may not write: the receivers run as another user.
class ForeignHistory : public HistoryReading {
 protected:
  ForeignHistory() { std::filesystem::permissions(dir_.path(), std::filesystem::perms(0755)); }
  ~ForeignHistory() override { closeFolder(std::filesystem::perms(0755)); }

  void closeFolder(std::filesystem::perms mode = std::filesystem::perms(0555)) const {
    std::filesystem::permissions(dir_.path(), mode);
  }

  // Reads as an ordinary user; root would not notice the modes.
  void expectOutcome(const std::string& expected) const {
    OtherProcess reader([&](const Peer&) {
      if (::geteuid() == 0 && (::setgid(65534) != 0 || ::setuid(65534) != 0)) {
        throw std::runtime_error("Cannot become an ordinary user");
      }
      std::string outcome = "read";
      try {
        readHistory(path_, kBase, kBase + 60);
      } catch (const OutOfDescriptors&) {
        outcome = "out of descriptors";
      } catch (const std::runtime_error& error) {
        outcome = error.what();
      }
      if (outcome != expected) throw std::runtime_error(outcome + ", not " + expected);
    });
    EXPECT_EQ(reader.join(), 0);
  }

 private:
  const ScopedUmask readable_for_all_{022};
};

TEST_F(ForeignHistory, WithRollbackJournalIsRead) {
  HistoryFile(path_).add({.minute = kMinute});
  closeFolder();
  expectOutcome("read");
}

TEST_F(ForeignHistory, WithWriteAheadLogIsReadWhileItsWriterHasItOpen) {
  OtherProcess writer([&](const Peer& test) {
    HistoryFile file(path_, 2, "WAL");
    file.add({.minute = kMinute});
    test.signal();
    test.wait();
  });
  writer.peer().wait();
  closeFolder();
  expectOutcome("read");
  writer.peer().signal();
  EXPECT_EQ(writer.join(), 0);
}

TEST_F(ForeignHistory, ThatMayNotBeReadIsNoLackOfDescriptors) {
  HistoryFile(path_).add({.minute = kMinute});
  std::filesystem::permissions(path_, std::filesystem::perms(0));
  expectOutcome("unable to open database file");
}

// SQLite needs the shared index file beside the log, which only the writer could make here.
TEST_F(ForeignHistory, WithWriteAheadLogFailsWhenNobodyHasItOpen) {
  HistoryFile(path_, 2, "WAL").add({.minute = kMinute});
  closeFolder();
  expectOutcome("attempt to write a readonly database");
}

// The undefined-behaviour sanitizer opens a pipe when it meets a type of object for the first time,
// and takes the object for broken when it cannot. So it meets this one beforehand.
void showSanitizerTheError() {
  try {
    throw OutOfDescriptors("");
  } catch (const OutOfDescriptors& error) {
    EXPECT_STREQ(error.what(), "");
  }
}

// A write-ahead log takes three descriptors: the file, the log and its index.
TEST_F(HistoryReading, LackOfDescriptorsIsToldFromABadHistory) {
  HistoryFile(path_, 2, "WAL").add({.minute = kMinute});
  showSanitizerTheError();
  std::vector<std::string> outcomes;
  {
    const DescriptorLimit limit(64);
    std::vector<Fd> taken;
    for (int fd = ::dup(0); fd >= 0; fd = ::dup(0)) taken.emplace_back(fd);
    for (int spare = 0; spare <= 3; ++spare, taken.pop_back()) {
      try {
        readHistory(path_, kBase, kBase + 60);
        outcomes.push_back("read");
      } catch (const OutOfDescriptors& error) {
        outcomes.push_back(error.what());
      }
    }
  }
  const std::string lack = "unable to open database file";
  EXPECT_THAT(outcomes, testing::ElementsAre(lack, lack, lack, "read"));
}

}  // namespace
}  // namespace spotserver
