#include "server/parsing_turn.hpp"

#include <algorithm>
#include <chrono>
#include <utility>

namespace spotserver {
namespace {

using Time = ConnectionSlot::Time;

// What each turn that a request had takes off its age.
constexpr std::chrono::seconds kTurnCounts{1};

bool goes_before(const ConnectionSlot& a, const ConnectionSlot& b) {
  const auto rank = [](const ConnectionSlot& slot) {
    return std::pair(slot.since + slot.turns * kTurnCounts, slot.turns);
  };
  return rank(a) < rank(b);
}

}  // namespace

bool is_next(const ParsingTurn& turn, ConnectionSlots slots, const ConnectionSlot& slot, Time now) {
  if (turn.holder && now < turn.end) return false;
  return std::none_of(slots.begin(), slots.end(), [&](const ConnectionSlot* other) {
    return other->awaits_turn && !other->cut && goes_before(*other, slot);
  });
}

Time next_look(const ParsingTurn& turn, const ConnectionLimits& limits, Time now) {
  return now < turn.end ? turn.end : now + limits.turn;
}

void take(ParsingTurn& turn, ConnectionSlot& slot, const ConnectionLimits& limits, Time now) {
  turn = {&slot, now + limits.turn};
  ++slot.turns;
}

}  // namespace spotserver
