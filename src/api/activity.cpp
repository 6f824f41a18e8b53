#include "api/activity.hpp"

#include <algorithm>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include "api/band_plan.hpp"
#include "spots/mode.hpp"

namespace spotserver {
namespace {

using launcher::BandRateIndex;
using launcher::SlotCount;
using launcher::SourceReport;

struct Counts {
  std::uint64_t spots = 0;
  std::uint64_t intervals = 0;

  void add(const Counts& other) {
    spots += other.spots;
    intervals += other.intervals;
  }
};

// What was decoded inside the window, all in all and by band id.
struct WindowCounts {
  Counts total;
  std::map<std::string, Counts, std::less<>> by_band;  // those with an interval
};

void addBand(WindowCounts& window, const std::string& band, const Counts& counts) {
  if (counts.intervals == 0) return;
  window.total.add(counts);
  window.by_band[band].add(counts);
}

// The log's decode intervals on one channel: everything decoded in one mode on one dial frequency
// at one time is one.
struct ChannelLog {
  double frequency = 0;
  int mode = 0;
  std::string band;  // by the band plan
  std::string key;   // as the rates know the channel
  std::vector<SlotCount> slots;
};

std::vector<ChannelLog> channelLogs(const SpotQueue& spots, double from, double to) {
  // Counted first: vectors that grow would be copied, and leave holes where they were.
  std::vector<std::size_t> sizes(spots.channelIdEnd());
  spots.forEachInterval(from, to,
                        [&](double, std::uint32_t channel, std::uint64_t) { ++sizes[channel]; });
  std::vector<std::vector<SlotCount>> slots(sizes.size());
  for (std::uint32_t id = 0; id < sizes.size(); ++id) slots[id].reserve(sizes[id]);
  spots.forEachInterval(from, to, [&](double time, std::uint32_t channel, std::uint64_t count) {
    slots[channel].push_back({time, count});
  });
  std::vector<ChannelLog> logs;
  for (std::uint32_t id = 0; id < slots.size(); ++id) {
    if (slots[id].empty()) continue;
    const Channel& channel = spots.channel(id);
    logs.push_back(
        {channel.frequency, channel.mode, launcher::bandForFrequency(channel.frequency).id,
         launcher::channelKey(modeName(channel.mode), channel.frequency), std::move(slots[id])});
  }
  return logs;
}

WindowCounts countLog(const std::vector<ChannelLog>& logs, double window_start) {
  WindowCounts window;
  for (const ChannelLog& log : logs) {
    Counts counts;
    for (const SlotCount& slot : log.slots) {
      if (slot.start >= window_start) counts.add({slot.count, 1});
    }
    addBand(window, log.band, counts);
  }
  return window;
}

bool areOneSource(const ChannelLog& a, const ChannelLog& b) {
  return a.key == b.key && a.band == b.band;
}

// Reports for the rates, in which the first of two intervals with one source, band and second
// counts: those go in by time, frequency and mode. It matters where channels lie closer than the
// six decimals of their key tell, or log several times within a second.
std::vector<SourceReport> reportsOf(std::vector<ChannelLog> logs) {
  std::sort(logs.begin(), logs.end(), [](const ChannelLog& a, const ChannelLog& b) {
    return std::tie(a.key, a.frequency, a.mode) < std::tie(b.key, b.frequency, b.mode);
  });
  std::vector<SourceReport> reports;
  for (std::size_t i = 0; i < logs.size(); ++i) {
    auto& slots = logs[i].slots;
    if (i > 0 && areOneSource(logs[i - 1], logs[i])) {
      auto& joined = reports.back().slots;
      joined.insert(joined.end(), slots.begin(), slots.end());
    } else {
      reports.push_back(
          {logs[i].key, logs[i].frequency, slotSeconds(logs[i].mode), std::move(slots)});
    }
  }
  const auto earlier = [](const SlotCount& a, const SlotCount& b) { return a.start < b.start; };
  for (SourceReport& report : reports) {
    auto& slots = report.slots;
    if (std::is_sorted(slots.begin(), slots.end(), earlier)) continue;
    std::stable_sort(slots.begin(), slots.end(), earlier);
  }
  return reports;
}

WindowCounts countHistory(const IntervalQueue& intervals, double window_start, double now) {
  std::vector<Counts> by_band(intervals.bandEnd());
  intervals.forEach([&](double start, std::uint32_t band, std::uint64_t count) {
    if (start >= window_start && start <= now) by_band[band].add({count, 1});
  });
  WindowCounts window;
  for (std::uint32_t band = 0; band < by_band.size(); ++band) {
    addBand(window, intervals.band(band), by_band[band]);
  }
  return window;
}

std::string colorOf(std::string_view band) {
  const int order = launcher::bandOrder(band);
  if (order == launcher::kOffPlanOrder) return std::string(launcher::kOffPlanColor);
  return launcher::bandTable()[static_cast<std::size_t>(order)].color;
}

bool displayedBefore(const BandView& a, const BandView& b) {
  const int order_a = launcher::bandOrder(a.id);
  const int order_b = launcher::bandOrder(b.id);
  return std::tie(order_a, a.id) < std::tie(order_b, b.id);
}

// Fills in everything but `generated`, `mode`, `hours` and `smoothing`, which `snapshot` brings.
void addBands(ActivitySnapshot& snapshot, const SpotData& data, const BandRateIndex& rates,
              const WindowCounts& window, double window_start) {
  const double now = snapshot.generated;
  snapshot.window_spots = window.total.spots;
  snapshot.window_intervals = window.total.intervals;
  snapshot.window_unique_callsigns = heardSince(data, window_start);
  for (const auto& [id, counts] : window.by_band) {
    snapshot.bands.push_back(
        {.id = id,
         .color = colorOf(id),
         .rate_now = launcher::rateAt(rates, id, snapshot.smoothing, now),
         .spots = counts.spots,
         .intervals = counts.intervals,
         .unique_callsigns = heardOnBandSince(data, id, window_start),
         .points = launcher::bandSeries(rates, id, snapshot.smoothing, snapshot.hours, now)});
  }
  std::sort(snapshot.bands.begin(), snapshot.bands.end(), displayedBefore);
}

}  // namespace

ActivitySnapshot buildActivity(const SpotData& data, int hours, int smoothing, double now) {
  ActivitySnapshot snapshot{.generated = now,
                            .mode = data.demo ? "demo" : "live",
                            .hours = hours,
                            .smoothing = smoothing};
  const double window_start = now - hours * 3600.0;
  if (data.history_in_use && !data.demo) {
    const WindowCounts window = countHistory(data.intervals, window_start, now);
    addBands(snapshot, data, data.rates, window, window_start);
  } else {
    // The first points of the curves look back over a whole smoothing window and a WSPR slot.
    const double margin = smoothing * 60.0 + 120;
    std::vector<ChannelLog> logs = channelLogs(data.spots, window_start - margin, now);
    const WindowCounts window = countLog(logs, window_start);
    BandRateIndex rates;
    launcher::addIntervals(rates, reportsOf(std::move(logs)), now);
    addBands(snapshot, data, rates, window, window_start);
  }
  return snapshot;
}

}  // namespace spotserver
