// Takes one hot path as often as it is told, for instructions_test: what it prepares lies outside
// the function `measured`, whose instructions are counted.
//   hot_path lines 20000       parses the first lines of a busy hour of the sample station
//   hot_path spots 20000       takes their spots into a queue
//   hot_path answer 720        computes a day of so many off-plan frequencies, from 20,000 lines
//   hot_path document 20000    writes a document of so many points
// Prints what came of it.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "api/activity.hpp"
#include "api/activity_document.hpp"
#include "api/band_plan.hpp"
#include "sample_log.hpp"
#include "spots/all_txt.hpp"
#include "spots/mode.hpp"

namespace {

using namespace spotserver;

constexpr double kNow = 1'763'175'600;

}  // namespace

// Found by its name.
extern "C" [[gnu::noinline]] void measured(const std::function<std::size_t()>& work) {
  std::printf("%zu\n", work());
}

namespace {

// The first lines of a busy hour.
std::vector<std::string> someLines(std::size_t count) {
  const std::string log = busyHour();
  const auto lines = linesOf(log);
  return {lines.begin(),
          lines.begin() + static_cast<std::ptrdiff_t>(std::min(count, lines.size()))};
}

void parseLines(std::uint64_t count) {
  const std::vector<std::string> lines = someLines(count);
  measured([&] {
    std::size_t records = 0;
    LineHead last;
    for (const std::string& line : lines) records += parseAllTxtLine(line, last) ? 1U : 0U;
    return records;
  });
}

void appendSpots(std::uint64_t count) {
  std::vector<AllTxtRecord> records;
  for (const std::string& line : someLines(count)) {
    if (auto record = parseAllTxtLine(line)) records.push_back(std::move(*record));
  }
  SpotQueue queue;
  measured([&] {
    for (const AllTxtRecord& one : records) {
      queue.append(one.time, one.frequency, one.mode, "20m", one.callsign);
    }
    return queue.size();
  });
}

void answer(std::uint64_t frequencies) {
  constexpr std::uint64_t kLines = 20'000;
  SpotData data;
  for (std::uint64_t line = 0; line < kLines; ++line) {
    const double dial = 200'000'000 + 1'000.0 * static_cast<double>(line % frequencies);
    const double time = kNow - 86'400 + static_cast<double>(line * 5'760 / kLines) * 15;
    data.spots.append(time, dial, kFt8, launcher::bandForFrequency(dial).id, "N0CALL");
  }
  measured([&] { return buildActivity(data, 24, 3, kNow).bands.size(); });
}

void writeDocument(std::uint64_t points) {
  ActivitySnapshot snapshot{.generated = kNow, .mode = "live", .hours = 24, .smoothing = 3};
  snapshot.bands.push_back({.id = "20m", .color = "#f2c40c"});
  for (std::uint64_t i = 0; i < points; ++i) {
    const auto step = static_cast<double>(i);
    snapshot.bands[0].points.push_back({kNow - 60 * step, step * 3600 / 292.5});
  }
  measured([&] { return activityDocument(snapshot).size(); });
}

}  // namespace

int main(int argc, char** argv) {
  const std::string_view part = argc == 3 ? argv[1] : "";
  const std::uint64_t size = argc == 3 ? std::strtoull(argv[2], nullptr, 10) : 0;
  if (part == "lines") {
    parseLines(size);
  } else if (part == "spots") {
    appendSpots(size);
  } else if (part == "answer") {
    answer(size);
  } else if (part == "document") {
    writeDocument(size);
  } else {
    std::fputs("Usage: hot_path lines|spots|answer|document SIZE\n", stderr);
    return 2;
  }
  return 0;
}
