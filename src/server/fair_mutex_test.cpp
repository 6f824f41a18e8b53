#include "server/fair_mutex.hpp"

#include <cstdint>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace spotserver {
namespace {

TEST(FairMutex, ServesWhoeverCameFirst) {
  FairMutex mutex;
  std::vector<std::uint64_t> served;
  std::vector<std::jthread> threads;
  mutex.lock();
  for (std::uint64_t before = 0; before < 8; ++before) {
    threads.emplace_back([&, before] {
      mutex.lock();
      served.push_back(before);
      mutex.unlock();
    });
    while (mutex.waiting() != before + 1) std::this_thread::yield();
  }
  mutex.unlock();
  mutex.lock();  // at once, where the others have yet to wake up
  EXPECT_THAT(served, testing::ElementsAre(0, 1, 2, 3, 4, 5, 6, 7));
  mutex.unlock();
}

TEST(FairMutex, HoldsOneThreadAtATime) {
  FairMutex mutex;
  std::uint64_t count = 0;
  {
    std::vector<std::jthread> threads;
    for (int i = 0; i < 4; ++i) {
      threads.emplace_back([&] {
        for (int n = 0; n < 1000; ++n) {
          mutex.lock();
          ++count;
          mutex.unlock();
        }
      });
    }
  }
  EXPECT_EQ(count, 4000u);
  EXPECT_EQ(mutex.waiting(), 0u);
}

}  // namespace
}  // namespace spotserver
