// A deterministic day of synthetic decodes, for demonstrations without a station.
//
// Four channels rise and fall over the day around their peak hour; 160 invented callsigns share the
// decodes. The same `now` always gives the same spots: the generator is MT19937 with a fixed seed,
// the counts come from std::poisson_distribution (another library's may give other spots).
#pragma once

#include <cstdint>
#include <span>

#include "spots/spot_data.hpp"
#include "spots/spot_store.hpp"

namespace spotserver {

struct DemoChannel {
  double frequency = 0;    // dial frequency, Hz
  std::uint32_t mode = 0;  // ModeCode
  double base_rate = 0;    // decodes per hour, twelve hours away from the peak
  double amplitude = 0;    // decodes per hour on top of that at the peak
  double peak_hour = 0;    // hour of the day, UTC
};

// In the order in which their spots are drawn.
std::span<const DemoChannel> demoChannels();

// Decodes to be expected of the slot of `channel` that holds `t` (UTC epoch seconds): a cosine over
// the day. Never negative.
//   demoMean(demoChannels()[0], t)  // 125 * 15 / 3600 when t is 16:00 UTC
double demoMean(const DemoChannel& channel, double t);

// Empties the spots and callsigns of `data`, fills in the 24 hours before `now` (UTC epoch seconds)
// and sets data.demo, which freezes it: no refresh ever replaces the day, and it does not move on
// with the clock. The generation grows by one. No intervals are made and the history is not in use,
// so all figures come from the spots.
// Spots are in time order, on slot starts. The first slot is the one that holds now - 86400; none
// begins later than now - slot length - 2. A `now` beyond what a double can count in slots (1e17,
// infinite, not a number) gives an empty day.
// About 4,600 spots in a few milliseconds. Throws std::bad_alloc.
void generateDemoSpots(SpotData& data, double now);

// The same under the store's lock.
//   generateDemoSpots(store, 1'760'000'000);
void generateDemoSpots(SpotStore& store, double now);

}  // namespace spotserver
