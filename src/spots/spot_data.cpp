#include "spots/spot_data.hpp"

#include <algorithm>

#include "spots/country.hpp"

namespace spotserver {
namespace {

constexpr std::size_t kLongestCallsign = 32;

void record(LastHeard& heard, std::string_view callsign, double time) {
  const auto known = heard.find(callsign);
  if (known == heard.end()) {
    heard.emplace(callsign, time);
  } else {
    known->second = std::max(known->second, time);
  }
}

void prune(LastHeard& heard, double cutoff) {
  std::erase_if(heard, [cutoff](const auto& entry) { return entry.second < cutoff; });
}

std::uint64_t countSince(const LastHeard& heard, double since) {
  const auto is_recent = [since](const auto& entry) { return entry.second >= since; };
  return static_cast<std::uint64_t>(std::count_if(heard.begin(), heard.end(), is_recent));
}

}  // namespace

void recordCallsign(SpotData& data, std::string_view callsign, std::string_view band, double time) {
  record(data.last_heard, callsign, time);
  auto on_band = data.last_heard_by_band.find(band);
  if (on_band == data.last_heard_by_band.end()) {
    on_band = data.last_heard_by_band.emplace(band, LastHeard{}).first;
  }
  record(on_band->second, callsign, time);
}

bool isCounted(const cty::Database& countries, std::string_view callsign) {
  if (!countries.loaded() || callsign.starts_with('<')) return true;
  return callsign.size() <= kLongestCallsign && resolveCountry(countries, callsign).has_value();
}

std::uint64_t heardSince(const SpotData& data, double since) {
  return countSince(data.last_heard, since);
}

std::uint64_t heardOnBandSince(const SpotData& data, std::string_view band, double since) {
  const auto found = data.last_heard_by_band.find(band);
  return found == data.last_heard_by_band.end() ? 0 : countSince(found->second, since);
}

void pruneSpots(SpotData& data, double now) {
  const double cutoff = now - launcher::kRetention;
  data.spots.pruneBefore(cutoff);
  while (!data.intervals.empty() && data.intervals.front().start < cutoff) {
    data.intervals.pop_front();
  }
  prune(data.last_heard, cutoff);
  for (auto& [band, heard] : data.last_heard_by_band) prune(heard, cutoff);
  std::erase_if(data.last_heard_by_band, [](const auto& band) { return band.second.empty(); });
  launcher::pruneIndex(data.rates, now);
}

}  // namespace spotserver
