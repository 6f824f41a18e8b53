// A cursor over the line: `rest` is what has not been read yet, and each consume... step takes one
// field off its front or says that a stream would have failed there. A failed field rejects the
// whole line, so nobody asks what such a step left behind.
#include "spots/all_txt.hpp"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <system_error>
#include <utility>

#include <locale.h>

#include "spots/callsign.hpp"
#include "spots/message.hpp"
#include "spots/mode.hpp"

namespace spotserver {
namespace {

constexpr double kHzPerMhz = 1'000'000;

bool isSign(char c) { return c == '+' || c == '-'; }

void skipBlanks(std::string_view& rest) {
  const auto begin = std::find_if_not(rest.begin(), rest.end(), isBlank);
  rest.remove_prefix(static_cast<std::size_t>(begin - rest.begin()));
}

// Where the digits of `text` that begin at `at` end.
std::size_t digitsEnd(std::string_view text, std::size_t at) {
  while (at < text.size() && isDigit(text[at])) ++at;
  return at;
}

std::size_t signEnd(std::string_view text, std::size_t at) {
  return at < text.size() && isSign(text[at]) ? at + 1 : at;
}

// from_chars knows "-" but no "+".
std::string_view withoutPlus(std::string_view number) {
  if (number.starts_with('+')) number.remove_prefix(1);
  return number;
}

// Length of the decimal number that `text` begins with, 0 when a stream would fail.
// number = [sign] (digits ["." [digits]] | "." digits) [("e" | "E") [sign] digits]
// An "e" behind the digits belongs to the number in any case: without an exponent it spoils it.
std::size_t decimalLength(std::string_view text) {
  const auto whole = signEnd(text, 0);
  auto end = digitsEnd(text, whole);
  auto digits = end - whole;
  if (end < text.size() && text[end] == '.') {
    const auto fraction = end + 1;
    end = digitsEnd(text, fraction);
    digits += end - fraction;
  }
  if (digits == 0) return 0;

  if (end == text.size() || (text[end] != 'e' && text[end] != 'E')) return end;
  const auto exponent = signEnd(text, end + 1);
  end = digitsEnd(text, exponent);
  return end == exponent ? 0 : end;
}

// A number that from_chars finds out of range, without saying at which end. A stream fails on
// overflow only; what is too small becomes the nearest number there is, mostly zero.
std::optional<double> extremeDecimal(std::string_view number) {
  static const locale_t classic = newlocale(LC_ALL_MASK, "C", nullptr);
  const double value = strtod_l(std::string(number).c_str(), nullptr, classic);
  if (std::isinf(value)) return std::nullopt;
  return value;
}

std::optional<double> consumeDecimal(std::string_view& rest) {
  skipBlanks(rest);
  const auto length = decimalLength(rest);
  if (length == 0) return std::nullopt;
  const auto number = withoutPlus(rest.substr(0, length));
  rest.remove_prefix(length);

  double value = 0;
  const auto parsed = std::from_chars(number.data(), number.data() + number.size(), value);
  return parsed.ec == std::errc{} ? value : extremeDecimal(number);
}

// integer = [sign] digits, within 32 bits
std::optional<std::int32_t> consumeInteger(std::string_view& rest) {
  skipBlanks(rest);
  const auto length = digitsEnd(rest, signEnd(rest, 0));
  const auto number = withoutPlus(rest.substr(0, length));
  rest.remove_prefix(length);

  std::int32_t value = 0;
  const auto parsed = std::from_chars(number.data(), number.data() + number.size(), value);
  if (parsed.ec != std::errc{}) return std::nullopt;  // no digit, or too large
  return value;
}

// The message begins behind the blanks that separate it; a tab is part of it.
std::string_view messageText(std::string_view rest) {
  rest.remove_prefix(std::min(rest.find_first_not_of(' '), rest.size()));
  return rest;
}

unsigned twoDigits(std::string_view text, std::size_t at) {
  return static_cast<unsigned>((text[at] - '0') * 10 + (text[at + 1] - '0'));
}

}  // namespace

std::optional<AllTxtRecord> parseAllTxtLine(std::string_view line) {
  auto rest = line;
  const auto timestamp = takeWord(rest);
  const auto dial_mhz = consumeDecimal(rest);
  if (!dial_mhz || takeWord(rest) != "Rx") return std::nullopt;
  const auto mode = modeFromName(takeWord(rest));
  if (!mode) return std::nullopt;
  const auto snr = consumeInteger(rest);
  if (!snr || !consumeDecimal(rest)) return std::nullopt;  // the time offset has no use here
  const auto audio_offset = consumeInteger(rest);
  const auto time = parseAllTxtTime(timestamp);
  if (!audio_offset || !time) return std::nullopt;

  AllTxtRecord record{*time, *dial_mhz * kHzPerMhz, *mode, ""};
  auto sender =
      extractSender(*mode, messageText(rest), record.frequency, *audio_offset, record.time, *snr);
  if (sender) record.callsign = std::move(sender->callsign);
  return record;
}

std::optional<double> parseAllTxtTime(std::string_view token) {
  using namespace std::chrono;
  if (token.size() != 13 || token[6] != '_') return std::nullopt;
  if (digitsEnd(token, 0) != 6 || digitsEnd(token, 7) != 13) return std::nullopt;

  const year_month_day date{year{2000 + static_cast<int>(twoDigits(token, 0))},
                            month{twoDigits(token, 2)}, day{twoDigits(token, 4)}};
  const unsigned hour = twoDigits(token, 7);
  const unsigned minute = twoDigits(token, 9);
  const unsigned second = twoDigits(token, 11);
  if (!date.ok() || hour > 23 || minute > 59 || second > 59) return std::nullopt;

  const auto time = sys_days{date} + hours{hour} + minutes{minute} + seconds{second};
  return static_cast<double>(time.time_since_epoch().count());
}

}  // namespace spotserver
