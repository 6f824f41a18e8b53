// What the sample station listens to, and how busy each of its receivers is through the day.
#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace station {

// Time on the station is counted in half seconds since the epoch: the finest step that every slot
// length is a multiple of.
using Tick = std::int64_t;
inline constexpr Tick kTicksPerSecond = 2;

// One receiver: one dial frequency in one mode.
struct Receiver {
  std::int64_t dial_hz = 0;
  int mode = 0;       // ModeCode
  int quiet = 0;      // lines per hour at the quietest time of the day
  int busy = 0;       // lines per hour at the peak
  int peak_hour = 0;  // UTC

  // As the history database names it: band and mode, "20m FT8".
  std::string name() const;
  Tick slotTicks() const;
};

// The 13 bands of the plan and three frequencies outside it, all seven modes. No two receivers
// share both dial frequency and mode, nor a name.
std::span<const Receiver> receivers();

// Lines per hour that `receiver` writes around `tick`: a smooth rise and fall between quiet and
// busy, once a day.
int linesPerHour(const Receiver& receiver, Tick tick);

}  // namespace station
