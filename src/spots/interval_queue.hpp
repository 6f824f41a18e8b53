// The decode intervals of the last day from the receivers' history, in the order of time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <iterator>
#include <span>
#include <string>
#include <vector>

#include "spots/interned.hpp"

namespace spotserver {

// One receiver decode interval from the history.
struct Interval {
  double start = 0;         // UTC epoch seconds
  std::string band;         // band id
  std::uint64_t count = 0;  // decodes
};

// A queue of intervals, 24 bytes each: band ids are kept once and leave with their last interval.
// Ascending by start as long as its owner appends so. A plain value, not synchronised.
//
//   IntervalQueue queue = {{now - 30, "20m", 7}, {now - 15, "20m", 12}};
//   queue.forEach([&](double start, std::uint32_t band, std::uint64_t count) {
//     use(start, queue.band(band), count);
//   });
class IntervalQueue {
 public:
  IntervalQueue() = default;

  // An interval to be appended; `band` is a place among the band ids given along with it.
  struct Fresh {
    double start = 0;
    std::uint64_t count = 0;
    std::uint32_t band = 0;
  };

  // Puts `fresh` (ascending by start, none before `from`) in the place of everything from `from`
  // on. All or nothing: throws std::bad_alloc, and then holds what it held before.
  // Cost: what is replaced and what is put there, a look-up for each band.
  void replaceFrom(double from, std::span<const Fresh> fresh, std::span<const std::string> bands);
  // Drops intervals from the front while they start before `cutoff`. Cost: those dropped; now and
  // then the others are moved forward.
  void pruneBefore(double cutoff) noexcept;
  void clear() noexcept { *this = {}; }

  std::size_t size() const { return all_.size() - dropped_; }
  bool empty() const { return size() == 0; }

  // Calls fn(double start, std::uint32_t band, std::uint64_t count) for every interval in order.
  template <typename Fn>
  void forEach(Fn&& fn) const {
    for (const Fresh& one : held()) fn(one.start, one.band, one.count);
  }
  // The band id that forEach named; valid until the queue changes.
  const std::string& band(std::uint32_t id) const { return bands_[id]; }
  // Above every band number in use: the size of an array by band.
  std::size_t bandEnd() const { return bands_.idEnd(); }

  // --- One by one ---
  // As tests fill and read it. The server puts whole windows in place and visits.

  IntervalQueue(std::initializer_list<Interval> intervals);
  // Throws std::bad_alloc, and then holds what it held before.
  void push_back(const Interval& interval);
  Interval operator[](std::size_t place) const;
  // Gives each interval as a value.
  class Iterator {
   public:
    using value_type = Interval;
    using difference_type = std::ptrdiff_t;
    using reference = Interval;
    using pointer = void;
    using iterator_category = std::input_iterator_tag;

    Iterator() = default;
    Iterator(const IntervalQueue* queue, std::size_t place) : queue_(queue), place_(place) {}
    Interval operator*() const { return (*queue_)[place_]; }
    Iterator& operator++() {
      ++place_;
      return *this;
    }
    Iterator operator++(int) { return {queue_, place_++}; }
    bool operator==(const Iterator& other) const { return place_ == other.place_; }

   private:
    const IntervalQueue* queue_ = nullptr;
    std::size_t place_ = 0;
  };
  using const_iterator = Iterator;
  using value_type = Interval;
  Iterator begin() const { return {this, 0}; }
  Iterator end() const { return {this, size()}; }

 private:
  void makeRoom(std::size_t count);
  std::span<const Fresh> held() const { return std::span(all_).subspan(dropped_); }

  // One array: every answer walks over a day of them.
  std::vector<Fresh> all_;  // `band` is an id of bands_; the first dropped_ are no longer held
  std::size_t dropped_ = 0;
  Interned<TextTraits> bands_;  // held by the intervals
};

}  // namespace spotserver
