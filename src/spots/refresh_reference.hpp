// The refresh in its plainest form, for tests: the whole log read anew each time; and a script that
// holds the refresh to it while a log grows, rotates, shrinks and grows again.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "api/band_plan.hpp"
#include "byte_script.hpp"
#include "log_lines.hpp"
#include "spots/all_txt.hpp"
#include "spots/heard_callsigns_reference.hpp"
#include "spots/log_reader_reference.hpp"
#include "spots/refresh.hpp"
#include "temp_dir.hpp"

namespace spotserver {

// One spot as a line of text.
inline std::string describe(const ParsedSpot& spot) {
  return timestamp(spot.time) + " " + std::to_string(spot.frequency) + " " +
         std::to_string(spot.mode) + " " + spot.band + " " + spot.callsign;
}

// The spots from `from` on that can be shown at `now`.
inline std::vector<std::string> spotsHeld(const SpotData& data, double from, double now) {
  std::vector<std::string> spots;
  data.spots.forEach(from, now, [&](const ParsedSpot& spot) { spots.push_back(describe(spot)); });
  return spots;
}

// What the whole log at `path` gives of them, without a country file.
inline std::vector<std::string> plainSpots(const std::string& path, double from, double now) {
  std::ifstream in(path, std::ios::binary);
  std::vector<ParsedSpot> found;
  for (auto& line : plainLines(in, kMaxLogLine)) {
    if (line.ends_with('\r')) line.pop_back();
    const auto record = parseAllTxtLine(line);
    if (!record || record->time < from || record->time > now) continue;
    found.push_back({record->time, record->frequency, record->mode,
                     launcher::bandForFrequency(record->frequency).id, record->callsign});
  }
  std::stable_sort(found.begin(), found.end(), [](const ParsedSpot& a, const ParsedSpot& b) {
    return std::floor(a.time / 60) < std::floor(b.time / 60);
  });
  std::vector<std::string> spots;
  spots.reserve(found.size());
  for (const auto& spot : found) spots.push_back(describe(spot));
  return spots;
}

// A station's log and a store that follows it through whatever `bytes` say. Every line is another,
// as a station's are.
class RefreshScript {
 public:
  explicit RefreshScript(std::span<const std::uint8_t> bytes) : script_(bytes) {
    data_.all_txt_path = log_;
  }

  // What differed first; empty when nothing did.
  std::string run() {
    for (int step = 0; !script_.done(); ++step) {
      const std::string what = play();
      if (script_.below(2) == 0) continue;
      const std::string difference = refresh();
      if (!difference.empty()) {
        return what + " (step " + std::to_string(step) + "): " + difference;
      }
    }
    return "";
  }

 private:
  std::string play() {
    switch (script_.below(48)) {
      case 0:
      case 11:
      case 12:
        now_ += static_cast<double>(script_.below(60'000));
        return "clock forward";
      case 1:
        now_ -= static_cast<double>(script_.below(3000));
        return "clock back";
      case 2:
        std::filesystem::remove(log_);
        return "removed";
      case 3:
        std::filesystem::remove(log_);
        dir_.append("ALL.TXT", lines());
        return "removed and created";
      case 4:
        if (std::filesystem::exists(log_)) std::filesystem::rename(log_, dir_.path("ALL.1"));
        dir_.append("ALL.TXT", lines());
        return "rotated";
      case 5:
        truncate(1 + script_.below(1000));
        return "truncated";
      case 6:
        truncate(1 + script_.below(1000));
        dir_.append("ALL.TXT", lines() + lines() + lines());
        return "truncated and grown";
      case 7:
        writeAnew(lines() + lines() + lines());
        return "written anew";
      case 8:
      case 9: {
        const std::string whole = lines();
        dir_.append("ALL.TXT", whole.substr(0, script_.below(whole.size()) + 1));
        return "half a line";
      }
      case 10:
        dir_.append("ALL.TXT", "\n");
        return "line end";
      default:
        dir_.append("ALL.TXT", lines());
        return "lines";
    }
  }

  // Puts `text` in the place of what the log holds. Overwritten and then cut: after a truncation to
  // nothing some file systems wait for the disk.
  void writeAnew(const std::string& text) {
    dir_.append("ALL.TXT", "");
    std::fstream(log_, std::ios::in | std::ios::out | std::ios::binary) << text;
    std::filesystem::resize_file(log_, text.size());
  }

  // Takes `size` bytes off the log's end.
  void truncate(std::uintmax_t size) {
    std::error_code missing;
    const auto held = std::filesystem::file_size(log_, missing);
    if (!missing) std::filesystem::resize_file(log_, held - std::min(held, size));
  }

  std::string lines() {
    std::string text;
    for (std::size_t n = 1 + script_.below(8); n > 0; --n) text += line();
    return text;
  }

  std::string line() {
    const std::string serial = std::to_string(++serial_);
    double time = now_ - static_cast<double>(script_.below(256));
    switch (script_.below(16)) {
      case 0:
        return "junk " + serial + "\n";
      case 1:
        time -= 89'100 - 128;
        break;
      case 2:
        time += 1000 * static_cast<double>(script_.below(256));
        break;
      case 3: {
        std::string ended = decodeLine(time, "CQ " + callsign(serial_) + " FN42");
        ended.insert(ended.size() - 1, "\r");
        return ended;
      }
      case 4:
        return decodeLine(time, serial + " 73");
      default:
        break;
    }
    return decodeLine(time, "CQ " + callsign(serial_) + " FN42",
                      script_.below(2) == 0 ? "14.074" : "7.0740");
  }

  // Another one for every number below 175,760.
  static std::string callsign(int n) {
    std::string text = "N";
    text += static_cast<char>('0' + n / 17'576 % 10);
    for (const int place : {676, 26, 1}) text += static_cast<char>('A' + n / place % 26);
    return text;
  }

  std::string refresh() {
    const auto held = spotsHeld(data_, now_ - launcher::kRetention, now_);
    const auto generation = data_.generation;
    refreshSpots(data_, now_, 0);
    if (data_.last_refresh != now_) return "";  // a small step back waits
    const double cutoff = now_ - launcher::kRetention;
    const auto found = spotsHeld(data_, cutoff, now_);
    if (found != held && data_.generation == generation) return "another day, same generation";
    if (data_.generation > generation + 1) return "more than one generation";
    if (spotsHeld(data_, -1e300, now_) != found) return "spots from before the retention";
    if (!std::filesystem::exists(log_)) return "";
    if (found != plainSpots(log_, cutoff, now_)) return "spots differ from those of the whole log";
    return compareWithFreshStart(found);
  }

  std::string compareWithFreshStart(const std::vector<std::string>& found) const {
    SpotData fresh;
    fresh.all_txt_path = log_;
    refreshSpots(fresh, now_, 0);
    if (spotsHeld(fresh, now_ - launcher::kRetention, now_) != found) return "fresh start differs";
    const LastHeard held = lastHeard(data_);
    for (const auto& [callsign, time] : lastHeard(fresh)) {
      if (time > now_) continue;  // its line was perhaps too far ahead when it was read
      const auto heard = held.find(callsign);
      if (heard == held.end()) return "callsign missing: " + callsign;
      if (heard->second < time) return "callsign heard later: " + callsign;
    }
    return "";
  }

  ByteScript script_;
  TempDir dir_;
  const std::string log_ = dir_.path("ALL.TXT");
  SpotData data_;
  double now_ = 1'741'947'330;
  int serial_ = 0;
};

}  // namespace spotserver
