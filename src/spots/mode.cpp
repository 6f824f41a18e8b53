#include "spots/mode.hpp"

#include <array>
#include <cstddef>

namespace spotserver {
namespace {

// Decoders work at 12,000 samples a second and give the length of a slot in samples.
constexpr double kSampleRate = 12'000;
constexpr double kDefaultSamples = 180'000;

struct Mode {
  std::string_view name;
  double slot_samples;
};

// In code order.
constexpr std::array<Mode, 7> kModes{{
    {"FT8", kDefaultSamples},
    {"FT4", 90'000},
    {"JS8", 180'000},
    {"JS8-FAST", 120'000},
    {"JS8-TURBO", 72'000},
    {"JS8-SLOW", 360'000},
    {"WSPR", 1'440'000},
}};

constexpr Mode kUnknown{"unknown", kDefaultSamples};

const Mode& modeOf(int code) {
  const auto position = static_cast<std::size_t>(code);  // a negative code lies far beyond the end
  return position < kModes.size() ? kModes[position] : kUnknown;
}

}  // namespace

std::string_view modeName(int code) { return modeOf(code).name; }

std::optional<int> modeFromName(std::string_view name) {
  for (std::size_t i = 0; i < kModes.size(); ++i) {
    if (kModes[i].name == name) return static_cast<int>(i);
  }
  return std::nullopt;
}

double slotSeconds(int code) { return modeOf(code).slot_samples / kSampleRate; }

}  // namespace spotserver
