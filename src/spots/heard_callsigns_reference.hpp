// Last-heard times in their plainest form, for tests: maps by callsign; and a script that drives
// both forms.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <string_view>

#include "byte_script.hpp"
#include "spots/heard_callsigns.hpp"
#include "spots/spot_data.hpp"

namespace spotserver {

using LastHeard = std::map<std::string, double, std::less<>>;           // by callsign
using LastHeardByBand = std::map<std::string, LastHeard, std::less<>>;  // by band id

inline LastHeard lastHeard(const SpotData& data) {
  LastHeard heard;
  data.heard.forEach(
      [&](std::string_view callsign, double time) { heard.emplace(callsign, time); });
  return heard;
}

inline LastHeardByBand lastHeardByBand(const SpotData& data) {
  LastHeardByBand heard;
  data.heard.forEachOnBands([&](std::string_view band, std::string_view callsign, double time) {
    heard[std::string(band)].emplace(callsign, time);
  });
  return heard;
}

// What the maps of a day do, word for word.
class PlainHeard {
 public:
  void record(const std::string& callsign, const std::string& band, double time) {
    for (LastHeard* heard : {&all_, &by_band_[band]}) {
      const auto known = heard->emplace(callsign, time).first;
      known->second = std::max(known->second, time);
    }
  }
  void pruneBefore(double cutoff) {
    const auto is_old = [cutoff](const auto& entry) { return entry.second < cutoff; };
    std::erase_if(all_, is_old);
    for (auto& [band, heard] : by_band_) std::erase_if(heard, is_old);
    std::erase_if(by_band_, [](const auto& band) { return band.second.empty(); });
  }
  void forgetAfter(double time) {
    const auto is_ahead = [&](const auto& entry) { return entry.second > time; };
    for (auto& [band, heard] : by_band_) std::erase_if(heard, is_ahead);
    std::erase_if(by_band_, [](const auto& band) { return band.second.empty(); });
    all_.clear();
    for (const auto& [band, heard] : by_band_) {
      for (const auto& [callsign, last] : heard) {
        all_[callsign] = std::max(last, all_.try_emplace(callsign, last).first->second);
      }
    }
  }
  std::uint64_t countSince(double since) const { return count(all_, since); }
  std::uint64_t countSince(const std::string& band, double since) const {
    const auto found = by_band_.find(band);
    return found == by_band_.end() ? 0 : count(found->second, since);
  }
  const LastHeard& all() const { return all_; }
  const LastHeardByBand& byBand() const { return by_band_; }

 private:
  static std::uint64_t count(const LastHeard& heard, double since) {
    std::uint64_t found = 0;
    for (const auto& [callsign, time] : heard) found += time >= since ? 1 : 0;
    return found;
  }

  LastHeard all_;
  LastHeardByBand by_band_;
};

// A station hears callsigns, its clock goes forth and sometimes back, its country file is exchanged
// and the day is pruned, as `bytes` say; once in a minute at most, as the server does it. What is
// asked lies within the retention.
class HeardScript {
 public:
  explicit HeardScript(std::span<const std::uint8_t> bytes) : script_(bytes) {}

  // What differed first; empty when nothing did.
  std::string run() {
    for (int step = 0; !script_.done(); ++step) {
      const std::string what = play();
      const std::string difference = compare();
      if (!difference.empty()) return what + " (step " + std::to_string(step) + "): " + difference;
    }
    data_.callsigns_pruned.reset();
    prune();
    if (lastHeard(data_) != plain_.all()) return "callsigns at the end";
    return lastHeardByBand(data_) == plain_.byBand() ? "" : "bands at the end";
  }

 private:
  std::string play() {
    switch (script_.below(16)) {
      case 0:
        now_ += static_cast<double>(script_.below(256)) * 300;
        prune();
        return "clock forward";
      case 1:
        data_.callsigns_pruned.reset();  // so that nothing left behind comes into view again
        prune();
        now_ -= static_cast<double>(script_.below(256)) * 60;
        prune();
        return "clock back";
      case 2:
      case 3:
        now_ += static_cast<double>(script_.below(30));
        prune();
        return "a little later";
      case 4:
        file_ = script_.below(3);
        data_.countries = file_ == 0 ? cty::Database() : countries(file_);
        data_.heard.forgetVerdicts();
        return "another country file";
      case 5: {
        const double time = now_ - static_cast<double>(script_.below(256)) * 300;
        data_.heard.forgetAfter(time);
        plain_.forgetAfter(time);
        return "clock was ahead";
      }
      default:
        return hear();
    }
  }

  // Two files that know one half of the callsigns each.
  static cty::Database countries(std::size_t file) {
    return cty::Database(
        cty::parseCountries("Testland:  14:  27:  EU:  50.0:  -10.0:  -1.0:  N0:\n    " +
                            std::string(file == 1 ? "N0,DL;\n" : "DL,QQ;\n")));
  }

  std::string hear() {
    static constexpr std::string_view kPrefixes[] = {"N0", "DL", "QQ", "<N0"};
    static constexpr std::string_view kBands[] = {"20m", "40m", "13.500000 MHz"};
    std::string callsign(kPrefixes[script_.below(4)]);
    callsign += std::to_string(script_.below(64));
    if (script_.below(64) == 0) callsign += std::string(32, 'A');
    const std::string band(kBands[script_.below(3)]);
    const double time = now_ - static_cast<double>(script_.below(1000) * 100);
    const bool counted = isCounted(data_.countries, callsign);
    if (counted) plain_.record(callsign, band, time);
    const bool verdict = recordSender(data_, callsign, data_.heard.band(band), time);
    return callsign + (counted == verdict ? "" : " judged wrongly");
  }

  void prune() {
    pruneSpots(data_, now_);
    plain_.pruneBefore(now_ - launcher::kRetention);
  }

  std::string compare() {
    const double since = now_ - static_cast<double>(script_.below(1441)) * 60;
    if (heardSince(data_, since) != plain_.countSince(since)) return "all bands";
    for (const std::string band : {"20m", "40m", "13.500000 MHz", "2m"}) {
      if (heardOnBandSince(data_, band, since) != plain_.countSince(band, since)) return band;
    }
    return "";
  }

  ByteScript script_;
  SpotData data_;
  PlainHeard plain_;
  double now_ = 1'741'947'330;
  std::size_t file_ = 0;
};

}  // namespace spotserver
