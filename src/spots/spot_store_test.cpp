#include "spots/spot_store.hpp"

#include <atomic>
#include <chrono>
#include <filesystem>
#include <semaphore>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "history_file.hpp"
#include "log_lines.hpp"
#include "temp_dir.hpp"

namespace spotserver {
namespace {

using ::testing::Pair;
using ::testing::UnorderedElementsAre;

constexpr double kNow = 1'741'947'330;

// A refresh that takes as long as the test wants; each adds one to the generation.
class SlowFiles {
 public:
  SpotStore::Refresh refresh() {
    return [this](SpotData& data, double, double, const std::stop_token&) {
      begun_.release();
      end_.acquire();
      ++data.generation;
    };
  }
  void awaitRefresh() { begun_.acquire(); }
  void endRefresh() { end_.release(); }

 private:
  std::counting_semaphore<> begun_{0};
  std::counting_semaphore<> end_{0};
};

void awaitWaiting(SpotStore& store, std::uint64_t threads) {
  while (store.waiting() != threads) std::this_thread::yield();
}

std::string heard(const std::string& callsign) {
  return decodeLine(kNow - 10, "CQ " + callsign + " FN42");
}

TEST(SpotStore, StartsEmptyAndUnread) {
  SpotStore store;
  const auto held = store.lock();
  EXPECT_EQ(held->last_refresh, 0);
  EXPECT_EQ(held->generation, 0u);
  EXPECT_EQ(held->log.offset, 0u);
  EXPECT_TRUE(held->spots.empty());
  EXPECT_TRUE(held->intervals.empty());
  EXPECT_FALSE(held->demo);
  EXPECT_FALSE(held->history_in_use);
}

TEST(SpotStore, GuardIsTheOnlyWayInAndCannotBePassedOn) {
  static_assert(!std::is_copy_constructible_v<SpotStore::Held>);
  static_assert(!std::is_copy_assignable_v<SpotStore::Held>);
  SpotStore store;
  { (*store.lock()).all_txt_path = "/log"; }
  EXPECT_EQ(store.lock()->all_txt_path, "/log");
}

TEST(SpotStore, RefreshReadsWhatIsNew) {
  TempDir dir;
  SpotStore store;
  store.lock()->all_txt_path = dir.write("ALL.TXT", heard("N0AAA"));
  store.refresh(kNow, 15);
  EXPECT_EQ(store.lock()->spots.size(), 1u);
  dir.append("ALL.TXT", heard("N0BBB"));
  store.refresh(kNow + 14, 15);
  EXPECT_EQ(store.lock()->spots.size(), 1u);
  store.refresh(kNow + 15, 15);
  EXPECT_EQ(store.lock()->spots.size(), 2u);
}

TEST(SpotStore, AnInterruptedStoreIsLeftAsItIs) {
  TempDir dir;
  SpotStore store;
  store.lock()->all_txt_path = dir.write("ALL.TXT", heard("N0AAA"));
  store.refresh(kNow, 0);
  store.lock()->history_in_use = true;  // although no history can be read
  store.interrupt();
  dir.append("ALL.TXT", heard("N0BBB"));
  store.refresh(kNow + 100'000, 0);
  const auto held = store.lock();
  EXPECT_TRUE(held->history_in_use);
  EXPECT_EQ(held->spots.size(), 1u);
  EXPECT_EQ(held->last_refresh, kNow);
}

TEST(SpotStore, NobodyLooksAgainBeforeAllAreServedWhoWaitedForALongRefresh) {
  SlowFiles files;
  SpotStore store(files.refresh(), std::chrono::seconds(0));
  std::vector<std::pair<std::string, std::uint64_t>> served;  // and the refresh it was served from
  const auto ask = [&](const std::string& phone) {
    const auto held = store.refresh(kNow, 0);
    served.emplace_back(phone, held->generation);
  };
  std::vector<std::jthread> phones;
  phones.emplace_back([&] {
    ask("first");
    ask("first again");  // at once, where the others have yet to wake up
  });
  files.awaitRefresh();
  for (const std::uint64_t before : {0u, 1u, 2u}) {
    phones.emplace_back([&, before] { ask("waited " + std::to_string(before)); });
    awaitWaiting(store, before + 1);
  }
  files.endRefresh();

  files.awaitRefresh();
  EXPECT_THAT(served, UnorderedElementsAre(Pair("first", 1), Pair("waited 0", 1),
                                           Pair("waited 1", 1), Pair("waited 2", 1)));
  phones.emplace_back([&] { ask("late"); });
  awaitWaiting(store, 1);
  files.endRefresh();
  phones.clear();
  EXPECT_EQ(served.size(), 6u);
  EXPECT_THAT(served[4], Pair("first again", 2));
  EXPECT_THAT(served[5], Pair("late", 2));
}

TEST(SpotStore, OfThoseWhoComeWhileOthersAreServedOneLooksForAll) {
  SlowFiles files;
  SpotStore store(files.refresh(), std::chrono::seconds(0));
  std::vector<std::uint64_t> served;  // from which refresh
  const auto ask = [&] {
    const auto held = store.refresh(kNow, 0);
    served.push_back(held->generation);
  };
  std::counting_semaphore<> answered(0);
  std::jthread first([&] {
    const auto held = store.refresh(kNow, 0);
    served.push_back(held->generation);
    answered.acquire();
  });
  files.awaitRefresh();
  std::vector<std::jthread> phones;
  for (const std::uint64_t before : {0u, 1u}) {
    phones.emplace_back(ask);
    awaitWaiting(store, before + 1);
  }
  files.endRefresh();
  while (store.longRefreshes() == 0) std::this_thread::yield();
  for (const std::uint64_t before : {2u, 3u, 4u}) {
    phones.emplace_back(ask);
    awaitWaiting(store, before + 1);
  }
  answered.release();

  files.awaitRefresh();
  EXPECT_EQ(served, (std::vector<std::uint64_t>{1, 1, 1}));
  files.endRefresh();
  phones.clear();
  EXPECT_EQ(served, (std::vector<std::uint64_t>{1, 1, 1, 2, 2, 2}));
}

TEST(SpotStore, AQuickRefreshSparesNobodyTheLook) {
  SlowFiles files;
  SpotStore store(files.refresh(), std::chrono::hours(1));
  std::jthread first([&] { store.refresh(kNow, 0); });
  files.awaitRefresh();
  std::jthread second([&] { store.refresh(kNow, 0); });
  awaitWaiting(store, 1);
  files.endRefresh();
  files.awaitRefresh();
  files.endRefresh();
}

TEST(SpotStore, TheStoreIsHeldFromTheRefreshToTheAnswer) {
  SlowFiles files;
  SpotStore store(files.refresh(), std::chrono::hours(1));
  files.endRefresh();
  files.endRefresh();
  std::jthread other;
  {
    const auto held = store.refresh(kNow, 0);
    other = std::jthread([&] { store.refresh(kNow, 0); });
    awaitWaiting(store, 1);
    EXPECT_EQ(held->generation, 1u);
  }
  other.join();
  EXPECT_EQ(store.lock()->generation, 2u);
}

// A history that its writer keeps locked takes five seconds.
TEST(SpotStore, OfFourWhoMeetALockedHistoryOneWaitsForIt) {
  TempDir dir;
  HistoryFile history(dir.path("history.sqlite3"));
  history.exec("BEGIN EXCLUSIVE");
  SpotStore store;
  store.lock()->history_path = dir.path("history.sqlite3");
  std::vector<std::thread> phones;
  for (int i = 0; i < 4; ++i) phones.emplace_back([&store, i] { store.refresh(kNow + i, 0); });
  for (auto& phone : phones) phone.join();
  EXPECT_EQ(store.longRefreshes(), 1u);
}

TEST(SpotStore, RefreshWaitsForWhoeverHoldsTheStore) {
  TempDir dir;
  SpotStore store;
  store.lock()->all_txt_path = dir.write("ALL.TXT", heard("N0AAA"));
  std::thread refresher;
  {
    const auto held = store.lock();
    refresher = std::thread([&] { store.refresh(kNow, 0); });
    // However long this takes, the other thread cannot have been here.
    for (int i = 0; i < 1000; ++i) {
      EXPECT_TRUE(held->spots.empty());
      std::this_thread::yield();
    }
  }
  refresher.join();
  EXPECT_EQ(store.lock()->spots.size(), 1u);
}

TEST(SpotStore, OfABurstOfRefreshesOneReads) {
  TempDir dir;
  SpotStore store;
  store.lock()->all_txt_path = dir.write("ALL.TXT", heard("N0AAA"));
  std::vector<std::thread> threads;
  threads.reserve(8);
  for (int i = 0; i < 8; ++i) threads.emplace_back([&] { store.refresh(kNow, 15); });
  for (auto& thread : threads) thread.join();
  const auto held = store.lock();
  EXPECT_EQ(held->accepted_lines, 1u);
  EXPECT_EQ(held->generation, 1u);
}

TEST(SpotStore, ManyThreadsCountEveryLineOnceWhileTheLogGrows) {
  constexpr int kLines = 300;
  TempDir dir;
  SpotStore store;
  store.lock()->all_txt_path = dir.write("ALL.TXT", "");
  std::atomic<bool> written = false;
  std::vector<std::thread> threads;
  threads.reserve(4);
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      do {
        store.refresh(kNow, 0);
        const auto held = store.lock();
        EXPECT_EQ(held->spots.size(), held->accepted_lines);
      } while (!written);
    });
  }
  for (int i = 0; i < kLines; ++i) {
    const std::string line = heard("N0AAA");
    dir.append("ALL.TXT", line.substr(0, 20));
    dir.append("ALL.TXT", line.substr(20));
  }
  written = true;
  for (auto& thread : threads) thread.join();
  store.refresh(kNow, 0);
  EXPECT_EQ(store.lock()->accepted_lines, static_cast<std::uint64_t>(kLines));
}

TEST(SpotStore, InterruptEndsAReadUnderWay) {
  TempDir dir;
  SpotStore store;
  store.lock()->all_txt_path = dir.write("ALL.TXT", heard("N0AAA"));
  store.refresh(kNow, 0);
  // A hole of a tebibyte takes minutes to read: to be done at all, this must be interrupted.
  std::filesystem::resize_file(dir.path("ALL.TXT"), std::uintmax_t{1} << 40);
  std::thread refresher([&] { store.refresh(kNow, 0); });
  store.interrupt();
  refresher.join();
  EXPECT_LT(store.lock()->log.scanned, std::uint64_t{1} << 40);
  EXPECT_EQ(store.lock()->spots.size(), 1u);
}

TEST(SpotStore, InterruptIsForGoodAndMayComeTwice) {
  TempDir dir;
  SpotStore store;
  store.lock()->all_txt_path = dir.write("ALL.TXT", heard("N0AAA"));
  store.interrupt();
  store.interrupt();
  store.refresh(kNow, 0);
  EXPECT_TRUE(store.lock()->spots.empty());
}

TEST(SpotStore, InterruptTakesNoLock) {
  SpotStore store;
  const auto held = store.lock();
  store.interrupt();  // would never return otherwise
  EXPECT_EQ(held->generation, 0u);
}

}  // namespace
}  // namespace spotserver
