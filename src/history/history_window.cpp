#include "history/history_window.hpp"

#include <filesystem>
#include <iterator>
#include <utility>

#include "api/band_plan.hpp"
#include "spots/mode.hpp"

namespace spotserver {
namespace {

using launcher::addInterval;
using launcher::bandForFrequency;
using launcher::channelKey;

// The new intervals, each also added to `rates`.
std::vector<Interval> indexIntervals(const std::vector<HistoryObservation>& observations, double to,
                                     launcher::BandRateIndex& rates) {
  std::vector<Interval> intervals;
  intervals.reserve(observations.size());
  for (const auto& seen : observations) {
    const auto mode = modeFromName(seen.mode);
    if (!mode) continue;
    addInterval(rates, channelKey(seen.mode, seen.frequency), seen.count, to, seen.start,
                slotSeconds(*mode), seen.frequency);
    intervals.push_back({seen.start, bandForFrequency(seen.frequency).id, seen.count});
  }
  return intervals;
}

// Puts `fresh` in the place of everything from `from` on. All or nothing: the fresh ones are
// appended first, which alone needs memory, then the stale ones between are taken out.
void replaceTail(std::deque<Interval>& intervals, double from, std::vector<Interval> fresh) {
  const auto old_end = std::ssize(intervals);
  auto kept = old_end;
  while (kept > 0 && intervals[static_cast<std::size_t>(kept - 1)].start >= from) --kept;
  intervals.insert(intervals.end(), std::make_move_iterator(fresh.begin()),
                   std::make_move_iterator(fresh.end()));
  intervals.erase(intervals.begin() + kept, intervals.begin() + old_end);
}

}  // namespace

void mergeHistory(SpotData& data, const std::vector<HistoryObservation>& observations, double from,
                  double to) {
  replaceTail(data.intervals, from, indexIntervals(observations, to, data.rates));
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
    mergeHistory(data, readHistory(data.history_path, from, to, std::move(stop)), from, to);
  } catch (const OutOfDescriptors&) {
    // Clients hold them all. Dropping the history for that would empty the answers of everyone.
  } catch (...) {
    data.history_in_use = false;
  }
}

}  // namespace spotserver
