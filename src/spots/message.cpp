#include "spots/message.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <limits>
#include <utility>

#include "spots/callsign.hpp"
#include "spots/mode.hpp"

namespace spotserver {
namespace {

constexpr double kHighest32Bit = std::numeric_limits<std::uint32_t>::max();
constexpr unsigned kHighestWsprPower = 60;  // dBm

struct Station {
  std::string callsign;
  std::string grid;  // may be empty
};

// One word in upper case, without an allocation. Nothing that counts is longer than a callsign of
// 32 characters, so a longer word keeps its first 33 and matches nothing.
class UpperWord {
 public:
  UpperWord() = default;
  explicit UpperWord(std::string_view word) : size_(std::min(word.size(), text_.size())) {
    std::transform(word.begin(), word.begin() + static_cast<std::ptrdiff_t>(size_), text_.begin(),
                   toUpper);
  }
  std::string_view view() const { return {text_.data(), size_}; }

 private:
  std::array<char, 33> text_{};
  std::size_t size_ = 0;
};

bool allDigits(std::string_view word) { return std::all_of(word.begin(), word.end(), isDigit); }

bool isBracketed(std::string_view word) {
  return word.size() >= 3 && word.front() == '<' && word.back() == '>';
}

std::string_view withoutBrackets(std::string_view word) {
  return isBracketed(word) ? word.substr(1, word.size() - 2) : word;
}

// `upper` holds no lower case.
std::size_t findIgnoringCase(std::string_view text, std::string_view upper) {
  const auto same = [](char c, char wanted) { return toUpper(c) == wanted; };
  const auto found = std::search(text.begin(), text.end(), upper.begin(), upper.end(), same);
  return found == text.end() ? std::string_view::npos
                             : static_cast<std::size_t>(found - text.begin());
}

// FT8 and FT4 ------------------------------------------------------------------------------------

bool isCallingWord(std::string_view word) {
  return word == "CQ" || word == "QRZ" || word == "DE" || word == "CQDX";
}

// modifier = 1 to 4 letters | 3 digits
bool isCqModifier(std::string_view word) {
  if (word.empty() || word.size() > 4) return false;
  return std::all_of(word.begin(), word.end(), isUpper) || (word.size() == 3 && allDigits(word));
}

// report = ["R"] ("+" | "-") digit digit | "RRR" | "RR73" | "73" | 6 digits
bool isReport(std::string_view word) {
  if (word == "RRR" || word == "RR73" || word == "73") return true;
  if (word.size() == 6 && allDigits(word)) return true;
  if (word.starts_with('R')) word.remove_prefix(1);
  return word.size() == 3 && (word[0] == '+' || word[0] == '-') && allDigits(word.substr(1));
}

// combined = "TU; " message | message " RR73; " message
// One transmission may end a contact and go on with the next; the second part is the one to read.
std::optional<std::string_view> partThatCounts(std::string_view message) {
  const auto cut = message.find("; ");
  if (cut == std::string_view::npos) return message;
  const bool ends_contact = findIgnoringCase(message.substr(0, 4), "TU; ") == 0 ||
                            findIgnoringCase(message, " RR73; ") != std::string_view::npos;
  if (!ends_contact) return std::nullopt;
  return message.substr(cut + 2);
}

struct Words {
  std::array<std::string_view, 5> at;  // without angle brackets; empty beyond `count`
  std::size_t count = 0;
};

// 2 to 5 words, else empty.
std::optional<Words> splitWords(std::string_view text) {
  Words words;
  for (auto word = takeWord(text); !word.empty(); word = takeWord(text)) {
    if (words.count == words.at.size()) return std::nullopt;
    words.at[words.count++] = withoutBrackets(word);
  }
  if (words.count < 2) return std::nullopt;
  return words;
}

// calling  = calling-word [modifier] sender [tail]
// directed = (callsign | "...") sender ["R"] tail
// tail     = locator | report
std::optional<Station> ftStation(std::string_view message) {
  const auto part = partThatCounts(message);
  if (!part) return std::nullopt;
  const auto words = splitWords(*part);
  if (!words) return std::nullopt;
  const auto upperWord = [&words](std::size_t i) { return UpperWord(words->at[i]); };

  const UpperWord first = upperWord(0);
  const bool calling = isCallingWord(first.view());
  if (!calling && first.view() != "..." && !isValidCallsign(first.view())) return std::nullopt;

  std::size_t sender = 1;
  UpperWord callsign = upperWord(sender);
  if (calling && isCqModifier(callsign.view())) callsign = upperWord(++sender);
  if (!isValidCallsign(callsign.view())) return std::nullopt;

  std::size_t tail = sender + 1;
  if (calling && tail == words->count) return Station{std::string(callsign.view()), ""};
  if (!calling && tail + 1 < words->count && upperWord(tail).view() == "R") ++tail;
  if (tail + 1 != words->count) return std::nullopt;

  const UpperWord last = upperWord(tail);
  // "RR73" has the shape of a locator but closes a contact.
  if (last.view() != "RR73" && isValidGrid(last.view())) {
    return Station{std::string(callsign.view()), std::string(last.view())};
  }
  if (!isReport(last.view())) return std::nullopt;
  return Station{std::string(callsign.view()), ""};
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

  const UpperWord callsign(*sender);
  const UpperWord grid(*locator);
  if (!isValidCallsign(callsign.view())) return std::nullopt;
  if (!grid.view().empty() && !isValidGrid(grid.view())) return std::nullopt;
  return Station{std::string(callsign.view()), std::string(grid.view())};
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
  return Station{std::string(callsign), std::string(located ? second : "")};
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

}  // namespace

std::string_view takeWord(std::string_view& rest) {
  const auto begin = std::find_if_not(rest.begin(), rest.end(), isBlank);
  const auto end = std::find_if(begin, rest.end(), isBlank);
  const std::string_view word(begin, end);
  rest = std::string_view(end, rest.end());
  return word;
}

std::optional<Sender> extractSender(int mode, std::string_view message, double dial_hz,
                                    std::int32_t audio_offset_hz, double time, std::int32_t snr) {
  // Written so that a NaN fails.
  const double frequency = dial_hz + audio_offset_hz;
  if (!(frequency >= 1 && frequency <= kHighest32Bit)) return std::nullopt;
  if (!(time >= 0 && time <= kHighest32Bit)) return std::nullopt;

  auto station = stationOf(mode, message);
  if (!station) return std::nullopt;
  return Sender{std::move(station->callsign),
                std::move(station->grid),
                static_cast<std::uint32_t>(std::round(frequency)),
                static_cast<std::uint32_t>(time),
                snr,
                std::string(spotMode(mode))};
}

}  // namespace spotserver
