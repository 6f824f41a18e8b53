// The rate rules once more, the slow way, for the tests: one flat list of everything ever reported,
// walked from end to end for every question.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include "api/band_plan.hpp"
#include "api/rate_index.hpp"
#include "api/rate_series.hpp"

namespace launcher {

// The intervals that an index holds, as the rules name them: by band and minute of their start,
// under record keys: source key, "@", whole second within the minute.
using IntervalBucket = std::map<std::string, IntervalRecord, std::less<>>;

inline std::map<std::int64_t, IntervalBucket> byMinute(const BandRateEntry& band) {
  std::map<std::int64_t, IntervalBucket> buckets;
  for (const auto& [key, source] : band.by_source) {
    for (const IntervalRecord& record : source.held()) {
      const std::int64_t minute = minuteOf(record.start);
      const auto second = static_cast<int>(record.start - 60 * static_cast<double>(minute));
      buckets[minute].emplace(key + "@" + std::to_string(second), record);
    }
  }
  return buckets;
}

inline std::size_t heldIntervals(const BandRateIndex& index) {
  std::size_t count = 0;
  for (const auto& [id, band] : index) {
    for (const auto& [key, source] : band.by_source) count += source.held().size();
  }
  return count;
}

class ReferenceRates {
 public:
  void add(std::string_view source, std::uint64_t count, double now, double start, double length,
           double frequency_hz) {
    for (const double value : {now, start, length, frequency_hz}) {
      if (!std::isfinite(value)) return;
    }
    if (length <= 0 || start + length > now + 1 || start < now - 89'100) return;
    prune(now);
    Report report{bandForFrequency(frequency_hz).id, std::string(source), count, start, length};
    report.counts = std::none_of(reports_.begin(), reports_.end(), [&](const Report& other) {
      return other.counts && sameInterval(other, report);
    });
    reports_.push_back(std::move(report));
  }

  void prune(double now) {
    if (!std::isfinite(now)) return;
    const double cutoff = std::floor((now - 89'100) / 60);
    for (Report& report : reports_) {
      if (minute(report.start) < cutoff) report.counts = false;
    }
    // What was added before the band went silent says nothing about its next interval.
    std::set<std::string> heard;
    for (const Report& report : reports_) {
      if (report.counts) heard.insert(report.band);
    }
    std::erase_if(reports_, [&](const Report& report) { return !heard.contains(report.band); });
  }

  std::optional<double> rateAt(std::string_view band, int smoothing, double t) const {
    if (smoothing < 1 || smoothing > 40) {
      throw std::invalid_argument("Smoothing must be 1..40 minutes");
    }
    const auto [first_start, longest] = firstAndLongest(band);
    const double window = std::max(longest, smoothing * 60.0);
    double sum = 0;
    double latest = -std::numeric_limits<double>::infinity();
    for (const Report& report : reports_) {
      const double end = report.start + report.length;
      if (!report.counts || report.band != band || end <= t - window || end > t) continue;
      sum += static_cast<double>(report.count);
      latest = std::max(latest, end);
    }
    if (!(latest >= t - std::max(longest + 15, 75.0))) return std::nullopt;
    const double effective = std::min(t - first_start, window);
    if (effective <= 0) return std::nullopt;
    return sum * 3600 / effective;
  }

  // `now` is a whole second.
  std::vector<RatePoint> series(std::string_view band, int smoothing, int hours, double now) const {
    if (hours != 1 && hours != 6 && hours != 24) {
      throw std::invalid_argument("History view must be 1, 6 or 24 hours");
    }
    std::vector<RatePoint> points;
    for (int minutes_ago = hours * 60; minutes_ago >= 0; --minutes_ago) {
      const double t = now - minutes_ago * 60;
      points.push_back({t, rateAt(band, smoothing, t)});
    }
    return points;
  }

  // Everything held, as text: per band its first start, its longest length and its intervals.
  std::string text() const {
    std::map<std::string, std::vector<IntervalRecord>> bands;
    for (const Report& report : reports_) {
      auto& intervals = bands[report.band];
      if (!report.counts) continue;
      intervals.push_back({report.start, report.start + report.length, report.count});
    }
    std::string all;
    for (auto& [band, intervals] : bands) {
      const auto [first_start, longest] = firstAndLongest(band);
      all += describe(band, first_start, longest, std::move(intervals));
    }
    return all;
  }

  static std::string text(const BandRateIndex& index) {
    std::string all;
    for (const auto& [band, entry] : index) {
      std::vector<IntervalRecord> intervals;
      for (const auto& [key, source] : entry.by_source) {
        const auto held = source.held();
        intervals.insert(intervals.end(), held.begin(), held.end());
      }
      all += describe(band, entry.first_start, entry.max_length, std::move(intervals));
    }
    return all;
  }

 private:
  struct Report {
    std::string band;
    std::string source;
    std::uint64_t count = 0;
    double start = 0;
    double length = 0;
    bool counts = true;  // false: a duplicate, or pruned
  };

  static double minute(double t) { return std::floor(t / 60); }

  static bool sameInterval(const Report& a, const Report& b) {
    return a.band == b.band && a.source == b.source && std::floor(a.start) == std::floor(b.start);
  }

  std::pair<double, double> firstAndLongest(std::string_view band) const {
    double first_start = std::numeric_limits<double>::infinity();
    double longest = 0;
    for (const Report& report : reports_) {
      if (report.band != band) continue;
      first_start = std::min(first_start, report.start);
      longest = std::max(longest, report.length);
    }
    return {first_start, longest};
  }

  static std::string describe(const std::string& band, double first_start, double longest,
                              std::vector<IntervalRecord> intervals) {
    std::sort(intervals.begin(), intervals.end(), [](const auto& a, const auto& b) {
      return std::tie(a.start, a.end, a.count) < std::tie(b.start, b.end, b.count);
    });
    std::string lines = band + " " + number(first_start) + " " + number(longest) + "\n";
    for (const IntervalRecord& record : intervals) {
      lines += "  " + number(record.start) + " " + number(record.end) + " " +
               std::to_string(record.count) + "\n";
    }
    return lines;
  }

  static std::string number(double value) {
    char text[64];
    std::snprintf(text, sizeof text, "%.17g", value);
    return text;
  }

  std::vector<Report> reports_;
};

}  // namespace launcher
