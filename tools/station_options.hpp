// The command line of corvane-sample-station.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "station_day.hpp"

namespace station {

struct Options {
  std::string out;      // the log; required
  std::string history;  // the history database; empty: none
  std::uint64_t seed = 1;
  std::int64_t now = 0;  // UTC epoch seconds at which the log ends
  std::int64_t hours = 25;
  std::optional<std::uint64_t> lines;
  bool follow = false;
  std::optional<std::int64_t> parent;  // process id
  bool help = false;

  DayPlan plan() const;
};

// What --help prints.
extern const char kHelp[];

// Reads the arguments behind the program's name; `clock` is the time that --now replaces.
// Throws std::runtime_error.
Options readOptions(std::span<char* const> arguments, std::int64_t clock);

}  // namespace station
