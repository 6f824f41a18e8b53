// What keeps a history from taking time and memory without end.
#include <chrono>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include "history_file.hpp"
#include "stems/history_reading.hpp"

namespace spotserver {
namespace {

using testing::SizeIs;

// A view that never ends. It grows by one short text a row.
constexpr char kEndlessView[] =
    "CREATE VIEW minutes AS WITH RECURSIVE endless(n) AS (SELECT 0 UNION ALL SELECT n+1 FROM "
    "endless) SELECT 'RX' || n AS receiver,14074000 AS frequency,'FT8' AS mode,1 AS minute,"
    "1 AS mask,zeroblob(64) AS counts FROM endless";

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

}  // namespace
}  // namespace spotserver
