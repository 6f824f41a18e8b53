// Workers and connections of the HTTPS service.
//
// The HTTP library hands every accepted socket to a task queue; whoever runs the task serves that
// connection until it ends. With the library's own pool, eight silent phones take all eight
// threads. Here a fixed set of workers serves one connection each, and a slot per worker says what
// its connection is doing:
//
//   free -> handshake -> idle -> reading -> serving -> idle -> ... -> free
//
// The transitions come from where the facts are: TLS and socket callbacks see the handshake and
// every byte, the request gate sees a complete request head, the library's logger a written
// answer. One watcher thread cuts a connection that has overstayed: it shuts the socket down but
// never closes it, so the worker finds the connection at its end and leaves by the ordinary path.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>

#include <httplib.h>
#include <openssl/ssl.h>

namespace spotserver {

// What a connection may cost.
struct ConnectionLimits {
  using Duration = std::chrono::milliseconds;
  std::size_t workers = 64;
  std::size_t connections = 1000;          // accepted at a time; further ones wait to be accepted
  Duration handshake{10'000};              // the whole TLS handshake
  Duration request{30'000};                // first byte to complete request head
  Duration write{30'000};                  // without taking a byte of the answer
  Duration idle{1'000};                    // idle for so long, it may have to give way to others
  std::size_t request_bytes = 256 * 1024;  // received before the request head is complete
  // Of all requests together, before the largest is cut. A header of five bytes takes a hundred.
  std::size_t all_request_bytes = 640 * 1024;
  std::size_t deep_request_bytes = 512;  // from here on requests are parsed one at a time
  Duration turn{50};                     // each for so long at most
  Duration linger{1'000};                // reading on after an answer given before the body
  Duration drain{2'000};                 // for requests in flight when the service stops
  Duration release{2'800};               // for everything when the service stops
};

enum class Phase { kFree, kHandshake, kIdle, kReading, kServing };

// What one worker's connection is doing.
struct ConnectionSlot {
  using Time = std::chrono::steady_clock::time_point;
  Phase phase = Phase::kFree;
  Time since{};                       // when this phase began
  std::optional<Time> writing_since;  // when the write under way last moved
  std::size_t received = 0;           // bytes of the request that is read or served
  int fd = -1;                        // -1 before TLS has the socket and after it let go
  SSL* ssl = nullptr;                 // the library's
  bool close_after_answer = false;
  bool cut = false;
};

// When the slot's connection will have overstayed; empty: it may stay. An idle connection may stay
// until the library ends it, or until others wait and no worker is free: then the one idle longest
// gives way.
std::optional<ConnectionSlot::Time> deadlineOf(const ConnectionSlot& slot,
                                               const ConnectionLimits& limits);

// Thread-safe. Outlives the server whose connections it keeps.
class Connections {
 public:
  // `on_stopping` runs once, with no lock held, when the service begins to stop: whatever a
  // request may be waiting for should give up then.
  explicit Connections(const ConnectionLimits& limits, std::function<void()> on_stopping = {});
  ~Connections();
  Connections(const Connections&) = delete;
  Connections& operator=(const Connections&) = delete;

  // Makes the connections of this TLS context report here. Before the first connection.
  void watch(SSL_CTX* context);

  // Starts the workers, as many of limits.workers as the system grants, and returns the task queue
  // that feeds them. They inherit the caller's signal mask. While limits.connections are open, the
  // queue holds the accept loop up. Its shutdown ends the service: idle connections at once,
  // requests in flight after limits.drain at the latest.
  // Once only. Throws std::system_error when not even one worker can be started.
  std::unique_ptr<httplib::TaskQueue> start();

  // The accept loop is about to end: hold it up no longer. Async-signal-safe.
  void releaseAcceptLoop() noexcept;

  // Requests of which a byte has come and the answer is not written yet.
  std::size_t inFlight() const;

  // Whether a worker had to be left behind when the service stopped. The process must then end
  // without releasing what that worker may still use.
  bool abandoned() const;

  // The rest is for the worker thread that serves the request, and without effect elsewhere.

  // The request head is complete.
  static void requestComplete();
  // Close the connection once the answer is written, whatever the peer still sends.
  static void closeAfterAnswer();
  static bool closesAfterAnswer();
  // The answer is written.
  static void answered();

 private:
  struct Core;
  std::unique_ptr<Core> core_;
};

}  // namespace spotserver
