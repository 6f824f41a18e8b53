#include "history/demo_data.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <numbers>
#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "api/band_plan.hpp"
#include "spots/mode.hpp"

namespace spotserver {
namespace {

constexpr std::uint32_t kSeed = 20261006;
constexpr std::size_t kCallsigns = 160;
constexpr double kDay = 86'400;  // s
constexpr double kMargin = 2;    // s between the end of the last slot and now

constexpr DemoChannel kChannels[] = {
    {14'074'000, kFt8, 55, 70, 16},
    {7'074'000, kFt8, 30, 35, 2},
    {21'074'000, kFt8, 12, 55, 14},
    {18'100'000, kFt4, 8, 14, 15},
};

constexpr std::string_view kPrefixes[] = {"W",  "K",  "N",  "AA", "KD", "WB", "VE",
                                          "G",  "DL", "F",  "EA", "JA", "VK", "PY",
                                          "LU", "SP", "OH", "SM", "I",  "OE"};

double slotOf(const DemoChannel& channel) { return slotSeconds(static_cast<int>(channel.mode)); }

using Callsigns = std::array<std::string, kCallsigns>;

// Each is a prefix, a digit 1 to 9 and one to three letters. Some come twice.
Callsigns makeCallsigns(std::mt19937& draw) {
  Callsigns callsigns;
  for (auto& callsign : callsigns) {
    callsign = kPrefixes[draw() % std::size(kPrefixes)];
    callsign += static_cast<char>('1' + draw() % 9);
    for (auto letters = draw() % 3 + 1; letters > 0; --letters) {
      callsign += static_cast<char>('A' + draw() % 26);
    }
  }
  return callsigns;
}

void addSlot(SpotData& data, std::vector<ParsedSpot>& spots, const DemoChannel& channel,
             double start, int count, const Callsigns& callsigns, std::mt19937& draw) {
  const std::string band = launcher::bandForFrequency(channel.frequency).id;
  for (; count > 0; --count) {
    const std::string& callsign = callsigns[draw() % kCallsigns];
    recordCallsign(data, callsign, band, start);
    spots.push_back({start, channel.frequency, static_cast<int>(channel.mode), band, callsign});
  }
}

void addChannel(SpotData& data, std::vector<ParsedSpot>& spots, const DemoChannel& channel,
                double now, const Callsigns& callsigns, std::mt19937& draw) {
  const double slot = slotOf(channel);
  const double last = now - slot - kMargin;
  // A step that no longer moves t means a clock beyond all counting: the day ends there.
  for (double t = now - kDay; t <= last && t < t + slot; t += slot) {
    const int count = std::poisson_distribution<std::int32_t>(demoMean(channel, t))(draw);
    if (count > 0) {
      addSlot(data, spots, channel, std::floor(t / slot) * slot, count, callsigns, draw);
    }
  }
}

}  // namespace

std::span<const DemoChannel> demoChannels() { return kChannels; }

double demoMean(const DemoChannel& channel, double t) {
  const double hour = std::fmod(t / 3600, 24);
  const double phase = (hour - channel.peak_hour) / 24;
  const double swing = std::cos(2 * std::numbers::pi * phase);
  const double rate = (0.5 * swing + 0.5) * channel.amplitude + channel.base_rate;
  return std::max(0.0, rate * slotOf(channel) / 3600);
}

void generateDemoSpots(SpotData& data, double now) {
  data.demo = true;
  ++data.generation;
  data.spots.clear();
  data.heard.clear();

  std::mt19937 draw(kSeed);
  const Callsigns callsigns = makeCallsigns(draw);
  std::vector<ParsedSpot> spots;
  for (const auto& channel : demoChannels()) addChannel(data, spots, channel, now, callsigns, draw);
  std::stable_sort(spots.begin(), spots.end(),
                   [](const auto& a, const auto& b) { return a.time < b.time; });
  for (const auto& spot : spots) data.spots.append(spot);
}

void generateDemoSpots(SpotStore& store, double now) {
  const auto held = store.lock();
  generateDemoSpots(*held, now);
}

}  // namespace spotserver
