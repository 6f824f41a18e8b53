#include "server/connections.hpp"

#include <atomic>
#include <chrono>
#include <memory>
#include <system_error>
#include <utility>
#include <vector>

#include <pthread.h>

#include "server/connection_worker.hpp"
#include "server/mutex.hpp"
#include "server/socket_watch.hpp"
#include "server/stack_thread.hpp"
#include "server/waiting_line.hpp"
#include "server/worker_memory.hpp"

namespace spotserver {
namespace {

using Clock = std::chrono::steady_clock;
using Time = ConnectionSlot::Time;
using Job = WaitingLine::Job;

constexpr std::size_t kWatcherStack = std::size_t{256} << 10;

// How often the watcher looks while there is any connection.
constexpr std::chrono::milliseconds kWatchInterval{100};

}  // namespace

struct Connections::Core {
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

  const std::function<void()> on_stopping;

  Workplace place;
  std::vector<std::unique_ptr<ConnectionWorker>> workers;  // of whoever starts and stops
  pthread_t watcher{};
  bool has_watcher = false;
  bool released SPOT_GUARDED_BY(place.mutex) = false;  // the watcher ends
  std::atomic<bool> abandoned = false;
  std::atomic<bool> accepting = true;
  static_assert(std::atomic<bool>::is_always_lock_free);

  Core(const ConnectionLimits& limits, std::function<void()> s)
      : on_stopping(std::move(s)), place(limits) {
    workers.reserve(limits.workers);
  }

  // --- threads ---

  // The watcher first: without it nothing bounds what a connection may cost.
  void start() {
    shareMemoryPools();
    const SpareMemory spare;
    has_watcher = startThread(watcher, kWatcherStack, watcherEntry, this);
    while (has_watcher && workers.size() < place.limits.workers && addWorker()) {
    }
    if (workers.empty()) {
      throw std::system_error(EAGAIN, std::generic_category(), "No worker thread");
    }
  }

  bool addWorker() {
    auto worker = std::make_unique<ConnectionWorker>(place);
    if (!worker->start()) return false;
    workers.push_back(std::move(worker));
    return true;
  }

  static void* watcherEntry(void* argument) {
    static_cast<Core*>(argument)->watchUntilReleased();
    return nullptr;
  }

  void watchUntilReleased() {
    MutexLock lock(place.mutex);
    while (!released) {
      if (place.free_workers == place.slots.size() && place.jobs.empty()) {
        place.watcher_sleeps = true;
        place.watch.wait(place.mutex);
        place.watcher_sleeps = false;
      } else {
        place.watch.waitFor(place.mutex, kWatchInterval);
      }
      const auto now = Clock::now();
      cutOverstayed(place.slots, place.limits, now);
      makeRoom(place.slots, place.limits, now, place.jobs.waitingSince(now - kWatchInterval));
    }
  }

  // --- the library's side ---

  // Whether the job was taken.
  bool enqueue(Job job) {
    awaitRoom();
    {
      MutexLock lock(place.mutex);
      if (place.jobs.full()) return false;
      place.jobs.push(std::move(job), Clock::now());
    }
    place.work.notifyOne();  // with the lock free for whom it wakes
    return true;
  }

  // Beyond the bound the accept loop waits, so that descriptors are left for the station's files.
  // Whoever ends it cannot notify: that is a signal handler.
  void awaitRoom() {
    MutexLock lock(place.mutex);
    while (accepting && connections() >= place.limits.connections) {
      place.ended.waitFor(place.mutex, kWatchInterval);
    }
  }

  // With a worker or in line.
  std::size_t connections() const SPOT_REQUIRES(place.mutex) {
    return place.jobs.size() + place.slots.size() - place.free_workers;
  }

  void stop() {
    const auto begin = Clock::now();
    {
      MutexLock lock(place.mutex);
      place.stopping = true;
      cutAll(place.slots, Phase::kIdle);
    }
    place.work.notifyAll();
    if (on_stopping) on_stopping();
    if (!waitForWorkers(begin + place.limits.drain)) {
      {
        MutexLock lock(place.mutex);
        cutAll(place.slots, Phase::kServing);
      }
      abandoned = !waitForWorkers(begin + place.limits.release);
    }
    {
      MutexLock lock(place.mutex);
      released = true;
    }
    place.watch.notifyAll();
    if (has_watcher) pthread_join(watcher, nullptr);
    for (const auto& worker : workers) {
      if (abandoned) {
        worker->detach();
      } else {
        worker->join();
      }
    }
  }

  bool hasStopped() {
    MutexLock lock(place.mutex);
    return released;
  }

  // Whether all have left by `end`.
  bool waitForWorkers(Time end) {
    MutexLock lock(place.mutex);
    while (place.left_workers < place.slots.size() && Clock::now() < end) {
      place.done.waitUntil(place.mutex, end);
    }
    return place.left_workers == place.slots.size();
  }
};

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
  MutexLock lock(core_->place.mutex);
  return spotserver::inFlight(core_->place.slots);
}

void Connections::releaseAcceptLoop() noexcept { core_->accepting = false; }

bool Connections::abandoned() const { return core_->abandoned; }

void Connections::headComplete() {
  if (auto* worker = ConnectionWorker::current()) worker->headComplete();
}

bool Connections::isReadingHead() {
  auto* worker = ConnectionWorker::current();
  return worker && worker->isReadingHead();
}

void Connections::requestComplete() {
  if (auto* worker = ConnectionWorker::current()) worker->requestComplete();
}

void Connections::closeAfterAnswer() {
  if (auto* worker = ConnectionWorker::current()) worker->closeAfterAnswer();
}

bool Connections::closesAfterAnswer() {
  auto* worker = ConnectionWorker::current();
  return worker && worker->closesAfterAnswer();
}

void Connections::answered() {
  if (auto* worker = ConnectionWorker::current()) worker->answered();
}

}  // namespace spotserver
