#include "server/stack_thread.hpp"

#include <algorithm>
#include <cstdint>
#include <vector>

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

namespace spotserver {
namespace {

constexpr std::size_t kStack = std::size_t{4} << 20;
constexpr std::size_t kDeep = std::size_t{1} << 20;

// Takes kDeep bytes of stack and notes the address of the lowest.
[[gnu::noinline]] void goDeep(std::uintptr_t& lowest) {
  volatile char taken[kDeep];
  for (std::size_t i = 0; i < kDeep; i += 1024) taken[i] = 1;
  lowest = reinterpret_cast<std::uintptr_t>(&taken[0]);
}

// How many of the kDeep bytes from `begin` on are in memory.
std::size_t residentBytes(std::uintptr_t begin) {
  const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  std::vector<unsigned char> pages(kDeep / page);
  auto* const aligned = reinterpret_cast<void*>(begin - begin % page);
  if (mincore(aligned, kDeep, pages.data()) != 0) return 0;
  return page * static_cast<std::size_t>(
                    std::count_if(pages.begin(), pages.end(), [](auto p) { return (p & 1) != 0; }));
}

struct Measured {
  std::size_t before = 0;
  std::size_t after = 0;
};

TEST(StackThread, GivesBackWhatADeepCallHasTaken) {
  Measured measured;
  pthread_t thread{};
  const auto work = [](void* argument) -> void* {
    auto& result = *static_cast<Measured*>(argument);
    std::uintptr_t deep = 0;
    goDeep(deep);
    result.before = residentBytes(deep);
    trim_stack();
    result.after = residentBytes(deep);
    goDeep(deep);  // and may go deep again
    return nullptr;
  };
  ASSERT_TRUE(start_thread(thread, kStack, work, &measured));
  pthread_join(thread, nullptr);
  EXPECT_GT(measured.before, kDeep * 9 / 10);
  EXPECT_LT(measured.after, kDeep / 5);
}

TEST(StackThread, HasTheStackAskedFor) {
  pthread_t thread{};
  std::size_t size = 0;
  const auto work = [](void* argument) -> void* {
    pthread_attr_t attributes;
    pthread_getattr_np(pthread_self(), &attributes);
    pthread_attr_getstacksize(&attributes, static_cast<std::size_t*>(argument));
    pthread_attr_destroy(&attributes);
    return nullptr;
  };
  ASSERT_TRUE(start_thread(thread, kStack, work, &size));
  pthread_join(thread, nullptr);
  EXPECT_EQ(size, kStack);
}

TEST(StackThread, OneThatTheSystemRefusesIsNoThread) {
  pthread_t thread{};
  const auto work = [](void*) -> void* { return nullptr; };
  EXPECT_FALSE(start_thread(thread, std::size_t{1} << 60, work, nullptr));
}

}  // namespace
}  // namespace spotserver
