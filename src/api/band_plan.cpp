#include "api/band_plan.hpp"

#include <cstddef>

namespace launcher {
namespace {

std::string offPlanId(double frequency_hz) {
  constexpr std::size_t kLongest = 63;  // a longer id is cut, by design
  const std::string id = std::to_string(frequency_hz / 1'000'000) + " MHz";  // six decimals
  return id.substr(0, kLongest);
}

}  // namespace

const std::array<BandInfo, 13>& bandTable() {
  static const std::array<BandInfo, 13> table{{
      {"160m", "#7cfc00", 1'800'000, 2'000'000},
      {"80m", "#e550e5", 3'500'000, 4'000'000},
      {"60m", "#00008b", 5'000'000, 5'500'000},
      {"40m", "#5959ff", 7'000'000, 7'300'000},
      {"30m", "#62d962", 10'100'000, 10'150'000},
      {"20m", "#f2c40c", 14'000'000, 14'350'000},
      {"17m", "#f2f261", 18'068'000, 18'168'000},
      {"15m", "#cca166", 21'000'000, 21'450'000},
      {"12m", "#b22222", 24'890'000, 24'990'000},
      {"10m", "#ff69b4", 28'000'000, 29'700'000},
      {"6m", "#ff0000", 50'000'000, 54'000'000},
      {"2m", "#ff1493", 144'000'000, 148'000'000},
      {"70cm", "#999900", 420'000'000, 450'000'000},
  }};
  return table;
}

BandInfo bandForFrequency(double frequency_hz) {
  for (const BandInfo& band : bandTable()) {
    if (band.low_hz <= frequency_hz && frequency_hz <= band.high_hz) return band;
  }
  return {offPlanId(frequency_hz), std::string(kOffPlanColor), frequency_hz, frequency_hz};
}

int bandOrder(std::string_view id) {
  int position = 0;
  for (const BandInfo& band : bandTable()) {
    if (band.id == id) return position;
    ++position;
  }
  return kOffPlanOrder;
}

}  // namespace launcher
