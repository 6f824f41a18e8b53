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
  const std::size_t old_end = all_.size();
  std::size_t kept = old_end;
  while (kept > dropped_ && all_[kept - 1].start >= from) --kept;
  makeRoom(fresh.size());
  for (const Fresh& one : fresh) {
    all_.push_back({one.start, one.count, ids[one.band]});
    bands_.hold(all_.back().band);
  }
  const auto stale = all_.begin() + static_cast<std::ptrdiff_t>(kept);
  const auto stale_end = all_.begin() + static_cast<std::ptrdiff_t>(old_end);
  for (auto one = stale; one != stale_end; ++one) bands_.release(one->band);
  all_.erase(stale, stale_end);
}

void IntervalQueue::push_back(const Interval& interval) {
  BandsOfChange ids(bands_);
  ids.acquire({&interval.band, 1});
  makeRoom(1);
  all_.push_back({interval.start, interval.count, ids[0]});
  bands_.hold(ids[0]);
}

void IntervalQueue::pruneBefore(double cutoff) noexcept {
  for (; dropped_ < all_.size() && all_[dropped_].start < cutoff; ++dropped_) {
    bands_.release(all_[dropped_].band);
  }
  // Moving the rest forward only now and then costs each interval a few moves in its life.
  if (dropped_ <= all_.size() / 8) return;
  all_.erase(all_.begin(), all_.begin() + static_cast<std::ptrdiff_t>(dropped_));
  dropped_ = 0;
}

Interval IntervalQueue::operator[](std::size_t place) const {
  const Fresh& one = held()[place];
  return {one.start, bands_[one.band], one.count};
}

// An eighth ahead: twice as much, as a vector goes by itself, would double the memory of a day.
void IntervalQueue::makeRoom(std::size_t count) {
  const std::size_t needed = all_.size() + count;
  if (needed > all_.capacity()) all_.reserve(needed + all_.size() / 8);
}

}  // namespace spotserver
