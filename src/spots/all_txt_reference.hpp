// The plain form of all_txt.cpp, for tests and fuzz targets only: ordinary stream extraction in the
// classic locale and the calendar of the C library. What this reads is what a log line means.
#pragma once

#include <bit>
#include <cstdint>
#include <ctime>
#include <iterator>
#include <locale>
#include <optional>
#include <sstream>
#include <string>

#include "spots/all_txt.hpp"
#include "spots/message_reference.hpp"  // and <regex>, as quiet as it can be made

namespace spotserver::reference {

inline std::optional<double> parseAllTxtTime(const std::string& token) {
  static const std::regex pattern(
      "^([0-9]{2})([0-9]{2})([0-9]{2})_([0-9]{2})([0-9]{2})([0-9]{2})$");
  std::smatch digits;
  if (token.size() != 13 || !std::regex_match(token, digits, pattern)) return std::nullopt;
  std::tm given{};
  given.tm_year = std::stoi(digits[1]) + 100;
  given.tm_mon = std::stoi(digits[2]) - 1;
  given.tm_mday = std::stoi(digits[3]);
  given.tm_hour = std::stoi(digits[4]);
  given.tm_min = std::stoi(digits[5]);
  given.tm_sec = std::stoi(digits[6]);
  std::tm normal = given;
  const std::time_t time = timegm(&normal);
  if (normal.tm_year != given.tm_year || normal.tm_mon != given.tm_mon ||
      normal.tm_mday != given.tm_mday || normal.tm_hour != given.tm_hour ||
      normal.tm_min != given.tm_min || normal.tm_sec != given.tm_sec || time < 0) {
    return std::nullopt;
  }
  return static_cast<double>(time);
}

inline std::optional<AllTxtRecord> parseAllTxtLine(const std::string& line) {
  std::istringstream in(line);
  in.imbue(std::locale::classic());
  std::string timestamp;
  std::string direction;
  std::string mode_name;
  double dial_mhz = 0;
  double time_offset = 0;
  std::int32_t snr = 0;
  std::int32_t audio_offset = 0;
  in >> timestamp >> dial_mhz >> direction >> mode_name >> snr >> time_offset >> audio_offset;
  if (!in || direction != "Rx") return std::nullopt;

  const char* const names[] = {"FT8", "FT4", "JS8", "JS8-FAST", "JS8-TURBO", "JS8-SLOW", "WSPR"};
  int mode = 0;
  while (mode < 7 && mode_name != names[mode]) ++mode;
  const auto time = parseAllTxtTime(timestamp);
  if (mode == 7 || !time) return std::nullopt;

  std::string message{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  message.erase(0, message.find_first_not_of(' '));

  AllTxtRecord record{*time, dial_mhz * 1e6, mode, ""};
  const auto sender = extractSender(mode, message, record.frequency, audio_offset, *time, snr);
  if (sender) record.callsign = sender->callsign;
  return record;
}

// Equal to the last bit: a negative zero is not a zero.
inline bool same(const std::optional<AllTxtRecord>& a, const std::optional<AllTxtRecord>& b) {
  if (!a || !b) return !a && !b;
  return std::bit_cast<std::uint64_t>(a->time) == std::bit_cast<std::uint64_t>(b->time) &&
         std::bit_cast<std::uint64_t>(a->frequency) == std::bit_cast<std::uint64_t>(b->frequency) &&
         a->mode == b->mode && a->callsign == b->callsign;
}

// The whole record exactly, in a line a person can compare; "-" for a rejected line.
inline std::string describe(const std::optional<AllTxtRecord>& record) {
  if (!record) return "-";
  std::ostringstream out;
  out.imbue(std::locale::classic());
  out << std::hexfloat << "time=" << record->time << " frequency=" << record->frequency
      << " mode=" << record->mode << " callsign=" << record->callsign;
  return out.str();
}

}  // namespace spotserver::reference
