// The spot data behind its lock.
#pragma once

#include <atomic>
#include <cstdint>
#include <stop_token>

#include "server/mutex.hpp"
#include "spots/spot_data.hpp"

namespace spotserver {

// Shared by all threads.
//
//   SpotStore store;
//   store.lock()->all_txt_path = "/home/op/ALL.TXT";
//   store.refresh(now, 15);
//   const auto held = store.lock();
//   const auto answer = activityAt(*held, 6, 3, now);
class SpotStore {
 public:
  using Interval = spotserver::Interval;

  // The only way to the data; the store is locked while one lives. A thread that holds one must not
  // call lock or refresh. Clang's analysis cannot follow a guard that is returned, hence the
  // exceptions; that the data is not touched without the lock is what this class is for.
  class Held {
   public:
    explicit Held(SpotStore& store) SPOT_NO_THREAD_SAFETY_ANALYSIS : store_(store) {
      store_.mutex_.lock();
    }
    ~Held() SPOT_NO_THREAD_SAFETY_ANALYSIS { store_.mutex_.unlock(); }
    Held(const Held&) = delete;
    Held& operator=(const Held&) = delete;
    SpotData& operator*() const SPOT_NO_THREAD_SAFETY_ANALYSIS { return store_.data_; }
    SpotData* operator->() const SPOT_NO_THREAD_SAFETY_ANALYSIS { return &store_.data_; }

   private:
    SpotStore& store_;
  };

  // Waits for whoever holds the store, a refresh included.
  Held lock() { return Held(*this); }

  // refreshSpots under the lock. `now` in UTC epoch seconds, `min_interval` in seconds. Of several
  // threads that call it at once, the first reads and the others return when it is done.
  void refresh(double now, double min_interval) noexcept;

  // Ends a read under way, now and for good: later refreshes leave everything as it is. Any thread,
  // any number of times; takes no lock.
  void interrupt() noexcept;

 private:
  Mutex mutex_;
  SpotData data_ SPOT_GUARDED_BY(mutex_);
  std::stop_source stop_;
  std::atomic<std::uint64_t> long_refreshes_ = 0;  // that have ended
};

}  // namespace spotserver
