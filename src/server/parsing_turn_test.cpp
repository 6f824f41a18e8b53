#include "server/parsing_turn.hpp"

#include <vector>

#include <gtest/gtest.h>

namespace spotserver {
namespace {

using namespace std::chrono_literals;
using Time = ConnectionSlot::Time;

const Time kStart{1h};

// Requests that came one after the other and all wait for a turn.
class ParsingTurns : public testing::Test {
 protected:
  static constexpr std::size_t kSlots = 3;

  ParsingTurns() {
    for (auto& slot : slots) {
      enter(slot, Phase::kReading, kStart + std::chrono::seconds(pointers.size()));
      slot.awaits_turn = true;
      pointers.push_back(&slot);
    }
  }

  // Which of them is next; kSlots when nobody is.
  std::size_t nextAt(Time now) const {
    std::size_t found = kSlots;
    for (std::size_t i = 0; i < kSlots; ++i) {
      if (!is_next(turn, pointers, slots[i], now)) continue;
      EXPECT_EQ(found, kSlots) << "one at a time";
      found = i;
    }
    return found;
  }
  void takeAt(Time now, std::size_t i) { take(turn, slots[i], limits, now); }

  const ConnectionLimits limits;
  ParsingTurn turn;
  std::vector<ConnectionSlot> slots = std::vector<ConnectionSlot>(kSlots);
  std::vector<ConnectionSlot*> pointers;
};

TEST_F(ParsingTurns, TheOldestRequestIsNext) { EXPECT_EQ(nextAt(kStart), 0u); }

TEST_F(ParsingTurns, NobodyIsNextUntilATurnIsOver) {
  takeAt(kStart, 0);
  slots[0].awaits_turn = false;
  EXPECT_EQ(nextAt(kStart + limits.turn - 1ns), kSlots);
  EXPECT_EQ(nextAt(kStart + limits.turn), 1u);
  turn.holder = nullptr;  // ended early
  EXPECT_EQ(nextAt(kStart), 1u);
}

TEST_F(ParsingTurns, EachTurnMakesARequestASecondYounger) {
  takeAt(kStart, 0);
  takeAt(kStart, 0);
  takeAt(kStart, 1);
  EXPECT_EQ(nextAt(kStart + 1h), 2u) << "three of one age: who had the fewest";
  takeAt(kStart, 2);
  EXPECT_EQ(nextAt(kStart + 1h), 1u);
  takeAt(kStart, 1);
  EXPECT_EQ(nextAt(kStart + 1h), 0u) << "now the oldest, whatever it had";
}

TEST_F(ParsingTurns, WhoIsCutHoldsNobodyUp) {
  slots[0].cut = true;
  EXPECT_TRUE(is_next(turn, pointers, slots[1], kStart));
}

TEST_F(ParsingTurns, ANewRequestStartsAnew) {
  for (int had = 0; had < 5; ++had) takeAt(kStart, 0);
  enter(slots[0], Phase::kIdle, kStart);
  enter(slots[0], Phase::kReading, kStart);
  EXPECT_EQ(nextAt(kStart + 1h), 0u);
}

TEST_F(ParsingTurns, TheNextLookIsAtTheEndOfATurnAndNeverInThePast) {
  takeAt(kStart, 0);
  EXPECT_EQ(next_look(turn, limits, kStart + 1ms), kStart + limits.turn);
  EXPECT_EQ(next_look(turn, limits, kStart + 1s), kStart + 1s + limits.turn);
}

}  // namespace
}  // namespace spotserver
