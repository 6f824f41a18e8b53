// What a start costs at least: reads a decode log the way the server does on its first start and
// prints what the server's 24-hour answer counts. It finds the start point, splits, parses, tells
// who sent what, asks each callsign's country once, and keeps when each callsign was last heard and
// how much was decoded in each interval; nothing else. No thread, no lock, no store.
//
//   limit_start LOG [CTY_FILE [NOW]]     NOW: UTC epoch seconds; the clock when left out
//
// It takes every liberty that the server's parts cannot: consecutive lines mostly share their first
// four fields, so these are compared with the last line's instead of read; lines are read up to
// their newline without looking for the end of the buffer; messages of the commonest forms are
// matched by bit masks. Whatever looks different goes to the server's own parser, so the counts
// must come out the same as the server's.
#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "api/band_plan.hpp"
#include "spots/all_txt.hpp"
#include "spots/country.hpp"
#include "spots/cty.hpp"
#include "spots/log_reader.hpp"
#include "spots/message.hpp"
#include "spots/mode.hpp"
#include "spots/regular_file.hpp"

namespace {

using namespace spotserver;

constexpr double kHeld = 24 * 3600 + 45 * 60;  // seconds
constexpr double kMargin = 600;                // a log is begun so much earlier
constexpr double kWindow = 24 * 3600;
constexpr std::uint64_t kReadWhole = 1 << 20;  // bytes; a larger log is searched
constexpr std::size_t kChunk = 128 * 1024;

// Callsigns --------------------------------------------------------------------------------------

// A callsign of up to 16 characters as two numbers; unused bytes are 0.
struct Key {
  std::uint64_t front = 0;
  std::uint64_t back = 0;
  bool operator==(const Key&) const = default;
};

Key keyOf(std::string_view callsign) {
  char bytes[16] = {};
  for (std::size_t i = 0; i < callsign.size(); ++i) bytes[i] = callsign[i];
  Key key;
  std::memcpy(&key.front, bytes, 8);
  std::memcpy(&key.back, bytes + 8, 8);
  return key;
}

// When a callsign was last heard, by band and over all; 0: never.
struct Heard {
  static constexpr std::size_t kBands = 14;  // those of the plan, and one for all
  std::array<std::uint32_t, kBands> at{};
};

// Every callsign heard, in one table with open addressing, at most half full.
class Callsigns {
 public:
  explicit Callsigns(const cty::Database& countries) : countries_(countries), slots_(1 << 12) {}

  // `band` is a position in the band plan; off the plan, kBands - 1.
  void record(std::string_view callsign, std::size_t band, double time) {
    Heard* heard = find(callsign);
    if (heard == nullptr) return;
    const auto at = static_cast<std::uint32_t>(time);
    std::uint32_t& on_any = heard->at[Heard::kBands - 1];
    std::uint32_t& on_band = heard->at[band];
    on_any = std::max(on_any, at);
    on_band = std::max(on_band, at);
  }

  // How many were heard on `band` since `time`; kBands - 1: on any.
  std::uint64_t heardSince(std::size_t band, double time) const {
    std::uint64_t count = 0;
    const auto add = [&](const Heard& heard) {
      count += heard.at[band] != 0 && heard.at[band] >= time ? 1 : 0;
    };
    for (const Slot& slot : slots_) add(slot.heard);
    for (const auto& [callsign, entry] : long_ones_) add(entry.heard);
    return count;
  }

 private:
  struct Slot {
    Key key;
    Heard heard;
    bool counted = false;  // it belongs to a country
  };

  bool counts(std::string_view callsign) const {
    return !countries_.loaded() || resolveCountry(countries_, callsign).has_value();
  }

  // Null for a callsign that does not count.
  Heard* find(std::string_view callsign) {
    Slot& slot = callsign.size() > 16 ? longOne(callsign) : shortOne(callsign);
    return slot.counted ? &slot.heard : nullptr;
  }

  Slot& longOne(std::string_view callsign) {
    const auto [found, added] = long_ones_.try_emplace(std::string(callsign));
    if (added) found->second.counted = counts(callsign);
    return found->second;
  }

  Slot& shortOne(std::string_view callsign) {
    const Key key = keyOf(callsign);
    Slot* slot = &place(key);
    if (slot->key == key) return *slot;
    if (++size_ > slots_.size() / 2) {
      grow();
      slot = &place(key);
    }
    slot->key = key;
    slot->counted = counts(callsign);
    return *slot;
  }

  Slot& place(const Key& key) {
    const std::uint64_t mixed = (key.front ^ (key.back * 31)) * 0x9E3779B97F4A7C15U;
    std::size_t at = static_cast<std::size_t>(mixed >> 32) & (slots_.size() - 1);
    while (slots_[at].key != key && slots_[at].key != Key{}) at = (at + 1) & (slots_.size() - 1);
    return slots_[at];
  }

  void grow() {
    std::vector<Slot> old(slots_.size() * 2);
    old.swap(slots_);
    for (const Slot& slot : old) {
      if (slot.key != Key{}) place(slot.key) = slot;
    }
  }

  const cty::Database& countries_;
  std::vector<Slot> slots_;
  std::size_t size_ = 0;
  std::unordered_map<std::string, Slot> long_ones_;
};

// Intervals --------------------------------------------------------------------------------------

struct Interval {
  double time = 0;
  double frequency = 0;
  int mode = 0;
  std::size_t band = 0;
  std::uint64_t spots = 0;
};

// Decodes by time, frequency and mode.
class Intervals {
 public:
  static constexpr std::size_t kNone = SIZE_MAX;

  // Position of the interval; the one asked for last is found at once.
  std::size_t find(double time, double frequency, int mode) {
    const auto isWanted = [&](std::size_t i) {
      const Interval& known = all_[i];
      return known.time == time && known.frequency == frequency && known.mode == mode;
    };
    if (last_ != kNone && isWanted(last_)) return last_;
    auto& same_time = by_time_[time];
    const auto known = std::find_if(same_time.begin(), same_time.end(), isWanted);
    if (known != same_time.end()) return last_ = *known;
    same_time.push_back(all_.size());
    const int order = launcher::bandOrder(launcher::bandForFrequency(frequency).id);
    const std::size_t band = std::min<std::size_t>(static_cast<std::size_t>(order), 13);
    all_.push_back({time, frequency, mode, band, 0});
    return last_ = all_.size() - 1;
  }
  Interval& operator[](std::size_t position) { return all_[position]; }
  const std::vector<Interval>& all() const { return all_; }

 private:
  std::vector<Interval> all_;
  std::size_t last_ = kNone;
  std::unordered_map<double, std::vector<std::size_t>> by_time_;
};

// Messages ---------------------------------------------------------------------------------------

enum Class : std::uint8_t {
  kOther = 0,
  kLetter = 1,
  kDigit = 2,
  kSlash = 4,
  kSpace = 8,
  kSign = 16
};

constexpr std::array<std::uint8_t, 256> kClasses = [] {
  std::array<std::uint8_t, 256> classes{};
  for (std::size_t c = 'A'; c <= 'Z'; ++c) classes[c] = kLetter;
  for (std::size_t c = '0'; c <= '9'; ++c) classes[c] = kDigit;
  classes['/'] = kSlash;
  classes[' '] = kSpace;
  classes['+'] = classes['-'] = kSign;
  return classes;
}();

// A word, and which of its characters are letters and digits: bit i for the i-th.
struct Word {
  const char* begin = nullptr;
  unsigned size = 0;
  std::uint32_t letters = 0;
  std::uint32_t digits = 0;
  bool plain = false;  // nothing but those

  std::string_view text() const { return {begin, size}; }
  bool is(std::string_view other) const { return text() == other; }

  // Without a slash only: prefix of 1 to 6 with a letter, digit, suffix of 1 to 6 letters.
  bool isCallsign() const {
    if (!plain || digits == 0 || size > 13) return false;
    const unsigned digit = 31U - static_cast<unsigned>(__builtin_clz(digits));
    const unsigned suffix = size - 1 - digit;
    return digit <= 6 && suffix >= 1 && suffix <= 6 && (letters & ((1U << digit) - 1)) != 0;
  }

  // A report or a locator of four characters.
  bool isTail() const {
    if (is("73") || is("RRR")) return true;
    if (size == 4 && letters == 3 && digits == 12) return begin[0] <= 'R' && begin[1] <= 'R';
    const unsigned sign = begin[0] == 'R' ? 1 : 0;
    return size == 3 + sign && (begin[sign] == '+' || begin[sign] == '-') &&
           digits >> sign == 6;  // the two characters behind the sign
  }
};

// Reads a word of at most 32 characters and the one space behind it, up to `end`.
Word nextWord(const char*& at, const char* end) {
  Word word{.begin = at};
  unsigned seen = 0;
  while (at != end && word.size < 32) {
    const unsigned what = kClasses[static_cast<unsigned char>(*at)];
    if (what == kSpace) break;
    seen |= what | (what == 0 ? 128U : 0U);
    word.letters |= (what & 1U) << word.size;
    word.digits |= (what >> 1 & 1U) << word.size;
    ++word.size;
    ++at;
  }
  word.plain = seen != 0 && (seen & ~3U) == 0;
  if (at != end && *at == ' ') ++at;
  return word;
}

// The sender of the two commonest forms of FT8 and FT4. Empty: another form, or nobody.
//   CQ sender [locator]        callsign sender (report | locator)
std::string_view usualSender(const char* at, const char* end) {
  const Word first = nextWord(at, end);
  const Word second = nextWord(at, end);
  if (!second.isCallsign()) return {};
  const bool calling = first.is("CQ");
  if (!calling && !first.isCallsign()) return {};
  if (at == end) return calling ? second.text() : std::string_view();
  const Word third = nextWord(at, end);
  if (at != end || third.size == 0 || !third.isTail()) return {};
  return second.text();
}

// Lines ------------------------------------------------------------------------------------------

// The first four fields of a line, with the blank behind them, and what they mean.
struct Head {
  static constexpr std::size_t kLongest = 48;
  std::array<char, kLongest> text{};
  std::size_t size = 0;  // 0: none yet
  bool held = false;     // not too old, not too far ahead
  bool ft = false;       // FT8 or FT4
  std::size_t interval = Intervals::kNone;
};

bool isDigit(char c) { return c >= '0' && c <= '9'; }

// Each step returns where it ended, null when the field has another form. A newline ends them all.
const char* skipGap(const char* at) {
  if (at == nullptr || *at != ' ') return nullptr;
  while (*at == ' ') ++at;
  return at;
}
const char* skipDigits(const char* at, std::ptrdiff_t most) {
  const char* const begin = at;
  while (isDigit(*at)) ++at;
  return at != begin && at - begin <= most ? at : nullptr;
}
const char* skipInteger(const char* at) {
  return at == nullptr ? nullptr : skipDigits(at + (*at == '-'), 9);
}
const char* skipDecimal(const char* at) {
  const char* const point = at == nullptr ? nullptr : skipDigits(at + (*at == '-'), 9);
  return point != nullptr && *point == '.' ? skipDigits(point + 1, 9) : nullptr;
}

class Start {
 public:
  Start(const cty::Database& countries, double now) : now_(now), callsigns_(countries) {}

  // `line` is followed by its newline.
  void take(std::string_view line) {
    if (head_.size != 0 && line.size() > head_.size &&
        std::memcmp(line.data(), head_.text.data(), head_.size) == 0 && takeUsual(line)) {
      return;
    }
    takeOdd(line);
  }

  void print() const {
    const double from = now_ - kWindow;
    std::array<std::uint64_t, Heard::kBands> spots{};
    std::array<std::uint64_t, Heard::kBands> intervals{};
    std::uint64_t held = 0;
    for (const Interval& interval : intervals_.all()) {
      held += interval.spots;
      if (interval.time < from || interval.time > now_ || interval.spots == 0) continue;
      spots[interval.band] += interval.spots;
      ++intervals[interval.band];
    }
    std::uint64_t all_spots = 0;
    std::uint64_t all_intervals = 0;
    for (std::size_t band = 0; band < Heard::kBands; ++band) {
      all_spots += spots[band];
      all_intervals += intervals[band];
    }
    std::printf("held %ju window_spots %ju window_intervals %ju window_unique_callsigns %ju\n",
                std::uintmax_t{held}, std::uintmax_t{all_spots}, std::uintmax_t{all_intervals},
                std::uintmax_t{callsigns_.heardSince(Heard::kBands - 1, from)});
    for (std::size_t band = 0; band + 1 < Heard::kBands; ++band) {
      std::printf("%s spots %ju intervals %ju unique_callsigns %ju\n",
                  launcher::bandTable()[band].id.c_str(), std::uintmax_t{spots[band]},
                  std::uintmax_t{intervals[band]},
                  std::uintmax_t{callsigns_.heardSince(band, from)});
    }
  }

 private:
  // A line that begins as the last one did. False: something about it is unusual.
  bool takeUsual(std::string_view line) {
    const char* const end = line.data() + line.size();
    const char* at = skipGap(line.data() + head_.size - 1);
    at = skipDecimal(skipGap(skipInteger(at)));
    at = skipGap(at);
    at = at == nullptr ? nullptr : skipDigits(at, 5);
    if (at == nullptr || *at != ' ' || !head_.ft) return false;
    const std::string_view sender = usualSender(skipGap(at), end);
    if (sender.empty()) return false;
    if (!head_.held) return true;
    Interval& interval = intervals_[head_.interval];
    ++interval.spots;
    callsigns_.record(sender, interval.band, interval.time);
    return true;
  }

  // Any other line, as the server reads it.
  void takeOdd(std::string_view line) {
    if (line.ends_with('\r')) line.remove_suffix(1);
    const auto record = parseAllTxtLine(line);
    if (!record) return;
    const bool held = record->time >= now_ - kHeld && record->time <= now_ + kHeld;
    const auto position = intervals_.find(record->time, record->frequency, record->mode);
    if (held) {
      Interval& interval = intervals_[position];
      ++interval.spots;
      if (!record->callsign.empty()) {
        callsigns_.record(record->callsign, interval.band, record->time);
      }
    }
    remember(line, *record, held, position);
  }

  // A head in the usual columns, with a dial frequency to which any audio offset can be added, is
  // what the next line is compared with.
  void remember(std::string_view line, const AllTxtRecord& record, bool held,
                std::size_t interval) {
    head_.size = 0;
    const auto mode = line.find(" Rx ");
    const auto end = mode == line.npos ? mode : line.find(' ', mode + 4);
    if (end == line.npos || end >= Head::kLongest) return;
    if (record.frequency < 1 || record.frequency > 4e9) return;
    head_.size = end + 1;
    line.copy(head_.text.data(), head_.size);
    head_.held = held;
    head_.ft = record.mode == kFt8 || record.mode == kFt4;
    head_.interval = interval;
  }

  double now_;
  Callsigns callsigns_;
  Intervals intervals_;
  Head head_;
};

// Lets `start` take every complete line of `log` from `offset` on. A line that the edge of a chunk
// cuts is moved to the front of the next one.
void readLines(const RegularFile& log, std::uint64_t offset, Start& start) {
  std::vector<char> buffer(kChunk + kMaxLogLine + 1);
  std::size_t kept = 0;
  bool skip = offset > 0;  // the rest of a line
  while (offset < log.size) {
    const std::size_t room = std::min(kChunk, buffer.size() - kept);
    const std::size_t wanted = std::min<std::uint64_t>(room, log.size - offset);
    const auto got = readAt(log.fd.get(), offset, buffer.data() + kept, wanted);
    if (!got || *got == 0) return;
    offset += *got;
    const char* at = buffer.data();
    const char* const end = at + kept + *got;
    const char* search = at + kept;
    while (const auto* newline = static_cast<const char*>(
               std::memchr(search, '\n', static_cast<std::size_t>(end - search)))) {
      const std::string_view line(at, newline);
      if (!skip && line.size() <= kMaxLogLine) start.take(line);
      skip = false;
      at = search = newline + 1;
    }
    kept = static_cast<std::size_t>(end - at);
    std::memmove(buffer.data(), at, kept);
    if (kept > kMaxLogLine) {
      kept = 0;
      skip = true;
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "Usage: limit_start LOG [CTY_FILE [NOW]]\n");
    return 2;
  }
  const auto log = openRegularFile(argv[1]);
  if (!log) {
    std::fprintf(stderr, "Cannot open %s\n", argv[1]);
    return 1;
  }
  cty::Database countries;
  if (argc > 2) countries.reloadIfChanged(argv[2]);
  const double now = argc > 3 ? std::atof(argv[3]) : static_cast<double>(std::time(nullptr));
  Start start(countries, now);
  readLines(*log, log->size > kReadWhole ? findLogStart(*log, now - kHeld - kMargin) : 0, start);
  start.print();
  return 0;
}
