#include "api/activity_document.hpp"

#include <algorithm>
#include <cstring>
#include <string_view>

#include "server/json_text.hpp"

namespace spotserver {
namespace {

// What a document takes at least and mostly no more: names and counts of a band, and a point
// such as {"t":1763175600,"rate":333.333}, with its comma.
constexpr std::size_t kBandSize = 160;
constexpr std::size_t kPointSize = 34;

// The most a point can take: two numbers and some 20 bytes around them.
constexpr std::size_t kLongestPoint = 2 * kLongestJsonNumber + 20;

std::string rateText(const std::optional<double>& rate) {
  return rate ? json_number(3, *rate) : "null";
}

// Literals have a length known to the compiler, so this is a store or two.
template <std::size_t size>
char* put(char* to, const char (&literal)[size]) {
  std::memcpy(to, literal, size - 1);
  return to + size - 1;
}

char* putPoint(char* to, const launcher::RatePoint& point) {
  to = put(to, "{\"t\":");
  to = write_json_number(to, 0, point.t);
  to = put(to, ",\"rate\":");
  to = point.rate ? write_json_number(to, 3, *point.rate) : put(to, "null");
  return put(to, "},");
}

// Nearly all of a document is points: they are written in batches, without a string in between.
void appendPoints(std::string& out, const std::vector<launcher::RatePoint>& points) {
  char batch[4 * kLongestPoint];
  char* to = batch;
  for (const launcher::RatePoint& point : points) {
    to = putPoint(to, point);
    if (batch + sizeof batch - to > static_cast<std::ptrdiff_t>(kLongestPoint)) continue;
    out.append(batch, to);
    to = batch;
  }
  out.append(batch, to);
  if (!points.empty()) out.pop_back();  // the last comma
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

void appendCounts(std::string& out, const ActivitySnapshot& snapshot) {
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

std::size_t expectedSize(const ActivitySnapshot& snapshot) {
  std::size_t size = kBandSize;
  for (const BandView& band : snapshot.bands) size += kBandSize + band.points.size() * kPointSize;
  return size;
}

}  // namespace

std::string documentHead(double generated) { return "{\"generated\":" + json_number(0, generated); }

std::string documentTail(const ActivitySnapshot& snapshot) {
  std::string out;
  out.reserve(expectedSize(snapshot));
  appendCounts(out, snapshot);
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

std::string activityDocument(const ActivitySnapshot& snapshot) {
  return documentHead(snapshot.generated) + documentTail(snapshot);
}

}  // namespace spotserver
