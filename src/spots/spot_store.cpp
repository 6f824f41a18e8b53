#include "spots/spot_store.hpp"

namespace spotserver {

SpotStore::Held SpotStore::refresh(double now, double min_interval) noexcept {
  const std::uint64_t before = long_refreshes_;
  mutex_.lock();
  if (long_refreshes_ == before) refreshLocked(now, min_interval);
  return {*this, std::adopt_lock};
}

void SpotStore::refreshLocked(double now, double min_interval) {
  const auto begin = std::chrono::steady_clock::now();
  refresh_(data_, now, min_interval, stop_.get_token());
  if (std::chrono::steady_clock::now() - begin >= long_refresh_) ++long_refreshes_;
}

void SpotStore::interrupt() noexcept { stop_.request_stop(); }

}  // namespace spotserver
