#include "history/history_window.hpp"

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "api/band_plan.hpp"
#include "spots/mode.hpp"

namespace spotserver {
namespace {

using launcher::SourceReport;

// Observations sorted by what they are of, as the store takes them in.
struct Sorted {
  std::vector<SourceReport> reports;            // for the rates
  std::vector<IntervalQueue::Fresh> intervals;  // for the queue
  std::vector<std::string> bands;               // of the intervals
};

// Where the slots of one channel go.
struct Places {
  std::size_t report = 0;
  std::uint32_t band = 0;
};

// Puts things of one name in one place.
class PlacesByName {
 public:
  // The place of `name`, and whether it is new.
  std::pair<std::uint32_t, bool> of(std::string name) {
    const auto [found, is_new] =
        places_.emplace(std::move(name), static_cast<std::uint32_t>(places_.size()));
    return {found->second, is_new};
  }

 private:
  std::map<std::string, std::uint32_t> places_;
};

// One report for each source key and band, one band for each band id: the places of every channel
// in them. A channel of an unknown mode has none.
std::vector<std::optional<Places>> placesOf(const HistorySlots& observations, Sorted& sorted) {
  std::vector<std::optional<Places>> places(observations.channels());
  PlacesByName sources;
  PlacesByName bands;
  for (std::uint32_t id = 0; id < places.size(); ++id) {
    const HistoryChannel& channel = observations[id];
    const auto mode = modeFromName(channel.mode);
    if (!mode) continue;
    const std::string band = launcher::bandForFrequency(channel.frequency).id;
    const std::string key = launcher::channelKey(channel.mode, channel.frequency);
    const auto [report, new_report] = sources.of(std::string(key).append(" ").append(band));
    if (new_report) sorted.reports.push_back({key, channel.frequency, slotSeconds(*mode), {}});
    const auto [band_place, new_band] = bands.of(band);
    if (new_band) sorted.bands.push_back(band);
    places[id] = Places{report, band_place};
  }
  return places;
}

// Within a report the slots keep their order: of two receivers on one channel the first counts.
Sorted sortOut(const HistorySlots& observations) {
  Sorted sorted;
  const auto places = placesOf(observations, sorted);
  sorted.intervals.reserve(observations.slots.size());
  for (const HistorySlot& seen : observations.slots) {
    const auto& place = places[seen.channel];
    if (!place) continue;
    sorted.reports[place->report].slots.push_back({seen.start, seen.count});
    sorted.intervals.push_back({seen.start, seen.count, place->band});
  }
  return sorted;
}

}  // namespace

void mergeHistory(SpotData& data, const HistorySlots& observations, double from, double to) {
  const Sorted sorted = sortOut(observations);
  launcher::addIntervals(data.rates, sorted.reports, to);
  data.intervals.replaceFrom(from, sorted.intervals, sorted.bands);
  if (!data.history_in_use) data.spots.clear();
  data.history_in_use = true;
  data.history_read_to = to;
  ++data.generation;
}

void readHistoryWindow(SpotData& data, double from, double to, std::stop_token stop) noexcept {
  try {
    std::error_code ignored;
    if (data.history_path.empty() || !std::filesystem::exists(data.history_path, ignored)) {
      data.history_in_use = false;
      return;
    }
    mergeHistory(data, readHistorySlots(data.history_path, from, to, std::move(stop)), from, to);
  } catch (const OutOfDescriptors&) {
    // Clients hold them all. Dropping the history for that would empty the answers of everyone.
  } catch (...) {
    data.history_in_use = false;
  }
}

}  // namespace spotserver
