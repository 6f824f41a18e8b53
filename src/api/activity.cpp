#include "api/activity.hpp"

#include <algorithm>
#include <cmath>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include "api/band_plan.hpp"
#include "api/rate_index.hpp"
#include "api/rate_series.hpp"
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

// One channel of the log: everything decoded in one mode on one dial frequency at one time is one
// decode interval.
struct ChannelLog {
  double frequency = 0;
  int mode = 0;
  std::string band;                   // by the band plan
  std::string key;                    // as the rates know the channel
  std::optional<std::size_t> source;  // of the sweep; empty: not heard, nothing else is filled in
  std::size_t intervals = 0;          // in reach of the rates
  double last = 0;                    // start of the last one
  bool in_order = true;               // every interval starts in a later second than the one before
  Counts window;
};

bool isWhole(double time) { return std::trunc(time) == time; }

// Whether `time` certainly lies in a later second. Those of a log are whole.
bool isInLaterSecond(double time, double last) {
  return time - last > 2 || (time > last && isWhole(time) && isWhole(last));
}

void addInterval(ChannelLog& log, double time, std::uint64_t count, double window_start) {
  if (log.intervals++ > 0 && !isInLaterSecond(time, log.last)) log.in_order = false;
  log.last = time;
  if (time >= window_start) log.window.add({count, 1});
}

// The channel is heard, for the first time at `time`.
void open(ChannelLog& log, const Channel& channel, double time, launcher::CurveSweep& sweep) {
  log.frequency = channel.frequency;
  log.mode = channel.mode;
  log.band = launcher::bandForFrequency(channel.frequency).id;
  log.source = sweep.addSource(log.band, slotSeconds(channel.mode), time);
}

// What the rates look back on, and the window within it. UTC epoch seconds.
struct Reach {
  double from;
  double window_start;
  double to;
};

// Opens the channels whose slots are longer than the smoothing, which the sweep must know first.
// Few stations listen to any: without one no interval is looked at.
void openLongSlots(std::vector<ChannelLog>& logs, const SpotQueue& spots, const Reach& reach,
                   double smoothing_s, launcher::CurveSweep& sweep) {
  std::vector<bool> is_long(logs.size());
  for (std::uint32_t id = 0; id < logs.size(); ++id) {
    is_long[id] = slotSeconds(spots.channel(id).mode) > smoothing_s;
  }
  if (std::find(is_long.begin(), is_long.end(), true) == is_long.end()) return;
  spots.forEachInterval(reach.from, reach.to, [&](double time, std::uint32_t id, std::uint64_t) {
    if (is_long[id] && !logs[id].source) open(logs[id], spots.channel(id), time, sweep);
  });
}

// By channel id. The curves in `sweep` hold only if the logs are in order.
std::vector<ChannelLog> sweepLogs(const SpotQueue& spots, const Reach& reach, double smoothing_s,
                                  launcher::CurveSweep& sweep) {
  std::vector<ChannelLog> logs(spots.channelIdEnd());
  openLongSlots(logs, spots, reach, smoothing_s, sweep);
  spots.forEachInterval(reach.from, reach.to,
                        [&](double time, std::uint32_t id, std::uint64_t count) {
                          ChannelLog& log = logs[id];
                          if (!log.source) open(log, spots.channel(id), time, sweep);
                          addInterval(log, time, count, reach.window_start);
                          sweep.add(*log.source, time, count);
                        });
  sweep.finish();
  for (ChannelLog& log : logs) {
    if (log.source) log.key = launcher::channelKey(modeName(log.mode), log.frequency);
  }
  return logs;
}

WindowCounts countLog(const std::vector<ChannelLog>& logs) {
  WindowCounts window;
  for (const ChannelLog& log : logs) addBand(window, log.band, log.window);
  return window;
}

bool areOneSource(const ChannelLog& a, const ChannelLog& b) {
  return a.key == b.key && a.band == b.band;
}

// Ids of the channels heard, by key, frequency and mode.
std::vector<std::uint32_t> heardChannels(const std::vector<ChannelLog>& logs) {
  std::vector<std::uint32_t> ids;
  for (std::uint32_t id = 0; id < logs.size(); ++id) {
    if (logs[id].source) ids.push_back(id);
  }
  std::stable_sort(ids.begin(), ids.end(), [&](std::uint32_t a, std::uint32_t b) {
    return std::tie(logs[a].key, logs[a].frequency, logs[a].mode) <
           std::tie(logs[b].key, logs[b].frequency, logs[b].mode);
  });
  return ids;
}

// Whether every channel is a source of its own, on a frequency that is a number, whose intervals
// come in order, as they do in a log that nobody has edited.
bool areInOrder(const std::vector<ChannelLog>& logs, const std::vector<std::uint32_t>& ids) {
  for (std::size_t i = 0; i < ids.size(); ++i) {
    if (!logs[ids[i]].in_order || !std::isfinite(logs[ids[i]].frequency)) return false;
    if (i > 0 && areOneSource(logs[ids[i - 1]], logs[ids[i]])) return false;
  }
  return true;
}

// Reports for the rates, in which the first of two intervals with one source, band and second
// counts: those go in by time, frequency and mode. It matters where channels lie closer than the
// six decimals of their key tell, or log several times within a second.
std::vector<SourceReport> reportsOf(const SpotQueue& spots, const std::vector<ChannelLog>& logs,
                                    const std::vector<std::uint32_t>& ids, const Reach& reach) {
  std::vector<std::vector<SlotCount>> slots(logs.size());
  for (const std::uint32_t id : ids) slots[id].reserve(logs[id].intervals);
  spots.forEachInterval(reach.from, reach.to,
                        [&](double time, std::uint32_t channel, std::uint64_t count) {
                          slots[channel].push_back({time, count});
                        });
  std::vector<SourceReport> reports;
  for (std::size_t i = 0; i < ids.size(); ++i) {
    const ChannelLog& log = logs[ids[i]];
    auto& own = slots[ids[i]];
    if (i > 0 && areOneSource(logs[ids[i - 1]], log)) {
      auto& joined = reports.back().slots;
      joined.insert(joined.end(), own.begin(), own.end());
    } else {
      reports.push_back({log.key, log.frequency, slotSeconds(log.mode), std::move(own)});
    }
  }
  const auto earlier = [](const SlotCount& a, const SlotCount& b) { return a.start < b.start; };
  for (SourceReport& report : reports) {
    auto& sorted = report.slots;
    if (std::is_sorted(sorted.begin(), sorted.end(), earlier)) continue;
    std::stable_sort(sorted.begin(), sorted.end(), earlier);
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

// Draws the curve of the band with this id; its last point is the rate now.
using Draw = std::function<std::vector<launcher::RatePoint>(const std::string& id)>;

// Fills in everything but `generated`, `mode`, `hours` and `smoothing`, which `snapshot` brings.
void addBands(ActivitySnapshot& snapshot, const SpotData& data, const Draw& draw,
              const WindowCounts& window, double window_start) {
  snapshot.window_spots = window.total.spots;
  snapshot.window_intervals = window.total.intervals;
  snapshot.window_unique_callsigns = heardSince(data, window_start);
  for (const auto& [id, counts] : window.by_band) {
    auto points = draw(id);
    const auto rate_now = points.back().rate;
    snapshot.bands.push_back({.id = id,
                              .color = colorOf(id),
                              .rate_now = rate_now,
                              .spots = counts.spots,
                              .intervals = counts.intervals,
                              .unique_callsigns = heardOnBandSince(data, id, window_start),
                              .points = std::move(points)});
  }
  std::sort(snapshot.bands.begin(), snapshot.bands.end(), displayedBefore);
}

Draw drawFrom(const BandRateIndex& rates, const ActivitySnapshot& view) {
  return [&rates, hours = view.hours, smoothing = view.smoothing,
          now = view.generated](const std::string& id) {
    return launcher::bandSeries(rates, id, smoothing, hours, now);
  };
}

void addBandsOfHistory(ActivitySnapshot& snapshot, const SpotData& data, double window_start) {
  const WindowCounts window = countHistory(data.intervals, window_start, snapshot.generated);
  addBands(snapshot, data, drawFrom(data.rates, snapshot), window, window_start);
}

void addBandsOfLog(ActivitySnapshot& snapshot, const SpotData& data, double window_start) {
  const double now = snapshot.generated;
  const double smoothing_s = snapshot.smoothing * 60.0;
  // The first points of the curves look back over a whole smoothing window and a WSPR slot.
  const Reach reach{window_start - (smoothing_s + 120), window_start, now};
  launcher::CurveSweep sweep(snapshot.smoothing, snapshot.hours, now);
  const std::vector<ChannelLog> logs = sweepLogs(data.spots, reach, smoothing_s, sweep);
  const WindowCounts window = countLog(logs);
  const std::vector<std::uint32_t> ids = heardChannels(logs);
  if (areInOrder(logs, ids)) {
    const auto draw = [&sweep](const std::string& id) { return sweep.curve(id); };
    return addBands(snapshot, data, draw, window, window_start);
  }
  BandRateIndex rates;
  launcher::addIntervals(rates, reportsOf(data.spots, logs, ids, reach), now);
  addBands(snapshot, data, drawFrom(rates, snapshot), window, window_start);
}

}  // namespace

ActivitySnapshot buildActivity(const SpotData& data, int hours, int smoothing, double now) {
  ActivitySnapshot snapshot{.generated = now,
                            .mode = data.demo ? "demo" : "live",
                            .hours = hours,
                            .smoothing = smoothing};
  const double window_start = now - hours * 3600.0;
  if (data.history_in_use && !data.demo) {
    addBandsOfHistory(snapshot, data, window_start);
  } else {
    addBandsOfLog(snapshot, data, window_start);
  }
  return snapshot;
}

}  // namespace spotserver
