// Whoever comes reads the number of long refreshes that have ended, and counts among those who wait
// since that number. A thread that finds another number when it has the lock has waited for a long
// refresh; one that finds the same is to look for itself, but steps back while threads of the
// number before are still waiting. Among threads that nobody kept waiting for long the mutex
// decides: to serve them strictly in turn would cost a change of threads for every answer.
#include "spots/spot_store.hpp"

namespace spotserver {

SpotStore::Held SpotStore::refresh(double now, double min_interval) noexcept {
  const std::uint64_t before = long_refreshes_;
  waitForTurn(before);
  if (long_refreshes_ == before) refreshLocked(now, min_interval);
  return held();
}

void SpotStore::waitForTurn(std::uint64_t long_refreshes) {
  auto& same = waiting_[long_refreshes % 2];
  const auto& others = waiting_[(long_refreshes + 1) % 2];
  ++same;
  mutex_.lock();
  while (long_refreshes_ == long_refreshes && others != 0) served_.wait(mutex_);
  if (--same == 0) served_.notify_all();
}

void SpotStore::refreshLocked(double now, double min_interval) {
  const auto begin = std::chrono::steady_clock::now();
  refresh_(data_, now, min_interval, stop_.get_token());
  if (std::chrono::steady_clock::now() - begin >= long_refresh_) ++long_refreshes_;
}

void SpotStore::interrupt() noexcept { stop_.request_stop(); }

}  // namespace spotserver
