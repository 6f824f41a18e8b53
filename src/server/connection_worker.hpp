// A worker of server/connections: a thread that serves one connection after another, and keeps in
// its slot what the connection is doing.
#pragma once

#include <cstddef>
#include <optional>
#include <vector>

#include <openssl/ssl.h>
#include <pthread.h>

#include "server/connection_slot.hpp"
#include "server/mutex.hpp"
#include "server/parsing_turn.hpp"
#include "server/socket_watch.hpp"
#include "server/waiting_line.hpp"

namespace spotserver {

// What the workers share with those who feed, watch and stop them.
struct Workplace {
  explicit Workplace(const ConnectionLimits& l) : limits(l) { slots.reserve(limits.workers); }

  const ConnectionLimits limits;

  Mutex mutex;
  Condition work;   // a job came, or the end
  Condition watch;  // a connection began, or the end
  Condition done;   // a worker left
  Condition ended;  // a connection ended
  Condition next;   // a deep request was parsed
  WaitingLine jobs SPOT_GUARDED_BY(mutex);
  std::vector<ConnectionSlot*> slots SPOT_GUARDED_BY(mutex);  // of all workers that were started
  std::size_t free_workers SPOT_GUARDED_BY(mutex) = 0;
  std::size_t left_workers SPOT_GUARDED_BY(mutex) = 0;  // whose threads are about to end
  ParsingTurn turn SPOT_GUARDED_BY(mutex);
  bool watcher_sleeps SPOT_GUARDED_BY(mutex) = false;  // until there is a connection
  bool stopping SPOT_GUARDED_BY(mutex) = false;        // workers leave when no job is left
};

// Outlives its thread, as does the workplace.
class ConnectionWorker final : SocketObserver {
 public:
  explicit ConnectionWorker(Workplace& place) : place_(place) {}

  // Starts the thread, of which limits.workers may be started. Once. False when the system grants
  // no more.
  bool start();
  // Once, after start: waits until the thread has ended, or gives it up.
  void join();
  void detach();

  // The worker whose thread this is; null on every other thread.
  static ConnectionWorker* current();

  // Of the request under way, by its own thread; as Connections has them.
  void head_complete();
  bool is_reading_head();
  void request_complete();
  void close_after_answer();
  bool closes_after_answer();
  void answered();

 private:
  using Job = WaitingLine::Job;

  static void* entry(void* worker);
  void work_until_stopped();
  std::optional<Job> next_job();
  void serve(const Job& job) noexcept;
  void close_connection();
  void end_job();

  void handshake_began(SSL& connection) noexcept override;
  void handshake_done() noexcept override;
  bool may_read() noexcept override;
  bool may_write() noexcept override;
  bool received(std::size_t bytes) noexcept override;
  void written() noexcept override;
  void released() noexcept override;

  bool take_turn();
  void end_turn() SPOT_REQUIRES(place_.mutex);
  void parsed() SPOT_REQUIRES(place_.mutex);
  std::size_t bytes_ahead() const SPOT_REQUIRES(place_.mutex);
  void linger_unlocked(int fd, SSL* ssl) SPOT_REQUIRES(place_.mutex);

  Workplace& place_;
  pthread_t thread_{};
  ConnectionSlot slot_ SPOT_GUARDED_BY(place_.mutex);
};

}  // namespace spotserver
