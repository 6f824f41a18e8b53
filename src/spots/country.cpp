#include "spots/country.hpp"

#include <algorithm>
#include <string>

namespace spotserver {
namespace {

constexpr std::string_view kDigits = "0123456789";
constexpr auto npos = std::string_view::npos;

bool isMobileSuffix(std::string_view part) { return part == "MM" || part == "AM"; }

// How or from what a station operates, not where.
bool isSuffix(std::string_view part) {
  constexpr std::string_view kSuffixes[] = {"P", "M", "A", "B", "QRP", "QRPP", "LH", "LGT"};
  return isMobileSuffix(part) || std::ranges::find(kSuffixes, part) != std::end(kSuffixes);
}

// Empty parts at both ends do not count.
std::string_view trimSlashes(std::string_view text) {
  text.remove_prefix(std::min(text.find_first_not_of('/'), text.size()));
  return text.substr(0, text.find_last_not_of('/') + 1);
}

// Drops suffixes while another part remains. Returns whether one of them marks a mobile.
bool dropSuffixes(std::string_view& text) {
  bool mobile = false;
  for (auto slash = text.rfind('/'); slash != npos; slash = text.rfind('/')) {
    const std::string_view last = text.substr(slash + 1);
    if (!isSuffix(last)) break;
    mobile = mobile || isMobileSuffix(last);
    text = trimSlashes(text.substr(0, slash));
  }
  return mobile;
}

bool isDigit(std::string_view part) { return part.size() == 1 && kDigits.find(part) != npos; }

// Whether the last digit is neither the first nor the last character, as in a full callsign.
bool hasInnerDigit(std::string_view part) {
  const auto digit = part.find_last_of(kDigits);
  return digit != npos && digit != 0 && digit + 1 != part.size();
}

// Of two parts, the one that names the location.
std::string_view locationOf(std::string_view first, std::string_view second) {
  const bool first_is_call = hasInnerDigit(first);
  if (first_is_call != hasInnerDigit(second)) return first_is_call ? second : first;
  return second.size() < first.size() ? second : first;
}

std::optional<cty::Lookup> findInCallArea(const cty::Database& database, std::string_view part,
                                          std::string_view area) {
  std::string moved(part);
  const auto digit = moved.find_last_of(kDigits);
  if (digit != npos) moved[digit] = area.front();
  return database.findPrefix(moved);
}

// `text` is what the suffixes left of `callsign`.
std::optional<cty::Lookup> findLocation(const cty::Database& database, std::string_view callsign,
                                        std::string_view text) {
  const auto slash = text.find('/');
  if (slash == npos) return database.findPrefix(text);
  const auto first = text.substr(0, slash);
  const auto second = trimSlashes(text.substr(slash));
  if (second.find('/') != npos) return database.findPrefix(callsign);
  if (isDigit(second)) return findInCallArea(database, first, second);
  return database.findPrefix(locationOf(first, second));
}

}  // namespace

std::optional<cty::Lookup> resolveCountry(const cty::Database& database,
                                          std::string_view callsign) {
  if (auto exact = database.findExact(callsign)) return exact;
  std::string_view text = trimSlashes(callsign);
  const bool mobile = dropSuffixes(text);
  auto found = findLocation(database, callsign, text);
  if (found) found->mobile = mobile;
  return found;
}

}  // namespace spotserver
