#include "spots/callsign.hpp"

#include <cstddef>

namespace spotserver {
namespace {

constexpr std::size_t kLongestCallsign = 32;
constexpr unsigned kLongestPrefix = 6;
constexpr unsigned kLongestSuffix = 6;

char asItIs(char c) { return c; }

// One part of a callsign as it is read, character by character.
//   part = prefix digit suffix
// The suffix holds no digit, so the last digit of the part is the one between prefix and suffix,
// and there is only one way to read a part. Every step is a choice between two values and no jump:
// where the digit of a callsign stands is nothing a processor could guess.
struct Part {
  unsigned size = 0;
  unsigned prefix = 0;  // characters before the last digit
  unsigned suffix = 0;  // letters behind it
  bool letter = false;  // the prefix has one

  void addDigit(bool digit) {
    letter = letter || (digit && suffix > 0);
    prefix = digit ? size : prefix;
    suffix = digit ? 0 : suffix + 1;
    ++size;
  }
  bool valid() const {
    return letter && prefix <= kLongestPrefix && suffix > 0 && suffix <= kLongestSuffix;
  }
};

template <char fold(char)>
bool isCallsign(std::string_view text) {
  if (text.size() > kLongestCallsign) return false;
  Part part;
  bool any_part_valid = false;
  for (const char raw : text) {
    const char c = fold(raw);
    if (c == '/') {
      if (part.size == 0) return false;  // a slash at the front, or two side by side
      any_part_valid = any_part_valid || part.valid();
      part = {};
    } else if (isUpper(c) || isDigit(c)) {
      part.addDigit(isDigit(c));
    } else {
      return false;
    }
  }
  return part.size > 0 && (any_part_valid || part.valid());
}

template <char fold(char)>
bool isGrid(std::string_view text) {
  if (text.size() != 4 && text.size() != 6 && text.size() != 8) return false;
  const auto pairWithin = [text](std::size_t at, char first, char last) {
    if (at >= text.size()) return true;
    const char one = fold(text[at]);
    const char two = fold(text[at + 1]);
    return one >= first && one <= last && two >= first && two <= last;
  };
  return pairWithin(0, 'A', 'R') && pairWithin(2, '0', '9') &&  //
         pairWithin(4, 'A', 'X') && pairWithin(6, '0', '9');
}

}  // namespace

bool isValidCallsign(std::string_view text) { return isCallsign<asItIs>(text); }
bool isCallsignInAnyCase(std::string_view text) { return isCallsign<toUpper>(text); }

bool isValidGrid(std::string_view text) { return isGrid<asItIs>(text); }
bool isGridInAnyCase(std::string_view text) { return isGrid<toUpper>(text); }

}  // namespace spotserver
