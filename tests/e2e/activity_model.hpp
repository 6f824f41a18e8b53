// What the activity endpoint must answer, computed the long way round: every sample of every curve
// looks at every decode interval. For small stations only, and sharing no code with the server.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace spotserver::e2e {

// One line of the decode log.
struct Heard {
  std::int64_t time = 0;       // UTC epoch seconds
  std::string mhz = "14.074";  // dial frequency as written
  std::string mode = "FT8";
  std::string callsign;  // sender; empty: a message that names none
};

// The line as the decoder writes it, with its newline, and several of them in order.
std::string logLine(const Heard& heard);
std::string logText(const std::vector<Heard>& heard);

struct View {
  int hours = 6;
  int smoothing = 3;  // minutes
};

// One receive period of one receiver.
struct Slot {
  double start = 0;   // UTC epoch seconds
  double length = 0;  // seconds
  std::string mhz;
  std::uint64_t count = 0;  // decodes
};

double slotLength(const std::string& mode);  // seconds

// The slots that an answer generated at `now` derives from the decode log.
std::vector<Slot> slotsOfLog(const std::vector<Heard>& decodes, View view, std::int64_t now);

// The whole document. `slots`: what the rates are made of; those that start inside the window are
// counted. `heard`: the senders known to the station, each at its latest.
std::string expectedDocument(View view, std::int64_t now, const std::vector<Slot>& slots,
                             const std::vector<Heard>& heard);

// For a station that has only its log, in which every sender counts.
std::string expectedFromLog(View view, std::int64_t now, const std::vector<Heard>& decodes);

// Parts of an answer: the number behind "key": at its first place, and everything from "bands" on.
std::int64_t numberOf(const std::string& document, const std::string& key);
std::int64_t generatedAt(const std::string& document);
std::string bandsOf(const std::string& document);
// The ids of its bands, in order.
std::vector<std::string> bandIds(const std::string& document);

}  // namespace spotserver::e2e
