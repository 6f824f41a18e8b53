#include "api/activity_document.hpp"

#include "server/json_text.hpp"

namespace spotserver {
namespace {

std::string timeText(double t) { return json_number(0, t); }

std::string rateText(const std::optional<double>& rate) {
  return rate ? json_number(3, *rate) : "null";
}

void appendPoints(std::string& out, const std::vector<launcher::RatePoint>& points) {
  bool first = true;
  for (const launcher::RatePoint& point : points) {
    if (!first) out += ',';
    first = false;
    out += "{\"t\":";
    out += timeText(point.t);
    out += ",\"rate\":";
    out += rateText(point.rate);
    out += '}';
  }
}

void appendBand(std::string& out, const BandView& band) {
  out += "{\"id\":";
  json_quote(out, band.id);
  out += ",\"color\":";
  json_quote(out, band.color);
  out += ",\"rate_now\":";
  out += rateText(band.rate_now);
  out += ",\"spots\":";
  out += std::to_string(band.spots);
  out += ",\"intervals\":";
  out += std::to_string(band.intervals);
  out += ",\"unique_callsigns\":";
  out += std::to_string(band.unique_callsigns);
  out += ",\"points\":[";
  appendPoints(out, band.points);
  out += "]}";
}

void appendHead(std::string& out, const ActivitySnapshot& snapshot) {
  out += "{\"generated\":";
  out += timeText(snapshot.generated);
  out += ",\"mode\":";
  json_quote(out, snapshot.mode);
  out += ",\"hours\":";
  out += std::to_string(snapshot.hours);
  out += ",\"smoothing\":";
  out += std::to_string(snapshot.smoothing);
  out += ",\"window_spots\":";
  out += std::to_string(snapshot.window_spots);
  out += ",\"window_intervals\":";
  out += std::to_string(snapshot.window_intervals);
  out += ",\"window_unique_callsigns\":";
  out += std::to_string(snapshot.window_unique_callsigns);
}

}  // namespace

std::string activityDocument(const ActivitySnapshot& snapshot) {
  std::string out;
  out.reserve(4096);
  appendHead(out, snapshot);
  out += ",\"bands\":[";
  bool first = true;
  for (const BandView& band : snapshot.bands) {
    if (!first) out += ',';
    first = false;
    appendBand(out, band);
  }
  out += "]}";
  return out;
}

}  // namespace spotserver
