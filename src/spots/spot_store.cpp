#include "spots/spot_store.hpp"

#include "spots/refresh.hpp"

namespace spotserver {

void SpotStore::refresh(double now, double min_interval) noexcept {
  const MutexLock hold(mutex_);
  refreshSpots(data_, now, min_interval, stop_.get_token());
}

void SpotStore::interrupt() noexcept { stop_.request_stop(); }

}  // namespace spotserver
