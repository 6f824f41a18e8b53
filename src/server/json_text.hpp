// JSON (RFC 8259) written as text. A body is one growing string: fixed fragments that already hold
// the punctuation and the keys are appended in place, and these helpers supply the variable parts.
//   std::string body = "{\"mode\":";
//   json_quote(body, mode);
//   body += ",\"rate\":" + json_number(3, rate) + "}";
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace spotserver {

// Appends `value` to `out` as a JSON string literal. Bytes are taken raw: '"', '\\', tab, line feed
// and carriage return get their short escapes, every other byte below 0x20 becomes \u00xx
// (lower-case hex), everything from 0x20 up is copied, so UTF-8 passes through. '/' is not escaped.
void json_quote(std::string& out, std::string_view value);

// `value` in fixed notation with `precision` decimals (0 or more), rounded as printf rounds.
// Trailing zeros and a trailing point are removed when there is a point. Never an exponent, however
// long the text gets; "null" when not finite. A negative zero keeps its sign.
//   json_number(3, 2.5) == "2.5"    json_number(0, 1e300) has 301 digits
//   json_number(3, 3.0) == "3"      json_number(3, -0.0) == "-0"
std::string json_number(int precision, double value);

// The most that write_json_number writes: sign, 309 digits, point and three decimals.
inline constexpr std::size_t kLongestJsonNumber = 1 + 309 + 1 + 3;

// The same text for the long columns of an answer, without a string: written from `to` on, where
// kLongestJsonNumber bytes must be free. `precision` is 0 to 3. Returns the end of the text; no
// zero byte follows it. Cost: some ten nanoseconds below 2^52, a microsecond for giants.
char* write_json_number(char* to, int precision, double value);

}  // namespace spotserver
