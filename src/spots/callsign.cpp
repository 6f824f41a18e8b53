#include "spots/callsign.hpp"

#include <algorithm>
#include <cstddef>

namespace spotserver {
namespace {

constexpr std::size_t kShortestCallsign = 3;
constexpr std::size_t kLongestCallsign = 32;
constexpr std::size_t kLongestPrefix = 6;
constexpr std::size_t kLongestSuffix = 6;

// part = prefix digit suffix. The suffix holds no digit, so the last digit of the part is the one
// between prefix and suffix, and there is only one way to read a part.
bool isCallsignPart(std::string_view part) {
  const auto digit = part.find_last_of("0123456789");
  if (digit > kLongestPrefix) return false;  // or none, npos
  const auto prefix = part.substr(0, digit);
  const auto suffix = part.substr(digit + 1);
  return std::any_of(prefix.begin(), prefix.end(), isUpper) &&  //
         !suffix.empty() && suffix.size() <= kLongestSuffix;
}

bool isCallsignCharacter(char c) { return isUpper(c) || isDigit(c) || c == '/'; }

}  // namespace

bool isValidCallsign(std::string_view text) {
  if (text.size() < kShortestCallsign || text.size() > kLongestCallsign) return false;
  if (!std::all_of(text.begin(), text.end(), isCallsignCharacter)) return false;

  bool any_part_valid = false;
  while (true) {
    const auto slash = text.find('/');
    const auto part = text.substr(0, slash);
    if (part.empty()) return false;  // a slash at an end, or two side by side
    any_part_valid = any_part_valid || isCallsignPart(part);
    if (slash == std::string_view::npos) return any_part_valid;
    text.remove_prefix(slash + 1);
  }
}

bool isValidGrid(std::string_view text) {
  if (text.size() != 4 && text.size() != 6 && text.size() != 8) return false;
  const auto pairWithin = [text](std::size_t at, char first, char last) {
    return at >= text.size() || (text[at] >= first && text[at] <= last &&  //
                                 text[at + 1] >= first && text[at + 1] <= last);
  };
  return pairWithin(0, 'A', 'R') && pairWithin(2, '0', '9') &&  //
         pairWithin(4, 'A', 'X') && pairWithin(6, '0', '9');
}

}  // namespace spotserver
