// Work done by the first thread that needs it, while others that need it wait.
#pragma once

#include <atomic>

namespace spotserver {

// What std::call_once does, except that work which throws may be tried again on every platform:
// with exceptions, pthread_once has unmended faults on several processors and hangs under the
// thread sanitizer. Waiting threads sleep.
//   Once once;
//   once.call([&] { text = write(); });  // from any number of threads: one write
class Once {
 public:
  // Returns when the work of one call has come back. Throws what its own work throws; one of the
  // waiting threads then works instead.
  template <typename Work>
  void call(Work&& work) {
    while (state_.load(std::memory_order_acquire) != kDone) {
      State found = kOpen;
      if (state_.compare_exchange_strong(found, kBusy)) return run(work);
      if (found == kBusy) state_.wait(kBusy);
    }
  }

 private:
  enum State { kOpen, kBusy, kDone };

  template <typename Work>
  void run(Work& work) {
    try {
      work();
    } catch (...) {
      leave(kOpen);
      throw;
    }
    leave(kDone);
  }

  void leave(State state) {
    state_ = state;
    state_.notify_all();
  }

  std::atomic<State> state_ = kOpen;
};

}  // namespace spotserver
