// One connection as its worker's slot knows it: what it may cost, what it is doing, and which
// connections have to go when something runs short. Values and free functions; Connections holds
// the slots and the lock around them.
//
//   free -> handshake -> idle -> reading (-> body) -> serving -> idle -> ... -> free
#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <span>

#include <openssl/ssl.h>

namespace spotserver {

// What a connection may cost.
struct ConnectionLimits {
  using Duration = std::chrono::milliseconds;
  std::size_t workers = 64;
  std::size_t connections = 1000;  // accepted at a time; further ones wait to be accepted
  Duration handshake{10'000};      // the whole TLS handshake
  Duration request{30'000};        // first byte to complete request, with its body
  Duration write{30'000};          // without taking a byte; for all of the answer, if others wait
  Duration idle{1'000};            // idle for so long, it may have to give way to others
  std::size_t request_bytes = 256 * 1024;  // received before the request head is complete
  // Of all requests together, before the largest is cut. A header of five bytes takes a hundred.
  std::size_t all_request_bytes = 640 * 1024;
  std::size_t deep_request_bytes = 512;  // from here on requests are parsed one at a time
  Duration turn{20};                     // each for so long at most
  Duration linger{1'000};                // reading on after an answer given before the body
  Duration drain{2'000};                 // for requests in flight when the service stops
  Duration release{2'800};               // for everything when the service stops
};

// In the order in which a connection goes through them.
enum class Phase { kFree, kHandshake, kIdle, kReading, kBody, kServing };

// What one worker's connection is doing.
struct ConnectionSlot {
  using Time = std::chrono::steady_clock::time_point;
  Phase phase = Phase::kFree;
  Time since{};                       // when this phase began
  std::optional<Time> writing_since;  // when the write under way last moved
  std::size_t received = 0;           // bytes of the request, as far as they came with its head
  int fd = -1;                        // -1 before TLS has the socket and after it let go
  SSL* ssl = nullptr;                 // the library's
  unsigned turns = 0;                 // that the request has had, see server/parsing_turn
  bool awaits_turn = false;
  bool close_after_answer = false;
  bool cut = false;
};

// Begins a phase. Head and body of a request have one time together: kBody goes on from kReading.
void enter(ConnectionSlot& slot, Phase phase, ConnectionSlot::Time now);

// When the slot's connection will have overstayed; empty: it may stay. An idle connection may stay
// until the library ends it, or until others wait and no worker is free: then the one idle longest
// gives way.
std::optional<ConnectionSlot::Time> deadline_of(const ConnectionSlot& slot,
                                                const ConnectionLimits& limits);

// Whether the request so far is one of those that are parsed one at a time.
bool is_deep(const ConnectionSlot& slot, const ConnectionLimits& limits);

// Shuts the socket down but does not close it: the worker finds the connection at its end and
// leaves by the ordinary path.
void cut(ConnectionSlot& slot);

// The slots of all workers, those without a connection too.
using ConnectionSlots = std::span<ConnectionSlot* const>;

// Cuts what has overstayed.
void cut_overstayed(ConnectionSlots slots, const ConnectionLimits& limits,
                    ConnectionSlot::Time now);

// Cuts all that are in one of the phases up to `last`, as the service stops.
void cut_all(ConnectionSlots slots, Phase last);

// When `waiting` connections are more than there are workers free or about to be, cuts those that
// have been idle longest. A connection between handshake and first request is idle too: limits.idle
// gives it the time to ask. When nobody is idle, the answers go that are longest under way and have
// not been taken within limits.write.
void make_room(ConnectionSlots slots, const ConnectionLimits& limits, ConnectionSlot::Time now,
               std::size_t waiting);

// Takes note of bytes that have come for `slot`, one of `slots`. Cuts it when its request is too
// long; when all requests together are, cuts the largest, but none within its share.
void note_received(ConnectionSlots slots, ConnectionSlot& slot, const ConnectionLimits& limits,
                   ConnectionSlot::Time now, std::size_t bytes);

// Requests of which a byte has come and the answer is not written yet.
std::size_t in_flight(ConnectionSlots slots);

}  // namespace spotserver
