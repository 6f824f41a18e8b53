// The digital modes the station decodes, and how long one receive period (slot) of each lasts.
#pragma once

#include <optional>
#include <string_view>

namespace spotserver {

// Mode codes are plain ints in stored records; the order is fixed.
enum ModeCode : int {
  kFt8 = 0,
  kFt4 = 1,
  kJs8 = 2,
  kJs8Fast = 3,
  kJs8Turbo = 4,
  kJs8Slow = 5,
  kWspr = 6,
};

// "FT8", "FT4", "JS8", "JS8-FAST", "JS8-TURBO", "JS8-SLOW", "WSPR" in code order; "unknown" for any
// other code. The text is a literal and lives for ever.
std::string_view modeName(int code);

// The code whose name is exactly `name` (case-sensitive); empty when there is none, for "unknown"
// too.
std::optional<int> modeFromName(std::string_view name);

// Length of one slot in seconds: 15, 7.5, 15, 10, 6, 30, 120 in code order; 15 for any other code.
//   slotSeconds(kFt4) == 7.5
double slotSeconds(int code);

}  // namespace spotserver
