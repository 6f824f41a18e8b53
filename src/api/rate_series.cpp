// Smoothing is a trailing box window. It is never shorter than the band's longest interval, so that
// a WSPR band is averaged over the two minutes it takes to hear anything at all, and it begins no
// earlier than the band's data, so that a band heard for two minutes is not diluted over five.
//
// An interval that ends inside a window starts no earlier than the band's longest interval before
// it: so much margin bounds every search by start. A curve does not search at all. Each interval is
// added at the first sample that sees it and taken off at the first whose window has left it
// behind; the sums then run along the samples. Counts are integers, so no order of adding shows.
#include "api/rate_series.hpp"

#include <algorithm>
#include <cmath>
#include <limits>
#include <span>
#include <stdexcept>

namespace launcher {
namespace {

constexpr double kShortestStaleness = 75;  // seconds
constexpr double kSlack = 15;              // seconds beyond the band's longest interval
constexpr double kForever = std::numeric_limits<double>::infinity();
constexpr double kNever = -kForever;

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
    for (const IntervalRecord& record : source.heldFrom(after - marginOf(band))) {
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
    for (const IntervalRecord& record : source.heldFrom(from)) sweep.add(record.end, record.count);
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
  IntervalBounds accepts;
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
  const IntervalBounds accepts(0, length_s, now_);
  sources_.push_back({nullptr, accepts, length_s});
  if (accepts(first_start)) {
    auto& band = bands_[std::string(band_id)];
    if (band == nullptr) band = std::make_unique<Band>(Band{{first_start, length_s, {}}, 0, {}});
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

}  // namespace launcher
