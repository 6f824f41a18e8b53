// The activity document written the plain way, one string appended to another: what
// activity_document must agree with byte for byte. And a script that makes snapshots to compare on.
#pragma once

#include <bit>
#include <cstdint>
#include <string>

#include "api/activity_snapshot.hpp"
#include "byte_script.hpp"
#include "server/json_text.hpp"
#include "server/json_text_reference.hpp"

namespace spotserver {

inline std::string plainDocument(const ActivitySnapshot& snapshot) {
  const auto quoted = [](const std::string& value) {
    std::string out;
    json_quote(out, value);
    return out;
  };
  const auto rate = [](const std::optional<double>& value) {
    return value ? plainJsonNumber(3, *value) : std::string("null");
  };
  std::string out = "{\"generated\":" + plainJsonNumber(0, snapshot.generated);
  out += ",\"mode\":" + quoted(snapshot.mode);
  out += ",\"hours\":" + std::to_string(snapshot.hours);
  out += ",\"smoothing\":" + std::to_string(snapshot.smoothing);
  out += ",\"window_spots\":" + std::to_string(snapshot.window_spots);
  out += ",\"window_intervals\":" + std::to_string(snapshot.window_intervals);
  out += ",\"window_unique_callsigns\":" + std::to_string(snapshot.window_unique_callsigns);
  out += ",\"bands\":[";
  std::string band_comma;
  for (const BandView& band : snapshot.bands) {
    out += band_comma + "{\"id\":" + quoted(band.id) + ",\"color\":" + quoted(band.color);
    out += ",\"rate_now\":" + rate(band.rate_now) + ",\"spots\":" + std::to_string(band.spots);
    out += ",\"intervals\":" + std::to_string(band.intervals);
    out += ",\"unique_callsigns\":" + std::to_string(band.unique_callsigns) + ",\"points\":[";
    std::string point_comma;
    for (const launcher::RatePoint& point : band.points) {
      out += point_comma + "{\"t\":" + plainJsonNumber(0, point.t);
      out += ",\"rate\":" + rate(point.rate) + "}";
      point_comma = ",";
    }
    out += "]}";
    band_comma = ",";
  }
  return out + "]}";
}

// Snapshots of every shape, usual numbers and any bits at all.
class SnapshotScript {
 public:
  explicit SnapshotScript(std::span<const std::uint8_t> bytes) : script_(bytes) {}

  ActivitySnapshot make() {
    ActivitySnapshot snapshot{.generated = time(), .mode = text()};
    snapshot.hours = static_cast<int>(script_.below(25));
    snapshot.smoothing = static_cast<int>(script_.below(41));
    snapshot.window_spots = bits();
    snapshot.window_intervals = bits();
    snapshot.window_unique_callsigns = bits();
    while (!script_.done()) snapshot.bands.push_back(band());
    return snapshot;
  }

 private:
  std::uint64_t bits() {
    std::uint64_t value = 0;
    for (int byte = 0; byte < 8; ++byte) value = value << 8 | script_.byte();
    return value;
  }
  double time() {
    if (script_.below(8) == 0) return std::bit_cast<double>(bits());
    return 1.7e9 + static_cast<double>(script_.below(60'000));
  }
  std::optional<double> rate() {
    switch (script_.below(8)) {
      case 0:
        return std::nullopt;
      case 1:
        return std::bit_cast<double>(bits());
      default:
        const auto decodes = static_cast<double>(script_.below(60'000));
        return decodes * 3600.0 / static_cast<double>(1 + script_.below(300));
    }
  }
  std::string text() {
    std::string value(script_.below(8), '\0');
    for (char& c : value) c = static_cast<char>(script_.byte());
    return value;
  }
  BandView band() {
    BandView view{.id = text(), .color = text(), .rate_now = rate()};
    view.spots = bits();
    view.intervals = bits();
    view.unique_callsigns = bits();
    view.points.resize(script_.below(1500));
    for (launcher::RatePoint& point : view.points) point = {time(), rate()};
    return view;
  }

  ByteScript script_;
};

}  // namespace spotserver
