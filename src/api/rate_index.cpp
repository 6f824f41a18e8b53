// Smoothing is a trailing box window. It is never shorter than the band's longest interval, so that
// a WSPR band is averaged over the two minutes it takes to hear anything at all, and it begins no
// earlier than the band's data, so that a band heard for two minutes is not diluted over five.
// Intervals lie in buckets by the minute of their start, which keeps a query to the few minutes
// that can hold an interval ending inside the window.
#include "api/rate_index.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <iterator>
#include <limits>
#include <stdexcept>

#include "api/band_plan.hpp"

namespace launcher {
namespace {

constexpr double kUnfinishedTolerance = 1.0;  // seconds an interval may end after now
constexpr double kShortestMargin = 15;        // seconds
constexpr double kShortestStaleness = 75;     // seconds
constexpr double kStalenessSlack = 15;        // seconds beyond the band's longest interval

// `whole`, a double without fraction, as an integer. A conversion out of range is undefined in C++,
// so what lies beyond becomes the nearest end; times of any century on a calendar do not.
std::int64_t saturated(double whole) {
  if (!(whole < 0x1p63)) return std::numeric_limits<std::int64_t>::max();
  if (whole < -0x1p63) return std::numeric_limits<std::int64_t>::min();
  return static_cast<std::int64_t>(whole);
}

bool isAcceptable(double now, double start, double length_s, double frequency_hz) {
  if (!std::isfinite(now) || !std::isfinite(start) || !std::isfinite(length_s)) return false;
  if (length_s <= 0) return false;
  if (start + length_s > now + kUnfinishedTolerance) return false;
  if (start < now - kRetention) return false;
  return std::isfinite(frequency_hz);
}

// The seconds tell apart the intervals that start within one minute.
std::string recordKey(std::string_view source_key, double start, std::int64_t minute) {
  const double second = std::trunc(start - 60 * static_cast<double>(minute));
  return std::string(source_key) + "@" + std::to_string(saturated(second));
}

struct WindowSum {
  std::uint64_t count = 0;
  std::optional<double> latest_end;
};

// Everything with after < end <= t, from the buckets that can hold such an interval.
WindowSum sumWindow(const BandRateEntry& band, double after, double t) {
  const double margin = std::max(band.max_length, kShortestMargin);
  const std::int64_t last_minute = minuteOf(t);
  WindowSum sum;
  auto bucket = band.by_minute.lower_bound(minuteOf(after - margin));
  for (; bucket != band.by_minute.end() && bucket->first <= last_minute; ++bucket) {
    for (const auto& [key, record] : bucket->second) {
      if (record.end <= after || record.end > t) continue;
      sum.count += record.count;
      sum.latest_end = std::max(record.end, sum.latest_end.value_or(record.end));
    }
  }
  return sum;
}

}  // namespace

std::int64_t minuteOf(double t) { return saturated(std::floor(t / 60)); }

void addInterval(BandRateIndex& index, std::string_view source_key, std::uint64_t count, double now,
                 double start, double length_s, double frequency_hz) {
  if (!isAcceptable(now, start, length_s, frequency_hz)) return;
  pruneIndex(index, now);

  const BandInfo band = bandForFrequency(frequency_hz);
  BandRateEntry& entry =
      index.try_emplace(band.id, BandRateEntry{start, length_s, {}}).first->second;
  entry.first_start = std::min(entry.first_start, start);
  entry.max_length = std::max(entry.max_length, length_s);

  const std::int64_t minute = minuteOf(start);
  entry.by_minute[minute].try_emplace(recordKey(source_key, start, minute),
                                      IntervalRecord{start, start + length_s, count});
}

void pruneIndex(BandRateIndex& index, double now) {
  if (!std::isfinite(now)) return;
  const std::int64_t cutoff = minuteOf(now - kRetention);
  for (auto band = index.begin(); band != index.end();) {
    auto& by_minute = band->second.by_minute;
    by_minute.erase(by_minute.begin(), by_minute.lower_bound(cutoff));
    band = by_minute.empty() ? index.erase(band) : std::next(band);
  }
}

std::optional<double> rateAt(const BandRateIndex& index, std::string_view band_id,
                             int smoothing_minutes, double t) {
  if (smoothing_minutes < 1 || smoothing_minutes > 40) {
    throw std::invalid_argument("Smoothing must be 1..40 minutes");
  }
  const auto found = index.find(band_id);
  if (found == index.end() || !std::isfinite(t)) return std::nullopt;
  const BandRateEntry& band = found->second;

  const double window = std::max(band.max_length, 60.0 * smoothing_minutes);
  const WindowSum sum = sumWindow(band, t - window, t);
  const double staleness = std::max(band.max_length + kStalenessSlack, kShortestStaleness);
  if (!sum.latest_end || *sum.latest_end < t - staleness) return std::nullopt;

  const double effective = std::min(t - band.first_start, window);
  if (effective <= 0) return std::nullopt;
  return static_cast<double>(sum.count) * 3600 / effective;
}

std::vector<RatePoint> bandSeries(const BandRateIndex& index, std::string_view band_id,
                                  int smoothing_minutes, int hours, double now) {
  if (hours != 1 && hours != 6 && hours != 24) {
    throw std::invalid_argument("History view must be 1, 6 or 24 hours");
  }
  const auto steps = static_cast<std::size_t>(hours) * 60;
  std::vector<RatePoint> points;
  points.reserve(steps + 1);
  // Counting the steps as well ends the walk where a double is too coarse to advance by 60.
  for (double t = now - hours * 3600; t < now && points.size() < steps; t += 60) {
    points.push_back({t, rateAt(index, band_id, smoothing_minutes, t)});
  }
  points.push_back({now, rateAt(index, band_id, smoothing_minutes, now)});
  return points;
}

std::string channelKey(std::string_view mode_name, double frequency_hz) {
  const double megahertz = frequency_hz / 1'000'000;
  const auto length = static_cast<std::size_t>(std::snprintf(nullptr, 0, "%.6f", megahertz));
  std::string key(mode_name);
  key += '/';
  const std::size_t prefix = key.size();
  key.resize(prefix + length);
  std::snprintf(key.data() + prefix, length + 1, "%.6f", megahertz);
  return key;
}

}  // namespace launcher
