// The figures of one answer of the activity endpoint, as they were computed. Times are UTC epoch
// seconds. The window is the last `hours` hours, its beginning included.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "api/rate_series.hpp"

namespace spotserver {

// One band of the answer.
struct BandView {
  std::string id;                       // band id, "20m" or "13.500000 MHz"
  std::string color;                    // "#rrggbb"
  std::optional<double> rate_now = {};  // decodes per hour; empty when stale
  std::uint64_t spots = 0;              // decodes in the window
  std::uint64_t intervals = 0;          // decode intervals in the window
  std::uint64_t unique_callsigns = 0;   // distinct callsigns of this band last heard in the window
  std::vector<launcher::RatePoint> points = {};  // the band's curve, one point a minute
};

// One answer: a view of the station at one time.
struct ActivitySnapshot {
  double generated = 0;
  std::string mode;   // "live" or "demo"
  int hours = 0;      // 1, 6 or 24
  int smoothing = 0;  // minutes
  std::uint64_t window_spots = 0;
  std::uint64_t window_intervals = 0;
  std::uint64_t window_unique_callsigns = 0;
  std::vector<BandView> bands = {};  // those with an interval in the window, in display order
};

}  // namespace spotserver
