// The spot queue in its plainest form, for tests: one vector in the order of arrival, searched
// whole; and a script that drives both.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <map>
#include <set>
#include <span>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "byte_script.hpp"
#include "spots/spot_queue.hpp"

namespace spotserver {

// Time, dial frequency and mode of an interval, to the band of its first spot and their number.
// Numbers that compare equal are one key, which keeps the first.
using Intervals = std::map<std::tuple<double, double, int>, std::pair<std::string, std::uint64_t>>;

class PlainSpotQueue {
 public:
  void append(const ParsedSpot& spot) {
    if (!std::isnan(spot.time)) spots_.push_back(spot);
  }
  void clear() { spots_.clear(); }
  void pruneBefore(double cutoff) {
    std::erase_if(spots_, [&](const ParsedSpot& spot) { return spot.time < cutoff; });
  }
  std::size_t size() const { return spots_.size(); }
  // What forEach visits, in its order, as the callsigns.
  std::vector<std::string> between(double from, double to) const {
    std::vector<const ParsedSpot*> inside;
    for (const auto& spot : spots_) {
      if (spot.time >= from && spot.time <= to) inside.push_back(&spot);
    }
    std::stable_sort(inside.begin(), inside.end(), [](const ParsedSpot* a, const ParsedSpot* b) {
      return minute(a->time) < minute(b->time);
    });
    std::vector<std::string> callsigns;
    callsigns.reserve(inside.size());
    for (const auto* spot : inside) callsigns.push_back(spot->callsign);
    return callsigns;
  }
  Intervals intervalsBetween(double from, double to) const {
    Intervals intervals;
    for (const auto& spot : spots_) {
      if (!(spot.time >= from && spot.time <= to)) continue;
      const auto found = intervals.try_emplace({spot.time, spot.frequency, spot.mode},
                                               std::pair(spot.band, std::uint64_t{0}));
      ++found.first->second.second;
    }
    return intervals;
  }
  // How many different ones `of(spot)` gives.
  template <typename Of>
  std::size_t distinct(Of&& of) const {
    std::set<decltype(of(ParsedSpot{}))> found;
    for (const auto& spot : spots_) found.insert(of(spot));
    return found.size();
  }

 private:
  static double minute(double time) { return std::clamp(std::floor(time / 60), -0x1p63, 0x1p63); }

  std::vector<ParsedSpot> spots_;
};

inline std::vector<std::string> callsignsBetween(const SpotQueue& queue, double from, double to) {
  std::vector<std::string> callsigns;
  queue.forEach(from, to, [&](const ParsedSpot& spot) { callsigns.push_back(spot.callsign); });
  return callsigns;
}

// What forEachInterval visits. An interval told twice, without spots or behind a later minute
// counts as a million.
inline Intervals intervalsBetween(const SpotQueue& queue, double from, double to) {
  Intervals intervals;
  double last_minute = -std::numeric_limits<double>::infinity();
  queue.forEachInterval(from, to, [&](double time, std::uint32_t id, std::uint64_t count) {
    const Channel& channel = queue.channel(id);
    const auto found = intervals.try_emplace({time, channel.frequency, channel.mode},
                                             std::pair(channel.band, count));
    const double minute = std::clamp(std::floor(time / 60), -0x1p63, 0x1p63);
    if (!found.second || count == 0 || minute < last_minute) found.first->second.second = 1'000'000;
    last_minute = minute;
  });
  return intervals;
}

// Drives both queues by `bytes`. Returns what differed first; empty when nothing did.
class SpotQueueScript {
 public:
  explicit SpotQueueScript(std::span<const std::uint8_t> bytes) : script_(bytes) {}

  std::string run() {
    for (int step = 0; !script_.done(); ++step) {
      const std::string what = play();
      if (queue_.size() != plain_.size()) return at(step, "size after " + what);
      if (queue_.empty() != (plain_.size() == 0)) return at(step, "empty after " + what);
      const double from = drawTime();
      const double to = drawTime();
      if (callsignsBetween(queue_, from, to) != plain_.between(from, to)) {
        return at(step, what + ", then from " + std::to_string(from) + " to " + std::to_string(to));
      }
      if (intervalsBetween(queue_, from, to) != plain_.intervalsBetween(from, to)) {
        return at(step, "intervals after " + what);
      }
      const auto callsigns = plain_.distinct([](const ParsedSpot& spot) { return spot.callsign; });
      if (queue_.senders() != callsigns) return at(step, "senders after " + what);
    }
    constexpr double kEver = std::numeric_limits<double>::infinity();
    return callsignsBetween(queue_, -kEver, kEver) == plain_.between(-kEver, kEver) ? "" : "end";
  }

 private:
  std::string play() {
    const std::size_t act = script_.below(32);
    const double time = drawTime();
    if (act == 0) {
      queue_.clear();
      plain_.clear();
      return "clear";
    }
    if (act < 6) {
      queue_.pruneBefore(time);
      plain_.pruneBefore(time);
      return "prune before " + std::to_string(time);
    }
    if (act < 8) {
      SpotQueue copy = queue_;  // the queue goes on as its copy
      if (act == 6) copy = std::move(queue_);
      queue_ = std::move(copy);
      return "copy or move";
    }
    const ParsedSpot spot = drawSpot(time);
    plain_.append(spot);
    queue_.append(spot);
    return "append at " + std::to_string(time);
  }

  // Most senders come once, some often; channels are few, and zero is among them with both signs.
  ParsedSpot drawSpot(double time) {
    static constexpr std::pair<double, const char*> kDials[] = {
        {14'074'000, "20m"}, {7'074'000, "40m"}, {0.0, "0"}, {-0.0, "-0"}};
    const auto& [frequency, band] = kDials[script_.below(std::size(kDials))];
    const int mode = static_cast<int>(script_.below(2));
    const bool known = script_.below(2) == 0;
    const std::string callsign =
        known ? "N" + std::to_string(script_.below(8)) : std::to_string(++serial_);
    return {time, frequency, mode, band, callsign};
  }

  // Mostly some minutes in quarter seconds, sometimes what no clock shows.
  double drawTime() {
    static constexpr double kOdd[] = {std::numeric_limits<double>::quiet_NaN(),
                                      std::numeric_limits<double>::infinity(),
                                      -std::numeric_limits<double>::infinity(),
                                      1e300,
                                      -1e300,
                                      0x1p63 * 60,
                                      -0x1p63 * 60,
                                      0x1p62 * 60,
                                      -0.0,
                                      -60,
                                      -1e-9};
    const std::size_t choice = script_.below(256);
    if (choice < std::size(kOdd)) return kOdd[choice];
    return 1'741'947'300 + 0.25 * static_cast<double>(script_.below(8 * 240));
  }

  static std::string at(int step, const std::string& what) {
    return "step " + std::to_string(step) + ": " + what;
  }

  ByteScript script_;
  SpotQueue queue_;
  PlainSpotQueue plain_;
  int serial_ = 0;
};

}  // namespace spotserver
