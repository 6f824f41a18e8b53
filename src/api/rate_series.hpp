// The smoothed decode rates of a band, at one time or as a curve: decodes per hour, drawn from the
// decode intervals of an index, or from intervals that are held elsewhere while they go by.
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
#include <string>
#include <string_view>
#include <vector>

#include "api/rate_index.hpp"

namespace launcher {

// One sample of a band's curve.
struct RatePoint {
  double t = 0;
  std::optional<double> rate;  // empty: no fresh data at t (a gap, not a zero)
};

// Decodes per hour of one band at `t`, averaged over the trailing window of `smoothing_minutes` or
// the band's longest interval, whichever is longer; shorter while the band is younger than that.
// Looks back over (t - window, t]: an interval ending exactly at t counts, one ending exactly at
// t - window does not.
//   rate = 3600 * sum of counts / min(t - first_start, max(longest interval, smoothing))    [s]
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

}  // namespace launcher
