// The refresh in its plainest form, for tests: the whole log read anew each time; and a script that
// holds the refresh to it while a log grows, rotates, shrinks and grows again, and while a history
// comes, goes and grows.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "api/band_plan.hpp"
#include "byte_script.hpp"
#include "history_file.hpp"
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

// The intervals held that start at `from` or later.
inline std::vector<std::string> intervalsHeld(const SpotData& data, double from) {
  std::vector<std::string> intervals;
  for (const Interval interval : data.intervals) {
    if (interval.start < from) continue;
    intervals.push_back(std::to_string(interval.start) + " " + interval.band + " " +
                        std::to_string(interval.count));
  }
  return intervals;
}

// What the rates are made of, by band and source, as far as it starts at `from` or later.
inline std::vector<std::string> ratesHeld(const SpotData& data, double from) {
  std::vector<std::string> records;
  for (const auto& [band, entry] : data.rates) {
    for (const auto& [source, intervals] : entry.by_source) {
      for (const launcher::IntervalRecord& record : intervals.held()) {
        if (record.start < from) continue;
        records.push_back(band + " " + source + " " + std::to_string(record.start) + " " +
                          std::to_string(record.end) + " " + std::to_string(record.count));
      }
    }
  }
  return records;
}

// `all` without one of each of `some`, the earlier ones first.
inline std::vector<std::string> without(const std::vector<std::string>& some,
                                        std::vector<std::string> all) {
  std::multiset<std::string> left(some.begin(), some.end());
  std::erase_if(all, [&left](const std::string& one) {
    const auto found = left.find(one);
    if (found == left.end()) return false;
    left.erase(found);
    return true;
  });
  return all;
}

// A receivers' history that is not there at first.
class ScriptedHistory {
 public:
  explicit ScriptedHistory(const TempDir& dir)
      : path_(dir.path("history.sqlite3")), aside_(dir.path("aside.sqlite3")) {}

  const std::string& path() const { return path_; }
  bool inPlace() const { return in_place_; }

  // Makes it; later puts it aside and back in turn.
  void comeOrGo() {
    if (!file_) {
      file_.emplace(path_);
    } else if (in_place_) {
      std::filesystem::rename(path_, aside_);
    } else {
      std::filesystem::rename(aside_, path_);
    }
    in_place_ = !in_place_;
  }

  // A minute of one receiver, up to three minutes before `newest`; none if it has told of it.
  void addMinute(ByteScript& script, double newest) {
    const bool wspr = script.below(4) == 0;
    const bool odd = script.below(4) == 0;
    const double time = newest - static_cast<double>(script.below(180));
    const MinuteRow row{.frequency = odd ? 13'000'000 + ++serial_ : 14'074'000,
                        .mode = wspr ? "WSPR" : "FT8",
                        .minute = static_cast<std::int64_t>(std::floor(time / 60)),
                        .mask = wspr ? 1 : static_cast<std::int64_t>(script.below(16)),
                        .counts = countsBlob({script.byte(), 1, script.byte(), 0})};
    if (told_.emplace(row.mode + std::to_string(row.frequency), row.minute).second) file_->add(row);
  }

 private:
  const std::string path_;
  const std::string aside_;
  std::optional<HistoryFile> file_;
  bool in_place_ = false;
  std::set<std::pair<std::string, std::int64_t>> told_;
  int serial_ = 0;
};

// A station's files and a store that follows them through whatever `bytes` say. Every line is
// another, as a station's are.
class RefreshScript {
 public:
  explicit RefreshScript(std::span<const std::uint8_t> bytes) : script_(bytes) {
    data_.all_txt_path = log_;
    data_.history_path = history_.path();
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
      case 13:
        history_.comeOrGo();
        return history_.inPlace() ? "history came" : "history went";
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

  // Receivers are late by less than the five minutes that are read again.
  void growHistory() {
    if (!history_.inPlace()) return;
    for (std::size_t n = script_.below(3); n > 0; --n) {
      history_.addMinute(script_, std::max(now_, data_.history_read_to));
    }
  }

  std::string refresh() {
    growHistory();
    const auto held = spotsHeld(data_, now_ - launcher::kRetention, now_);
    const auto generation = data_.generation;
    refreshSpots(data_, now_, 0);
    if (data_.last_refresh != now_) return "";  // a small step back waits
    const double cutoff = now_ - launcher::kRetention;
    const auto found = spotsHeld(data_, cutoff, now_);
    if (data_.history_in_use != history_.inPlace()) return "history in use or not";
    if (found != held && data_.generation == generation) return "another day, same generation";
    if (data_.generation > generation + (data_.history_in_use ? 2 : 1)) return "generation";
    if (spotsHeld(data_, -kEver, now_) != found) return "spots from before the retention";
    if (intervalsHeld(data_, -kEver) != intervalsHeld(data_, cutoff)) return "intervals too old";
    SpotData fresh;
    fresh.all_txt_path = log_;
    fresh.history_path = history_.path();
    refreshSpots(fresh, now_, 0);
    return data_.history_in_use ? compareHistory(fresh) : compareLog(fresh, found);
  }

  std::string compareHistory(const SpotData& fresh) {
    const double cutoff = now_ - launcher::kRetention;
    if (!data_.spots.empty()) return "spots beside the history";
    if (intervalsHeld(data_, cutoff) != intervalsHeld(fresh, cutoff)) return "intervals";
    if (ratesHeld(data_, cutoff) != ratesHeld(fresh, cutoff)) return "rates";
    if (!std::filesystem::exists(log_)) return "";
    told_by_history_ = plainSpots(log_, -kEver, kEver);
    return compareCallsigns(fresh);
  }

  // What was read while the history was in use is not read again, unless the log is begun anew.
  std::string compareLog(const SpotData& fresh, const std::vector<std::string>& found) const {
    if (!std::filesystem::exists(log_)) return "";
    const double cutoff = now_ - launcher::kRetention;
    const auto whole = plainSpots(log_, cutoff, now_);
    if (spotsHeld(fresh, cutoff, now_) != whole) return "fresh start differs";
    if (found != whole && found != without(told_by_history_, whole)) {
      return "spots differ from those of the whole log";
    }
    return compareCallsigns(fresh);
  }

  std::string compareCallsigns(const SpotData& fresh) const {
    const LastHeard held = lastHeard(data_);
    for (const auto& [callsign, time] : held) {
      if (time > now_ + launcher::kRetention) return "callsign of the future: " + callsign;
    }
    for (const auto& [callsign, time] : lastHeard(fresh)) {
      if (time > now_) continue;  // its line was perhaps too far ahead when it was read
      const auto heard = held.find(callsign);
      if (heard == held.end()) return "callsign missing: " + callsign;
      if (heard->second < time) return "callsign heard later: " + callsign;
    }
    return "";
  }

  static constexpr double kEver = 1e300;

  ByteScript script_;
  TempDir dir_;
  const std::string log_ = dir_.path("ALL.TXT");
  ScriptedHistory history_{dir_};
  std::vector<std::string> told_by_history_;  // of the log's spots
  SpotData data_;
  double now_ = 1'741'947'330;
  int serial_ = 0;
};

}  // namespace spotserver
