// What lines cost that bring nothing new, and that thirty days are held as one.
#include <cstdint>
#include <string>

#include <gtest/gtest.h>
#include <malloc.h>

#include "failing_memory.hpp"
#include "history_file.hpp"
#include "log_lines.hpp"
#include "sanitizers.hpp"
#include "spots/refresh_reference.hpp"
#include "stems/refresh_fixture.hpp"

namespace spotserver {
namespace {

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

}  // namespace
}  // namespace spotserver
