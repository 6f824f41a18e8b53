// The spot queue in its plainest form, for tests: one vector in the order of arrival, searched
// whole; and a script that drives both.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "byte_script.hpp"
#include "spots/spot_queue.hpp"

namespace spotserver {

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

 private:
  static double minute(double time) { return std::clamp(std::floor(time / 60), -0x1p63, 0x1p63); }

  std::vector<ParsedSpot> spots_;
};

inline std::vector<std::string> callsignsBetween(const SpotQueue& queue, double from, double to) {
  std::vector<std::string> callsigns;
  queue.forEach(from, to, [&](const ParsedSpot& spot) { callsigns.push_back(spot.callsign); });
  return callsigns;
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
    ParsedSpot spot{.time = time, .band = "20m", .callsign = std::to_string(++serial_)};
    plain_.append(spot);
    queue_.append(std::move(spot));
    return "append at " + std::to_string(time);
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
