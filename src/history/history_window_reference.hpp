// Merging windows of the history the plain way, for tests: a list of intervals and the rates as one
// flat list of reports, slot by slot. And a script that merges the same windows into both.
#pragma once

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <span>
#include <string>
#include <vector>

#include "api/band_plan.hpp"
#include "api/rate_index_reference.hpp"
#include "byte_script.hpp"
#include "history/history_window.hpp"
#include "spots/interval_queue_reference.hpp"
#include "spots/mode.hpp"

namespace spotserver {

class PlainHistory {
 public:
  void merge(const std::vector<HistoryObservation>& observations, double from, double to) {
    std::vector<Interval> fresh;
    for (const HistoryObservation& seen : observations) {
      const auto mode = modeFromName(seen.mode);
      if (!mode) continue;
      fresh.push_back({seen.start, launcher::bandForFrequency(seen.frequency).id, seen.count});
      char megahertz[40];
      std::snprintf(megahertz, sizeof megahertz, "%.6f", seen.frequency / 1e6);
      rates_.add(seen.mode + " " + megahertz, seen.count, to, seen.start, slotSeconds(*mode),
                 seen.frequency);
    }
    intervals_.replaceFrom(from, fresh);
  }
  void prune(double now) {
    intervals_.pruneBefore(now - launcher::kRetention);
    rates_.prune(now);
  }
  const std::vector<Interval>& intervals() const { return intervals_.all(); }
  std::string rates() const { return rates_.text(); }

 private:
  PlainIntervals intervals_;
  launcher::ReferenceRates rates_;
};

// Receivers write minute after minute, the server reads what is new with some overlap, rows change
// and appear late, days pass; as `bytes` say.
class HistoryScript {
 public:
  explicit HistoryScript(std::span<const std::uint8_t> bytes) : script_(bytes) {}

  // What differed first; empty when nothing did.
  std::string run() {
    for (std::uint64_t step = 1; !script_.done() && step <= 40; ++step) {
      const double from = now_ - static_cast<double>(script_.below(64)) * 15;
      now_ += static_cast<double>(script_.below(64)) * (script_.below(16) == 0 ? 1800 : 7.5);
      const std::vector<HistoryObservation> window = drawWindow(from);
      mergeHistory(data_, slotsOf(window), from, now_);
      plain_.merge(window, from, now_);
      const std::string different = compare(step);
      if (!different.empty()) return "merge " + std::to_string(step) + ": " + different;
      if (script_.below(2) == 0) continue;
      pruneSpots(data_, now_);
      plain_.prune(now_);
      const std::string kept = compare(step);
      if (!kept.empty()) return "pruning " + std::to_string(step) + ": " + kept;
    }
    return "";
  }

 private:
  // Slots from `from` on, ascending, several of one time among them. Some channels share a name or
  // a band, two receivers share a channel, one mode is unknown.
  std::vector<HistoryObservation> drawWindow(double from) {
    static constexpr double kFrequencies[] = {14'074'000, 14'080'000,    7'074'000,   13'500'000,
                                              14'350'000, 14'350'000.25, 14'074'000.5};
    static constexpr const char* kModes[] = {"FT8", "FT8", "FT4", "JS8-SLOW", "WSPR", "FST4W"};
    static constexpr double kSteps[] = {0, 0, 7.5, 15, 15, 30, 60, 0.25};
    std::vector<HistoryObservation> window;
    double start = from;
    for (std::size_t n = script_.below(24); n > 0; --n) {
      window.push_back({.receiver = script_.below(2) == 0 ? "A" : "B",
                        .mode = kModes[script_.below(std::size(kModes))],
                        .frequency = kFrequencies[script_.below(std::size(kFrequencies))],
                        .start = start,
                        .count = script_.below(20)});
      start += kSteps[script_.below(std::size(kSteps))];
    }
    return window;
  }

  std::string compare(std::uint64_t merges) const {
    if (!data_.history_in_use || data_.history_read_to != now_) return "read up to";
    if (data_.generation != merges) return "generation";
    const std::string intervals = difference(data_.intervals, plain_.intervals());
    if (!intervals.empty()) return "intervals: " + intervals;
    const std::string held = launcher::ReferenceRates::text(data_.rates);
    return held == plain_.rates() ? "" : "rates\n" + held + "instead of\n" + plain_.rates();
  }

  ByteScript script_;
  double now_ = 1'763'175'600;
  SpotData data_;
  PlainHistory plain_;
};

}  // namespace spotserver
