#include "spots/spot_store.hpp"

#include <chrono>

#include "spots/refresh.hpp"

namespace spotserver {

namespace {

constexpr std::chrono::seconds kLongRefresh{1};

}  // namespace

// A history that is locked takes five seconds. Were each of those who wait for that to look for
// itself, the last would wait for all of them.
void SpotStore::refresh(double now, double min_interval) noexcept {
  const std::uint64_t before = long_refreshes_;
  const MutexLock hold(mutex_);
  if (long_refreshes_ != before) return;
  const auto begin = std::chrono::steady_clock::now();
  refreshSpots(data_, now, min_interval, stop_.get_token());
  if (std::chrono::steady_clock::now() - begin >= kLongRefresh) ++long_refreshes_;
}

void SpotStore::interrupt() noexcept { stop_.request_stop(); }

}  // namespace spotserver
