#include "spots/spot_data.hpp"

#include "spots/country.hpp"

namespace spotserver {
namespace {

constexpr std::size_t kLongestCallsign = 32;

}  // namespace

void recordCallsign(SpotData& data, std::string_view callsign, std::string_view band, double time) {
  data.heard.record(callsign, data.heard.band(band), time);
}

bool isCounted(const cty::Database& countries, std::string_view callsign) {
  if (!countries.loaded() || callsign.starts_with('<')) return true;
  return callsign.size() <= kLongestCallsign && resolveCountry(countries, callsign).has_value();
}

// One too long to be any country's is not worth remembering.
bool recordSender(SpotData& data, std::string_view callsign, HeardCallsigns::Band& band,
                  double time) {
  const auto counts = [&] { return isCounted(data.countries, callsign); };
  if (callsign.size() > kLongestCallsign && !counts()) return false;
  return data.heard.recordIf(counts, callsign, band, time);
}

std::uint64_t heardSince(const SpotData& data, double since) {
  return data.heard.countSince(since);
}

std::uint64_t heardOnBandSince(const SpotData& data, std::string_view band, double since) {
  return data.heard.countSince(band, since);
}

void pruneSpots(SpotData& data, double now) {
  const double cutoff = now - launcher::kRetention;
  data.spots.pruneBefore(cutoff);
  data.intervals.pruneBefore(cutoff);
  launcher::pruneIndex(data.rates, now);
  const std::int64_t minute = launcher::minuteOf(now);
  if (data.callsigns_pruned == minute) return;
  data.heard.pruneBefore(cutoff);
  data.callsigns_pruned = minute;
}

}  // namespace spotserver
