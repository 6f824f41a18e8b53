// A station in a folder of its own and what a refresh makes of it: what the tests of spots/refresh
// begin with.
#pragma once

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "history_file.hpp"
#include "log_lines.hpp"
#include "spots/refresh.hpp"
#include "temp_dir.hpp"

namespace spotserver {

inline constexpr double kNow = 1'741'947'330;  // 2025-03-14 10:15:30 UTC, half past a minute
inline constexpr double kEver = std::numeric_limits<double>::infinity();

inline constexpr const char* kCountries =
    "Testland:  14:  27:  EU:  50.0:  -10.0:  -1.0:  N0:\n"
    "    N0,DL;\n";

// The callsigns of all spots held, in their order.
inline std::vector<std::string> callsigns(const SpotData& data) {
  std::vector<std::string> found;
  data.spots.forEach(-kEver, kEver,
                     [&](const ParsedSpot& spot) { found.push_back(spot.callsign); });
  return found;
}

// A decode of `callsign` that is `age` seconds old at kNow.
inline std::string heard(const std::string& callsign, double age = 10) {
  return decodeLine(kNow - age, "CQ " + callsign + " FN42");
}

// A station's folder and the data read from it.
//   writeLog(heard("N0CALL"));
//   refresh();
//   EXPECT_THAT(callsigns(data), ElementsAre("N0CALL"));
class Refresh : public ::testing::Test {
 protected:
  Refresh() {
    data.all_txt_path = dir.path("ALL.TXT");
    data.cty_candidates = {dir.path("cty.dat"), dir.path("share/cty.dat")};
  }

  void writeLog(const std::string& text) { dir.write("ALL.TXT", text); }
  void appendLog(const std::string& text) { dir.append("ALL.TXT", text); }
  void refresh(double now = kNow) { refreshSpots(data, now, 0); }

  // Sets the history up; it holds four slots of the minute that ended last at `time`.
  HistoryFile makeHistory(double time = kNow) {
    data.history_path = dir.path("history.sqlite3");
    HistoryFile history(data.history_path);
    addMinute(history, time);
    return history;
  }
  static void addMinute(HistoryFile& history, double time) {
    history.add({.minute = static_cast<std::int64_t>(time / 60) - 1});
  }

  TempDir dir;
  SpotData data;
};

}  // namespace spotserver
