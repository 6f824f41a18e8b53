#include "server/parsing_turn.hpp"

#include <algorithm>
#include <tuple>

namespace spotserver {
namespace {

using Time = ConnectionSlot::Time;

bool goesBefore(const ConnectionSlot& a, const ConnectionSlot& b) {
  return std::tie(a.turns, a.since) < std::tie(b.turns, b.since);
}

}  // namespace

bool isNext(const ParsingTurn& turn, ConnectionSlots slots, const ConnectionSlot& slot, Time now) {
  if (turn.holder && now < turn.end) return false;
  return std::none_of(slots.begin(), slots.end(), [&](const ConnectionSlot* other) {
    return other->awaits_turn && !other->cut && goesBefore(*other, slot);
  });
}

Time nextLook(const ParsingTurn& turn, const ConnectionLimits& limits, Time now) {
  return now < turn.end ? turn.end : now + limits.turn;
}

void take(ParsingTurn& turn, ConnectionSlot& slot, const ConnectionLimits& limits, Time now) {
  turn = {&slot, now + limits.turn};
  ++slot.turns;
}

}  // namespace spotserver
