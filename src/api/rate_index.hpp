// Decode intervals by band and source: what the smoothed decode rates are drawn from.
//
// A decode interval is one receive period of one mode on one frequency, with the number of messages
// decoded in it. Times are UTC epoch seconds with fractions, lengths are seconds. An index has no
// lock of its own: the caller guards it.
//
//   BandRateIndex index;
//   addInterval(index, channelKey("FT8", 14'074'000), 12, now, now - 15, 15, 14'074'000);
//   index.at("20m").by_source.at("FT8/14.074000").held()  // one interval of 12 decodes
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace launcher {

// Retention of everything the server holds: 24 h 45 min, in seconds. A day and its margins.
inline constexpr double kRetention = 89'100;

struct IntervalRecord {
  double start = 0;
  double end = 0;           // start + length
  std::uint64_t count = 0;  // messages decoded
};

// The intervals of one source on one band. Of those that start within one second of one minute the
// first added stays, so that an interval reported twice counts once.
class SourceIntervals {
 public:
  // Ascending by start. The view lasts until the next change.
  std::span<const IntervalRecord> held() const { return std::span(records_).subspan(dropped_); }
  // Those that start at `start` or later. Cost: a binary search.
  std::span<const IntervalRecord> heldFrom(double start) const;
  // Cost: constant behind the last start, otherwise the intervals that start later.
  // Throws std::bad_alloc, and then holds what it held before.
  void add(const IntervalRecord& record);
  // Makes room for so many from the start.
  void reserve(std::size_t count) { records_.reserve(count); }
  // Drops what starts in an earlier minute (minuteOf). Throws nothing. Cost: what is dropped.
  void dropBefore(std::int64_t minute);

 private:
  void addAmong(const IntervalRecord& record);

  std::vector<IntervalRecord> records_;  // the first dropped_ of them are no longer held
  std::size_t dropped_ = 0;
};

// One band. It forgets its first start and longest length only when its last interval is pruned.
struct BandRateEntry {
  double first_start = 0;  // earliest start ever added, of duplicates too
  double max_length = 0;   // longest length ever added, of duplicates too
  std::map<std::string, SourceIntervals, std::less<>> by_source;  // by source key; none is empty
};

// Band id (BandInfo::id) to its intervals. Off-plan bands have entries like any other.
using BandRateIndex = std::map<std::string, BandRateEntry, std::less<>>;

// The minute number floor(t / 60). Beyond the range of the integer, the nearest end of that range.
std::int64_t minuteOf(double t);

// When one interval began and what was decoded in it.
struct SlotCount {
  double start = 0;
  std::uint64_t count = 0;
};

// Which intervals of one source an index takes in at `now`: those of finite numbers and a length
// above 0 that start no earlier than now - kRetention and end no later than now + 1 (an interval
// that is not over yet has no count yet).
class IntervalBounds {
 public:
  IntervalBounds(double frequency_hz, double length_s, double now);

  bool operator()(double start) const {
    return any_ && start >= earliest_ && start + length_ <= latest_end_;
  }
  bool operator()(const SlotCount& slot) const { return (*this)(slot.start); }

 private:
  bool any_;
  double length_;
  double earliest_;
  double latest_end_;
};

// Records one interval of `count` decodes over [start, start + length_s) at `frequency_hz`.
// `source_key` names where it came from (channelKey). What lies beyond the IntervalBounds is
// silently refused and leaves the index untouched. Otherwise prunes first; a second report of the
// same source, band and start second then only widens the band's first_start and max_length.
// Cost: addIntervals of one.
void addInterval(BandRateIndex& index, std::string_view source_key, std::uint64_t count, double now,
                 double start, double length_s, double frequency_hz);

// Intervals of one source, all of one length.
struct SourceReport {
  std::string source_key;
  double frequency_hz = 0;
  double length_s = 0;
  std::vector<SlotCount> slots;
};

// As addInterval for every slot of every report in turn.
//   const SourceReport report{"FT8/14.074000", 14'074'000, 15, {{now - 30, 7}, {now - 15, 12}}};
//   addIntervals(index, {&report, 1}, now);
// Cost: a look at every source for the pruning and two look-ups a report; a slot that starts behind
// those already held of its source is appended in constant time, without a look-up.
void addIntervals(BandRateIndex& index, std::span<const SourceReport> reports, double now);

// Drops every minute before that of now - kRetention, and every band left without a minute. A `now`
// that is not finite drops nothing. Cost: what is dropped, and a look at every source.
void pruneIndex(BandRateIndex& index, double now);

// Source key of a channel: mode name, "/", dial frequency in MHz with exactly six decimals.
//   channelKey("FT8", 14'074'000) == "FT8/14.074000"
std::string channelKey(std::string_view mode_name, double frequency_hz);

}  // namespace launcher
