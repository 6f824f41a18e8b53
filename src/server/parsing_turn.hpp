// Whose turn it is to have a large request parsed. Values and free functions beside the slots;
// Connections holds the lock around them and lets the others wait.
#pragma once

#include "server/connection_slot.hpp"

namespace spotserver {

// The one under way; nobody's at first and when it ended early.
struct ParsingTurn {
  const ConnectionSlot* holder = nullptr;
  ConnectionSlot::Time end{};  // by then the next one may take it
};

// Whether `slot` may take the turn now. The oldest request goes first, but each turn that it had
// makes it a second younger: one that sends a byte now and then, and takes a turn for each, holds
// up nobody but its like, and one that came in two pieces does not wait for ever behind those that
// come in one.
bool is_next(const ParsingTurn& turn, ConnectionSlots slots, const ConnectionSlot& slot,
             ConnectionSlot::Time now);

// When it is worth asking again, unless a turn ends early. Later than `now`.
ConnectionSlot::Time next_look(const ParsingTurn& turn, const ConnectionLimits& limits,
                               ConnectionSlot::Time now);

void take(ParsingTurn& turn, ConnectionSlot& slot, const ConnectionLimits& limits,
          ConnectionSlot::Time now);

}  // namespace spotserver
