#include "server/connections.hpp"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <memory>
#include <system_error>
#include <type_traits>
#include <utility>
#include <vector>

#include <openssl/bio.h>
#include <unistd.h>

#include "server/linger.hpp"
#include "server/mutex.hpp"
#include "server/owned.hpp"
#include "server/parsing_turn.hpp"
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
  struct Worker {
    Core* core = nullptr;
    pthread_t thread{};
    ConnectionSlot slot;  // guarded by the core's mutex
    bool left = false;    // guarded by the core's mutex
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
  std::condition_variable work;   // a job came, or the end
  std::condition_variable watch;  // a connection began, or the end
  std::condition_variable done;   // a worker left
  std::condition_variable ended;  // a connection ended
  std::condition_variable next;   // a deep request was parsed
  WaitingLine jobs SPOT_GUARDED_BY(mutex);
  // Fixed once started; until then only the watcher looks, under the mutex.
  std::vector<std::unique_ptr<Worker>> workers;
  std::vector<ConnectionSlot*> slots SPOT_GUARDED_BY(mutex);  // theirs
  std::size_t free_workers SPOT_GUARDED_BY(mutex) = 0;
  bool watcher_sleeps SPOT_GUARDED_BY(mutex) = false;  // until there is a connection
  bool stopping SPOT_GUARDED_BY(mutex) = false;
  bool released SPOT_GUARDED_BY(mutex) = false;
  ParsingTurn turn SPOT_GUARDED_BY(mutex);
  pthread_t watcher{};
  bool has_watcher = false;
  std::atomic<bool> abandoned = false;
  std::atomic<bool> accepting = true;
  static_assert(std::atomic<bool>::is_always_lock_free);

  static thread_local Worker* current;  // the worker this thread is

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
    auto worker = std::make_unique<Worker>();
    worker->core = this;
    MutexLock lock(mutex);  // the new worker waits for it
    if (!startThread(worker->thread, kWorkerStack, workerEntry, worker.get())) return false;
    slots.push_back(&worker->slot);
    workers.push_back(std::move(worker));
    ++free_workers;
    return true;
  }

  static void* workerEntry(void* argument) {
    auto& worker = *static_cast<Worker*>(argument);
    current = &worker;
    worker.core->workUntilStopped(worker);
    return nullptr;
  }

  static void* watcherEntry(void* argument) {
    static_cast<Core*>(argument)->watchUntilReleased();
    return nullptr;
  }

  void workUntilStopped(Worker& worker) SPOT_NO_THREAD_SAFETY_ANALYSIS {
    std::unique_lock lock(mutex.native());
    for (;;) {
      work.wait(lock,
                [this]() SPOT_NO_THREAD_SAFETY_ANALYSIS { return stopping || !jobs.empty(); });
      if (jobs.empty()) break;
      Job job = jobs.pop();
      --free_workers;
      worker.slot = ConnectionSlot{};
      enter(worker.slot, Phase::kHandshake, Clock::now());
      if (watcher_sleeps) watch.notify_one();  // else it looks again soon by itself
      lock.unlock();
      serve(worker, job);
      job = nullptr;
      lock.lock();
      parsed(worker.slot);
      worker.slot = ConnectionSlot{};
      ++free_workers;
      ended.notify_one();
    }
    worker.left = true;
    done.notify_all();
  }

  // Runs one connection to its end. The library catches what a request handler throws; what it
  // throws itself (out of memory while it reads a header, a number out of range in a Range header)
  // arrives here, with the connection still open.
  void serve(Worker& worker, Job& job) noexcept {
    try {
      job();
    } catch (...) {
      Fd socket;  // closed behind its connection
      SslPtr connection;
      MutexLock lock(mutex);
      socket = Fd(std::exchange(worker.slot.fd, -1));
      connection.reset(std::exchange(worker.slot.ssl, nullptr));
    }
  }

  void watchUntilReleased() SPOT_NO_THREAD_SAFETY_ANALYSIS {
    std::unique_lock lock(mutex.native());
    while (!released) {
      if (free_workers == workers.size() && jobs.empty()) {
        watcher_sleeps = true;
        watch.wait(lock);
        watcher_sleeps = false;
      } else {
        watch.wait_for(lock, kWatchInterval);
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
    work.notify_one();  // with the lock free for whom it wakes
    return true;
  }

  // Beyond the bound the accept loop waits, so that descriptors are left for the station's files.
  // Whoever ends it cannot notify: that is a signal handler.
  void awaitRoom() SPOT_NO_THREAD_SAFETY_ANALYSIS {
    std::unique_lock lock(mutex.native());
    while (accepting && jobs.size() + workers.size() - free_workers >= limits.connections) {
      ended.wait_for(lock, kWatchInterval);
    }
  }

  void stop() {
    const auto begin = Clock::now();
    {
      MutexLock lock(mutex);
      stopping = true;
      cutAll(slots, Phase::kIdle);
    }
    work.notify_all();
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
    watch.notify_all();
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

  bool waitForWorkers(Time end) SPOT_NO_THREAD_SAFETY_ANALYSIS {
    std::unique_lock lock(mutex.native());
    return done.wait_until(lock, end, [this] {
      return std::all_of(workers.begin(), workers.end(), [](const auto& w) { return w->left; });
    });
  }

  // --- what the connections report ---

  // OpenSSL calls this as a handshake begins and ends, on the worker's thread.
  static void onTls(const SSL* ssl, int where, int /*ret*/) {
    if (!current) return;
    auto& worker = *current;
    MutexLock lock(worker.core->mutex);
    if ((where & SSL_CB_HANDSHAKE_START) != 0 && !worker.slot.ssl) {
      worker.core->attach(worker, ssl);
    }
    if ((where & SSL_CB_HANDSHAKE_DONE) != 0 && worker.slot.phase == Phase::kHandshake) {
      enter(worker.slot, Phase::kIdle, Clock::now());
    }
  }

  void attach(Worker& worker, const SSL* ssl) SPOT_REQUIRES(mutex) {
    worker.slot.ssl = const_cast<SSL*>(ssl);  // OpenSSL only hides that it is ours to use
    worker.slot.fd = SSL_get_fd(ssl);
    BIO* bio = SSL_get_rbio(ssl);
    if (bio == nullptr) return;  // no memory for it: the handshake fails at once
    BIO_set_callback_arg(bio, reinterpret_cast<char*>(&worker));
    BIO_set_callback_ex(bio, onSocket);
    if (stopping || worker.slot.cut) cut(worker.slot);
  }

  // OpenSSL calls this around every read and write of the socket, and as it lets go of it.
  static long onSocket(BIO* bio, int operation, const char* /*data*/, std::size_t /*length*/,
                       int /*argi*/, long /*argl*/, int result, std::size_t* processed) {
    // Most calls only ask for the BIO's settings, dozens of them in every request.
    if ((operation & ~BIO_CB_RETURN) == BIO_CB_CTRL) return result;
    auto& worker = *reinterpret_cast<Worker*>(BIO_get_callback_arg(bio));
    const std::size_t bytes = result > 0 && processed ? *processed : 0;
    const long outcome = worker.core->noteSocket(worker.slot, bio, operation, bytes, result);
    const bool read = operation == (BIO_CB_READ | BIO_CB_RETURN) && bytes > 0;
    if (!read || worker.core->takeTurn(worker.slot)) return outcome;
    BIO_clear_retry_flags(bio);
    return -1;
  }

  // Returns what the callback is to return.
  long noteSocket(ConnectionSlot& slot, BIO* bio, int operation, std::size_t bytes, int result) {
    MutexLock lock(mutex);
    // A socket that was shut down still hands out what the peer goes on sending.
    if (slot.cut && (operation == BIO_CB_READ || operation == BIO_CB_WRITE)) {
      BIO_clear_retry_flags(bio);
      return -1;
    }
    switch (operation) {
      case BIO_CB_READ:  // it was not parsed yet: more is needed
        endTurn(slot);
        break;
      case BIO_CB_READ | BIO_CB_RETURN:
        if (bytes > 0) noteReceived(slots, slot, limits, Clock::now(), bytes);
        break;
      case BIO_CB_WRITE:
        if (!slot.writing_since) slot.writing_since = Clock::now();
        break;
      case BIO_CB_WRITE | BIO_CB_RETURN:
        if (bytes > 0) slot.writing_since.reset();
        break;
      case BIO_CB_FREE:  // the library closes the descriptor next: it must not be touched again
        slot.fd = -1;
        slot.ssl = nullptr;
        break;
      default:
        break;
    }
    return result;
  }

  // On a worker: what the work returns for its slot. Elsewhere nothing, or false.
  template <typename Work>
  static auto onOwnSlot(Work work) {
    using Result = std::invoke_result_t<Work, Core&, ConnectionSlot&>;
    if (!current) return Result();
    MutexLock lock(current->core->mutex);
    return work(*current->core, current->slot);
  }

  // On the slot's own worker.
  void finish(ConnectionSlot& slot) SPOT_NO_THREAD_SAFETY_ANALYSIS {
    std::unique_lock lock(mutex.native());
    if (slot.close_after_answer && !slot.cut) {  // who was cut is told nothing more
      lock.unlock();
      linger(slot.fd, slot.ssl, limits.linger);
      lock.lock();
      cut(slot);
    }
    parsed(slot);
    enter(slot, Phase::kIdle, Clock::now());
    slot.received = bytesAhead(slot);
  }

  // --- deep requests ---

  // The library may need half a kilobyte of stack for every byte of a header. Requests large
  // enough for that to matter are parsed one at a time, and their workers give the stack back.

  // Before the bytes just read go to the library; false when the slot was cut and they must not. A
  // turn ends by itself when the library does not parse but waits for more.
  bool takeTurn(ConnectionSlot& slot) SPOT_NO_THREAD_SAFETY_ANALYSIS {
    std::unique_lock lock(mutex.native());
    if (slot.phase != Phase::kReading || !isDeep(slot, limits)) return !slot.cut;
    slot.awaits_turn = true;
    auto now = Clock::now();
    for (; !slot.cut && !isNext(turn, slots, slot, now); now = Clock::now()) {
      next.wait_until(lock, nextLook(turn, limits, now));
    }
    slot.awaits_turn = false;
    if (!slot.cut) take(turn, slot, limits, now);
    return !slot.cut;
  }

  // Bytes of a next request that came together with this one: the library will parse them without
  // another read of the socket, so no turn can be taken for them.
  static std::size_t bytesAhead(const ConnectionSlot& slot) {
    return slot.ssl ? static_cast<std::size_t>(SSL_pending(slot.ssl)) : 0;
  }

  // On the slot's own worker, with nothing of the library's parser left on its stack.
  void parsed(const ConnectionSlot& slot) SPOT_REQUIRES(mutex) {
    if (!isDeep(slot, limits)) return;
    trimStack();
    endTurn(slot);
  }

  void endTurn(const ConnectionSlot& slot) SPOT_REQUIRES(mutex) {
    if (turn.holder != &slot) return;
    turn.holder = nullptr;
    next.notify_all();
  }
};

thread_local Connections::Core::Worker* Connections::Core::current = nullptr;

Connections::Connections(const ConnectionLimits& limits, std::function<void()> on_stopping)
    : core_(std::make_unique<Core>(limits, std::move(on_stopping))) {}

Connections::~Connections() {
  if (core_->has_watcher && !core_->hasStopped()) core_->stop();
  if (!core_->abandoned) return;
  static std::atomic<Core*> left_behind;  // a worker still uses it
  left_behind = core_.release();
}

void Connections::watch(SSL_CTX* context) { SSL_CTX_set_info_callback(context, Core::onTls); }

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
  Core::onOwnSlot([](Core& core, ConnectionSlot& slot) SPOT_NO_THREAD_SAFETY_ANALYSIS {
    core.parsed(slot);
    enter(slot, Phase::kBody, Clock::now());
  });
}

bool Connections::isReadingHead() {
  // Of requests that came in one piece the second has its head read while the slot is idle.
  return Core::onOwnSlot([](Core&, const auto& slot) { return slot.phase < Phase::kBody; });
}

void Connections::requestComplete() {
  Core::onOwnSlot([](Core& core, ConnectionSlot& slot) SPOT_NO_THREAD_SAFETY_ANALYSIS {
    if (slot.phase == Phase::kServing) return;
    core.parsed(slot);
    enter(slot, Phase::kServing, Clock::now());
  });
}

void Connections::closeAfterAnswer() {
  Core::onOwnSlot([](Core&, auto& slot) { slot.close_after_answer = true; });
}

bool Connections::closesAfterAnswer() {
  return Core::onOwnSlot([](Core& core, ConnectionSlot& slot) {
    if (Core::bytesAhead(slot) > core.limits.deep_request_bytes) slot.close_after_answer = true;
    return slot.close_after_answer;
  });
}

void Connections::answered() {
  if (Core::current) Core::current->core->finish(Core::current->slot);
}

}  // namespace spotserver
