// std::mutex with the annotations that let Clang's -Wthread-safety check who holds what.
#pragma once

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
  // For waiting on a condition variable with the lock held; Clang cannot see through it.
  std::mutex& native() { return mutex_; }

 private:
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

}  // namespace spotserver
