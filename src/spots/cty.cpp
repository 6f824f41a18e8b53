// The parser is a cursor over the whole text. Each step takes something off the front and counts
// the newlines it passes, so that an error can name the line reached and no byte is looked at more
// than a few times, however odd the file.
//
//   file    = { entity }
//   entity  = name ":" cq ":" itu ":" continent ":" latitude ":" longitude ":" offset ":"
//             ["*"] primary ":" newline  entry { "," entry } ";"
//   entry   = ["="] base { modifier }
//   modifier = "(" cq ")" | "[" itu "]" | "{" continent "}" | "<" ... ">" | "~" ... "~"
//
// White space is free around all of these; an entry without a base adds nothing.
#include "spots/cty.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <new>
#include <stdexcept>
#include <utility>

#include "spots/regular_file.hpp"

namespace cty {
namespace {

constexpr std::size_t kLargestFile = 4 * 1024 * 1024;  // bytes; the real one has a third of 1 MiB

constexpr std::string_view kSpace = " \t\n\v\f\r";
constexpr std::string_view kPrefixCharacters = "ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789/";
// Partners stand at the same position.
constexpr std::string_view kOpeners = "([<{~";
constexpr std::string_view kClosers = ")]>}~";

std::string_view trimStart(std::string_view text) {
  text.remove_prefix(std::min(text.find_first_not_of(kSpace), text.size()));
  return text;
}

std::string_view trimEnd(std::string_view text) {
  return text.substr(0, text.find_last_not_of(kSpace) + 1);
}

std::string_view trim(std::string_view text) { return trimEnd(trimStart(text)); }

char upper(char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; }

// The decimal integer that `text` begins with; what follows its digits does not matter ("14x").
// Empty without a digit, or beyond 32 bits.
std::optional<std::int32_t> leadingInteger(std::string_view text) {
  text = trimStart(text);
  if (text.starts_with('+') && !text.starts_with("+-")) text.remove_prefix(1);
  std::int32_t value = 0;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), value);
  if (result.ec != std::errc{}) return std::nullopt;
  return value;
}

class Parser {
 public:
  explicit Parser(std::string_view text) : rest_(text) {}

  Countries parse() {
    for (skipSpace(); !rest_.empty(); skipSpace()) readEntity();
    if (countries_.entities.empty()) {
      throw std::runtime_error("only 0 entities (expected at least 1)");
    }
    return std::move(countries_);
  }

 private:
  void pass(std::size_t size) {
    line_ += std::count(rest_.begin(), rest_.begin() + static_cast<std::ptrdiff_t>(size), '\n');
    rest_.remove_prefix(size);
  }

  void skipSpace() { pass(rest_.size() - trimStart(rest_).size()); }

  [[noreturn]] void fail(const std::string& what) const {
    throw std::runtime_error("line " + std::to_string(line_) + ": " + what);
  }

  void readEntity() {
    const std::string_view header = rest_.substr(0, rest_.find('\n'));
    countries_.entities.push_back(readHeader(header));
    pass(header.size());
    if (rest_.find(';') == std::string_view::npos) {
      pass(rest_.size());
      fail("alias list for " + countries_.entities.back().name + " has no ';'");
    }
    readAliasList();
  }

  Entity readHeader(std::string_view header) const {
    std::array<std::string_view, 8> fields;
    for (std::string_view& field : fields) {
      const std::size_t colon = header.find(':');
      if (colon == std::string_view::npos) fail("not a cty.dat entity header");
      field = trim(header.substr(0, colon));
      header.remove_prefix(colon + 1);
    }
    const auto& [name, cq, itu, continent, latitude, longitude, utc_offset, primary] = fields;
    if (name.empty() || primary.empty() || !trim(header).empty()) {
      fail("not a cty.dat entity header");
    }

    Entity entity;
    entity.name = name;
    entity.dxcc = !primary.starts_with('*');
    entity.primary_prefix = primary.substr(entity.dxcc ? 0 : 1);
    entity.continent = continent;
    entity.cq_zone = leadingInteger(cq).value_or(0);
    entity.itu_zone = leadingInteger(itu).value_or(0);
    if (entity.cq_zone < 1 || entity.cq_zone > 40 || entity.itu_zone < 1 || entity.itu_zone > 90 ||
        continent.size() != 2) {
      fail("bad zones or continent for " + entity.name);
    }
    return entity;
  }

  // Up to and with the ';', which is known to exist.
  void readAliasList() {
    char separator = ',';
    while (separator == ',') {
      skipSpace();
      const std::string_view entry = trimEnd(rest_.substr(0, rest_.find_first_of(",;")));
      pass(entry.size());
      readAlias(entry);
      skipSpace();
      separator = rest_.front();
      pass(1);
    }
  }

  void readAlias(std::string_view entry) {
    const bool exact = entry.starts_with('=');
    if (exact) entry.remove_prefix(1);

    const std::size_t opener = entry.find_first_of(kOpeners);
    std::string base(trim(entry.substr(0, opener)));
    std::transform(base.begin(), base.end(), base.begin(), upper);
    if (base.find_first_not_of(kPrefixCharacters) != std::string::npos) {
      fail("bad prefix " + std::string(entry));
    }
    Record record = recordOf(countries_.entities.size() - 1);
    applyModifiers(record, entry, opener);
    if (base.empty()) return;

    if (!exact) countries_.longest_prefix = std::max(countries_.longest_prefix, base.size());
    RecordMap& records = exact ? countries_.exact : countries_.prefixes;
    records.insert_or_assign(std::move(base), std::move(record));
  }

  Record recordOf(std::size_t position) const {
    const Entity& entity = countries_.entities[position];
    return {position, entity.cq_zone, entity.itu_zone, entity.continent};
  }

  // Text between and behind modifiers is skipped.
  void applyModifiers(Record& record, std::string_view entry, std::size_t opener) const {
    while (opener != std::string_view::npos) {
      const char kind = entry[opener];
      const std::size_t closer = entry.find(kClosers[kOpeners.find(kind)], opener + 1);
      if (closer == std::string_view::npos) {
        fail("unterminated modifier in " + std::string(entry));
      }
      applyModifier(record, kind, entry.substr(opener + 1, closer - opener - 1));
      opener = entry.find_first_of(kOpeners, closer + 1);
    }
  }

  // A zone without a number changes nothing.
  static void applyModifier(Record& record, char kind, std::string_view content) {
    if (kind == '(') record.cq_zone = leadingInteger(content).value_or(record.cq_zone);
    if (kind == '[') record.itu_zone = leadingInteger(content).value_or(record.itu_zone);
    if (kind == '{') record.continent = content;
  }

  std::string_view rest_;
  std::ptrdiff_t line_ = 1;  // of the first character of rest_
  Countries countries_;
};

// Null when malformed.
std::shared_ptr<const Countries> parseOrNull(std::string_view text) {
  try {
    return std::make_shared<const Countries>(parseCountries(text));
  } catch (const std::runtime_error&) {
    return nullptr;  // nobody is told: the countries in use stay
  }
}

bool sameTime(const timespec& a, const timespec& b) {
  return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

std::optional<Lookup> find(const Countries& countries, const RecordMap& records,
                           std::string_view key) {
  const auto found = records.find(key);
  if (found == records.end()) return std::nullopt;
  const Record& record = found->second;
  return Lookup{&countries.entities[record.entity], record.cq_zone, record.itu_zone,
                record.continent};
}

}  // namespace

Countries parseCountries(std::string_view text) { return Parser(text).parse(); }

void Database::reloadIfChanged(const std::string& path) noexcept {
  try {
    const auto file = spotserver::openRegularFile(path);
    if (!file || (path == path_ && sameTime(file->modified, modified_))) return;
    const auto text = spotserver::readWhole(*file, kLargestFile);
    if (!text) return;
    std::string parsed_path = path;
    auto fresh = parseOrNull(*text);
    path_ = std::move(parsed_path);
    modified_ = file->modified;
    if (fresh) countries_ = std::move(fresh);
  } catch (const std::bad_alloc&) {
    // Nothing was changed yet; the next call tries again.
  }
}

std::optional<Lookup> Database::findExact(std::string_view callsign) const {
  if (!countries_) return std::nullopt;
  return find(*countries_, countries_->exact, callsign);
}

std::optional<Lookup> Database::findPrefix(std::string_view text) const {
  if (!countries_) return std::nullopt;
  for (auto size = std::min(countries_->longest_prefix, text.size()); size > 0; --size) {
    if (auto found = find(*countries_, countries_->prefixes, text.substr(0, size))) return found;
  }
  return std::nullopt;
}

}  // namespace cty
