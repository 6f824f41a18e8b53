#include "server/connection_slot.hpp"

#include <algorithm>

#include <sys/socket.h>

namespace spotserver {
namespace {

using Time = ConnectionSlot::Time;

bool is_free_soon(const ConnectionSlot* slot) { return slot->phase == Phase::kFree || slot->cut; }

bool is_idle(const ConnectionSlot& slot) { return slot.phase == Phase::kIdle; }

bool is_writing(const ConnectionSlot& slot) {
  return slot.phase == Phase::kServing && slot.writing_since;
}

// Of those that are as asked. None: nobody has been so for `least`.
ConnectionSlot* longest(ConnectionSlots slots, bool (*is)(const ConnectionSlot&),
                        ConnectionLimits::Duration least, Time now) {
  ConnectionSlot* found = nullptr;
  for (ConnectionSlot* slot : slots) {
    if (!is(*slot) || slot->cut || now - slot->since < least) continue;
    if (!found || slot->since < found->since) found = slot;
  }
  return found;
}

std::size_t share_of(const ConnectionLimits& limits) {
  return limits.all_request_bytes / limits.workers;
}

// Keeps what all requests hold in memory within bounds. One within its share is never the cause.
void cut_largest_request(ConnectionSlots slots, const ConnectionLimits& limits) {
  std::size_t all = 0;
  ConnectionSlot* largest = nullptr;
  for (ConnectionSlot* slot : slots) {
    all += slot->received;
    if (!slot->cut && (!largest || slot->received > largest->received)) largest = slot;
  }
  if (largest && all > limits.all_request_bytes && largest->received > share_of(limits)) {
    cut(*largest);
  }
}

}  // namespace

void enter(ConnectionSlot& slot, Phase phase, Time now) {
  const bool goes_on = slot.phase == Phase::kReading && phase == Phase::kBody;
  if (!goes_on) slot.since = now;
  slot.phase = phase;
  slot.writing_since.reset();
  if (phase != Phase::kIdle) return;
  slot.received = 0;
  slot.turns = 0;
}

std::optional<Time> deadline_of(const ConnectionSlot& slot, const ConnectionLimits& limits) {
  switch (slot.phase) {
    case Phase::kHandshake:
      return slot.since + limits.handshake;
    case Phase::kReading:
    case Phase::kBody:
      return slot.since + limits.request;
    case Phase::kServing:
      if (slot.writing_since) return *slot.writing_since + limits.write;
      return std::nullopt;
    case Phase::kFree:
    case Phase::kIdle:
      return std::nullopt;
  }
  return std::nullopt;
}

bool is_deep(const ConnectionSlot& slot, const ConnectionLimits& limits) {
  return slot.received > limits.deep_request_bytes;
}

void cut(ConnectionSlot& slot) {
  slot.cut = true;
  if (slot.fd >= 0) ::shutdown(slot.fd, SHUT_RDWR);
}

void cut_overstayed(ConnectionSlots slots, const ConnectionLimits& limits, Time now) {
  for (ConnectionSlot* slot : slots) {
    const auto deadline = deadline_of(*slot, limits);
    if (!slot->cut && deadline && *deadline <= now) cut(*slot);
  }
}

void cut_all(ConnectionSlots slots, Phase last) {
  for (ConnectionSlot* slot : slots) {
    if (slot->phase != Phase::kFree && slot->phase <= last) cut(*slot);
  }
}

void make_room(ConnectionSlots slots, const ConnectionLimits& limits, Time now,
               std::size_t waiting) {
  auto room = static_cast<std::size_t>(std::count_if(slots.begin(), slots.end(), is_free_soon));
  for (; room < waiting; ++room) {
    ConnectionSlot* leaving = longest(slots, is_idle, limits.idle, now);
    if (!leaving) leaving = longest(slots, is_writing, limits.write, now);
    if (!leaving) return;
    cut(*leaving);
  }
}

void note_received(ConnectionSlots slots, ConnectionSlot& slot, const ConnectionLimits& limits,
                   Time now, std::size_t bytes) {
  if (slot.phase == Phase::kIdle) enter(slot, Phase::kReading, now);
  if (slot.phase != Phase::kReading) return;
  slot.received += bytes;
  if (slot.received > limits.request_bytes) cut(slot);
  if (slot.received > share_of(limits)) cut_largest_request(slots, limits);
}

std::size_t in_flight(ConnectionSlots slots) {
  return static_cast<std::size_t>(std::count_if(
      slots.begin(), slots.end(), [](const auto* slot) { return slot->phase >= Phase::kReading; }));
}

}  // namespace spotserver
