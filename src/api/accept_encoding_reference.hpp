// The header Accept-Encoding read by its grammar, word for word and without haste, for tests: one
// regular expression a member, and the weights as text puts them.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <map>
#include <optional>
#include <sstream>
#include <string>

#include "quiet_regex.hpp"

namespace spotserver::reference {

// The highest weight that each coding is given, in thousandths. Codings that say nothing about gzip
// are left out, and so is a member that breaks the grammar.
inline std::map<std::string, long> weights(const std::string& accept_encoding) {
  static const std::regex kMember(
      "[ \\t]*(gzip|x-gzip|identity|\\*)[ \\t]*"
      "(?:;[ \\t]*q=(0(?:\\.[0-9]{0,3})?|1(?:\\.0{0,3})?)[ \\t]*)?",
      std::regex::icase);
  std::map<std::string, long> found;
  std::istringstream in(accept_encoding);
  for (std::string member; std::getline(in, member, ',');) {
    std::smatch match;
    if (!std::regex_match(member, match, kMember)) continue;
    std::string coding = match[1];
    for (char& c : coding) c |= 0x20;  // to lower case; "*" and "-" stay
    if (coding == "x-gzip") coding = "gzip";
    const long weight =
        match[2].matched ? std::lround(std::strtod(match.str(2).c_str(), nullptr) * 1000) : 1000;
    const auto [known, is_new] = found.emplace(coding, weight);
    if (!is_new) known->second = std::max(known->second, weight);
  }
  return found;
}

inline bool prefersGzip(const std::string& accept_encoding) {
  const std::map<std::string, long> found = weights(accept_encoding);
  const auto weightOf = [&](const char* coding) {
    const auto named = found.find(coding);
    const auto meant = named == found.end() ? found.find("*") : named;
    return meant == found.end() ? 0 : meant->second;
  };
  return weightOf("gzip") > 0 && weightOf("gzip") >= weightOf("identity");
}

}  // namespace spotserver::reference
