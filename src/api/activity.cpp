#include "api/activity.hpp"

#include <algorithm>
#include <deque>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>

#include "api/band_plan.hpp"
#include "spots/mode.hpp"

namespace spotserver {
namespace {

using launcher::BandRateIndex;

struct Counts {
  std::uint64_t spots = 0;
  std::uint64_t intervals = 0;
};

// What was decoded inside the window, all in all and by band id.
struct WindowCounts {
  Counts total;
  std::map<std::string, Counts, std::less<>> by_band;
};

void countInterval(WindowCounts& window, const std::string& band, std::uint64_t count) {
  for (Counts* counts : {&window.total, &window.by_band[band]}) {
    counts->spots += count;
    ++counts->intervals;
  }
}

// One decode interval of the log: everything decoded in one mode on one dial frequency at one time.
struct LogInterval {
  double time = 0;
  double frequency = 0;
  int mode = 0;
};

struct ByTimeFrequencyMode {
  bool operator()(const LogInterval& a, const LogInterval& b) const {
    return std::tie(a.time, a.frequency, a.mode) < std::tie(b.time, b.frequency, b.mode);
  }
};

using LogIntervals = std::map<LogInterval, std::uint64_t, ByTimeFrequencyMode>;  // to its decodes

LogIntervals logIntervals(const SpotQueue& spots, double from, double to) {
  LogIntervals intervals;
  spots.forEach(from, to, [&](const ParsedSpot& spot) {
    ++intervals[{spot.time, spot.frequency, spot.mode}];
  });
  return intervals;
}

BandRateIndex ratesOf(const LogIntervals& intervals, double now) {
  BandRateIndex rates;
  for (const auto& [interval, count] : intervals) {
    const std::string channel = launcher::channelKey(modeName(interval.mode), interval.frequency);
    launcher::addInterval(rates, channel, count, now, interval.time, slotSeconds(interval.mode),
                          interval.frequency);
  }
  return rates;
}

WindowCounts countLog(const LogIntervals& intervals, double window_start) {
  WindowCounts window;
  for (const auto& [interval, count] : intervals) {
    if (interval.time < window_start) continue;
    countInterval(window, launcher::bandForFrequency(interval.frequency).id, count);
  }
  return window;
}

WindowCounts countHistory(const std::deque<Interval>& intervals, double window_start, double now) {
  WindowCounts window;
  for (const Interval& interval : intervals) {
    if (interval.start < window_start || interval.start > now) continue;
    countInterval(window, interval.band, interval.count);
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

ActivitySnapshot activityAt(SpotData& data, int hours, int smoothing, double now) {
  const std::int64_t minute = launcher::minuteOf(now);
  const auto cached = data.cache.find({hours, smoothing});
  if (cached != data.cache.end() && cached->second.generation == data.generation &&
      cached->second.minute == minute) {
    ActivitySnapshot snapshot = cached->second.snapshot;
    snapshot.generated = now;
    return snapshot;
  }
  ActivitySnapshot snapshot = buildActivity(data, hours, smoothing, now);
  CachedActivity entry{data.generation, minute, snapshot};
  data.cache.insert_or_assign({hours, smoothing}, std::move(entry));
  return snapshot;
}

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
    const LogIntervals intervals = logIntervals(data.spots, window_start - margin, now);
    const WindowCounts window = countLog(intervals, window_start);
    addBands(snapshot, data, ratesOf(intervals, now), window, window_start);
  }
  return snapshot;
}

}  // namespace spotserver
