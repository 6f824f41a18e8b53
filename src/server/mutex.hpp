// std::mutex and std::condition_variable with the annotations that let Clang's -Wthread-safety
// check who holds what.
//
//   Mutex mutex;
//   Condition work;
//   std::deque<Job> jobs SPOT_GUARDED_BY(mutex);
//
//   MutexLock lock(mutex);
//   while (jobs.empty()) work.wait(mutex);
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

#if defined(__clang__)
#define SPOT_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define SPOT_THREAD_ANNOTATION(x)
#endif

#define SPOT_CAPABILITY(x) SPOT_THREAD_ANNOTATION(capability(x))
#define SPOT_SCOPED_CAPABILITY SPOT_THREAD_ANNOTATION(scoped_lockable)
#define SPOT_GUARDED_BY(x) SPOT_THREAD_ANNOTATION(guarded_by(x))
#define SPOT_REQUIRES(...) SPOT_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define SPOT_ACQUIRE(...) SPOT_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define SPOT_RELEASE(...) SPOT_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define SPOT_EXCLUDES(...) SPOT_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define SPOT_NO_THREAD_SAFETY_ANALYSIS SPOT_THREAD_ANNOTATION(no_thread_safety_analysis)

namespace spotserver {

class SPOT_CAPABILITY("mutex") Mutex {
 public:
  void lock() SPOT_ACQUIRE() { mutex_.lock(); }
  void unlock() SPOT_RELEASE() { mutex_.unlock(); }

 private:
  friend class Condition;
  std::mutex mutex_;
};

// Holds a Mutex for a scope.
class SPOT_SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) SPOT_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~MutexLock() SPOT_RELEASE() { mutex_.unlock(); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  Mutex& mutex_;
};

// What threads that hold a Mutex wait for. Every wait gives the mutex back meanwhile and holds it
// again when it returns, which it may do for no reason: always in a loop that looks for itself. No
// wait takes a predicate, because to the analysis that would be a function that holds nothing.
class Condition {
 public:
  void wait(Mutex& mutex) SPOT_REQUIRES(mutex) {
    Held held(mutex);
    condition_.wait(held.lock);
  }
  // Until `end` at the latest.
  void wait_until(Mutex& mutex, std::chrono::steady_clock::time_point end) SPOT_REQUIRES(mutex) {
    Held held(mutex);
    condition_.wait_until(held.lock, end);
  }
  // For so long at most.
  void wait_for(Mutex& mutex, std::chrono::steady_clock::duration time) SPOT_REQUIRES(mutex) {
    Held held(mutex);
    condition_.wait_for(held.lock, time);
  }

  // With the mutex held or without.
  void notify_one() noexcept { condition_.notify_one(); }
  void notify_all() noexcept { condition_.notify_all(); }

 private:
  // The form in which the library wants a lock that the caller holds, and goes on holding.
  struct Held {
    explicit Held(Mutex& mutex) : lock(mutex.mutex_, std::adopt_lock) {}
    ~Held() { lock.release(); }
    Held(const Held&) = delete;
    Held& operator=(const Held&) = delete;
    std::unique_lock<std::mutex> lock;
  };

  std::condition_variable condition_;
};

}  // namespace spotserver
