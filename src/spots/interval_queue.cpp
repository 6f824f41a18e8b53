#include "spots/interval_queue.hpp"

#include <vector>

namespace spotserver {
namespace {

// Holds the bands of a change while it may still fail.
class BandsOfChange {
 public:
  explicit BandsOfChange(Interned<TextTraits>& held) : held_(held) {}
  BandsOfChange(const BandsOfChange&) = delete;
  BandsOfChange& operator=(const BandsOfChange&) = delete;
  ~BandsOfChange() {
    for (const std::uint32_t id : ids_) held_.release(id);
  }
  void acquire(std::span<const std::string> bands) {
    ids_.reserve(bands.size());
    for (const std::string& band : bands) ids_.push_back(held_.acquire(band));
  }
  std::uint32_t operator[](std::size_t place) const { return ids_[place]; }

 private:
  Interned<TextTraits>& held_;
  std::vector<std::uint32_t> ids_;
};

}  // namespace

IntervalQueue::IntervalQueue(std::initializer_list<Interval> intervals) {
  for (const Interval& interval : intervals) push_back(interval);
}

// What needs memory comes first: the fresh ones are appended, then the stale ones between are taken
// out.
void IntervalQueue::replaceFrom(double from, std::span<const Fresh> fresh,
                                std::span<const std::string> bands) {
  BandsOfChange ids(bands_);
  ids.acquire(bands);
  std::vector<Fresh> held(fresh.begin(), fresh.end());
  for (Fresh& one : held) one.band = ids[one.band];

  const auto old_end = std::ssize(held_);
  auto kept = old_end;
  while (kept > 0 && held_[static_cast<std::size_t>(kept - 1)].start >= from) --kept;
  held_.insert(held_.end(), held.begin(), held.end());
  for (const Fresh& one : held) bands_.hold(one.band);
  const auto stale = held_.begin() + kept;
  const auto stale_end = held_.begin() + old_end;
  for (auto one = stale; one != stale_end; ++one) bands_.release(one->band);
  held_.erase(stale, stale_end);
}

void IntervalQueue::push_back(const Interval& interval) {
  BandsOfChange ids(bands_);
  ids.acquire({&interval.band, 1});
  held_.push_back({interval.start, interval.count, ids[0]});
  bands_.hold(ids[0]);
}

void IntervalQueue::pruneBefore(double cutoff) noexcept {
  while (!held_.empty() && held_.front().start < cutoff) {
    bands_.release(held_.front().band);
    held_.pop_front();
  }
}

// An empty deque made anew would take memory.
void IntervalQueue::clear() noexcept {
  held_.clear();
  bands_ = {};
}

Interval IntervalQueue::operator[](std::size_t place) const {
  const Fresh& one = held_[place];
  return {one.start, bands_[one.band], one.count};
}

}  // namespace spotserver
