#include "server/waiting_line.hpp"

#include <memory>

#include <gtest/gtest.h>

namespace spotserver {
namespace {

using namespace std::chrono_literals;

const WaitingLine::Time kStart{1h};

TEST(WaitingLine, FirstComeFirstServedHoweverOftenItGoesRound) {
  WaitingLine line;
  int last = 0;
  int next = 0;
  for (std::size_t round = 0; round < WaitingLine::kRoom; ++round) {
    for (int i = 0; i < 3; ++i) line.push([&last, number = ++next] { last = number; }, kStart);
    for (int i = 0; i < 3; ++i) {
      const int before = last;
      line.pop()();
      ASSERT_EQ(last, before + 1);
    }
    ASSERT_TRUE(line.empty());
  }
}

TEST(WaitingLine, IsFullWithAsManyAsTheServerHasDescriptors) {
  WaitingLine line;
  for (std::size_t i = 0; i < 1024; ++i) {
    ASSERT_FALSE(line.full());
    ASSERT_EQ(line.size(), i);
    line.push([] {}, kStart);
  }
  EXPECT_TRUE(line.full());
  line.pop();
  EXPECT_FALSE(line.full());
}

TEST(WaitingLine, CountsThoseWhoCameBefore) {
  WaitingLine line;
  for (const auto second : {1s, 2s, 2s, 5s}) line.push([] {}, kStart + second);
  const struct {
    std::chrono::seconds then;
    std::size_t waiting;
  } cases[] = {{1s, 0}, {2s, 1}, {3s, 3}, {5s, 3}, {6s, 4}};
  for (const auto& c : cases) {
    EXPECT_EQ(line.waiting_since(kStart + c.then), c.waiting) << c.then.count();
  }
}

TEST(WaitingLine, KeepsNothingOfAJobThatIsGone) {
  WaitingLine line;
  const auto held = std::make_shared<int>();
  line.push([held] {}, kStart);
  EXPECT_EQ(held.use_count(), 2);
  line.pop();
  EXPECT_EQ(held.use_count(), 1);
}

}  // namespace
}  // namespace spotserver
