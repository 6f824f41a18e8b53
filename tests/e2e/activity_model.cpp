#include "e2e/activity_model.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <tuple>

namespace spotserver::e2e {
namespace {

struct PlanRow {
  const char* id;
  const char* color;
  double low_mhz;
  double high_mhz;
};

constexpr PlanRow kPlan[] = {
    {"160m", "#7cfc00", 1.8, 2},        {"80m", "#e550e5", 3.5, 4},
    {"60m", "#00008b", 5, 5.5},         {"40m", "#5959ff", 7, 7.3},
    {"30m", "#62d962", 10.1, 10.15},    {"20m", "#f2c40c", 14, 14.35},
    {"17m", "#f2f261", 18.068, 18.168}, {"15m", "#cca166", 21, 21.45},
    {"12m", "#b22222", 24.89, 24.99},   {"10m", "#ff69b4", 28, 29.7},
    {"6m", "#ff0000", 50, 54},          {"2m", "#ff1493", 144, 148},
    {"70cm", "#999900", 420, 450},
};

struct Band {
  int order = 1000;
  std::string id;
  std::string color = "#63b6ee";
  bool operator<(const Band& other) const {
    return std::tie(order, id) < std::tie(other.order, other.id);
  }
};

Band bandOf(const std::string& mhz) {
  const double value = std::stod(mhz);
  int order = 0;
  for (const PlanRow& row : kPlan) {
    if (row.low_mhz <= value && value <= row.high_mhz) return {order, row.id, row.color};
    ++order;
  }
  char id[64];
  std::snprintf(id, sizeof id, "%.6f MHz", value);
  return {1000, id, "#63b6ee"};
}

using Rate = std::optional<double>;  // decodes per hour

// A trailing box window over the slots of one band that had ended by `t`.
Rate rateAt(const std::vector<Slot>& slots, int smoothing, double t) {
  if (slots.empty()) return std::nullopt;
  double first = slots[0].start;
  double longest = 0;
  for (const Slot& slot : slots) {
    first = std::min(first, slot.start);
    longest = std::max(longest, slot.length);
  }
  const double window = std::max(longest, 60.0 * smoothing);
  double decodes = 0;
  Rate latest_end;
  for (const Slot& slot : slots) {
    const double end = slot.start + slot.length;
    if (end <= t - window || end > t) continue;
    decodes += static_cast<double>(slot.count);
    latest_end = std::max(latest_end.value_or(end), end);
  }
  if (!latest_end || *latest_end < t - std::max(longest + 15, 75.0)) return std::nullopt;
  const double effective = std::min(t - first, window);
  if (effective <= 0) return std::nullopt;
  return decodes * 3600 / effective;
}

std::string rateText(Rate rate) {
  if (!rate) return "null";
  char text[400];
  std::snprintf(text, sizeof text, "%.3f", *rate);
  std::string trimmed = text;
  trimmed.erase(trimmed.find_last_not_of('0') + 1);
  if (trimmed.back() == '.') trimmed.pop_back();
  return trimmed;
}

std::string pointsText(const std::vector<Slot>& slots, View view, std::int64_t now) {
  std::string text;
  for (std::int64_t t = now - view.hours * 3600; t <= now; t += 60) {
    text += text.empty() ? "" : ",";
    text += "{\"t\":" + std::to_string(t) +
            ",\"rate\":" + rateText(rateAt(slots, view.smoothing, static_cast<double>(t))) + "}";
  }
  return text;
}

struct Totals {
  std::uint64_t spots = 0;
  std::uint64_t intervals = 0;
  void add(const Slot& slot) {
    spots += slot.count;
    intervals += 1;
  }
};

std::string member(const char* key, std::uint64_t value) {
  return ",\"" + std::string(key) + "\":" + std::to_string(value);
}

}  // namespace

double slotLength(const std::string& mode) {
  static const std::map<std::string, double> lengths = {
      {"FT4", 7.5}, {"JS8-FAST", 10}, {"JS8-TURBO", 6}, {"JS8-SLOW", 30}, {"WSPR", 120}};
  const auto found = lengths.find(mode);
  return found == lengths.end() ? 15 : found->second;
}

std::string logLine(const Heard& heard) {
  const std::time_t time = heard.time;
  std::tm utc{};
  gmtime_r(&time, &utc);
  char stamp[32];
  std::strftime(stamp, sizeof stamp, "%y%m%d_%H%M%S", &utc);
  std::string message = heard.callsign.empty() ? "NOBODY SAYS WHO" : "CQ " + heard.callsign;
  if (!heard.callsign.empty() && heard.mode == "WSPR") message = heard.callsign + " FN42 37";
  if (!heard.callsign.empty() && heard.mode.starts_with("JS8")) {
    message = heard.callsign + ": HB [frame=1 flags=0 sender=" + heard.callsign + " grid=FN42]";
  }
  return std::string(stamp) + "    " + heard.mhz + " Rx " + heard.mode + "    -12  0.2 1234 " +
         message + "\n";
}

std::string logText(const std::vector<Heard>& heard) {
  std::string text;
  for (const Heard& one : heard) text += logLine(one);
  return text;
}

std::vector<Slot> slotsOfLog(const std::vector<Heard>& decodes, View view, std::int64_t now) {
  const std::int64_t earliest = now - view.hours * 3600 - (view.smoothing * 60 + 120);
  std::map<std::tuple<std::int64_t, std::string, std::string>, std::uint64_t> groups;
  for (const Heard& decode : decodes) {
    if (decode.time < earliest || decode.time > now) continue;
    ++groups[{decode.time, decode.mhz, decode.mode}];
  }
  std::vector<Slot> slots;
  for (const auto& [key, count] : groups) {
    const auto& [time, mhz, mode] = key;
    slots.push_back({static_cast<double>(time), slotLength(mode), mhz, count});
  }
  return slots;
}

std::string expectedDocument(View view, std::int64_t now, const std::vector<Slot>& slots,
                             const std::vector<Heard>& heard) {
  const std::int64_t start = now - view.hours * 3600;
  Totals window;
  std::map<Band, Totals> bands;
  std::map<Band, std::vector<Slot>> indexed;
  for (const Slot& slot : slots) {
    const Band band = bandOf(slot.mhz);
    // Slots still under way are counted, but move no rate.
    if (slot.start + slot.length <= static_cast<double>(now) + 1) indexed[band].push_back(slot);
    if (slot.start < static_cast<double>(start) || slot.start > static_cast<double>(now)) continue;
    window.add(slot);
    bands[band].add(slot);
  }
  std::set<std::string> callsigns;
  std::map<Band, std::set<std::string>> band_callsigns;
  for (const Heard& one : heard) {
    if (one.callsign.empty() || one.time < start) continue;
    callsigns.insert(one.callsign);
    band_callsigns[bandOf(one.mhz)].insert(one.callsign);
  }

  std::string text = "{\"generated\":" + std::to_string(now) +
                     ",\"mode\":\"live\",\"hours\":" + std::to_string(view.hours) +
                     ",\"smoothing\":" + std::to_string(view.smoothing);
  text += member("window_spots", window.spots) + member("window_intervals", window.intervals) +
          member("window_unique_callsigns", callsigns.size()) + ",\"bands\":[";
  bool first = true;
  for (const auto& [band, totals] : bands) {
    text += first ? "{" : ",{";
    first = false;
    text += "\"id\":\"" + band.id + "\",\"color\":\"" + band.color + "\",\"rate_now\":" +
            rateText(rateAt(indexed[band], view.smoothing, static_cast<double>(now)));
    text += member("spots", totals.spots) + member("intervals", totals.intervals) +
            member("unique_callsigns", band_callsigns[band].size());
    text += ",\"points\":[" + pointsText(indexed[band], view, now) + "]}";
  }
  return text + "]}";
}

std::string expectedFromLog(View view, std::int64_t now, const std::vector<Heard>& decodes) {
  return expectedDocument(view, now, slotsOfLog(decodes, view, now), decodes);
}

std::int64_t numberOf(const std::string& document, const std::string& key) {
  const std::string start = "\"" + key + "\":";
  const std::size_t found = document.find(start);
  if (found == std::string::npos) throw std::runtime_error("no " + key + " in " + document);
  return std::strtoll(document.c_str() + found + start.size(), nullptr, 10);
}

std::int64_t generatedAt(const std::string& document) { return numberOf(document, "generated"); }

std::string bandsOf(const std::string& document) {
  const std::size_t found = document.find("\"bands\":");
  if (found == std::string::npos) throw std::runtime_error("no bands in " + document);
  return document.substr(found);
}

std::vector<std::string> bandIds(const std::string& document) {
  static const std::string kStart = "{\"id\":\"";
  std::vector<std::string> ids;
  for (std::size_t at = 0; (at = document.find(kStart, at)) != std::string::npos;) {
    at += kStart.size();
    ids.push_back(document.substr(at, document.find('"', at) - at));
  }
  return ids;
}

}  // namespace spotserver::e2e
