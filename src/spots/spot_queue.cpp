#include "spots/spot_queue.hpp"

#include <cmath>
#include <limits>
#include <utility>

namespace spotserver {

std::int64_t SpotQueue::minuteOf(double time) {
  using Limits = std::numeric_limits<std::int64_t>;
  const double minute = std::floor(time / 60);
  // The highest number of the type is no double; the power of two above it is.
  if (minute < static_cast<double>(Limits::min())) return Limits::min();
  if (minute >= -static_cast<double>(Limits::min())) return Limits::max();
  return static_cast<std::int64_t>(minute);
}

void SpotQueue::append(ParsedSpot spot) {
  if (std::isnan(spot.time)) return;
  // Should there be no memory for the spot, a bucket left empty is no harm.
  by_minute_[minuteOf(spot.time)].push_back(std::move(spot));
  ++size_;
}

void SpotQueue::clear() {
  by_minute_.clear();
  size_ = 0;
}

void SpotQueue::pruneBefore(double cutoff) {
  if (std::isnan(cutoff)) return;
  const std::int64_t minute = minuteOf(cutoff);
  auto bucket = by_minute_.begin();
  while (bucket != by_minute_.end() && bucket->first < minute) {
    size_ -= bucket->second.size();
    bucket = by_minute_.erase(bucket);
  }
  if (bucket == by_minute_.end() || bucket->first != minute) return;
  size_ -= std::erase_if(bucket->second,
                         [cutoff](const ParsedSpot& spot) { return spot.time < cutoff; });
  if (bucket->second.empty()) by_minute_.erase(bucket);
}

}  // namespace spotserver
