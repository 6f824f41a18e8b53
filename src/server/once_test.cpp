#include "server/once.hpp"

#include <atomic>
#include <stdexcept>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace spotserver {
namespace {

TEST(Once, WorksForTheFirstCallOnly) {
  Once once;
  int worked = 0;
  for (int call = 0; call < 3; ++call) once.call([&] { ++worked; });
  EXPECT_EQ(worked, 1);
}

TEST(Once, WorkThatThrewIsDoneByALaterCall) {
  Once once;
  EXPECT_THROW(once.call([] { throw std::runtime_error("no memory"); }), std::runtime_error);
  EXPECT_THROW(once.call([] { throw std::runtime_error("none yet"); }), std::runtime_error);
  int worked = 0;
  once.call([&] { ++worked; });
  once.call([] { throw std::runtime_error("never called"); });
  EXPECT_EQ(worked, 1);
}

TEST(Once, ManyThreadsSeeWhatOneOfThemMade) {
  for (int round = 0; round < 200; ++round) {
    Once once;
    int made = 0;  // not atomic: the thread sanitizer would tell of two writers
    std::atomic<int> right = 0;
    std::vector<std::jthread> threads;
    for (int i = 0; i < 8; ++i) {
      threads.emplace_back([&] {
        once.call([&] { ++made; });
        if (made == 1) ++right;
      });
    }
    threads.clear();
    EXPECT_EQ(right, 8);
  }
}

TEST(Once, AWaitingThreadWorksAfterTheFirstHasThrown) {
  for (int round = 0; round < 200; ++round) {
    Once once;
    int made = 0;
    std::atomic<int> tries = 0;
    std::atomic<int> threw = 0;
    std::vector<std::jthread> threads;
    for (int i = 0; i < 8; ++i) {
      threads.emplace_back([&] {
        try {
          once.call([&] {
            if (++tries <= 3) throw std::runtime_error("no memory");
            ++made;
          });
        } catch (const std::runtime_error&) {
          ++threw;
        }
      });
    }
    threads.clear();
    EXPECT_EQ(tries, 4);
    EXPECT_EQ(threw, 3);
    EXPECT_EQ(made, 1);
  }
}

}  // namespace
}  // namespace spotserver
