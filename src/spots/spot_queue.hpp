// The accepted decodes of the last day, by minute.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace spotserver {

// One accepted log line.
struct ParsedSpot {
  double time = 0;       // UTC epoch seconds
  double frequency = 0;  // dial frequency, Hz
  int mode = 0;          // ModeCode
  std::string band;      // band id of the dial frequency
  std::string callsign;  // sender, possibly empty
};

// Spots bucketed by minute, so that a line dated in the future or out of order costs no more than
// any other and never holds back the pruning of the rest. Not synchronised.
//
//   queue.append({now - 15, 14'074'000, kFt8, "20m", "N0CALL"});
//   queue.forEach(now - 3600, now, [&](const ParsedSpot& spot) { ... });
//   queue.pruneBefore(now - launcher::kRetention);
class SpotQueue {
 public:
  // Cost: one look-up among the minutes held. A time beyond the range of minute numbers is kept in
  // the first or last bucket; a time that is no number is at no time, so such a spot is not kept.
  // Throws std::bad_alloc, and then holds what it held before.
  void append(ParsedSpot spot);
  void clear();
  std::size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  // Removes every spot with time < cutoff, wherever it stands; one exactly at the cutoff stays. A
  // cutoff that is no number removes nothing. Throws nothing.
  // Cost: the spots removed and those in the cutoff's own minute.
  void pruneBefore(double cutoff);
  // Calls fn(const ParsedSpot&) for every spot with from <= time <= to, minute by minute ascending;
  // within a minute in the order of arrival. Bounds that are in the wrong order or no numbers
  // enclose nothing. `fn` must not change the queue. Cost: the spots in the minutes touched.
  template <typename Fn>
  void forEach(double from, double to, Fn&& fn) const {
    if (!(from <= to)) return;
    const auto end = by_minute_.upper_bound(minuteOf(to));
    for (auto bucket = by_minute_.lower_bound(minuteOf(from)); bucket != end; ++bucket) {
      for (const ParsedSpot& spot : bucket->second) {
        if (spot.time >= from && spot.time <= to) fn(spot);
      }
    }
  }

 private:
  // floor(time / 60), held to the range of the type. Never falls as `time` grows.
  static std::int64_t minuteOf(double time);

  std::map<std::int64_t, std::vector<ParsedSpot>> by_minute_;
  std::size_t size_ = 0;
};

}  // namespace spotserver
