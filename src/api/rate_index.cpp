#include "api/rate_index.hpp"

#include <algorithm>
#include <cmath>
#include <iterator>
#include <limits>
#include <utility>

#include "api/band_plan.hpp"

namespace launcher {
namespace {

constexpr double kUnfinishedTolerance = 1.0;  // seconds an interval may end after now

// `whole`, a double without fraction, as an integer. A conversion out of range is undefined in C++,
// so what lies beyond becomes the nearest end; times of any century on a calendar do not.
std::int64_t saturated(double whole) {
  if (!(whole < 0x1p63)) return std::numeric_limits<std::int64_t>::max();
  if (whole < -0x1p63) return std::numeric_limits<std::int64_t>::min();
  return static_cast<std::int64_t>(whole);
}

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

void addReport(BandRateIndex& index, const SourceReport& report, double now) {
  const IntervalBounds accepts(report.frequency_hz, report.length_s, now);
  auto slot = std::find_if(report.slots.begin(), report.slots.end(), accepts);
  if (slot == report.slots.end()) return;
  const BandInfo band = bandForFrequency(report.frequency_hz);
  BandRateEntry& entry =
      index.try_emplace(band.id, BandRateEntry{slot->start, report.length_s, {}}).first->second;
  entry.max_length = std::max(entry.max_length, report.length_s);
  SourceIntervals& source = entry.by_source[report.source_key];
  if (source.held().empty()) source.reserve(report.slots.size());
  for (; slot != report.slots.end(); ++slot) {
    if (!accepts(*slot)) continue;
    entry.first_start = std::min(entry.first_start, slot->start);
    source.add({slot->start, slot->start + report.length_s, slot->count});
  }
}

}  // namespace

IntervalBounds::IntervalBounds(double frequency_hz, double length_s, double now)
    : any_(std::isfinite(now) && length_s > 0 && std::isfinite(length_s) &&
           std::isfinite(frequency_hz)),
      length_(length_s),
      earliest_(now - kRetention),
      latest_end_(now + kUnfinishedTolerance) {}

std::span<const IntervalRecord> SourceIntervals::heldFrom(double start) const {
  const auto all = held();
  return {std::lower_bound(all.begin(), all.end(), start, startsBefore), all.end()};
}

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
                       IntervalBounds(report.frequency_hz, report.length_s, now));
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

std::string channelKey(std::string_view mode_name, double frequency_hz) {
  // to_string writes six decimals.
  return std::string(mode_name) + "/" + std::to_string(frequency_hz / 1'000'000);
}

}  // namespace launcher
