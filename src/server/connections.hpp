// Workers and connections of the HTTPS service.
//
// The HTTP library hands every accepted socket to a task queue; whoever runs the task serves that
// connection until it ends. With the library's own pool, eight silent phones take all eight
// threads. Here a fixed set of workers (server/connection_worker) serves one connection each, and a
// slot per worker (server/connection_slot) says what its connection is doing.
//
// The transitions come from where the facts are: server/socket_watch sees the handshake and every
// byte, the request gate sees a complete request head, the post-routing handler a complete
// request, the library's logger a written answer. One watcher thread cuts a connection that has
// overstayed: it shuts the socket down but never closes it, so the worker finds the connection at
// its end and leaves by the ordinary path.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>

#include <httplib.h>
#include <openssl/ssl.h>

#include "server/connection_slot.hpp"

namespace spotserver {

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

  // Starts the workers, as many of limits.workers as the system grants. They inherit the caller's
  // signal mask. Once only. Throws std::system_error when not even one worker can be started.
  void start();

  // A task queue that feeds the workers, for one run of the accept loop. While limits.connections
  // are open, it holds the loop up. Its shutdown does nothing: the loop may run again.
  std::unique_ptr<httplib::TaskQueue> queue();

  // The accept loop is about to end: hold it up no longer. Async-signal-safe.
  void release_accept_loop() noexcept;

  // Ends the service: idle connections at once, requests in flight after limits.drain at the
  // latest. Once only, after start() and when no accept loop runs any more.
  void stop();

  // Requests of which a byte has come and the answer is not written yet.
  std::size_t in_flight() const;

  // Whether a worker had to be left behind when the service stopped. The process must then end
  // without releasing what that worker may still use.
  bool abandoned() const;

  // The rest is for the worker thread that serves the request, and without effect elsewhere.

  // The request head is complete, its body is still to be read.
  static void head_complete();
  // Whether neither that nor request_complete() was said of the request under way.
  static bool is_reading_head();
  // The request is complete. Nothing changes when it was before.
  static void request_complete();
  // Close the connection once the answer is written, whatever the peer still sends.
  static void close_after_answer();
  // Whether it was said, or a large request came together with this one, for which it would be too
  // late to wait until others are parsed. Asked when all of this one was read.
  static bool closes_after_answer();
  // The answer is written.
  static void answered();

 private:
  struct Core;
  std::unique_ptr<Core> core_;
};

}  // namespace spotserver
