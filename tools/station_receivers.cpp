#include "station_receivers.hpp"

#include <algorithm>
#include <cstdlib>

#include "api/band_plan.hpp"
#include "spots/mode.hpp"

namespace station {
namespace {

using spotserver::kFt4;
using spotserver::kFt8;
using spotserver::kJs8;
using spotserver::kJs8Fast;
using spotserver::kJs8Slow;
using spotserver::kJs8Turbo;
using spotserver::kWspr;

constexpr Receiver kReceivers[] = {
    {1'840'000, kFt8, 2, 220, 1},       {3'573'000, kFt8, 20, 700, 0},
    {5'357'000, kFt8, 5, 160, 22},      {7'074'000, kFt8, 150, 1400, 23},
    {10'136'000, kFt8, 80, 700, 20},    {14'074'000, kFt8, 150, 2200, 15},
    {18'100'000, kFt8, 10, 900, 14},    {21'074'000, kFt8, 5, 1300, 13},
    {24'915'000, kFt8, 2, 500, 13},     {28'074'000, kFt8, 2, 900, 14},
    {40'680'000, kFt8, 1, 20, 12},      {50'313'000, kFt8, 1, 160, 12},
    {70'154'000, kFt8, 1, 30, 17},      {144'174'000, kFt8, 1, 40, 19},
    {432'174'000, kFt8, 1, 12, 19},     {7'047'500, kFt4, 10, 180, 22},
    {14'080'000, kFt4, 20, 320, 15},    {21'140'000, kFt4, 5, 160, 13},
    {28'180'000, kFt4, 1, 90, 14},      {7'078'000, kJs8, 10, 60, 21},
    {14'078'000, kJs8, 15, 90, 16},     {14'078'000, kJs8Fast, 5, 25, 16},
    {14'078'000, kJs8Turbo, 2, 12, 16}, {7'078'000, kJs8Slow, 5, 20, 21},
    {474'200, kWspr, 2, 30, 1},         {3'568'600, kWspr, 20, 200, 0},
    {7'038'600, kWspr, 100, 500, 22},   {10'138'700, kWspr, 100, 450, 20},
    {14'095'600, kWspr, 60, 500, 14},   {21'094'600, kWspr, 5, 250, 13},
    {28'124'600, kWspr, 2, 200, 14},
};

constexpr std::int64_t kDay = 86'400;

// 0 twelve hours away from the peak, 1000 at the peak. Whole numbers throughout: floating point
// would not come out the same everywhere.
std::int64_t permilleOfPeak(std::int64_t seconds, int peak_hour) {
  const std::int64_t away = std::abs(seconds % kDay - peak_hour * 3600);
  const std::int64_t nearness = 1000 - std::min(away, kDay - away) * 1000 / (kDay / 2);
  return nearness * nearness * (3000 - 2 * nearness) / 1'000'000;
}

}  // namespace

std::string Receiver::name() const {
  return launcher::bandForFrequency(static_cast<double>(dial_hz)).id + " " +
         std::string(spotserver::modeName(mode));
}

Tick Receiver::slotTicks() const {
  return static_cast<Tick>(spotserver::slotSeconds(mode) * kTicksPerSecond);
}

std::span<const Receiver> receivers() { return kReceivers; }

int linesPerHour(const Receiver& receiver, Tick tick) {
  const std::int64_t permille = permilleOfPeak(tick / kTicksPerSecond, receiver.peak_hour);
  return receiver.quiet + static_cast<int>((receiver.busy - receiver.quiet) * permille / 1000);
}

}  // namespace station
