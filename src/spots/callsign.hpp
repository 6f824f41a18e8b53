// Whether a word has the shape of a callsign or of a Maidenhead locator.
//
// The validators look at shape alone and cost one pass over at most 32 characters. Each has a form
// that knows upper case only and one to which "n0call" is as good as "N0CALL".
//   isValidCallsign("N0CALL")      // true
//   isValidCallsign("PA/N0CALL")   // true
//   isValidCallsign("123ABC")      // false: no letter before the digit that separates the parts
//   isValidCallsign("n0call")      // false
//   isCallsignInAnyCase("n0call")  // true
//   isValidGrid("FN42AB")          // true
#pragma once

#include <string_view>

namespace spotserver {

// The characters of a decode log, by ASCII code and in no locale: bytes above 0x7F are none of
// these.
constexpr bool isDigit(char c) { return c >= '0' && c <= '9'; }
constexpr bool isUpper(char c) { return c >= 'A' && c <= 'Z'; }
constexpr bool isBlank(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }  // " \t\n\v\f\r"
constexpr char toUpper(char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 32) : c; }

// 3 to 32 characters of A-Z, 0-9 and "/", with no "/" at either end and no two side by side, of
// which at least one part between slashes reads as
//   part = prefix digit suffix    prefix: 1 to 6 letters and digits, at least one a letter
//                                 suffix: 1 to 6 letters
bool isValidCallsign(std::string_view text);
bool isCallsignInAnyCase(std::string_view text);

// The Maidenhead locator system, as the IARU uses it.
// 4, 6 or 8 characters: two letters A-R and two digits, then two letters A-X, then two digits.
bool isValidGrid(std::string_view text);
bool isGridInAnyCase(std::string_view text);

}  // namespace spotserver
