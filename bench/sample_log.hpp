// Log lines of the sample station, for benchmarks: the same bytes on every machine.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "station_day.hpp"

namespace spotserver {

// The log of a day of exactly `lines` lines, junk included: all modes, all bands.
inline std::string sampleLog(std::uint64_t lines) {
  constexpr station::Tick kEnd = 1'742'000'000 * station::kTicksPerSecond;
  constexpr station::Tick kDay = 25 * 3600 * station::kTicksPerSecond;
  std::string log;
  station::Day day({.seed = 1, .begin = kEnd - kDay, .end = kEnd, .lines = lines});
  day.run(kEnd, [&log](const station::Slot& slot) { log += slot.lines; });
  return log;
}

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
