// Decode intervals from the SQLite history that the station's receivers write. The schema is
// theirs; this program only ever reads it.
//
// They keep one row per receiver, dial frequency, mode and minute in the table `minutes` (PRAGMA
// user_version at most 2):
//
//   receiver   TEXT     the receiver's name, not NULL
//   frequency  INTEGER  dial frequency, Hz
//   mode       TEXT     a mode name as in spots/mode.hpp, letter by letter
//   minute     INTEGER  UTC epoch seconds / 60
//   mask       INTEGER  bit i is set when the receiver listened through slot i of that minute
//   counts     BLOB     decodes per slot: unsigned 64-bit little-endian, padded to eight at least
//
// Slots a minute: FT8 4, FT4 8, JS8 4, JS8-FAST 6, JS8-TURBO 10, JS8-SLOW 2, WSPR 1. The one WSPR
// slot begins on the row's minute and lasts 120 s, past the end of that minute.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <stop_token>
#include <string>
#include <string_view>
#include <vector>

#include "spots/interned.hpp"

namespace spotserver {

// One row of `minutes` as SQLite hands it over. The views last until the next row is asked for.
struct HistoryRow {
  std::optional<std::string_view> receiver;  // empty: NULL
  std::int64_t frequency = 0;                // Hz
  std::optional<std::string_view> mode;      // empty: NULL
  std::int64_t minute = 0;                   // UTC epoch seconds / 60
  std::int32_t mask = 0;
  std::string_view counts;  // bytes of the blob
};

// Who heard it, and on what.
struct HistoryChannel {
  std::string receiver;
  std::string mode;      // as stored
  double frequency = 0;  // dial frequency, Hz
};

// One slot of one channel that its receiver listened through.
struct HistorySlot {
  double start = 0;           // UTC epoch seconds
  std::uint64_t count = 0;    // decodes in the slot; 0 is listening without a decode
  std::uint32_t channel = 0;  // place among the channels held with it
};

// Slots as they are read: a day of them holds each channel's texts once.
class HistorySlots {
 public:
  std::vector<HistorySlot> slots;

  // The place of a channel, added if it is new. Cost: one look-up.
  std::uint32_t channel(std::string_view receiver, std::string_view mode, double frequency) {
    return channels_.acquire({receiver, mode, frequency});
  }
  const HistoryChannel& operator[](std::uint32_t channel) const { return channels_[channel]; }
  std::size_t channels() const { return channels_.size(); }

 private:
  struct ChannelTraits {
    struct Key {
      std::string_view receiver;
      std::string_view mode;
      double frequency;
    };
    using Value = HistoryChannel;
    static std::uint32_t hash(const Key& key);
    static bool same(const HistoryChannel& channel, const Key& key);
    static HistoryChannel make(const Key& key);
  };

  Interned<ChannelTraits> channels_;
};

// Appends one slot for every set bit of the mask whose slot lies in the window: it starts at or
// after `from` and ends no later than `to` + 1 (UTC epoch seconds). A slot that ends in the second
// after `to` has in truth just ended: clocks differ that much.
//   // FT8, mask 0b0101, counts 3 0 7 9 0 0 0 0:
//   // count 3 at minute * 60, count 7 at minute * 60 + 30
// Throws std::runtime_error, in this order of checks:
//   "Invalid history text"    receiver or mode is NULL
//   "Invalid history mode"    no mode has this name
//   "Invalid history mask"    negative, or a bit beyond the mode's slots is set
//   "Invalid history counts"  the blob has not exactly max(slots, 8) * 8 bytes
// `out` is unchanged then.
void expandRow(const HistoryRow& row, double from, double to, HistorySlots& out);

// What one read may take. A locked or broken file must not hold the caller for long, nor may a file
// made to hurt (an endless view called `minutes`) eat the memory.
struct HistoryLimits {
  // From opening to the last row, waits for a writer included.
  std::chrono::milliseconds time{5000};
  // Bytes for SQLite, and as many for the slots. Merging them takes some four times as many again.
  std::size_t memory = 128u << 20;
};

// The process has no file descriptor left to open the history with. That says nothing about the
// history, so callers may tell it from a failed read.
struct OutOfDescriptors : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Every slot of the history at `path` that lies in the window [from, to + 1] (UTC epoch seconds,
// from <= to), ascending by start; slots with equal starts in the order of their receivers' names.
// Empty also when there is no file at `path`.
//   readHistorySlots(path, now - 300, now)  // the slots of the last five minutes
// A writer that holds the file locked is waited for. `stop`, asked from any thread, ends the read
// within some 10 ms.
// Throws std::runtime_error: one of expandRow's (one bad row fails the read), "Cannot open history"
// (no regular file, or one of those that SQLite keeps beside it is none), "Unsupported history
// schema", "History window too large" (beyond limits.memory), or SQLite's own text: "database is
// locked" after limits.time, "interrupted" after limits.time or when stopped.
// Throws OutOfDescriptors with SQLite's text.
// Opens, reads and closes the database; never blocks on a FIFO. Writes no temporary file.
// Cost: the rows of the window, when the table has an index on `minute`. No text is copied but
// those of new channels.
HistorySlots readHistorySlots(const std::string& path, double from, double to,
                              std::stop_token stop = {}, const HistoryLimits& limits = {});

// --- One by one ---
// Slots with their texts in each, for tests and measurements. The server works on HistorySlots.

// One slot that a receiver listened through; count 0 is listening without a decode.
struct HistoryObservation {
  std::string receiver;
  std::string mode;         // as stored
  double frequency = 0;     // dial frequency, Hz
  double start = 0;         // slot start, UTC epoch seconds
  std::uint64_t count = 0;  // decodes in the slot
};

// The same slots in the same order.
std::vector<HistoryObservation> observations(const HistorySlots& seen);
HistorySlots slotsOf(const std::vector<HistoryObservation>& observations);

// Those of readHistorySlots.
std::vector<HistoryObservation> readHistory(const std::string& path, double from, double to,
                                            std::stop_token stop = {},
                                            const HistoryLimits& limits = {});

}  // namespace spotserver
