// One line of the decode log ALL.TXT.
//
// The decoder writes one line per message received or transmitted: seven fields between blanks and
// then the message text.
//   250314_101530    14.074 Rx FT8    -12  0.2 1234 CQ N0CALL FN42
//   time (UTC)       MHz    |  mode   dB   s   Hz   message
//                           direction
// Fields read the way a C++ stream in the classic locale extracts them, whatever the locale of the
// process: "+14.074", ".5", "5." and "1e3" are numbers; "inf", "nan", "1e" and what overflows are
// not; a number ends where it can no longer go on, so "14.074Rx" is two fields and "0x1F" begins
// with the number 0. Any character beyond ASCII is part of a token.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace spotserver {

struct AllTxtRecord {
  double time = 0;       // UTC epoch seconds, whole
  double frequency = 0;  // dial frequency, Hz, not rounded
  int mode = 0;          // ModeCode
  std::string callsign;  // sender, upper case; empty when none could be recognised
};

// The record of one line. `line` comes without its terminator, carriage return included, and is not
// kept.
//   parseAllTxtLine("250314_101530 14.074 Rx FT8 -12 0.2 1234 CQ N0CALL FN42")
//       // time 1'741'947'330, frequency 14'074'000, mode kFt8, callsign "N0CALL"
// Empty: a field is missing or does not parse, the direction is not exactly "Rx", the mode is none
// of the seven names, or the timestamp is not a real date and time. SNR and audio offset must fit
// 32 bits. The message may be missing; a line without a recognisable sender is still a decode.
// Throws nothing on data. Cost: one pass over a line laid out like the one above, some 100 ns; a
// second pass over any other. Callsigns of up to 15 characters allocate nothing, and only a decimal
// number out of range is copied.
std::optional<AllTxtRecord> parseAllTxtLine(std::string_view line);

// How the line read last began: time, frequency, direction and mode. The lines of one slot of a
// receiver all begin alike, and what is known need not be read again. A plain value that belongs to
// whoever reads a log; a fresh one is never wrong.
struct LineHead {
  std::array<char, 48> text{};  // as it was written, up to the end of the mode
  std::size_t size = 0;         // of it; 0: nothing is known
  double time = 0;
  double dial_mhz = 0;
  int mode = 0;
  std::uint64_t second_passes = 0;  // of all lines read with it, for those who watch the time
};

// The same record, for one line after the other; a fifth faster on the lines of a busy slot.
//   LineHead last;
//   readLogLines(log, position, [&](std::string_view line) { take(parseAllTxtLine(line, last)); });
std::optional<AllTxtRecord> parseAllTxtLine(std::string_view line, LineHead& last);

// UTC epoch seconds of "YYMMDD_HHMMSS", which is exactly 13 characters and means the years 2000 to
// 2099.
//   parseAllTxtTime("250314_101530")  // 1'741'947'330
// Empty when it is not a real date and time (30 February, hour 24, second 60).
std::optional<double> parseAllTxtTime(std::string_view token);

}  // namespace spotserver
