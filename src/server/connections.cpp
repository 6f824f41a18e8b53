#include "server/connections.hpp"

#include <algorithm>
#include <array>
#include <atomic>
#include <condition_variable>
#include <memory>
#include <system_error>
#include <utility>
#include <vector>

#include <malloc.h>
#include <openssl/bio.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include "server/mutex.hpp"
#include "server/stack_thread.hpp"

namespace spotserver {
namespace {

using Clock = std::chrono::steady_clock;
using Time = ConnectionSlot::Time;
using Job = std::function<void()>;

// The library matches a Range header with a recursive regular expression: 8 KB of header take
// 4 MB of stack. Threads must not depend on the stack limit the service was started with.
constexpr std::size_t kWorkerStack = std::size_t{16} << 20;
constexpr std::size_t kWatcherStack = std::size_t{256} << 10;

// How often the watcher looks while there is any connection.
constexpr std::chrono::milliseconds kWatchInterval{100};

// The connections that wait for a worker, first come first served. The room is taken once: a
// connection must not be lost because memory ran out while it was put in line. The server holds at
// most 1024 descriptors, so the line is never full.
class WaitingLine {
 public:
  std::size_t size() const { return count_; }
  bool empty() const { return count_ == 0; }
  bool full() const { return count_ == jobs_.size(); }
  void push(Job job, Time now) { at(count_++) = {std::move(job), now}; }
  Job pop() {
    Job job = std::exchange(jobs_[first_].job, nullptr);
    first_ = (first_ + 1) % jobs_.size();
    --count_;
    return job;
  }
  // How many came before `then`.
  std::size_t waitingSince(Time then) {
    std::size_t longer = 0;
    while (longer < count_ && at(longer).since < then) ++longer;
    return longer;
  }

 private:
  struct Waiting {
    Job job;
    Time since{};
  };
  Waiting& at(std::size_t i) { return jobs_[(first_ + i) % jobs_.size()]; }

  std::vector<Waiting> jobs_ = std::vector<Waiting>(1024);
  std::size_t first_ = 0;
  std::size_t count_ = 0;
};

// The C library gives most threads a memory pool of their own, which keeps what one large request
// has taken. A few pools for all workers keep that to a few requests' worth.
void shareMemoryPools() {
#ifdef M_ARENA_MAX
  ::mallopt(M_ARENA_MAX, 2);
#endif
}

// Address space that is left for the requests when as many threads as possible have taken theirs.
class SpareMemory {
 public:
  SpareMemory() = default;
  ~SpareMemory() {
    if (begin_ != MAP_FAILED) ::munmap(begin_, kSize);
  }
  SpareMemory(const SpareMemory&) = delete;
  SpareMemory& operator=(const SpareMemory&) = delete;

 private:
  static constexpr std::size_t kSize = std::size_t{64} << 20;
  void* const begin_ =
      ::mmap(nullptr, kSize, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
};

// Tells the peer that nothing follows, then reads and drops what it still sends until it closes or
// `patience` is over. Closing at once would answer its next bytes with a reset, and a reset makes
// many clients lose an answer that they have not read yet.
void linger(int fd, SSL* ssl, std::chrono::milliseconds patience) {
  SSL_shutdown(ssl);
  ::shutdown(fd, SHUT_WR);
  const auto end = Clock::now() + patience;
  std::array<char, 16384> dropped;
  for (;;) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
    if (left.count() <= 0) return;
    pollfd waiting{fd, POLLIN, 0};
    if (::poll(&waiting, 1, static_cast<int>(left.count())) <= 0) return;
    if (::recv(fd, dropped.data(), dropped.size(), MSG_DONTWAIT) <= 0) return;
  }
}

}  // namespace

std::optional<Time> deadlineOf(const ConnectionSlot& slot, const ConnectionLimits& limits) {
  switch (slot.phase) {
    case Phase::kHandshake:
      return slot.since + limits.handshake;
    case Phase::kReading:
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
    void shutdown() override { core_.stop(); }

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
  std::size_t free_workers SPOT_GUARDED_BY(mutex) = 0;
  bool watcher_sleeps SPOT_GUARDED_BY(mutex) = false;  // until there is a connection
  bool stopping SPOT_GUARDED_BY(mutex) = false;
  bool released SPOT_GUARDED_BY(mutex) = false;
  const ConnectionSlot* parsing SPOT_GUARDED_BY(mutex) = nullptr;  // the deep request
  Time turn_end SPOT_GUARDED_BY(mutex){};
  pthread_t watcher{};
  bool has_watcher = false;
  std::atomic<bool> abandoned = false;
  std::atomic<bool> accepting = true;
  static_assert(std::atomic<bool>::is_always_lock_free);

  static thread_local Worker* current;  // the worker this thread is

  Core(const ConnectionLimits& l, std::function<void()> s) : limits(l), on_stopping(std::move(s)) {}

  // --- threads ---

  // The watcher first: without it nothing bounds what a connection may cost.
  void start() {
    shareMemoryPools();
    const SpareMemory spare;
    workers.reserve(limits.workers);
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
      worker.slot.phase = Phase::kHandshake;
      worker.slot.since = Clock::now();
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
      int fd = -1;
      SSL* ssl = nullptr;
      {
        MutexLock lock(mutex);
        fd = std::exchange(worker.slot.fd, -1);
        ssl = std::exchange(worker.slot.ssl, nullptr);
      }
      if (ssl) SSL_free(ssl);
      if (fd >= 0) ::close(fd);
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
      cutOverstayed(now);
      makeRoom(now);
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

  // Called by the accept loop when it has ended.
  void stop() {
    const auto begin = Clock::now();
    {
      MutexLock lock(mutex);
      stopping = true;
      // A request whose first byte has come counts as in flight.
      for (const auto& worker : workers) {
        const auto phase = worker->slot.phase;
        if (phase == Phase::kHandshake || phase == Phase::kIdle) cut(worker->slot);
      }
    }
    work.notify_all();
    if (on_stopping) on_stopping();
    if (!waitForWorkers(begin + limits.drain)) {
      {
        MutexLock lock(mutex);
        for (const auto& worker : workers) cut(worker->slot);
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

  // --- cutting ---

  void cut(ConnectionSlot& slot) SPOT_REQUIRES(mutex) {
    slot.cut = true;
    if (slot.fd >= 0) ::shutdown(slot.fd, SHUT_RDWR);
  }

  void cutOverstayed(Time now) SPOT_REQUIRES(mutex) {
    for (const auto& worker : workers) {
      auto& slot = worker->slot;
      const auto deadline = deadlineOf(slot, limits);
      if (!slot.cut && deadline && *deadline <= now) cut(slot);
    }
  }

  // Keeps what all requests hold in memory within bounds. One within its share is never the cause.
  void cutLargestRequest() SPOT_REQUIRES(mutex) {
    std::size_t all = 0;
    ConnectionSlot* largest = nullptr;
    for (const auto& worker : workers) {
      auto& slot = worker->slot;
      all += slot.received;
      if (!slot.cut && (!largest || slot.received > largest->received)) largest = &slot;
    }
    if (largest && all > limits.all_request_bytes && largest->received > requestShare()) {
      cut(*largest);
    }
  }
  std::size_t requestShare() const { return limits.all_request_bytes / limits.workers; }

  // When more connections have waited for a while than workers are about to be free, those that
  // have been idle longest give way. A connection between handshake and first request is idle too:
  // limits.idle gives it the time to ask.
  void makeRoom(Time now) SPOT_REQUIRES(mutex) {
    const auto leaving =
        static_cast<std::size_t>(std::count_if(workers.begin(), workers.end(), [](const auto& w) {
          return w->slot.phase != Phase::kFree && w->slot.cut;
        }));
    const auto waiting = jobs.waitingSince(now - kWatchInterval);
    for (auto room = free_workers + leaving; room < waiting; ++room) {
      ConnectionSlot* longest = nullptr;
      for (const auto& worker : workers) {
        auto& slot = worker->slot;
        if (slot.phase != Phase::kIdle || slot.cut || now - slot.since < limits.idle) continue;
        if (!longest || slot.since < longest->since) longest = &slot;
      }
      if (!longest) return;
      cut(*longest);
    }
  }

  // --- what the connections report ---

  static void enter(ConnectionSlot& slot, Phase phase) {
    slot.phase = phase;
    slot.since = Clock::now();
    slot.writing_since.reset();
    if (phase == Phase::kIdle) slot.received = 0;
  }

  // OpenSSL calls this as a handshake begins and ends, on the worker's thread.
  static void onTls(const SSL* ssl, int where, int /*ret*/) {
    if (!current) return;
    auto& worker = *current;
    MutexLock lock(worker.core->mutex);
    if ((where & SSL_CB_HANDSHAKE_START) != 0 && !worker.slot.ssl) {
      worker.core->attach(worker, ssl);
    }
    if ((where & SSL_CB_HANDSHAKE_DONE) != 0 && worker.slot.phase == Phase::kHandshake) {
      enter(worker.slot, Phase::kIdle);
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
    if (read && worker.core->waitsForTurn(worker.slot)) worker.core->takeTurn(worker.slot);
    return outcome;
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
        if (bytes > 0) received(slot, bytes);
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

  void received(ConnectionSlot& slot, std::size_t bytes) SPOT_REQUIRES(mutex) {
    if (slot.phase == Phase::kIdle) enter(slot, Phase::kReading);
    if (slot.phase != Phase::kReading) return;
    slot.received += bytes;
    if (slot.received > limits.request_bytes) cut(slot);
    if (slot.received > requestShare()) cutLargestRequest();
  }

  // --- deep requests ---

  // The library may need half a kilobyte of stack for every byte of a header. Requests large
  // enough for that to matter are parsed one at a time, and their workers give the stack back.
  bool isDeep(const ConnectionSlot& slot) const SPOT_REQUIRES(mutex) {
    return slot.received > limits.deep_request_bytes;
  }
  bool waitsForTurn(const ConnectionSlot& slot) {
    MutexLock lock(mutex);
    return slot.phase == Phase::kReading && isDeep(slot);
  }

  // Before the bytes just read go to the library. A turn ends by itself when the library does not
  // parse but waits for more.
  void takeTurn(const ConnectionSlot& slot) SPOT_NO_THREAD_SAFETY_ANALYSIS {
    std::unique_lock lock(mutex.native());
    while (!slot.cut && parsing && Clock::now() < turn_end) next.wait_until(lock, turn_end);
    parsing = &slot;
    turn_end = Clock::now() + limits.turn;
  }

  // On the slot's own worker, with nothing of the library's parser left on its stack.
  void parsed(const ConnectionSlot& slot) SPOT_REQUIRES(mutex) {
    if (!isDeep(slot)) return;
    trimStack();
    endTurn(slot);
  }

  void endTurn(const ConnectionSlot& slot) SPOT_REQUIRES(mutex) {
    if (parsing != &slot) return;
    parsing = nullptr;
    next.notify_one();
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

std::unique_ptr<httplib::TaskQueue> Connections::start() {
  core_->start();
  return std::make_unique<Core::Queue>(*core_);
}

std::size_t Connections::inFlight() const {
  MutexLock lock(core_->mutex);
  const auto& workers = core_->workers;
  return static_cast<std::size_t>(std::count_if(workers.begin(), workers.end(), [](const auto& w) {
    return w->slot.phase == Phase::kReading || w->slot.phase == Phase::kServing;
  }));
}

void Connections::releaseAcceptLoop() noexcept { core_->accepting = false; }

bool Connections::abandoned() const { return core_->abandoned; }

void Connections::requestComplete() {
  if (!Core::current) return;
  auto& worker = *Core::current;
  MutexLock lock(worker.core->mutex);
  worker.core->parsed(worker.slot);
  Core::enter(worker.slot, Phase::kServing);
}

void Connections::closeAfterAnswer() {
  if (!Core::current) return;
  auto& worker = *Core::current;
  MutexLock lock(worker.core->mutex);
  worker.slot.close_after_answer = true;
}

bool Connections::closesAfterAnswer() {
  if (!Core::current) return false;
  auto& worker = *Core::current;
  MutexLock lock(worker.core->mutex);
  return worker.slot.close_after_answer;
}

void Connections::answered() {
  if (!Core::current) return;
  auto& worker = *Core::current;
  const bool closing = closesAfterAnswer();
  if (closing) linger(worker.slot.fd, worker.slot.ssl, worker.core->limits.linger);
  MutexLock lock(worker.core->mutex);
  worker.core->parsed(worker.slot);
  Core::enter(worker.slot, Phase::kIdle);
  if (closing) worker.core->cut(worker.slot);
}

}  // namespace spotserver
