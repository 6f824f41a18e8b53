// The queue of the history's intervals in its plainest form, for tests: one vector of whole
// records, searched from end to end. And a script that drives both.
#pragma once

#include <algorithm>
#include <cstdint>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "byte_script.hpp"
#include "spots/interval_queue.hpp"

namespace spotserver {

class PlainIntervals {
 public:
  void replaceFrom(double from, const std::vector<Interval>& fresh) {
    std::erase_if(all_, [from](const Interval& one) { return one.start >= from; });
    all_.insert(all_.end(), fresh.begin(), fresh.end());
  }
  void push_back(const Interval& interval) { all_.push_back(interval); }
  void pruneBefore(double cutoff) {
    std::erase_if(all_, [cutoff](const Interval& one) { return one.start < cutoff; });
  }
  void clear() { all_.clear(); }
  const std::vector<Interval>& all() const { return all_; }

 private:
  std::vector<Interval> all_;  // ascending by start
};

// What differs between the two; empty: nothing.
inline std::string difference(const IntervalQueue& queue, const std::vector<Interval>& plain) {
  if (queue.size() != plain.size() || queue.empty() != plain.empty()) return "size";
  const auto same = [](const Interval& a, const Interval& b) {
    return a.start == b.start && a.band == b.band && a.count == b.count;
  };
  std::size_t place = 0;
  for (auto one = queue.begin(); one != queue.end(); ++place) {
    if (!same(*one++, plain[place])) return "interval " + std::to_string(place);
  }
  place = 0;
  bool visited_right = true;
  queue.forEach([&](double start, std::uint32_t band, std::uint64_t count) {
    const bool right = place < plain.size() && band < queue.bandEnd() &&
                       same({start, queue.band(band), count}, plain[place]);
    visited_right = visited_right && right;
    ++place;
  });
  return visited_right && place == plain.size() ? "" : "visit";
}

// Drives both by `bytes`: windows that replace what they overlap, single intervals, old ones that
// go, copies. Starts ascend, as their owner has them.
class IntervalScript {
 public:
  explicit IntervalScript(std::span<const std::uint8_t> bytes) : script_(bytes) {}

  // What differed first; empty when nothing did.
  std::string run() {
    for (int step = 0; !script_.done(); ++step) {
      most_bands_ = std::max(most_bands_, heldBands() + kMostNamed);
      const std::string what = play();
      const std::string found = difference(queue_, plain_.all());
      if (!found.empty()) return what + " (step " + std::to_string(step) + "): " + found;
      if (queue_.bandEnd() > most_bands_) return what + ": bands that nobody holds";
    }
    return "";
  }

 private:
  static constexpr std::size_t kMostNamed = 4;  // bands along with one change

  std::string play() {
    switch (script_.below(16)) {
      case 0:
        queue_.clear();
        plain_.clear();
        return "clear";
      case 1: {
        IntervalQueue copy = queue_;  // the queue goes on as its copy
        queue_ = std::move(copy);
        return "copy";
      }
      case 2:
      case 3:
      case 4: {
        const double cutoff = last_ - static_cast<double>(script_.below(256)) * 0.5;
        queue_.pruneBefore(cutoff);
        plain_.pruneBefore(cutoff);
        return "prune";
      }
      case 5:
      case 6:
      case 7:
      case 8: {
        last_ += step();
        const Interval one{last_, someBand(), script_.byte()};
        queue_.push_back(one);
        plain_.push_back(one);
        return "push_back";
      }
      default:
        return replace();
    }
  }

  std::string replace() {
    const double from = last_ - static_cast<double>(script_.below(128)) * 0.5 + 4;
    std::vector<std::string> bands;  // some of them for nobody, some twice
    for (std::size_t n = 1 + script_.below(kMostNamed); n > 0; --n) {
      bands.push_back(someBand());
    }
    std::vector<IntervalQueue::Fresh> fresh;
    std::vector<Interval> plain;
    double start = from;
    for (std::size_t n = script_.below(12); n > 0; --n, start += step()) {
      const auto band = static_cast<std::uint32_t>(script_.below(bands.size()));
      fresh.push_back({start, script_.byte(), band});
      plain.push_back({start, bands[band], fresh.back().count});
    }
    queue_.replaceFrom(from, fresh, bands);
    plain_.replaceFrom(from, plain);
    if (!plain_.all().empty()) last_ = plain_.all().back().start;
    return "replaceFrom";
  }

  // One of the usual, or one that was never heard before.
  std::string someBand() {
    static constexpr const char* kBands[] = {"20m", "40m", "13.500000 MHz", ""};
    const std::size_t choice = script_.below(2 * std::size(kBands));
    return choice < std::size(kBands) ? kBands[choice] : std::to_string(++serial_) + " MHz";
  }

  double step() { return static_cast<double>(script_.below(16)) * 0.5; }

  std::size_t heldBands() const {
    std::set<std::string> bands;
    for (const Interval& one : plain_.all()) bands.insert(one.band);
    return bands.size();
  }

  ByteScript script_;
  IntervalQueue queue_;
  PlainIntervals plain_;
  double last_ = 1'763'175'600;  // no interval starts later
  std::size_t most_bands_ = 0;   // that can have been held at once
  int serial_ = 0;
};

}  // namespace spotserver
