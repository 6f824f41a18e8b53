// What an answer costs that is written anew each time but never computed anew: reads the station's
// files once, then writes the text of the same 24-hour view for every request. What the server
// takes more than this for a cold answer is refreshing and computing.
//   written_body 7374 spot-server.crt spot-server.key ALL.TXT history.sqlite3 cty.dat
// HISTORY "off": from the log.
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>

#include "api/activity.hpp"
#include "api/activity_document.hpp"
#include "plain_listener.hpp"
#include "spots/refresh.hpp"
#include "tool.hpp"

namespace {

spotserver::ActivitySnapshot readStation(char** argv) {
  spotserver::SpotData data;
  data.all_txt_path = argv[4];
  if (std::string(argv[5]) != "off") data.history_path = argv[5];
  data.cty_candidates = {argv[6]};
  const auto now = static_cast<double>(std::time(nullptr));
  spotserver::refreshSpots(data, now, 0);
  return spotserver::buildActivity(data, 24, 3, now);
}

}  // namespace

int main(int argc, char** argv) {
  return spotserver::runTool(
      argc == 7, "Usage: written_body PORT CERT KEY LOG HISTORY CTY_FILE\n", [&] {
        const spotserver::ActivitySnapshot snapshot = readStation(argv);
        spotserver::servePlainly(
            std::atoi(argv[1]), argv[2], argv[3], [] { return std::string("{}"); },
            [&snapshot] { return spotserver::activityDocument(snapshot); });
      });
}
