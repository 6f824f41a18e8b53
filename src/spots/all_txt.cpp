// Two readers of one grammar. UsualLine takes the shape that nearly every line has, in one pass and
// without asking what a stream would make of anything else. Where a line leaves that shape it gives
// up and readAnyLine starts over, which knows the stream's rules to the last corner. So only the
// second one says that a line is none.
//
// Both are cursors: each step takes one field off the front or fails, and a failed field fails the
// whole reading, so nobody asks what such a step left behind.
#include "spots/all_txt.hpp"

#include <algorithm>
#include <array>
#include <cfloat>
#include <charconv>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <system_error>

#include <locale.h>

#include "spots/callsign.hpp"
#include "spots/message.hpp"
#include "spots/mode.hpp"

namespace spotserver {
namespace {

constexpr double kHzPerMhz = 1'000'000;
constexpr std::size_t kTimestampSize = 13;  // YYMMDD_HHMMSS

// What a line says. Of the signal and the time offset it only matters that they are there.
struct Fields {
  double time = 0;
  double dial_mhz = 0;
  int mode = 0;
  std::int32_t audio_offset = 0;
  std::string_view rest;  // behind the audio offset
};

// The usual line ---------------------------------------------------------------------------------

static_assert(FLT_EVAL_METHOD == 0, "A quotient of two doubles must be rounded once");

constexpr std::ptrdiff_t kExactDigits = 15;  // every number of so many is a double

// Powers of ten, doubles without an error too.
constexpr double kPowerOfTen[] = {1,   1e1, 1e2,  1e3,  1e4,  1e5,  1e6,  1e7,
                                  1e8, 1e9, 1e10, 1e11, 1e12, 1e13, 1e14, 1e15};

// usual    = timestamp gap unsigned gap "Rx" gap mode gap integer gap decimal gap integer rest
// gap      = " " {" "}
// decimal  = ["-"] unsigned
// unsigned = digits "." digits       at most 15 digits
// integer  = ["-"] digits            at most 9 digits
// The number readers are compiled into read(): the cursor stays in registers, which makes lines
// read twice as fast.
class UsualLine {
 public:
  UsualLine(std::string_view line, LineHead& last)
      : at_(line.data()), end_(at_ + line.size()), last_(last) {}

  std::optional<Fields> read() {
    Fields fields;
    std::int32_t snr = 0;
    const bool usual = (repeatsHead(fields) || readHead(fields)) && skipGap() &&  //
                       readInteger(snr) && skipGap() &&                           //
                       skipDecimal() && skipGap() &&                              //
                       readInteger(fields.audio_offset);
    if (!usual) return std::nullopt;
    fields.rest = {at_, end_};
    return fields;
  }

 private:
  std::size_t left() const { return static_cast<std::size_t>(end_ - at_); }
  bool take(char c) {
    if (at_ == end_ || *at_ != c) return false;
    ++at_;
    return true;
  }
  bool skipGap() {
    if (!take(' ')) return false;
    while (take(' ')) {
    }
    return true;
  }
  bool skipRx() { return take('R') && take('x'); }

  // Whether the line begins as the last one did, with the mode ending at the same place.
  bool repeatsHead(Fields& fields) {
    const auto size = last_.size;
    if (size == 0 || left() <= size || at_[size] != ' ') return false;
    if (std::memcmp(at_, last_.text.data(), size) != 0) return false;
    fields.time = last_.time;
    fields.dial_mhz = last_.dial_mhz;
    fields.mode = last_.mode;
    at_ += size;
    return true;
  }

  bool readHead(Fields& fields) {
    const char* const begin = at_;
    const bool usual = readTime(fields.time) && skipGap() &&          //
                       readUnsigned(fields.dial_mhz) && skipGap() &&  //
                       skipRx() && skipGap() && readMode(fields.mode);
    if (usual) rememberHead({begin, at_}, fields);
    return usual;
  }

  void rememberHead(std::string_view head, const Fields& fields) {
    if (head.size() > last_.text.size()) return;
    last_.size = head.copy(last_.text.data(), head.size());
    last_.time = fields.time;
    last_.dial_mhz = fields.dial_mhz;
    last_.mode = fields.mode;
  }

  bool readTime(double& time) {
    const auto read = parseAllTxtTime(std::string_view(at_, left()).substr(0, kTimestampSize));
    if (!read) return false;
    time = *read;
    at_ += kTimestampSize;
    return true;
  }

  bool readMode(int& mode) {
    const char* const begin = at_;
    while (at_ != end_ && *at_ != ' ') ++at_;
    const auto read = modeFromName({begin, at_});
    if (!read) return false;
    mode = *read;
    return true;
  }

  // Appends the digits at hand to `number` and returns how many there were. More digits than the
  // type holds make it any number.
  std::ptrdiff_t readDigits(std::uint64_t& number) {
    const char* const begin = at_;
    for (; at_ != end_ && isDigit(*at_); ++at_) {
      number = number * 10 + static_cast<std::uint64_t>(*at_ - '0');
    }
    return at_ - begin;
  }

  // Up to kExactDigits digits and their power of ten are doubles without an error, and the quotient
  // of two such doubles is rounded once: it is the double nearest to the number written.
  [[gnu::always_inline]] bool readUnsigned(double& value) {
    std::uint64_t number = 0;
    const auto whole = readDigits(number);
    if (whole == 0 || !take('.')) return false;
    const auto fraction = readDigits(number);
    if (fraction == 0 || whole + fraction > kExactDigits) return false;
    value = static_cast<double>(number) / kPowerOfTen[fraction];
    return true;
  }

  bool skipDecimal() {
    take('-');
    double value = 0;
    return readUnsigned(value);
  }

  [[gnu::always_inline]] bool readInteger(std::int32_t& value) {
    const bool negative = take('-');
    std::uint64_t number = 0;
    const auto digits = readDigits(number);
    if (digits == 0 || digits > 9) return false;
    value = static_cast<std::int32_t>(number);
    if (negative) value = -value;
    return true;
  }

  const char* at_;
  const char* end_;
  LineHead& last_;
};

// Any line ---------------------------------------------------------------------------------------

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

std::optional<Fields> readAnyLine(std::string_view line) {
  const auto timestamp = takeWord(line);
  const auto dial_mhz = consumeDecimal(line);
  if (!dial_mhz || takeWord(line) != "Rx") return std::nullopt;
  const auto mode = modeFromName(takeWord(line));
  if (!mode) return std::nullopt;
  const auto snr = consumeInteger(line);
  if (!snr || !consumeDecimal(line)) return std::nullopt;
  const auto audio_offset = consumeInteger(line);
  const auto time = parseAllTxtTime(timestamp);
  if (!audio_offset || !time) return std::nullopt;
  return Fields{*time, *dial_mhz, *mode, *audio_offset, line};
}

// ------------------------------------------------------------------------------------------------

// The message begins behind the blanks that separate it; a tab is part of it.
std::string_view messageText(std::string_view rest) {
  rest.remove_prefix(std::min(rest.find_first_not_of(' '), rest.size()));
  return rest;
}

// The number that the two digits at `at` make; anything from 100 up when one of them is no digit.
unsigned twoDigits(std::string_view text, std::size_t at) {
  const auto tens = static_cast<unsigned char>(text[at] - '0');
  const auto ones = static_cast<unsigned char>(text[at + 1] - '0');
  return tens > 9 || ones > 9 ? 100 : tens * 10U + ones;
}

// Days from the first of January to the first of each month, in a year without a leap day.
constexpr std::array kDaysBefore = {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334, 365};
constexpr int kDaysBefore2000 = 10'957;  // from 1970

// Every fourth of the years 2000 to 2099 is a leap year.
std::optional<int> daysSince1970(unsigned year, unsigned month, unsigned day) {
  if (year > 99 || month < 1 || month > 12) return std::nullopt;
  const bool leap = year % 4 == 0;
  const int length = kDaysBefore[month] - kDaysBefore[month - 1] + (leap && month == 2);
  if (day < 1 || static_cast<int>(day) > length) return std::nullopt;
  const auto leap_days = static_cast<int>((year + 3) / 4) + (leap && month > 2);
  return kDaysBefore2000 + static_cast<int>(year) * 365 + leap_days + kDaysBefore[month - 1] +
         static_cast<int>(day) - 1;
}

}  // namespace

std::optional<AllTxtRecord> parseAllTxtLine(std::string_view line) {
  LineHead none;
  return parseAllTxtLine(line, none);
}

std::optional<AllTxtRecord> parseAllTxtLine(std::string_view line, LineHead& last) {
  auto fields = UsualLine(line, last).read();
  if (!fields) {
    ++last.second_passes;
    fields = readAnyLine(line);
  }
  if (!fields) return std::nullopt;

  const double frequency = fields->dial_mhz * kHzPerMhz;
  return AllTxtRecord{fields->time, frequency, fields->mode,
                      senderCallsign(fields->mode, messageText(fields->rest), frequency,
                                     fields->audio_offset, fields->time)};
}

std::optional<double> parseAllTxtTime(std::string_view token) {
  if (token.size() != kTimestampSize || token[6] != '_') return std::nullopt;
  const auto days = daysSince1970(twoDigits(token, 0), twoDigits(token, 2), twoDigits(token, 4));
  const unsigned hour = twoDigits(token, 7);
  const unsigned minute = twoDigits(token, 9);
  const unsigned second = twoDigits(token, 11);
  if (!days || hour > 23 || minute > 59 || second > 59) return std::nullopt;
  return *days * 86'400.0 + (hour * 60 + minute) * 60 + second;
}

}  // namespace spotserver
