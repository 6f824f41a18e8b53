// The plain form of callsign.cpp and message.cpp, for tests and fuzz targets only: the three
// patterns as regular expressions, words in a vector, each rule a step of its own. It is written to
// be checked by eye, shares no code with the matchers it judges, and takes some microseconds a
// call. At the end, the inputs on which both forms are compared.
#pragma once

#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <locale>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "quiet_regex.hpp"
#include "spots/message.hpp"

namespace spotserver::reference {

inline bool fullMatch(const std::string& text, const std::regex& pattern) {
  return std::regex_match(text, pattern);
}

inline std::string upper(std::string text) {
  for (char& c : text) {
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  }
  return text;
}

inline std::vector<std::string> words(const std::string& text) {
  std::istringstream in(text);
  in.imbue(std::locale::classic());
  std::vector<std::string> found;
  for (std::string word; in >> word;) found.push_back(word);
  return found;
}

inline bool beginsWith(const std::string& text, const std::string& start) {
  return text.compare(0, start.size(), start) == 0;
}

inline bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

inline bool callsignPart(const std::string& part) {
  static const std::regex pattern("^([A-Z0-9]{1,6})[0-9][A-Z]{1,6}$");
  static const std::regex letter("[A-Z]");
  std::smatch groups;
  if (!std::regex_match(part, groups, pattern)) return false;
  const std::string prefix = groups[1];
  return std::regex_search(prefix, letter);
}

inline bool isValidCallsign(const std::string& text) {
  static const std::regex characters("^[A-Z0-9/]*$");
  if (text.size() < 3 || text.size() > 32) return false;
  if (text.front() == '/' || text.back() == '/') return false;
  if (contains(text, "//")) return false;
  if (!fullMatch(text, characters)) return false;
  std::istringstream parts(text);
  for (std::string part; std::getline(parts, part, '/');) {
    if (callsignPart(part)) return true;
  }
  return false;
}

inline bool isValidGrid(const std::string& text) {
  static const std::regex pattern("^[A-R]{2}[0-9]{2}([A-X]{2}([0-9]{2})?)?$");
  return text.size() <= 8 && fullMatch(text, pattern);
}

inline bool isCqModifier(const std::string& word) {
  static const std::regex pattern("^([A-Z]{1,4}|[0-9]{3})$");
  return fullMatch(word, pattern);
}

inline bool isReport(const std::string& word) {
  static const std::regex pattern("^(R?[+-][0-9]{2}|RRR|RR73|73|[0-9]{6})$");
  return fullMatch(word, pattern);
}

inline std::string withoutBrackets(const std::string& word) {
  if (word.size() < 3 || word.front() != '<' || word.back() != '>') return word;
  return word.substr(1, word.size() - 2);
}

inline std::optional<Sender> ftSender(std::string message) {
  message = upper(message);
  if (contains(message, "; ")) {
    if (!beginsWith(message, "TU; ") && !contains(message, " RR73; ")) return std::nullopt;
    message = message.substr(message.find("; ") + 2);
  }

  std::vector<std::string> word = words(message);
  for (std::string& w : word) w = withoutBrackets(w);
  if (word.size() < 2 || word.size() > 5) return std::nullopt;

  const bool calling = word[0] == "CQ" || word[0] == "QRZ" || word[0] == "DE" || word[0] == "CQDX";
  std::size_t position = 0;
  if (calling) {
    if (isValidCallsign(word[1])) {
      position = 1;
    } else if (isCqModifier(word[1])) {
      position = 2;
    } else {
      return std::nullopt;
    }
  } else if (isValidCallsign(word[0]) || word[0] == "...") {
    position = 1;
  } else {
    return std::nullopt;
  }
  if (position >= word.size() || !isValidCallsign(word[position])) return std::nullopt;

  Sender sender;
  sender.callsign = word[position];
  std::vector<std::string> after(word.begin() + static_cast<std::ptrdiff_t>(position) + 1,
                                 word.end());
  if (calling && after.empty()) return sender;
  if (!calling && after.size() >= 2 && after[0] == "R") after.erase(after.begin());
  if (after.size() != 1) return std::nullopt;

  const std::string& tail = after[0];
  if (tail != "RR73" && isValidGrid(tail)) {
    sender.grid = tail;
  } else if (!isReport(tail)) {
    return std::nullopt;
  }
  return sender;
}

inline std::optional<Sender> js8Sender(const std::string& message) {
  const auto frame = message.rfind(" [frame=");
  if (frame == std::string::npos || message.back() != ']') return std::nullopt;
  const auto begin = frame + 2;
  const auto token = words(message.substr(begin, message.size() - 1 - begin));
  if (token.size() != 4) return std::nullopt;
  if (!beginsWith(token[0], "frame=") || !beginsWith(token[1], "flags=") ||
      !beginsWith(token[2], "sender=") || !beginsWith(token[3], "grid=")) {
    return std::nullopt;
  }

  Sender sender;
  sender.callsign = token[2].substr(7);
  sender.grid = token[3].substr(5);
  if (sender.callsign == "-") sender.callsign = "";
  if (sender.grid == "-") sender.grid = "";
  sender.callsign = upper(sender.callsign);
  sender.grid = upper(sender.grid);
  if (!isValidCallsign(sender.callsign)) return std::nullopt;
  if (!sender.grid.empty() && !isValidGrid(sender.grid)) return std::nullopt;
  return sender;
}

inline std::optional<Sender> wsprSender(std::string message) {
  if (contains(message, " [drift=")) message = message.substr(0, message.find(" [drift="));
  const auto word = words(message);
  if (word.size() < 2) return std::nullopt;

  Sender sender;
  std::size_t power = 0;
  const bool bracketed = word[0].size() >= 3 && word[0].front() == '<' && word[0].back() == '>';
  if (word[0] == "<...>" || bracketed) {
    power = 2;
    if (!isValidGrid(word[1])) return std::nullopt;
    if (word[1].size() == 6) {
      sender.callsign = word[0] == "<...>" ? "" : withoutBrackets(word[0]);
      sender.grid = word[1];
    }
  } else if (isValidGrid(word[1]) && word[1].size() == 4) {
    power = 2;
    sender.callsign = word[0];
    sender.grid = word[1];
  } else {
    power = 1;
    sender.callsign = word[0];
  }

  if (word.size() != power + 1) return std::nullopt;
  if (!isValidCallsign(sender.callsign)) return std::nullopt;
  static const std::regex one_or_two_digits("^[0-9]{1,2}$");
  if (!fullMatch(word[power], one_or_two_digits)) return std::nullopt;
  if (std::stoi(word[power]) > 60) return std::nullopt;
  return sender;
}

inline std::optional<Sender> extractSender(int mode, const std::string& message, double dial_hz,
                                           std::int32_t audio_offset_hz, double time,
                                           std::int32_t snr) {
  std::optional<Sender> sender;
  if (mode == 0 || mode == 1) sender = ftSender(message);
  if (mode >= 2 && mode <= 5) sender = js8Sender(message);
  if (mode == 6) sender = wsprSender(message);
  if (!sender) return std::nullopt;

  const double frequency = dial_hz + audio_offset_hz;
  if (std::isnan(frequency) || frequency < 1 || frequency > 4294967295.0) return std::nullopt;
  if (std::isnan(time) || time < 0 || time > 4294967295.0) return std::nullopt;
  sender->frequency = static_cast<std::uint32_t>(std::floor(frequency + 0.5));
  sender->time = static_cast<std::uint32_t>(time);
  sender->snr = snr;
  const char* const names[] = {"FT8", "FT4", "JS8", "JS8", "JS8", "JS8", "WSPR"};
  sender->mode = names[mode];
  return sender;
}

inline bool same(const std::optional<Sender>& a, const std::optional<Sender>& b) {
  if (!a || !b) return !a && !b;
  return a->callsign == b->callsign && a->grid == b->grid && a->frequency == b->frequency &&
         a->time == b->time && a->snr == b->snr && a->mode == b->mode;
}

// One line a person can compare; "-" for no sender.
inline std::string describe(const std::optional<Sender>& sender) {
  if (!sender) return "-";
  std::ostringstream out;
  out.imbue(std::locale::classic());
  out << sender->callsign << " grid=" << sender->grid << " frequency=" << sender->frequency
      << " time=" << sender->time << " snr=" << sender->snr << " mode=" << sender->mode;
  return out.str();
}

// Calls `check` with every text of up to `longest` characters of `alphabet`, the empty one first.
template <typename Check>
void forEachText(std::string_view alphabet, std::size_t longest, const Check& check,
                 const std::string& start = "") {
  check(start);
  if (longest == 0) return;
  for (const char c : alphabet) forEachText(alphabet, longest - 1, check, start + c);
}

// Seeded damage: the same seed gives the same texts on every machine.
class Mutator {
 public:
  explicit Mutator(std::uint32_t seed) : random_(seed) {}

  std::size_t below(std::size_t limit) { return random_() % limit; }

  template <typename List>
  const auto& pick(const List& list) {
    return list[below(std::size(list))];
  }

  // `text` with up to three characters replaced, inserted or removed, or a piece of it doubled.
  std::string damage(std::string text) {
    for (auto times = below(4); times > 0; --times) damageOnce(text);
    return text;
  }

 private:
  void damageOnce(std::string& text) {
    using namespace std::string_view_literals;
    static constexpr auto kHostile =
        "  \t\v\f\r\n\0+-.,eExX0123456789/;<>[]=_AFKNQRSXYZanr\x7f\x80\xc4\xff"sv;
    const auto at = below(text.size() + 1);
    switch (below(4)) {
      case 0:
        if (at < text.size()) text[at] = pick(kHostile);
        break;
      case 1:
        text.insert(at, 1, pick(kHostile));
        break;
      case 2:
        text.erase(at, 1 + below(3));
        break;
      default:
        text.insert(at, text.substr(at, 1 + below(8)));
        break;
    }
  }

  std::mt19937 random_;
};

}  // namespace spotserver::reference
