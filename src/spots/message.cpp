#include "spots/message.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <limits>

#include "spots/callsign.hpp"
#include "spots/mode.hpp"

namespace spotserver {
namespace {

constexpr double kHighest32Bit = std::numeric_limits<std::uint32_t>::max();
constexpr unsigned kHighestWsprPower = 60;  // dBm

// Views into the message, in whatever case it has.
struct Station {
  std::string_view callsign;
  std::string_view grid;  // may be empty
};

// takeWord, where it can be compiled into the loop that calls it.
inline std::string_view nextWord(std::string_view& rest) {
  const char* begin = rest.data();
  const char* const end = begin + rest.size();
  while (begin != end && isBlank(*begin)) ++begin;
  const char* behind = begin;
  while (behind != end && !isBlank(*behind)) ++behind;
  rest = {behind, end};
  return {begin, behind};
}

bool allDigits(std::string_view word) { return std::all_of(word.begin(), word.end(), isDigit); }

bool isBracketed(std::string_view word) {
  return word.size() >= 3 && word.front() == '<' && word.back() == '>';
}

std::string_view withoutBrackets(std::string_view word) {
  return isBracketed(word) ? word.substr(1, word.size() - 2) : word;
}

// `upper` holds no lower case.
bool isIgnoringCase(std::string_view text, std::string_view upper) {
  if (text.size() != upper.size()) return false;
  for (std::size_t i = 0; i < upper.size(); ++i) {
    if (toUpper(text[i]) != upper[i]) return false;
  }
  return true;
}

bool containsIgnoringCase(std::string_view text, std::string_view upper) {
  const auto same = [](char c, char wanted) { return toUpper(c) == wanted; };
  return std::search(text.begin(), text.end(), upper.begin(), upper.end(), same) != text.end();
}

std::string upperCase(std::string_view text) {
  std::string upper(text);
  for (char& c : upper) c = toUpper(c);
  return upper;
}

// FT8 and FT4 ------------------------------------------------------------------------------------
// Letters count in either case throughout.

bool isCallingWord(std::string_view word) {
  return isIgnoringCase(word, "CQ") || isIgnoringCase(word, "QRZ") || isIgnoringCase(word, "DE") ||
         isIgnoringCase(word, "CQDX");
}

// modifier = 1 to 4 letters | 3 digits
bool isCqModifier(std::string_view word) {
  if (word.empty() || word.size() > 4) return false;
  const auto isLetter = [](char c) { return isUpper(toUpper(c)); };
  return std::all_of(word.begin(), word.end(), isLetter) || (word.size() == 3 && allDigits(word));
}

// `word` is not empty.
// report = ["R"] ("+" | "-") digit digit | "RRR" | "RR73" | "73" | 6 digits
bool isReport(std::string_view word) {
  if (word == "73" || isIgnoringCase(word, "RR73") || isIgnoringCase(word, "RRR")) return true;
  if (word.size() == 6 && allDigits(word)) return true;
  if (toUpper(word.front()) == 'R') word.remove_prefix(1);
  return word.size() == 3 && (word[0] == '+' || word[0] == '-') && allDigits(word.substr(1));
}

// combined = "TU; " message | message " RR73; " message
// One transmission may end a contact and go on with the next; the second part is the one to read.
std::optional<std::string_view> partThatCounts(std::string_view message) {
  const auto cut = message.find("; ");
  if (cut == std::string_view::npos) return message;
  const bool ends_contact =
      isIgnoringCase(message.substr(0, 4), "TU; ") || containsIgnoringCase(message, " RR73; ");
  if (!ends_contact) return std::nullopt;
  return message.substr(cut + 2);
}

constexpr std::size_t kMostWords = 4;

struct Words {
  std::array<std::string_view, kMostWords> at;  // without angle brackets; empty beyond `count`
  std::size_t count = 0;                        // kMostWords + 1: more than that
};

Words splitWords(std::string_view text) {
  Words words;
  for (auto word = nextWord(text); !word.empty(); word = nextWord(text)) {
    if (++words.count > kMostWords) break;
    words.at[words.count - 1] = withoutBrackets(word);
  }
  return words;
}

// calling  = calling-word [modifier] sender [tail]
// directed = (callsign | "...") sender ["R"] tail
// tail     = locator | report
// A word beyond the last is empty and nobody's callsign.
std::optional<Station> ftStation(std::string_view message) {
  const auto part = partThatCounts(message);
  if (!part) return std::nullopt;
  const auto [word, count] = splitWords(*part);

  const bool calling = isCallingWord(word[0]);
  if (!calling && word[0] != "..." && !isCallsignInAnyCase(word[0])) return std::nullopt;
  const std::size_t sender = calling && isCqModifier(word[1]) ? 2 : 1;
  if (!isCallsignInAnyCase(word[sender])) return std::nullopt;

  std::size_t tail = sender + 1;
  if (calling && tail == count) return Station{word[sender], ""};
  if (!calling && isIgnoringCase(word[tail], "R")) ++tail;
  if (tail + 1 != count) return std::nullopt;

  // "RR73" has the shape of a locator but closes a contact.
  if (isReport(word[tail])) return Station{word[sender], ""};
  if (isGridInAnyCase(word[tail])) return Station{word[sender], word[tail]};
  return std::nullopt;
}

// JS8 --------------------------------------------------------------------------------------------

// Takes the next word, which must begin with `key`, and yields what follows the key.
std::optional<std::string_view> takeValue(std::string_view& rest, std::string_view key) {
  const auto word = takeWord(rest);
  if (!word.starts_with(key)) return std::nullopt;
  const auto value = word.substr(key.size());
  return value == "-" ? "" : value;
}

// message = any text " [frame=" F " flags=" X " sender=" callsign " grid=" [locator] "]"
std::optional<Station> js8Station(std::string_view message) {
  const auto frame = message.rfind(" [frame=");
  if (frame == std::string_view::npos || message.back() != ']') return std::nullopt;
  auto rest = message.substr(frame + 2);
  rest.remove_suffix(1);

  if (!takeValue(rest, "frame=") || !takeValue(rest, "flags=")) return std::nullopt;
  const auto sender = takeValue(rest, "sender=");
  if (!sender) return std::nullopt;
  const auto locator = takeValue(rest, "grid=");
  if (!locator || !takeWord(rest).empty()) return std::nullopt;

  if (!isCallsignInAnyCase(*sender)) return std::nullopt;
  if (!locator->empty() && !isGridInAnyCase(*locator)) return std::nullopt;
  return Station{*sender, *locator};
}

// WSPR -------------------------------------------------------------------------------------------

// power = 1 or 2 digits, at most 60 dBm
bool isWsprPower(std::string_view word) {
  if (word.empty() || word.size() > 2 || !allDigits(word)) return false;
  unsigned power = 0;
  for (const char c : word) power = power * 10 + static_cast<unsigned>(c - '0');
  return power <= kHighestWsprPower;
}

// message = callsign locator4 power | "<" callsign ">" locator6 power | callsign power
// The hashed form with another locator, or with "<...>", leaves the station unknown.
std::optional<Station> wsprStation(std::string_view message) {
  auto rest = message.substr(0, message.find(" [drift="));
  const auto first = takeWord(rest);
  const auto second = takeWord(rest);
  const auto third = takeWord(rest);
  if (!takeWord(rest).empty()) return std::nullopt;

  const bool hashed = isBracketed(first);
  const bool located = isValidGrid(second) && second.size() == (hashed ? 6U : 4U);
  if (hashed && !located) return std::nullopt;
  if (!located && !third.empty()) return std::nullopt;

  const auto callsign = withoutBrackets(first);
  if (!isValidCallsign(callsign) || !isWsprPower(located ? third : second)) return std::nullopt;
  return Station{callsign, located ? second : ""};
}

// ------------------------------------------------------------------------------------------------

std::optional<Station> stationOf(int mode, std::string_view message) {
  switch (mode) {
    case kFt8:
    case kFt4:
      return ftStation(message);
    case kJs8:
    case kJs8Fast:
    case kJs8Turbo:
    case kJs8Slow:
      return js8Station(message);
    case kWspr:
      return wsprStation(message);
    default:
      return std::nullopt;
  }
}

// The four speeds of JS8 are one mode to a spot.
std::string_view spotMode(int mode) {
  const bool any_js8 = mode >= kJs8 && mode <= kJs8Slow;
  return modeName(any_js8 ? kJs8 : mode);
}

// Written so that a NaN fails.
bool fitsSpot(double frequency, double time) {
  return frequency >= 1 && frequency <= kHighest32Bit && time >= 0 && time <= kHighest32Bit;
}

}  // namespace

std::string_view takeWord(std::string_view& rest) { return nextWord(rest); }

std::optional<Sender> extractSender(int mode, std::string_view message, double dial_hz,
                                    std::int32_t audio_offset_hz, double time, std::int32_t snr) {
  const double frequency = dial_hz + audio_offset_hz;
  if (!fitsSpot(frequency, time)) return std::nullopt;
  const auto station = stationOf(mode, message);
  if (!station) return std::nullopt;
  return Sender{upperCase(station->callsign),
                upperCase(station->grid),
                static_cast<std::uint32_t>(std::round(frequency)),
                static_cast<std::uint32_t>(time),
                snr,
                std::string(spotMode(mode))};
}

std::string senderCallsign(int mode, std::string_view message, double dial_hz,
                           std::int32_t audio_offset_hz, double time) {
  if (!fitsSpot(dial_hz + audio_offset_hz, time)) return {};
  const auto station = stationOf(mode, message);
  return station ? upperCase(station->callsign) : std::string();
}

}  // namespace spotserver
