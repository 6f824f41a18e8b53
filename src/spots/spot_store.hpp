// The spot data behind its lock.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <stop_token>
#include <utility>

#include "server/mutex.hpp"
#include "spots/refresh.hpp"
#include "spots/spot_data.hpp"

namespace spotserver {

// Shared by all threads.
//
//   SpotStore store;
//   store.lock()->all_txt_path = "/home/op/ALL.TXT";
//   const auto answer = activityAt(*store.refresh(now, 15), 6, 3, now);
//
// A history that its writer keeps locked takes a refresh five seconds. Nobody waits for more than
// one of them: those who waited for a long refresh do not look for themselves, and no other begins
// before they have been served.
class SpotStore {
 public:
  using Interval = spotserver::Interval;

  // Tests bring a refresh of their own, and their own idea of a long one.
  using Refresh = std::function<void(SpotData& data, double now, double min_interval,
                                     const std::stop_token& stop)>;
  explicit SpotStore(Refresh refresh = refreshSpots,
                     std::chrono::nanoseconds long_refresh = std::chrono::seconds(1))
      : refresh_(std::move(refresh)), long_refresh_(long_refresh) {}

  // The only way to the data; the store is locked while one lives. A thread that holds one must not
  // call lock or refresh.
  class Held {
   public:
    ~Held() SPOT_NO_THREAD_SAFETY_ANALYSIS { mutex_.unlock(); }
    Held(const Held&) = delete;
    Held& operator=(const Held&) = delete;
    SpotData& operator*() const { return data_; }
    SpotData* operator->() const { return &data_; }

   private:
    friend class SpotStore;
    Held(Mutex& locked, SpotData& data) noexcept : mutex_(locked), data_(data) {}

    Mutex& mutex_;
    SpotData& data_;
  };

  // Waits for whoever holds the store, a refresh included.
  Held lock() {
    mutex_.lock();
    return held();
  }

  // Locks the store, refreshes it (refreshSpots) and returns it still locked, so that the answer is
  // made of what was just read. `now` in UTC epoch seconds, `min_interval` in seconds. Reads
  // nothing when a refresh of another thread has taken a second or more of the time it waited.
  Held refresh(double now, double min_interval) noexcept;

  // Ends a read under way, now and for good: later refreshes leave everything as it is. Any thread,
  // any number of times; takes no lock.
  void interrupt() noexcept;

  // The threads that wait in refresh right now, and the long refreshes that have ended: for those
  // who watch them.
  std::uint64_t waiting() const { return waiting_[0] + waiting_[1]; }
  std::uint64_t longRefreshes() const { return long_refreshes_; }

 private:
  // Clang's analysis cannot follow a guard that is returned: for all it knows, whoever locked the
  // store gives it back here.
  Held held() noexcept SPOT_RELEASE(mutex_) SPOT_NO_THREAD_SAFETY_ANALYSIS {
    return {mutex_, data_};
  }
  void waitForTurn(std::uint64_t long_refreshes) SPOT_ACQUIRE(mutex_);
  void refreshLocked(double now, double min_interval) SPOT_REQUIRES(mutex_);

  const Refresh refresh_;
  const std::chrono::nanoseconds long_refresh_;
  Mutex mutex_;
  SpotData data_ SPOT_GUARDED_BY(mutex_);
  std::stop_source stop_;
  std::atomic<std::uint64_t> long_refreshes_ = 0;  // that have ended
  // Threads waiting in refresh, by whether the number of long refreshes was even or odd when they
  // came.
  std::array<std::atomic<std::uint64_t>, 2> waiting_{};
  Condition served_;
};

}  // namespace spotserver
