// The cty.dat country file: which entity (country) a callsign prefix or a single callsign belongs
// to, with its CQ zone, ITU zone and continent.
// Format: the country file that contest loggers use, published at country-files.com.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include <time.h>

namespace cty {

struct Entity {
  std::string name;
  std::string primary_prefix;  // without a leading "*"
  std::string continent;       // two letters
  std::int32_t cq_zone = 0;    // 1..40
  std::int32_t itu_zone = 0;   // 1..90
  bool dxcc = true;            // false when the primary prefix was written with "*"
};

// One alias entry: its entity's zones and continent, changed by the entry's own modifiers, which
// are taken as they are written.
struct Record {
  std::size_t entity = 0;  // position in Countries::entities
  std::int32_t cq_zone = 0;
  std::int32_t itu_zone = 0;
  std::string continent;
};

// Lets a map of strings be asked with a view, without building a string.
struct TextHash {
  using is_transparent = void;
  std::size_t operator()(std::string_view text) const noexcept {
    return std::hash<std::string_view>{}(text);
  }
};
using RecordMap = std::unordered_map<std::string, Record, TextHash, std::equal_to<>>;

// One parsed file. Keys are upper case and never empty; of entries written twice the later one
// stands.
struct Countries {
  std::vector<Entity> entities;  // in file order
  RecordMap prefixes;
  RecordMap exact;                 // entries written with "="
  std::size_t longest_prefix = 0;  // characters, over `prefixes`
};

// Parses the text of a cty.dat file, for example
//
//   Hawaii:  31:  61:  OC:   21.12:   157.48:    10.0:  KH6:
//       AH6,AH7,KH6,KH7,=K6VVN,=KB6EGA(31)[61];
//
// Throws std::runtime_error:
//   "line 3: not a cty.dat entity header"
//   "line 3: bad zones or continent for Hawaii"
//   "line 5: alias list for Hawaii has no ';'"
//   "line 4: bad prefix AH-6"
//   "line 4: unterminated modifier in AH6(31"
//   "only 0 entities (expected at least 1)"
// The line, counted from 1, is the one reached: that of the header, that of the end of the faulty
// entry, or the end of the text when it was searched in vain for a ';'.
// Cost: linear in the text.
Countries parseCountries(std::string_view text);

// What is known of a callsign's country. `entity` and `continent` point into the database and stay
// valid until its next reload.
struct Lookup {
  const Entity* entity = nullptr;  // never null in a result
  std::int32_t cq_zone = 0;
  std::int32_t itu_zone = 0;
  std::string_view continent;
  bool mobile = false;  // set for maritime and aeronautical mobiles by the callsign resolution
};

// The country file in use and when to read it again. Not synchronised: its owner guards it.
//
//   Database database;
//   database.reloadIfChanged("/usr/share/corvane/cty.dat");
//   database.findPrefix("KH6XYZ");  // Hawaii, by KH6
class Database {
 public:
  Database() = default;
  // Starts with countries that came from no file.
  explicit Database(Countries countries)
      : countries_(std::make_shared<const Countries>(std::move(countries))) {}

  // Reads the file when none was read yet, when `path` is another than the last time, or when the
  // file's write time is. A good file replaces the countries as a whole. Otherwise they stay:
  //  - missing, unreadable, no regular file, or over 4 MiB: asked again at the next call;
  //  - malformed: not parsed again until path or write time differ.
  // Never blocks, whatever lies at the path. Cost when nothing changed: three system calls.
  void reloadIfChanged(const std::string& path) noexcept;

  bool loaded() const { return countries_ != nullptr; }
  // The countries in use; null before the first good file.
  const Countries* countries() const { return countries_.get(); }

  // The "=" entry for exactly this callsign (upper case), or nothing.
  std::optional<Lookup> findExact(std::string_view callsign) const;
  // The longest prefix of `text` (upper case) that the file lists, or nothing.
  // Cost: one map look-up per length tried, from longest_prefix down.
  std::optional<Lookup> findPrefix(std::string_view text) const;

 private:
  std::shared_ptr<const Countries> countries_;
  std::string path_;     // parsed last, with or without success
  timespec modified_{};  // that file's write time
};

}  // namespace cty
