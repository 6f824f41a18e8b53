#include "server/json_text.hpp"

#include <algorithm>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <optional>

namespace spotserver {
namespace {

void append_escaped(std::string& out, char c) {
  constexpr char kHex[] = "0123456789abcdef";
  switch (c) {
    case '"':
      out += "\\\"";
      return;
    case '\\':
      out += "\\\\";
      return;
    case '\t':
      out += "\\t";
      return;
    case '\n':
      out += "\\n";
      return;
    case '\r':
      out += "\\r";
      return;
    default:
      break;
  }
  const auto byte = static_cast<unsigned char>(c);
  if (byte >= 0x20) {
    out += c;
    return;
  }
  out += "\\u00";
  out += kHex[byte >> 4];
  out += kHex[byte & 0x0f];
}

// A double of fixed size is mantissa * 2^-shift. Where both are small, rounding to three decimals
// is a multiplication and a shift of whole numbers: exact, and a tenth of the cost of a formatter.
constexpr int kMantissaBits = 52;
constexpr int kMostDecimals = 3;
constexpr std::uint64_t kScales[] = {1, 10, 100, 1000};  // 2^53 times the largest fits 63 bits

// |value| * 10^precision rounded to a whole number, a tie to the even one, as printf does it.
// Empty from 2^52 on.
std::optional<std::uint64_t> scaled_magnitude(int precision, double value) {
  const auto bits = std::bit_cast<std::uint64_t>(value);
  const int exponent = static_cast<int>(bits >> kMantissaBits & 0x7ff);
  const int shift = 1075 - exponent;
  if (shift < 1) return std::nullopt;
  if (shift > 63) return 0;  // less than half a unit, subnormal numbers too
  constexpr std::uint64_t kHiddenBit = std::uint64_t{1} << kMantissaBits;
  const std::uint64_t mantissa = (bits & (kHiddenBit - 1)) | kHiddenBit;
  const std::uint64_t product = mantissa * kScales[precision];
  const std::uint64_t half = std::uint64_t{1} << (shift - 1);
  const std::uint64_t rest = product & (2 * half - 1);
  const std::uint64_t whole = product >> shift;
  const bool up = rest > half || (rest == half && (whole & 1) != 0);
  return whole + (up ? 1 : 0);
}

char* write_decimals(char* to, int precision, std::uint64_t decimals) {
  if (decimals == 0) return to;
  *to++ = '.';
  for (std::uint64_t scale = kScales[precision]; decimals != 0; decimals %= scale) {
    scale /= 10;
    *to++ = static_cast<char>('0' + decimals / scale);
  }
  return to;
}

// Any finite number, with the zeros at its end. `to` has room for it.
char* write_fixed(char* to, char* end, int precision, double value) {
  return std::to_chars(to, end, value, std::chars_format::fixed, precision).ptr;
}

}  // namespace

void json_quote(std::string& out, std::string_view value) {
  out += '"';
  for (const char c : value) append_escaped(out, c);
  out += '"';
}

std::string json_number(int precision, double value) {
  if (precision <= kMostDecimals) {
    char text[kLongestJsonNumber];
    return {text, write_json_number(text, precision, value)};
  }
  if (!std::isfinite(value)) return "null";
  std::string text(kLongestJsonNumber + static_cast<std::size_t>(precision), '\0');
  const char* const end = write_fixed(text.data(), text.data() + text.size(), precision, value);
  text.resize(static_cast<std::size_t>(end - text.data()));
  text.erase(text.find_last_not_of('0') + 1);
  if (text.back() == '.') text.pop_back();
  return text;
}

char* write_json_number(char* to, int precision, double value) {
  const auto scaled = scaled_magnitude(precision, value);
  if (!scaled) {
    if (!std::isfinite(value)) return std::copy_n("null", 4, to);
    // Whole numbers from here on: they have no decimals to write.
    return write_fixed(to, to + kLongestJsonNumber, 0, value);
  }
  if (std::signbit(value)) *to++ = '-';
  const std::uint64_t scale = kScales[precision];
  to = std::to_chars(to, to + kLongestJsonNumber, *scaled / scale).ptr;
  return write_decimals(to, precision, *scaled % scale);
}

}  // namespace spotserver
