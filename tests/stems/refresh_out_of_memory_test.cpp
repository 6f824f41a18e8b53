// What a refresh leaves when memory fails in the middle of it.
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "failing_memory.hpp"
#include "history_file.hpp"
#include "log_lines.hpp"
#include "spots/refresh_reference.hpp"
#include "stems/refresh_fixture.hpp"

namespace spotserver {
namespace {

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

}  // namespace
}  // namespace spotserver
