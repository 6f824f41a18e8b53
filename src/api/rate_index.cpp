// Smoothing is a trailing box window. It is never shorter than the band's longest interval, so that
// a WSPR band is averaged over the two minutes it takes to hear anything at all, and it begins no
// earlier than the band's data, so that a band heard for two minutes is not diluted over five.
//
// An interval that ends inside a window starts no earlier than the band's longest interval before
// it: so much margin bounds every search by start. A curve does not search at all. Each interval is
// added at the first sample that sees it and taken off at the first whose window has left it
// behind; the sums then run along the samples. Counts are integers, so no order of adding shows.
#include "api/rate_index.hpp"

#include <algorithm>
#include <cmath>
#include <iterator>
#include <limits>
#include <stdexcept>
#include <tuple>
#include <utility>

#include "api/band_plan.hpp"

namespace launcher {
namespace {

constexpr double kUnfinishedTolerance = 1.0;  // seconds an interval may end after now
constexpr double kShortestStaleness = 75;     // seconds
constexpr double kSlack = 15;                 // seconds beyond the band's longest interval
constexpr double kForever = std::numeric_limits<double>::infinity();
constexpr double kNever = -kForever;

// `whole`, a double without fraction, as an integer. A conversion out of range is undefined in C++,
// so what lies beyond becomes the nearest end; times of any century on a calendar do not.
std::int64_t saturated(double whole) {
  if (!(whole < 0x1p63)) return std::numeric_limits<std::int64_t>::max();
  if (whole < -0x1p63) return std::numeric_limits<std::int64_t>::min();
  return static_cast<std::int64_t>(whole);
}

// The intervals of one source that are taken in at `now`. What is no finite number is within no
// bounds.
class Acceptable {
 public:
  Acceptable(double frequency_hz, double length_s, double now)
      : any_(std::isfinite(now) && length_s > 0 && std::isfinite(length_s) &&
             std::isfinite(frequency_hz)),
        length_(length_s),
        earliest_(now - kRetention),
        latest_end_(now + kUnfinishedTolerance) {}

  bool operator()(double start) const {
    return any_ && start >= earliest_ && start + length_ <= latest_end_;
  }
  bool operator()(const SlotCount& slot) const { return (*this)(slot.start); }

 private:
  bool any_;
  double length_;
  double earliest_;
  double latest_end_;
};

// The minute of `start` and the whole second within it. Neither falls as `start` grows within one
// minute, so the starts of one second are neighbours in any ascending order.
std::pair<std::int64_t, std::int64_t> minuteAndSecond(double start) {
  const std::int64_t minute = minuteOf(start);
  return {minute, saturated(std::trunc(start - 60 * static_cast<double>(minute)))};
}

// Whether `later` begins so far behind `earlier` that they lie in two seconds of any count. False
// says nothing. Times beyond these bounds are too far to be counted in whole seconds.
bool clearlyBehind(double later, double earlier) {
  constexpr double kCountable = 0x1p52;
  return later - earlier > 2 && earlier > -kCountable && later < kCountable;
}

bool inOneSecond(double a, double b) {
  if (a == b) return true;
  // Spares the divisions.
  if (clearlyBehind(a, b) || clearlyBehind(b, a)) return false;
  return minuteAndSecond(a) == minuteAndSecond(b);
}

bool startsBefore(const IntervalRecord& record, double t) { return record.start < t; }

// The intervals that start at `from` or later.
std::span<const IntervalRecord> heldFrom(const SourceIntervals& source, double from) {
  const auto held = source.held();
  const auto first = std::lower_bound(held.begin(), held.end(), from, startsBefore);
  return {first, held.end()};
}

void addReport(BandRateIndex& index, const SourceReport& report, double now) {
  const Acceptable acceptable(report.frequency_hz, report.length_s, now);
  auto slot = std::find_if(report.slots.begin(), report.slots.end(), acceptable);
  if (slot == report.slots.end()) return;
  const BandInfo band = bandForFrequency(report.frequency_hz);
  BandRateEntry& entry =
      index.try_emplace(band.id, BandRateEntry{slot->start, report.length_s, {}}).first->second;
  entry.max_length = std::max(entry.max_length, report.length_s);
  SourceIntervals& source = entry.by_source[report.source_key];
  if (source.held().empty()) source.reserve(report.slots.size());
  for (; slot != report.slots.end(); ++slot) {
    if (!acceptable(*slot)) continue;
    entry.first_start = std::min(entry.first_start, slot->start);
    source.add({slot->start, slot->start + report.length_s, slot->count});
  }
}

void requireSmoothing(int minutes) {
  if (minutes < 1 || minutes > 40) throw std::invalid_argument("Smoothing must be 1..40 minutes");
}

double windowOf(const BandRateEntry& band, int smoothing_minutes) {
  return std::max(band.max_length, 60.0 * smoothing_minutes);
}

// With slack, so that it does not matter how an end was rounded.
double marginOf(const BandRateEntry& band) { return band.max_length + kSlack; }

// What lies in one window.
struct WindowSum {
  std::uint64_t count = 0;
  double latest_end = kNever;  // kNever: nothing lies in it
};

// Everything with after < end <= t.
WindowSum sumWindow(const BandRateEntry& band, double after, double t) {
  WindowSum sum;
  for (const auto& [key, source] : band.by_source) {
    for (const IntervalRecord& record : heldFrom(source, after - marginOf(band))) {
      if (record.start > t) break;
      if (record.end <= after || record.end > t) continue;
      sum.count += record.count;
      sum.latest_end = std::max(record.end, sum.latest_end);
    }
  }
  return sum;
}

std::optional<double> rateOf(const BandRateEntry& band, double window, const WindowSum& sum,
                             double t) {
  const double staleness = std::max(band.max_length + kSlack, kShortestStaleness);
  if (sum.latest_end == kNever || sum.latest_end < t - staleness) return std::nullopt;
  const double effective = std::min(t - band.first_start, window);
  if (effective <= 0) return std::nullopt;
  return static_cast<double>(sum.count) * 3600 / effective;
}

// The samples of a curve, rates still empty.
std::vector<RatePoint> samples(int hours, double now) {
  const auto steps = static_cast<std::size_t>(hours) * 60;
  std::vector<RatePoint> points;
  points.reserve(steps + 1);
  // Counting the steps as well ends the walk where a double is too coarse to advance by 60.
  for (double t = now - hours * 3600; t < now && points.size() < steps; t += 60) {
    points.push_back({t, std::nullopt});
  }
  points.push_back({now, std::nullopt});
  return points;
}

// How the window changes from one sample to the next.
struct WindowChange {
  std::uint64_t count = 0;     // what it gains less what it loses; a loss wraps around
  double latest_end = kNever;  // of what it gains
};

// Finds samples by time: from where the last search ended, since the next one lies close by.
class SampleCursor {
 public:
  SampleCursor(std::span<const RatePoint> points, double delay) : points_(points), delay_(delay) {}

  // The first sample at least `delay` later than `t`; the number of samples when there is none.
  std::size_t seek(double t) {
    while (at_ < points_.size() && isBefore(points_[at_], t)) ++at_;
    while (at_ > 0 && !isBefore(points_[at_ - 1], t)) --at_;
    return at_;
  }
  // All of (after(), until()] is found at the same sample.
  double after() const { return at_ == 0 ? kNever : points_[at_ - 1].t - delay_; }
  double until() const { return at_ == points_.size() ? kForever : points_[at_].t - delay_; }
  // Like seek, from anywhere.
  void jump(double t) {
    const auto before = [this, t](const RatePoint& point) { return isBefore(point, t); };
    const auto found = std::partition_point(points_.begin(), points_.end(), before);
    at_ = static_cast<std::size_t>(found - points_.begin());
  }

 private:
  bool isBefore(const RatePoint& point, double t) const { return point.t - delay_ < t; }

  std::span<const RatePoint> points_;
  double delay_;
  std::size_t at_ = 0;
};

// Adds the intervals of one source to the changes of a curve as they go by, cheapest in the order
// of time.
class SourceSweep {
 public:
  // `changes` has one more element than `points`; both outlive the sweep.
  SourceSweep(std::span<const RatePoint> points, double window, std::span<WindowChange> changes)
      : gain_(points, 0), loss_(points, window), changes_(changes) {}

  void add(double end, std::uint64_t count) {
    if (!(end > after_ && end <= until_)) moveTo(end);
    alike_.count += count;
    alike_.latest_end = std::max(alike_.latest_end, end);
  }

  // When everything was added.
  void finish() {
    if (gained_ == nullptr) return;  // nothing was
    gained_->count += alike_.count;
    gained_->latest_end = std::max(gained_->latest_end, alike_.latest_end);
    lost_->count -= alike_.count;
    alike_ = {};
  }

 private:
  void moveTo(double end) {
    if (gained_ == nullptr) {
      gain_.jump(end);
      loss_.jump(end);
    } else {
      finish();
    }
    gained_ = &changes_[gain_.seek(end)];
    lost_ = &changes_[loss_.seek(end)];
    after_ = std::max(gain_.after(), loss_.after());
    until_ = std::min(gain_.until(), loss_.until());
  }

  SampleCursor gain_;
  SampleCursor loss_;
  std::span<WindowChange> changes_;
  WindowSum alike_;  // of those behind one another that come and go at the same samples
  double after_ = kForever;
  double until_ = kForever;
  WindowChange* gained_ = nullptr;  // null: no place yet
  WindowChange* lost_ = nullptr;
};

void drawChanges(const BandRateEntry& band, double window, const std::vector<WindowChange>& changes,
                 std::span<RatePoint> points) {
  WindowSum sum;
  double latest_end = kNever;  // of everything up to this sample
  for (std::size_t i = 0; i < points.size(); ++i) {
    const double t = points[i].t;
    sum.count += changes[i].count;
    latest_end = std::max(latest_end, changes[i].latest_end);
    sum.latest_end = latest_end > t - window ? latest_end : kNever;
    points[i].rate = rateOf(band, window, sum, t);
  }
}

void drawCurve(const BandRateEntry& band, double window, std::span<RatePoint> points) {
  std::vector<WindowChange> changes(points.size() + 1);
  const double from = points.front().t - window - marginOf(band);
  for (const auto& [key, source] : band.by_source) {
    SourceSweep sweep(points, window, changes);
    for (const IntervalRecord& record : heldFrom(source, from)) sweep.add(record.end, record.count);
    sweep.finish();
  }
  drawChanges(band, window, changes, points);
}

void requireHours(int hours) {
  if (hours != 1 && hours != 6 && hours != 24) {
    throw std::invalid_argument("History view must be 1, 6 or 24 hours");
  }
}

}  // namespace

void SourceIntervals::add(const IntervalRecord& record) {
  if (!held().empty() && clearlyBehind(record.start, records_.back().start)) {
    records_.push_back(record);
  } else {
    addAmong(record);
  }
}

void SourceIntervals::addAmong(const IntervalRecord& record) {
  auto next = records_.end();
  const auto first = records_.begin() + static_cast<std::ptrdiff_t>(dropped_);
  if (next != first && std::prev(next)->start >= record.start) {
    next = std::lower_bound(first, next, record.start, startsBefore);
  }
  if (next != records_.end() && inOneSecond(next->start, record.start)) return;
  if (next != first && inOneSecond(std::prev(next)->start, record.start)) return;
  records_.insert(next, record);
}

void SourceIntervals::dropBefore(std::int64_t minute) {
  while (dropped_ < records_.size() && minuteOf(records_[dropped_].start) < minute) ++dropped_;
  // Moving the rest forward only now and then costs each interval a few moves in its life.
  if (dropped_ <= records_.size() / 8) return;
  records_.erase(records_.begin(), records_.begin() + static_cast<std::ptrdiff_t>(dropped_));
  dropped_ = 0;
}

std::int64_t minuteOf(double t) { return saturated(std::floor(t / 60)); }

void addInterval(BandRateIndex& index, std::string_view source_key, std::uint64_t count, double now,
                 double start, double length_s, double frequency_hz) {
  const SourceReport report{std::string(source_key), frequency_hz, length_s, {{start, count}}};
  addIntervals(index, {&report, 1}, now);
}

void addIntervals(BandRateIndex& index, std::span<const SourceReport> reports, double now) {
  const auto counts = [now](const SourceReport& report) {
    return std::any_of(report.slots.begin(), report.slots.end(),
                       Acceptable(report.frequency_hz, report.length_s, now));
  };
  // What is accepted starts after the retention's begin: pruning once is pruning before each.
  if (std::any_of(reports.begin(), reports.end(), counts)) pruneIndex(index, now);
  for (const SourceReport& report : reports) addReport(index, report, now);
}

void pruneIndex(BandRateIndex& index, double now) {
  if (!std::isfinite(now)) return;
  const std::int64_t cutoff = minuteOf(now - kRetention);
  for (auto& [id, band] : index) {
    for (auto& [key, source] : band.by_source) source.dropBefore(cutoff);
    std::erase_if(band.by_source, [](const auto& source) { return source.second.held().empty(); });
  }
  std::erase_if(index, [](const auto& band) { return band.second.by_source.empty(); });
}

std::optional<double> rateAt(const BandRateIndex& index, std::string_view band_id,
                             int smoothing_minutes, double t) {
  requireSmoothing(smoothing_minutes);
  const auto found = index.find(band_id);
  if (found == index.end() || !std::isfinite(t)) return std::nullopt;
  const double window = windowOf(found->second, smoothing_minutes);
  return rateOf(found->second, window, sumWindow(found->second, t - window, t), t);
}

std::vector<RatePoint> bandSeries(const BandRateIndex& index, std::string_view band_id,
                                  int smoothing_minutes, int hours, double now) {
  requireHours(hours);
  requireSmoothing(smoothing_minutes);
  std::vector<RatePoint> points = samples(hours, now);
  const auto found = index.find(band_id);
  if (found != index.end() && std::isfinite(now)) {
    drawCurve(found->second, windowOf(found->second, smoothing_minutes), points);
  }
  return points;
}

// One band of a sweep. The changes are made when the first interval comes: by then the band's
// longest length is known.
struct CurveSweep::Band {
  BandRateEntry facts;  // without intervals
  double window = 0;
  std::vector<WindowChange> changes;
};

struct CurveSweep::Source {
  Band* band = nullptr;
  Acceptable accepts;
  double length = 0;
  std::optional<SourceSweep> sweep = {};
};

CurveSweep::CurveSweep(int smoothing_minutes, int hours, double now)
    : smoothing_(smoothing_minutes), now_(now) {
  requireHours(hours);
  requireSmoothing(smoothing_minutes);
  points_ = samples(hours, now);
}

CurveSweep::~CurveSweep() = default;

std::size_t CurveSweep::addSource(std::string_view band_id, double length_s, double first_start) {
  const Acceptable accepts(0, length_s, now_);
  sources_.push_back({nullptr, accepts, length_s});
  if (accepts(first_start)) {
    auto& band = bands_[std::string(band_id)];
    if (band == nullptr) band.reset(new Band{.facts = {first_start, length_s, {}}, .changes = {}});
    band->facts.first_start = std::min(band->facts.first_start, first_start);
    band->facts.max_length = std::max(band->facts.max_length, length_s);
    sources_.back().band = band.get();
  }
  return sources_.size() - 1;
}

void CurveSweep::add(std::size_t number, double start, std::uint64_t count) {
  Source& source = sources_[number];
  if (source.band == nullptr || !source.accepts(start)) return;
  if (!source.sweep) open(source);
  source.sweep->add(start + source.length, count);
}

void CurveSweep::open(Source& source) {
  Band& band = *source.band;
  if (band.changes.empty()) {
    band.window = windowOf(band.facts, smoothing_);
    band.changes.resize(points_.size() + 1);
  }
  source.sweep.emplace(points_, band.window, band.changes);
}

void CurveSweep::finish() {
  for (Source& source : sources_) {
    if (source.sweep) source.sweep->finish();
  }
}

std::vector<RatePoint> CurveSweep::curve(std::string_view band_id) const {
  std::vector<RatePoint> points = points_;
  const auto found = bands_.find(band_id);
  if (found == bands_.end() || found->second->changes.empty()) return points;
  const Band& band = *found->second;
  drawChanges(band.facts, band.window, band.changes, points);
  return points;
}

std::string channelKey(std::string_view mode_name, double frequency_hz) {
  // to_string writes six decimals.
  return std::string(mode_name) + "/" + std::to_string(frequency_hz / 1'000'000);
}

}  // namespace launcher
