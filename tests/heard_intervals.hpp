// What the tests of the rates have in common: a time, two bands, and intervals heard on them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <string_view>

#include "api/rate_index.hpp"

namespace launcher {

inline constexpr double kNow = 1'763'175'600;  // a whole minute
inline constexpr double kInfinity = std::numeric_limits<double>::infinity();
inline constexpr double kLargest = std::numeric_limits<double>::max();

inline constexpr double k20m = 14'074'000;
inline constexpr double k40m = 7'074'000;

// One interval on 20 m that ended in time to be accepted.
inline void addFt8(BandRateIndex& index, double start, std::uint64_t count) {
  addInterval(index, "FT8/14.074000", count, start + 15, start, 15, k20m);
}

inline std::size_t recordsOf(const BandRateIndex& index, std::string_view band) {
  std::size_t records = 0;
  const auto found = index.find(band);
  if (found == index.end()) return 0;
  for (const auto& [key, source] : found->second.by_source) records += source.held().size();
  return records;
}

}  // namespace launcher
