// A mutex for holders that may take seconds: whoever came first is next, and nobody overtakes.
#pragma once

#include <condition_variable>
#include <cstdint>

#include "server/mutex.hpp"

namespace spotserver {

//   FairMutex mutex;
//   mutex.lock();  // behind all who wait already
//   mutex.unlock();
// The thread that holds it must not lock it again. Cost: as two locks of a std::mutex. Of those who
// wait, each wakes up for every one before it: meant for some dozens.
class SPOT_CAPABILITY("mutex") FairMutex {
 public:
  void lock() SPOT_ACQUIRE() SPOT_NO_THREAD_SAFETY_ANALYSIS {
    std::unique_lock hold(mutex_.native());
    const std::uint64_t ticket = tickets_++;
    while (served_ != ticket) turn_.wait(hold);
  }
  void unlock() SPOT_RELEASE() SPOT_NO_THREAD_SAFETY_ANALYSIS {
    const MutexLock hold(mutex_);
    ++served_;
    turn_.notify_all();
  }

  // The threads in lock() right now, for those who watch them.
  std::uint64_t waiting() {
    const MutexLock hold(mutex_);
    return tickets_ == served_ ? 0 : tickets_ - served_ - 1;
  }

 private:
  Mutex mutex_;
  std::condition_variable turn_;
  std::uint64_t tickets_ SPOT_GUARDED_BY(mutex_) = 0;  // handed out
  std::uint64_t served_ SPOT_GUARDED_BY(mutex_) = 0;   // whose holder is through
};

}  // namespace spotserver
