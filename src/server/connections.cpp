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
    share_memory_pools();
    const SpareMemory spare;
    has_watcher = start_thread(watcher, kWatcherStack, watcher_entry, this);
    while (has_watcher && workers.size() < place.limits.workers && add_worker()) {
    }
    if (workers.empty()) {
      throw std::system_error(EAGAIN, std::generic_category(), "No worker thread");
    }
  }

  bool add_worker() {
    auto worker = std::make_unique<ConnectionWorker>(place);
    if (!worker->start()) return false;
    workers.push_back(std::move(worker));
    return true;
  }

  static void* watcher_entry(void* argument) {
    static_cast<Core*>(argument)->watch_until_released();
    return nullptr;
  }

  void watch_until_released() {
    MutexLock lock(place.mutex);
    while (!released) {
      if (place.free_workers == place.slots.size() && place.jobs.empty()) {
        place.watcher_sleeps = true;
        place.watch.wait(place.mutex);
        place.watcher_sleeps = false;
      } else {
        place.watch.wait_for(place.mutex, kWatchInterval);
      }
      const auto now = Clock::now();
      cut_overstayed(place.slots, place.limits, now);
      make_room(place.slots, place.limits, now, place.jobs.waiting_since(now - kWatchInterval));
    }
  }

  // --- the library's side ---

  // Whether the job was taken.
  bool enqueue(Job job) {
    await_room();
    {
      MutexLock lock(place.mutex);
      if (place.jobs.full()) return false;
      place.jobs.push(std::move(job), Clock::now());
    }
    place.work.notify_one();  // with the lock free for whom it wakes
    return true;
  }

  // Beyond the bound the accept loop waits, so that descriptors are left for the station's files.
  // Whoever ends it cannot notify: that is a signal handler.
  void await_room() {
    MutexLock lock(place.mutex);
    while (accepting && connections() >= place.limits.connections) {
      place.ended.wait_for(place.mutex, kWatchInterval);
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
      cut_all(place.slots, Phase::kIdle);
    }
    place.work.notify_all();
    if (on_stopping) on_stopping();
    if (!wait_for_workers(begin + place.limits.drain)) {
      {
        MutexLock lock(place.mutex);
        cut_all(place.slots, Phase::kServing);
      }
      abandoned = !wait_for_workers(begin + place.limits.release);
    }
    {
      MutexLock lock(place.mutex);
      released = true;
    }
    place.watch.notify_all();
    if (has_watcher) pthread_join(watcher, nullptr);
    for (const auto& worker : workers) {
      if (abandoned) {
        worker->detach();
      } else {
        worker->join();
      }
    }
  }

  bool has_stopped() {
    MutexLock lock(place.mutex);
    return released;
  }

  // Whether all have left by `end`.
  bool wait_for_workers(Time end) {
    MutexLock lock(place.mutex);
    while (place.left_workers < place.slots.size() && Clock::now() < end) {
      place.done.wait_until(place.mutex, end);
    }
    return place.left_workers == place.slots.size();
  }
};

Connections::Connections(const ConnectionLimits& limits, std::function<void()> on_stopping)
    : core_(std::make_unique<Core>(limits, std::move(on_stopping))) {}

Connections::~Connections() {
  if (core_->has_watcher && !core_->has_stopped()) core_->stop();
  if (!core_->abandoned) return;
  static std::atomic<Core*> left_behind;  // a worker still uses it
  left_behind = core_.release();
}

void Connections::watch(SSL_CTX* context) { watch_sockets(context); }

void Connections::start() { core_->start(); }

std::unique_ptr<httplib::TaskQueue> Connections::queue() {
  return std::make_unique<Core::Queue>(*core_);
}

void Connections::stop() { core_->stop(); }

std::size_t Connections::in_flight() const {
  MutexLock lock(core_->place.mutex);
  return spotserver::in_flight(core_->place.slots);
}

void Connections::release_accept_loop() noexcept { core_->accepting = false; }

bool Connections::abandoned() const { return core_->abandoned; }

void Connections::head_complete() {
  if (auto* worker = ConnectionWorker::current()) worker->head_complete();
}

bool Connections::is_reading_head() {
  auto* worker = ConnectionWorker::current();
  return worker && worker->is_reading_head();
}

void Connections::request_complete() {
  if (auto* worker = ConnectionWorker::current()) worker->request_complete();
}

void Connections::close_after_answer() {
  if (auto* worker = ConnectionWorker::current()) worker->close_after_answer();
}

bool Connections::closes_after_answer() {
  auto* worker = ConnectionWorker::current();
  return worker && worker->closes_after_answer();
}

void Connections::answered() {
  if (auto* worker = ConnectionWorker::current()) worker->answered();
}

}  // namespace spotserver
