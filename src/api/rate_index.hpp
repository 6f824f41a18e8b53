// Decode intervals by band and source, and the smoothed decode rates drawn from them.
//
// A decode interval is one receive period of one mode on one frequency, with the number of messages
// decoded in it. Times are UTC epoch seconds with fractions, lengths are seconds, rates are decodes
// per hour. An index has no lock of its own: the caller guards it.
//
//   BandRateIndex index;
//   addInterval(index, channelKey("FT8", 14'074'000), 12, now, now - 15, 15, 14'074'000);
//   rateAt(index, "20m", 3, now)  // 2880: 12 decodes in the band's first 15 s slot
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
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

// One sample of a band's curve.
struct RatePoint {
  double t = 0;
  std::optional<double> rate;  // empty: no fresh data at t (a gap, not a zero)
};

// The minute number floor(t / 60). Beyond the range of the integer, the nearest end of that range.
std::int64_t minuteOf(double t);

// Records one interval of `count` decodes over [start, start + length_s) at `frequency_hz`.
// `source_key` names where it came from (channelKey). Silently refused, leaving the index
// untouched: a value that is not finite, a length of 0 or less, an end later than now + 1 (the
// interval is not over yet), a start earlier than now - kRetention. Otherwise prunes first; a
// second report of the same source, band and start second then only widens the band's first_start
// and max_length. Cost: addIntervals of one.
void addInterval(BandRateIndex& index, std::string_view source_key, std::uint64_t count, double now,
                 double start, double length_s, double frequency_hz);

// When one interval began and what was decoded in it.
struct SlotCount {
  double start = 0;
  std::uint64_t count = 0;
};

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

// Decodes per hour of one band at `t`, averaged over the trailing window of `smoothing_minutes` or
// the band's longest interval, whichever is longer; shorter while the band is younger than that.
// Looks back over (t - window, t]: an interval ending exactly at t counts, one ending exactly at
// t - window does not.
// Empty: unknown band, or nothing that ended within the window and within the last 75 s (longest
// interval + 15 s when that is more).
// Throws std::invalid_argument "Smoothing must be 1..40 minutes".
// Cost: a look-up in every source of the band, and the intervals inside the window.
std::optional<double> rateAt(const BandRateIndex& index, std::string_view band_id,
                             int smoothing_minutes, double t);

// The band's rateAt every 60 s from now - hours * 3600 on while earlier than `now`, then at `now`
// itself: 61, 361 or 1,441 points for 1, 6 or 24 hours and a whole second `now`.
// Throws std::invalid_argument "History view must be 1, 6 or 24 hours", then as rateAt.
// Cost: one walk over the band's intervals in reach and one over the points.
std::vector<RatePoint> bandSeries(const BandRateIndex& index, std::string_view band_id,
                                  int smoothing_minutes, int hours, double now);

// The curves of intervals that are held elsewhere, drawn while they go by: the points that
// bandSeries draws from an index that took them in at `now`. First the sources whose intervals are
// longer than the smoothing, then all intervals, each behind its source, then the curves. The
// intervals of a source ascend, no two of them within one second, so that none is a second report
// of another; no two sources are one.
//   CurveSweep sweep(3, 24, now);
//   const auto source = sweep.addSource("20m", 15, now - 30);
//   sweep.add(source, now - 30, 7);
//   sweep.add(source, now - 15, 12);
//   sweep.finish();
//   sweep.curve("20m").back().rate
class CurveSweep {
 public:
  // Throws like bandSeries.
  CurveSweep(int smoothing_minutes, int hours, double now);
  CurveSweep(const CurveSweep&) = delete;
  CurveSweep& operator=(const CurveSweep&) = delete;
  ~CurveSweep();

  // The number of a source whose first interval starts at `first_start`. If that one is not taken
  // in (see addInterval), none of them is.
  std::size_t addSource(std::string_view band_id, double length_s, double first_start);
  // Cost: constant, and one walk over the points for each source in all.
  void add(std::size_t source, double start, std::uint64_t count);
  void finish();
  // Without rates for a band of which no interval was taken in.
  std::vector<RatePoint> curve(std::string_view band_id) const;

 private:
  struct Band;
  struct Source;

  void open(Source& source);

  int smoothing_;
  double now_;
  std::vector<RatePoint> points_;
  std::map<std::string, std::unique_ptr<Band>, std::less<>> bands_;
  std::vector<Source> sources_;
};

// Source key of a channel: mode name, "/", dial frequency in MHz with exactly six decimals.
//   channelKey("FT8", 14'074'000) == "FT8/14.074000"
std::string channelKey(std::string_view mode_name, double frequency_hz);

}  // namespace launcher
