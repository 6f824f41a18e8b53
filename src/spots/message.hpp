// Who sent a decoded message: the per-mode message forms and their tie-breaks.
//
// A message names up to two stations, a report or a locator, in a form that differs by mode:
//   FT8, FT4   CQ N0CALL FN42           N1CALL N0CALL -12         N2CALL RR73; N1CALL <N0CALL> -08
//   JS8        N0CALL: HB [frame=1 flags=0 sender=N0CALL grid=FN42]
//   WSPR       N0CALL FN42 37           PA/N0CALL 37              <PA/N0CALL> FN42AB 30
// A message in none of these forms has no sender; that is the fate of free text and no error.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace spotserver {

struct Sender {
  std::string callsign;         // upper case
  std::string grid;             // Maidenhead locator in upper case, or empty
  std::uint32_t frequency = 0;  // dial plus audio offset, Hz, rounded half away from zero
  std::uint32_t time = 0;       // UTC epoch seconds, a fraction cut off
  std::int32_t snr = 0;         // dB
  std::string mode;             // "FT8", "FT4", "JS8" or "WSPR"
};

// The station that transmitted `message`, which was received in `mode` (a ModeCode) on
// `dial_hz` (Hz) at `audio_offset_hz` (Hz above the dial frequency) at `time` (UTC epoch seconds)
// with `snr` (dB).
//   extractSender(kFt8, "CQ N0CALL FN42", 14'074'000, 1234, 1'741'947'330, -12)
//       // callsign "N0CALL", grid "FN42", frequency 14'075'234, mode "FT8"
// Empty: no form of the mode fits, or the code is none of the seven, or the numbers leave the
// ranges 1 <= dial_hz + audio_offset_hz <= 4'294'967'295 (asked before rounding) and 0 <= time <=
// 4'294'967'295. Letters count as upper case in FT8, FT4 and JS8, never in WSPR. Throws nothing on
// data. Cost: one pass over the message; callsigns of up to 15 characters allocate nothing.
std::optional<Sender> extractSender(int mode, std::string_view message, double dial_hz,
                                    std::int32_t audio_offset_hz, double time, std::int32_t snr);

// The callsign that extractSender finds, empty where it finds nobody: what a log line is read for.
//   senderCallsign(kFt8, "CQ N0CALL FN42", 14'074'000, 1234, 1'741'947'330)  // "N0CALL"
// Cost: as extractSender, without the texts of a whole record.
std::string senderCallsign(int mode, std::string_view message, double dial_hz,
                           std::int32_t audio_offset_hz, double time);

// Takes the first word off `rest`: what isBlank is skipped, the word returned, and `rest` begins
// right behind it. Empty, with `rest` used up, when only blanks were left.
//   std::string_view rest = "  CQ N0CALL";
//   takeWord(rest)  // "CQ", rest is " N0CALL"
std::string_view takeWord(std::string_view& rest);

}  // namespace spotserver
