// A snapshot like those of a busy day, for benchmarks.
#pragma once

#include <random>

#include "api/activity_snapshot.hpp"
#include "api/band_plan.hpp"

namespace spotserver {

inline constexpr double kDaySnapshotEnd = 1'763'175'600;

// 24 hours of the 13 bands of the plan up to kDaySnapshotEnd, each with its 1,441 points. Rates are
// those of some decodes in five minutes; one point in twenty has none.
inline ActivitySnapshot daySnapshot() {
  std::mt19937 random(5);
  ActivitySnapshot snapshot{
      .generated = kDaySnapshotEnd, .mode = "live", .hours = 24, .smoothing = 5};
  for (const launcher::BandInfo& info : launcher::bandTable()) {
    BandView band{.id = info.id, .color = info.color, .rate_now = 1234.567};
    for (int minute = 0; minute <= 1440; ++minute) {
      const double t = kDaySnapshotEnd - 86'400 + 60 * minute;
      const auto decodes = static_cast<double>(random() % 2'000);
      band.points.push_back({t, decodes * 3600 / 292.5});
      if (random() % 20 == 0) band.points.back().rate.reset();
    }
    snapshot.bands.push_back(std::move(band));
  }
  return snapshot;
}

}  // namespace spotserver
