// The amateur band plan: which band a frequency belongs to, its chart colour and display order.
// Nothing is ever dropped for being off-plan: a frequency outside every band gets a band of its
// own.
#pragma once

#include <array>
#include <string>
#include <string_view>

namespace launcher {

// One band. Frequencies in hertz.
struct BandInfo {
  std::string id;      // "20m", or "13.500000 MHz" for a frequency outside the plan
  std::string color;   // "#rrggbb", lower case
  double low_hz = 0;   // inclusive
  double high_hz = 0;  // inclusive
};

// Colour of every band outside the plan.
inline constexpr std::string_view kOffPlanColor = "#63b6ee";
// bandOrder of every band outside the plan.
inline constexpr int kOffPlanOrder = 1000;

// The 13 bands, "160m" to "70cm", in display order, which is ascending by frequency. They do not
// overlap. The same object for the life of the process; safe to call from any thread.
const std::array<BandInfo, 13>& bandTable();

// The band that holds `frequency_hz`, both limits inclusive, the value taken as it stands. A
// frequency outside the plan gets a band of its own: id "%.6f MHz" (cut at 63 characters, which
// only a frequency beyond all sense reaches), colour kOffPlanColor, both limits the frequency
// itself.
//   bandForFrequency(14'074'000).id == "20m"
//   bandForFrequency(14'350'001).id == "14.350001 MHz"
// Never throws for any value, not-a-number included.
BandInfo bandForFrequency(double frequency_hz);

// Position 0..12 of the band with exactly this id, kOffPlanOrder for any other id: the sort key
// that puts the plan in its order and everything else behind it.
//   bandOrder("2m") == 11    bandOrder("2M") == 1000
int bandOrder(std::string_view id);

}  // namespace launcher
