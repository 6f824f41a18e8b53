#include "server/connections.hpp"

#include <atomic>
#include <memory>
#include <optional>
#include <system_error>
#include <utility>
#include <vector>

#include <openssl/ssl.h>
#include <unistd.h>

#include "server/linger.hpp"
#include "server/mutex.hpp"
#include "server/owned.hpp"
#include "server/parsing_turn.hpp"
#include "server/socket_watch.hpp"
#include "server/stack_thread.hpp"
#include "server/waiting_line.hpp"
#include "server/worker_memory.hpp"

namespace spotserver {
namespace {

using Clock = std::chrono::steady_clock;
using Time = ConnectionSlot::Time;
using Job = WaitingLine::Job;
using SslPtr = std::unique_ptr<SSL, With<SSL_free>>;

// The library matches a Range header with a recursive regular expression: 8 KB of header take
// 4 MB of stack. Threads must not depend on the stack limit the service was started with.
constexpr std::size_t kWorkerStack = std::size_t{16} << 20;
constexpr std::size_t kWatcherStack = std::size_t{256} << 10;

// How often the watcher looks while there is any connection.
constexpr std::chrono::milliseconds kWatchInterval{100};

}  // namespace

struct Connections::Core {
  // A thread and what its connection is doing.
  struct Worker final : SocketObserver {
    explicit Worker(Core& c) : core(c) {}

    Core& core;
    pthread_t thread{};
    ConnectionSlot slot SPOT_GUARDED_BY(core.mutex);

    static thread_local Worker* current;  // the worker this thread is

    // --- its thread ---

    static void* entry(void* argument) {
      current = static_cast<Worker*>(argument);
      const ObservedThread observed(*current);
      current->workUntilStopped();
      return nullptr;
    }

    void workUntilStopped() {
      while (auto job = nextJob()) {
        serve(*job);
        job.reset();  // and what it holds, before its worker is free
        endJob();
      }
      MutexLock lock(core.mutex);
      ++core.left_workers;
      core.done.notifyAll();
    }

    // None: the service stops and nobody waits any more.
    std::optional<Job> nextJob() {
      MutexLock lock(core.mutex);
      while (!core.stopping && core.jobs.empty()) core.work.wait(core.mutex);
      if (core.jobs.empty()) return std::nullopt;
      Job job = core.jobs.pop();
      --core.free_workers;
      slot = ConnectionSlot{};
      enter(slot, Phase::kHandshake, Clock::now());
      if (core.watcher_sleeps) core.watch.notifyOne();  // else it looks again soon by itself
      return job;
    }

    // Runs one connection to its end. The library catches what a request handler throws; what it
    // throws itself (out of memory while it reads a header, a number out of range in a Range
    // header) arrives here, with the connection still open.
    void serve(const Job& job) noexcept {
      try {
        job();
      } catch (...) {
        closeConnection();
      }
    }

    void closeConnection() {
      Fd socket;  // closed behind its connection
      SslPtr connection;
      MutexLock lock(core.mutex);
      socket = Fd(std::exchange(slot.fd, -1));
      connection.reset(std::exchange(slot.ssl, nullptr));
    }

    void endJob() {
      MutexLock lock(core.mutex);
      parsed();
      slot = ConnectionSlot{};
      ++core.free_workers;
      core.ended.notifyOne();
    }

    // --- what its connection reports ---

    void handshakeBegan(SSL& connection) noexcept override {
      MutexLock lock(core.mutex);
      slot.ssl = &connection;
      slot.fd = SSL_get_fd(&connection);
      if (core.stopping || slot.cut) cut(slot);
    }

    void handshakeDone() noexcept override {
      MutexLock lock(core.mutex);
      if (slot.phase == Phase::kHandshake) enter(slot, Phase::kIdle, Clock::now());
    }

    // A socket that was shut down still hands out what the peer goes on sending.
    bool mayRead() noexcept override {
      MutexLock lock(core.mutex);
      if (!slot.cut) endTurn();  // what came was not parsed yet: more is needed
      return !slot.cut;
    }

    bool received(std::size_t bytes) noexcept override {
      {
        MutexLock lock(core.mutex);
        noteReceived(core.slots, slot, core.limits, Clock::now(), bytes);
      }
      return takeTurn();
    }

    bool mayWrite() noexcept override {
      MutexLock lock(core.mutex);
      if (!slot.cut && !slot.writing_since) slot.writing_since = Clock::now();
      return !slot.cut;
    }

    void written() noexcept override {
      MutexLock lock(core.mutex);
      slot.writing_since.reset();
    }

    // The library closes the descriptor next: it must not be touched again.
    void released() noexcept override {
      MutexLock lock(core.mutex);
      slot.fd = -1;
      slot.ssl = nullptr;
    }

    // --- what the library reports of its request ---

    void headComplete() {
      MutexLock lock(core.mutex);
      parsed();
      enter(slot, Phase::kBody, Clock::now());
    }

    // Of requests that came in one piece the second has its head read while the slot is idle.
    bool isReadingHead() {
      MutexLock lock(core.mutex);
      return slot.phase < Phase::kBody;
    }

    void requestComplete() {
      MutexLock lock(core.mutex);
      if (slot.phase == Phase::kServing) return;
      parsed();
      enter(slot, Phase::kServing, Clock::now());
    }

    void closeAfterAnswer() {
      MutexLock lock(core.mutex);
      slot.close_after_answer = true;
    }

    bool closesAfterAnswer() {
      MutexLock lock(core.mutex);
      if (bytesAhead() > core.limits.deep_request_bytes) slot.close_after_answer = true;
      return slot.close_after_answer;
    }

    void answered() {
      MutexLock lock(core.mutex);
      if (slot.close_after_answer && !slot.cut) {  // who was cut is told nothing more
        lingerUnlocked(slot.fd, slot.ssl);
        cut(slot);
      }
      parsed();
      enter(slot, Phase::kIdle, Clock::now());
      slot.received = bytesAhead();
    }

    void lingerUnlocked(int fd, SSL* ssl) SPOT_REQUIRES(core.mutex) {
      core.mutex.unlock();
      linger(fd, ssl, core.limits.linger);
      core.mutex.lock();
    }

    // --- deep requests ---

    // The library may need half a kilobyte of stack for every byte of a header. Requests large
    // enough for that to matter are parsed one at a time, and their workers give the stack back.

    // Before the bytes just read go to the library; false when the slot was cut and they must not.
    // A turn ends by itself when the library does not parse but waits for more.
    bool takeTurn() {
      MutexLock lock(core.mutex);
      if (slot.phase != Phase::kReading || !isDeep(slot, core.limits)) return !slot.cut;
      slot.awaits_turn = true;
      auto now = Clock::now();
      for (; !slot.cut && !isNext(core.turn, core.slots, slot, now); now = Clock::now()) {
        core.next.waitUntil(core.mutex, nextLook(core.turn, core.limits, now));
      }
      slot.awaits_turn = false;
      if (!slot.cut) take(core.turn, slot, core.limits, now);
      return !slot.cut;
    }

    // Bytes of a next request that came together with this one: the library will parse them without
    // another read of the socket, so no turn can be taken for them.
    std::size_t bytesAhead() const SPOT_REQUIRES(core.mutex) {
      return slot.ssl ? static_cast<std::size_t>(SSL_pending(slot.ssl)) : 0;
    }

    // With nothing of the library's parser left on this thread's stack.
    void parsed() SPOT_REQUIRES(core.mutex) {
      if (!isDeep(slot, core.limits)) return;
      trimStack();
      endTurn();
    }

    void endTurn() SPOT_REQUIRES(core.mutex) {
      if (core.turn.holder != &slot) return;
      core.turn.holder = nullptr;
      core.next.notifyAll();
    }
  };

  // The library's handle on the core; the library deletes it when its accept loop ends.
  class Queue final : public httplib::TaskQueue {
   public:
    explicit Queue(Core& core) : core_(core) {}
    // Older versions of the library return nothing here, newer ones whether the job was taken.
    using Taken = decltype(std::declval<httplib::TaskQueue&>().enqueue(std::declval<Job>()));
    Taken enqueue(Job job) override { return static_cast<Taken>(core_.enqueue(std::move(job))); }
    void shutdown() override {}

   private:
    Core& core_;
  };

  const ConnectionLimits limits;
  const std::function<void()> on_stopping;

  Mutex mutex;
  Condition work;   // a job came, or the end
  Condition watch;  // a connection began, or the end
  Condition done;   // a worker left
  Condition ended;  // a connection ended
  Condition next;   // a deep request was parsed
  WaitingLine jobs SPOT_GUARDED_BY(mutex);
  // Fixed once started; until then only the watcher looks, under the mutex.
  std::vector<std::unique_ptr<Worker>> workers;
  std::vector<ConnectionSlot*> slots SPOT_GUARDED_BY(mutex);  // theirs
  std::size_t free_workers SPOT_GUARDED_BY(mutex) = 0;
  std::size_t left_workers SPOT_GUARDED_BY(mutex) = 0;  // whose threads are about to end
  bool watcher_sleeps SPOT_GUARDED_BY(mutex) = false;   // until there is a connection
  bool stopping SPOT_GUARDED_BY(mutex) = false;
  bool released SPOT_GUARDED_BY(mutex) = false;
  ParsingTurn turn SPOT_GUARDED_BY(mutex);
  pthread_t watcher{};
  bool has_watcher = false;
  std::atomic<bool> abandoned = false;
  std::atomic<bool> accepting = true;
  static_assert(std::atomic<bool>::is_always_lock_free);

  Core(const ConnectionLimits& l, std::function<void()> s) : limits(l), on_stopping(std::move(s)) {
    workers.reserve(limits.workers);
    slots.reserve(limits.workers);
  }

  // --- threads ---

  // The watcher first: without it nothing bounds what a connection may cost.
  void start() {
    shareMemoryPools();
    const SpareMemory spare;
    has_watcher = startThread(watcher, kWatcherStack, watcherEntry, this);
    while (has_watcher && workers.size() < limits.workers && addWorker()) {
    }
    if (workers.empty()) {
      throw std::system_error(EAGAIN, std::generic_category(), "No worker thread");
    }
  }

  bool addWorker() {
    auto worker = std::make_unique<Worker>(*this);
    MutexLock lock(mutex);  // the new worker waits for it
    if (!startThread(worker->thread, kWorkerStack, Worker::entry, worker.get())) return false;
    slots.push_back(&worker->slot);
    workers.push_back(std::move(worker));
    ++free_workers;
    return true;
  }

  static void* watcherEntry(void* argument) {
    static_cast<Core*>(argument)->watchUntilReleased();
    return nullptr;
  }

  void watchUntilReleased() {
    MutexLock lock(mutex);
    while (!released) {
      if (free_workers == workers.size() && jobs.empty()) {
        watcher_sleeps = true;
        watch.wait(mutex);
        watcher_sleeps = false;
      } else {
        watch.waitFor(mutex, kWatchInterval);
      }
      const auto now = Clock::now();
      cutOverstayed(slots, limits, now);
      makeRoom(slots, limits, now, jobs.waitingSince(now - kWatchInterval));
    }
  }

  // --- the library's side ---

  // Whether the job was taken.
  bool enqueue(Job job) {
    awaitRoom();
    {
      MutexLock lock(mutex);
      if (jobs.full()) return false;
      jobs.push(std::move(job), Clock::now());
    }
    work.notifyOne();  // with the lock free for whom it wakes
    return true;
  }

  // Beyond the bound the accept loop waits, so that descriptors are left for the station's files.
  // Whoever ends it cannot notify: that is a signal handler.
  void awaitRoom() {
    MutexLock lock(mutex);
    while (accepting && jobs.size() + workers.size() - free_workers >= limits.connections) {
      ended.waitFor(mutex, kWatchInterval);
    }
  }

  void stop() {
    const auto begin = Clock::now();
    {
      MutexLock lock(mutex);
      stopping = true;
      cutAll(slots, Phase::kIdle);
    }
    work.notifyAll();
    if (on_stopping) on_stopping();
    if (!waitForWorkers(begin + limits.drain)) {
      {
        MutexLock lock(mutex);
        cutAll(slots, Phase::kServing);
      }
      abandoned = !waitForWorkers(begin + limits.release);
    }
    {
      MutexLock lock(mutex);
      released = true;
    }
    watch.notifyAll();
    if (has_watcher) pthread_join(watcher, nullptr);
    for (const auto& worker : workers) {
      if (abandoned) {
        pthread_detach(worker->thread);
      } else {
        pthread_join(worker->thread, nullptr);
      }
    }
  }

  bool hasStopped() {
    MutexLock lock(mutex);
    return released;
  }

  // Whether all have left by `end`.
  bool waitForWorkers(Time end) {
    MutexLock lock(mutex);
    while (left_workers < workers.size() && Clock::now() < end) done.waitUntil(mutex, end);
    return left_workers == workers.size();
  }
};

thread_local Connections::Core::Worker* Connections::Core::Worker::current = nullptr;

Connections::Connections(const ConnectionLimits& limits, std::function<void()> on_stopping)
    : core_(std::make_unique<Core>(limits, std::move(on_stopping))) {}

Connections::~Connections() {
  if (core_->has_watcher && !core_->hasStopped()) core_->stop();
  if (!core_->abandoned) return;
  static std::atomic<Core*> left_behind;  // a worker still uses it
  left_behind = core_.release();
}

void Connections::watch(SSL_CTX* context) { watchSockets(context); }

void Connections::start() { core_->start(); }

std::unique_ptr<httplib::TaskQueue> Connections::queue() {
  return std::make_unique<Core::Queue>(*core_);
}

void Connections::stop() { core_->stop(); }

std::size_t Connections::inFlight() const {
  MutexLock lock(core_->mutex);
  return spotserver::inFlight(core_->slots);
}

void Connections::releaseAcceptLoop() noexcept { core_->accepting = false; }

bool Connections::abandoned() const { return core_->abandoned; }

void Connections::headComplete() {
  if (Core::Worker::current) Core::Worker::current->headComplete();
}

bool Connections::isReadingHead() {
  return Core::Worker::current && Core::Worker::current->isReadingHead();
}

void Connections::requestComplete() {
  if (Core::Worker::current) Core::Worker::current->requestComplete();
}

void Connections::closeAfterAnswer() {
  if (Core::Worker::current) Core::Worker::current->closeAfterAnswer();
}

bool Connections::closesAfterAnswer() {
  return Core::Worker::current && Core::Worker::current->closesAfterAnswer();
}

void Connections::answered() {
  if (Core::Worker::current) Core::Worker::current->answered();
}

}  // namespace spotserver
