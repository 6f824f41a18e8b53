// The activity of a decode log computed the plain way, for tests, and a snapshot as text, so that
// two of them are compared in one go. And a script that makes logs to compare on.
#pragma once

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <iterator>
#include <limits>
#include <set>
#include <span>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "api/activity.hpp"
#include "api/band_plan.hpp"
#include "api/rate_index_reference.hpp"
#include "api/rate_series.hpp"
#include "byte_script.hpp"
#include "spots/heard_callsigns_reference.hpp"
#include "spots/mode.hpp"

namespace spotserver {

// What a snapshot says of one band, for comparison in one go.
inline std::string text(const BandView& band) {
  std::string all = band.id + " " + band.color + " now " +
                    std::to_string(band.rate_now.value_or(-1)) + " spots " +
                    std::to_string(band.spots) + " intervals " + std::to_string(band.intervals) +
                    " callsigns " + std::to_string(band.unique_callsigns);
  for (const launcher::RatePoint& point : band.points) {
    char line[80];
    std::snprintf(line, sizeof line, "\n%.17g %.17g", point.t, point.rate.value_or(-1));
    all += line;
  }
  return all;
}

inline std::string text(const ActivitySnapshot& snapshot) {
  std::string all = snapshot.mode + " " + std::to_string(snapshot.hours) + " " +
                    std::to_string(snapshot.smoothing) + " " +
                    std::to_string(snapshot.window_spots) + " " +
                    std::to_string(snapshot.window_intervals) + " " +
                    std::to_string(snapshot.window_unique_callsigns);
  for (const BandView& band : snapshot.bands) all += "\n" + text(band);
  return all;
}

// The same answer once more, by counting: every rule as a loop over all spots.
//   PlainActivity(spots, data, 6, 3, now).text()  // == text(buildActivity(data, 6, 3, now))
// `data` holds the spots given and their callsigns.
class PlainActivity {
 public:
  PlainActivity(std::vector<ParsedSpot> spots, const SpotData& data, int hours, int smoothing,
                double now)
      : spots_(std::move(spots)), data_(data), hours_(hours), smoothing_(smoothing), now_(now) {}

  std::string text() {
    keepReach();
    feedRates();
    ActivitySnapshot snapshot{.mode = "live", .hours = hours_, .smoothing = smoothing_};
    snapshot.window_unique_callsigns = callsigns(lastHeard(data_));
    for (std::size_t i = 0; i < spots_.size(); ++i) {
      if (spots_[i].time < windowStart()) continue;
      BandView& band = viewOf(snapshot, spots_[i].frequency);
      ++snapshot.window_spots;
      ++band.spots;
      if (!isFirstOfItsInterval(i)) continue;
      ++snapshot.window_intervals;
      ++band.intervals;
    }
    putInOrder(snapshot.bands);
    return spotserver::text(snapshot);
  }

 private:
  double windowStart() const { return now_ - hours_ * 3600; }

  void keepReach() {
    const double from = windowStart() - smoothing_ * 60 - 120;
    std::erase_if(spots_, [&](const ParsedSpot& s) { return s.time < from || s.time > now_; });
    std::stable_sort(spots_.begin(), spots_.end(), [](const ParsedSpot& a, const ParsedSpot& b) {
      return std::tie(a.time, a.frequency, a.mode) < std::tie(b.time, b.frequency, b.mode);
    });
    // An interval on 0 Hz is named for the sign its first spot came with.
    for (std::size_t i = 1; i < spots_.size(); ++i) {
      if (!isFirstOfItsInterval(i)) spots_[i].frequency = spots_[i - 1].frequency;
    }
  }

  static bool sameInterval(const ParsedSpot& a, const ParsedSpot& b) {
    return a.time == b.time && a.frequency == b.frequency && a.mode == b.mode;
  }

  bool isFirstOfItsInterval(std::size_t i) const {
    return i == 0 || !sameInterval(spots_[i - 1], spots_[i]);
  }

  void feedRates() {
    for (std::size_t i = 0; i < spots_.size(); ++i) {
      if (!isFirstOfItsInterval(i)) continue;
      const ParsedSpot& spot = spots_[i];
      std::uint64_t count = 0;
      for (const ParsedSpot& other : spots_) count += sameInterval(spot, other) ? 1 : 0;
      // Rounded to the hertz as a channel is named, so that some channels share a name.
      char frequency[40];
      std::snprintf(frequency, sizeof frequency, "%.6f", spot.frequency / 1e6);
      const std::string mode = spot.mode >= 0 && spot.mode < 7 ? std::to_string(spot.mode) : "?";
      const std::string source = mode + " " + frequency;
      rates_.add(source, count, now_, spot.time, slotSeconds(spot.mode), spot.frequency);
    }
  }

  BandView& viewOf(ActivitySnapshot& snapshot, double frequency) {
    const launcher::BandInfo info = launcher::bandForFrequency(frequency);
    for (BandView& band : snapshot.bands) {
      if (band.id == info.id) return band;
    }
    const LastHeardByBand by_band = lastHeardByBand(data_);
    const auto heard = by_band.find(info.id);
    snapshot.bands.push_back(
        {.id = info.id,
         .color = info.color,
         .rate_now = rates_.rateAt(info.id, smoothing_, now_),
         .unique_callsigns = heard == by_band.end() ? 0 : callsigns(heard->second),
         .points = rates_.series(info.id, smoothing_, hours_, now_)});
    return snapshot.bands.back();
  }

  std::uint64_t callsigns(const LastHeard& heard) const {
    std::uint64_t count = 0;
    for (const auto& [callsign, time] : heard) count += time >= windowStart() ? 1 : 0;
    return count;
  }

  static void putInOrder(std::vector<BandView>& bands) {
    std::vector<BandView> ordered;
    for (const launcher::BandInfo& info : launcher::bandTable()) {
      for (const BandView& band : bands) {
        if (band.id == info.id) ordered.push_back(band);
      }
    }
    std::set<std::string> others;
    for (const BandView& band : bands) {
      if (launcher::bandOrder(band.id) == 1000) others.insert(band.id);
    }
    for (const std::string& id : others) {
      for (const BandView& band : bands) {
        if (band.id == id) ordered.push_back(band);
      }
    }
    bands = std::move(ordered);
  }

  std::vector<ParsedSpot> spots_;
  const SpotData& data_;
  int hours_;
  int smoothing_;
  double now_;
  launcher::ReferenceRates rates_;
};

// A log as `bytes` tell it: a few channels, some of them closer to each other than a name tells, in
// which slot follows slot. It is the log of a decoder for the most part, so that its intervals are
// in order; a script may also go back in time, stay within a second or add to an old interval.
//   const std::string difference = ActivityScript(bytes).run();  // empty: the answers agree
class ActivityScript {
 public:
  explicit ActivityScript(std::span<const std::uint8_t> bytes) : script_(bytes) {}

  std::string run() {
    static constexpr int kHours[] = {1, 1, 1, 1, 1, 1, 6, 24};
    const int hours = kHours[script_.below(std::size(kHours))];
    const int smoothing = 1 + static_cast<int>(script_.below(40));
    const double now = kMinute + static_cast<double>(script_.below(480)) * 0.125;
    const double reach = hours * 3600.0 + 2'700;
    const bool in_order = script_.below(4) != 0;
    chooseChannels();
    time_ = now - static_cast<double>(script_.below(256)) * reach / 256;
    // The plain way looks at every interval for every point.
    const std::size_t most = hours == 1 ? 200 : 40;
    for (std::size_t step = 0; step < most && !script_.done(); ++step) hearSlot(in_order);
    const std::string fast = text(buildActivity(data_, hours, smoothing, now));
    const std::string plain = PlainActivity(spots_, data_, hours, smoothing, now).text();
    return fast == plain ? "" : fast + "\ninstead of\n" + plain;
  }

 private:
  static constexpr double kMinute = 1'763'175'600;

  struct Dial {
    double frequency = 0;
    int mode = 0;
  };

  void chooseChannels() {
    // The last ones share their name with the first of theirs, or lie across a band's end.
    static constexpr double kInfinity = std::numeric_limits<double>::infinity();
    static constexpr double kFrequencies[] = {
        14'074'000, 7'074'000,     14'080'000,   13'500'000,   2'200'000,     1'840'000,
        50'313'000, 4e8,           14'074'000.5, 7'073'999.75, 14'349'999.75, 14'350'000,
        1e300,      14'350'000.25, 0.0,          -0.0,         kInfinity,     -kInfinity};
    dials_.resize(1 + script_.below(8));
    for (Dial& dial : dials_) {
      dial = {kFrequencies[script_.below(std::size(kFrequencies))],
              static_cast<int>(script_.below(9)) - 1};
    }
  }

  // Some time later something is decoded on one channel.
  void hearSlot(bool in_order) {
    static constexpr double kSteps[] = {0,  0,  7.5, 15, 15,  15,  15,    30,
                                        60, 90, 120, 1,  600, 0.5, 0.125, 3};
    static constexpr double kBack[] = {0.5, 1, 15, 60, 600, 3'600, 90'000, 7.5};
    const std::size_t way = script_.below(64);
    const bool back = !in_order && way % 4 == 0;
    time_ += back ? -kBack[script_.below(std::size(kBack))] : kSteps[way % std::size(kSteps)];
    const Dial& dial = dials_[script_.below(dials_.size())];
    const std::size_t decodes = 1 + script_.below(4);
    for (std::size_t i = 0; i < decodes; ++i) hear(dial, "N" + std::to_string(script_.below(30)));
  }

  void hear(const Dial& dial, const std::string& callsign) {
    const std::string band = launcher::bandForFrequency(dial.frequency).id;
    spots_.push_back({time_, dial.frequency, dial.mode, band, callsign});
    data_.spots.append(spots_.back());
    recordCallsign(data_, callsign, band, time_);
  }

  ByteScript script_;
  std::vector<Dial> dials_;
  double time_ = 0;
  std::vector<ParsedSpot> spots_;
  SpotData data_;
};

}  // namespace spotserver
