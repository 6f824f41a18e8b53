// The country file read the plain way, with streams and copies, and its prefixes searched one by
// one: slow, and easy to see through. Tests hold the real parser and look-ups to it.
#pragma once

#include <algorithm>
#include <cctype>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "spots/cty.hpp"

namespace cty::reference {

inline bool isSpace(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }

inline std::string trim(std::string text) {
  while (!text.empty() && isSpace(text.back())) text.pop_back();
  std::size_t start = 0;
  while (start < text.size() && isSpace(text[start])) ++start;
  return text.substr(start);
}

// As std::stoi reads it; `otherwise` when it cannot.
inline int number(const std::string& text, int otherwise) {
  try {
    return std::stoi(text);
  } catch (const std::logic_error&) {
    return otherwise;
  }
}

inline std::runtime_error errorAt(std::string_view text, std::size_t offset, std::string what) {
  const auto newlines = std::count(text.begin(), text.begin() + static_cast<long>(offset), '\n');
  return std::runtime_error("line " + std::to_string(newlines + 1) + ": " + what);
}

inline Entity parseHeader(const std::string& line, std::string_view text, std::size_t offset) {
  const auto error = errorAt(text, offset, "not a cty.dat entity header");
  std::istringstream in(line);
  std::vector<std::string> fields;
  for (std::string field; fields.size() < 8 && std::getline(in, field, ':');) {
    if (in.eof()) throw error;  // no colon behind it
    fields.push_back(trim(field));
  }
  std::string after;
  std::getline(in, after);
  if (fields.size() < 8 || fields[0].empty() || fields[7].empty() || !trim(after).empty()) {
    throw error;
  }
  Entity entity;
  entity.name = fields[0];
  entity.cq_zone = number(fields[1], -1);
  entity.itu_zone = number(fields[2], -1);
  entity.continent = fields[3];
  entity.dxcc = fields[7][0] != '*';
  entity.primary_prefix = entity.dxcc ? fields[7] : fields[7].substr(1);
  const bool good_cq = 1 <= entity.cq_zone && entity.cq_zone <= 40;
  const bool good_itu = 1 <= entity.itu_zone && entity.itu_zone <= 90;
  if (!good_cq || !good_itu || entity.continent.length() != 2) {
    throw errorAt(text, offset, "bad zones or continent for " + entity.name);
  }
  return entity;
}

// `offset` is where the entry's text ends.
inline void addAlias(Countries& countries, std::string entry, std::string_view text,
                     std::size_t offset) {
  const Entity& entity = countries.entities.back();
  const bool exact = !entry.empty() && entry[0] == '=';
  if (exact) entry.erase(0, 1);

  std::istringstream in(entry);
  std::string base;
  while (in.peek() != EOF &&
         std::string("([<{~").find(static_cast<char>(in.peek())) == std::string::npos) {
    base += static_cast<char>(in.get());
  }
  base = trim(base);
  for (char& c : base) {
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 32);
    const bool good = (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '/';
    if (!good) throw errorAt(text, offset, "bad prefix " + entry);
  }

  Record record{countries.entities.size() - 1, entity.cq_zone, entity.itu_zone, entity.continent};
  const std::map<char, char> partners = {
      {'(', ')'}, {'[', ']'}, {'<', '>'}, {'{', '}'}, {'~', '~'}};
  for (char opener = 0; in.get(opener);) {
    if (partners.count(opener) == 0) continue;
    std::string content;
    std::getline(in, content, partners.at(opener));
    if (in.eof()) throw errorAt(text, offset, "unterminated modifier in " + entry);
    if (opener == '(') record.cq_zone = number(content, record.cq_zone);
    if (opener == '[') record.itu_zone = number(content, record.itu_zone);
    if (opener == '{') record.continent = content;
  }
  if (base.empty()) return;
  (exact ? countries.exact : countries.prefixes)[base] = record;
  if (!exact) countries.longest_prefix = std::max(countries.longest_prefix, base.length());
}

inline void addAliases(Countries& countries, const std::string& list, std::string_view text,
                       std::size_t offset) {
  std::istringstream in(list + ",");
  for (std::string entry; std::getline(in, entry, ',');) {
    std::size_t end = entry.length();
    while (end > 0 && isSpace(entry[end - 1])) --end;
    addAlias(countries, trim(entry), text, offset + end);
    offset += entry.length() + 1;
  }
}

inline Countries parse(std::string_view text) {
  Countries countries;
  std::size_t offset = 0;
  for (;;) {
    while (offset < text.size() && isSpace(text[offset])) ++offset;
    if (offset == text.size()) break;
    std::istringstream in{std::string(text.substr(offset))};
    std::string header;
    std::getline(in, header);
    countries.entities.push_back(parseHeader(header, text, offset));
    std::string list;
    std::getline(in, list, ';');
    if (in.eof()) {
      throw errorAt(text, text.size(),
                    "alias list for " + countries.entities.back().name + " has no ';'");
    }
    offset += header.length() + 1;
    addAliases(countries, list, text, offset);
    offset += list.length() + 1;
  }
  if (countries.entities.empty()) {
    throw std::runtime_error("only 0 entities (expected at least 1)");
  }
  return countries;
}

// The longest listed prefix of `text`, by asking every prefix; null when none fits.
inline const Record* findPrefix(const Countries& countries, std::string_view text) {
  const Record* best = nullptr;
  std::size_t best_size = 0;
  for (const auto& [prefix, record] : countries.prefixes) {
    if (prefix.size() > best_size && text.substr(0, prefix.size()) == prefix) {
      best = &record;
      best_size = prefix.size();
    }
  }
  return best;
}

// One line for each thing held, in a fixed order: equal texts mean equal countries.
inline std::string describe(const RecordMap& records, const std::string& sign) {
  std::string text;
  for (const auto& [key, record] : std::map<std::string, Record>(records.begin(), records.end())) {
    text += sign + key + " " + std::to_string(record.entity) + " (" +
            std::to_string(record.cq_zone) + ")[" + std::to_string(record.itu_zone) + "]{" +
            record.continent + "}\n";
  }
  return text;
}

inline std::string describe(const Countries& countries) {
  std::string text;
  for (const Entity& entity : countries.entities) {
    text += entity.name + ":" + std::to_string(entity.cq_zone) + ":" +
            std::to_string(entity.itu_zone) + ":" + entity.continent + ":" +
            (entity.dxcc ? "" : "*") + entity.primary_prefix + "\n";
  }
  return text + describe(countries.prefixes, "") + describe(countries.exact, "=") + "longest " +
         std::to_string(countries.longest_prefix) + "\n";
}

// What `parse` makes of `text`: the countries as text, or the error.
template <class Parse>
std::string outcome(Parse parse, std::string_view text) {
  try {
    return describe(parse(text));
  } catch (const std::runtime_error& error) {
    return std::string("error: ") + error.what();
  }
}

}  // namespace cty::reference
