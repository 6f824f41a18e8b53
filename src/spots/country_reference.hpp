// The country of a callsign the plain way: the callsign cut into a list of parts, the prefixes
// searched one by one.
#pragma once

#include <cctype>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "spots/country.hpp"
#include "spots/cty_reference.hpp"

namespace spotserver::reference {

struct Resolved {
  const cty::Record* record = nullptr;  // null: no country
  bool mobile = false;
};

inline bool isDigit(char c) { return std::isdigit(static_cast<unsigned char>(c)) != 0; }

// Position of the last digit, or -1.
inline int lastDigit(const std::string& part) {
  int position = static_cast<int>(part.size()) - 1;
  while (position >= 0 && !isDigit(part[static_cast<std::size_t>(position)])) --position;
  return position;
}

inline bool hasInnerDigit(const std::string& part) {
  return lastDigit(part) > 0 && lastDigit(part) < static_cast<int>(part.size()) - 1;
}

// The text to look up for two parts.
inline std::string locationOf(const std::vector<std::string>& parts) {
  std::string first = parts[0];
  const std::string& second = parts[1];
  if (second.size() == 1 && isDigit(second[0])) {
    if (lastDigit(first) >= 0) first[static_cast<std::size_t>(lastDigit(first))] = second[0];
    return first;
  }
  if (hasInnerDigit(first) && !hasInnerDigit(second)) return second;
  if (hasInnerDigit(second) && !hasInnerDigit(first)) return first;
  return first.size() <= second.size() ? first : second;
}

inline Resolved resolve(const cty::Countries& countries, const std::string& callsign) {
  const auto exact = countries.exact.find(callsign);
  if (exact != countries.exact.end()) return {&exact->second, false};

  std::vector<std::string> parts;
  std::istringstream in(callsign);
  for (std::string part; std::getline(in, part, '/');) {
    if (!part.empty()) parts.push_back(part);
  }
  const std::set<std::string> suffixes = {"P",    "M",  "A",   "B",  "QRP",
                                          "QRPP", "LH", "LGT", "MM", "AM"};
  bool mobile = false;
  while (parts.size() > 1 && suffixes.count(parts.back()) != 0) {
    if (parts.back() == "MM" || parts.back() == "AM") mobile = true;
    parts.pop_back();
  }
  if (parts.empty()) return {};
  const std::string text = parts.size() == 1   ? parts[0]
                           : parts.size() == 2 ? locationOf(parts)
                                               : callsign;
  const cty::Record* record = cty::reference::findPrefix(countries, text);
  return {record, record != nullptr && mobile};
}

// Whether `found` is what the plain way finds.
inline bool same(const cty::Countries& countries, const std::optional<cty::Lookup>& found,
                 const Resolved& plain) {
  if (!found || !plain.record) return !found && !plain.record;
  return found->entity == &countries.entities[plain.record->entity] &&
         found->cq_zone == plain.record->cq_zone && found->itu_zone == plain.record->itu_zone &&
         found->continent.data() == plain.record->continent.data() && found->mobile == plain.mobile;
}

}  // namespace spotserver::reference
