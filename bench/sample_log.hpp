// Log lines of the sample station, for benchmarks: the same bytes on every machine.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "station_day.hpp"

namespace spotserver {

// The log of exactly `lines` lines, junk included, in so many hours: all modes, all bands.
inline std::string sampleLogOf(station::Tick hours, std::uint64_t lines) {
  constexpr station::Tick kEnd = 1'742'000'000 * station::kTicksPerSecond;
  const station::Tick begin = kEnd - hours * 3600 * station::kTicksPerSecond;
  std::string log;
  station::Day day({.seed = 1, .begin = begin, .end = kEnd, .lines = lines});
  day.run(kEnd, [&log](const station::Slot& slot) { log += slot.lines; });
  return log;
}

inline std::string sampleLog(std::uint64_t lines) { return sampleLogOf(25, lines); }

// An hour of a day of three million lines, so that many lines share their slot.
inline std::string busyHour() { return sampleLogOf(1, 120'000); }

// The lines of `log` without their newlines. Views into it.
inline std::vector<std::string_view> linesOf(std::string_view log) {
  std::vector<std::string_view> lines;
  for (auto end = log.find('\n'); end != log.npos; end = log.find('\n')) {
    lines.push_back(log.substr(0, end));
    log.remove_prefix(end + 1);
  }
  return lines;
}

}  // namespace spotserver
