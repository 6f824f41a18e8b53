// Reading a growing log line by line: where the last day begins, and what was appended since.
//
//   LogPosition position;  // kept between looks
//   if (const auto log = openRegularFile(path)) {
//     if (!continuesLog(*log, position).value_or(true)) position = startOfLog(*log, 0);
//     readLogLines(*log, position, [](std::string_view line) { ... });
//   }
//
// A line ends with a newline; what follows the last newline waits until it is completed. Every
// other byte, NUL and carriage return included, belongs to the line.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <stop_token>
#include <string_view>

#include "spots/regular_file.hpp"

namespace spotserver {

// Longest line handed out, in bytes without the newline; a longer one is skipped whole.
inline constexpr std::size_t kMaxLogLine = 1 << 20;

// The bytes that lay just before `end` when they were read. They tell a log that went on from one
// that was written anew and has grown past `end` since: that one holds other lines there.
struct LogTail {
  static constexpr std::size_t kSize =
      128;  // more than most lines, so that a timestamp is among them
  std::uint64_t end = 0;
  std::size_t size = 0;  // of `bytes`; less than kSize only near the start of what was read
  std::array<char, kSize> bytes{};
};

// How far a log has been read. A plain value, kept between looks. Offsets are bytes from the start
// of the file.
struct LogPosition {
  ino_t inode = 0;            // of the file; 0: none was read yet
  std::uint64_t offset = 0;   // where the first line not consumed begins
  std::uint64_t scanned = 0;  // no newline lies in [offset, scanned)
  bool skip_line = false;     // the line at `offset` began before it and is not handed out
  LogTail tail;               // what was read last
};

// Sizes that tests make small enough to meet every boundary.
struct LogLimits {
  std::size_t chunk = 64 * 1024;           // bytes read at a time
  std::size_t longest_line = kMaxLogLine;  // handed out
};

// The position at `offset` of a file of which nothing was read yet. Above 0 the first line is taken
// for the rest of a line and skipped.
LogPosition startOfLog(const RegularFile& file, std::uint64_t offset);

// Whether `file` is the log that was read up to `position`: the same inode, no shorter than what
// was consumed, the same bytes before the position. False: the first look, or it was replaced,
// truncated, or truncated and has grown again. Empty: the file cannot be read just now. Cost: one
// read of at most LogTail::kSize bytes.
std::optional<bool> continuesLog(const RegularFile& file, const LogPosition& position);

// Where to begin so that no line dated `target` (UTC epoch seconds) or later is missed, as far as
// the log is in time order: found by halving, at most 64 KiB before the first such line. Above 0,
// the result lies anywhere within a line.
// A probe looks at the first line that begins behind it. A line counts as not older than `target`
// only when it begins with a timestamp that says so; a probe without a line end within 1 MiB, or
// with no line behind it, counts as older.
// Cost: 24 probes of some 64 KiB for a log of 1 TiB. Memory: 64 KiB. Throws std::bad_alloc.
std::uint64_t findLogStart(const RegularFile& file, double target);

// Calls `line` for every complete line from `position` on, as far as the file went when it was
// opened, without the newline. The view ends with the call. The position moves behind a line after
// `line` has returned: when it throws, which ends the reading, that line comes again.
// A line over the limit is skipped, and so is the rest of a line that startOfLog began with.
// `stop` ends the reading between two chunks; so does a read error. Both leave the position right.
// Returns whether the position moved over a line.
// Cost: every byte is searched for its newline once, however often the look is repeated; a line cut
// by the edge of a chunk is read a second time when its end is found. Memory: one chunk and one
// line. Throws std::bad_alloc and what `line` throws.
bool readLogLines(const RegularFile& file, LogPosition& position,
                  const std::function<void(std::string_view)>& line,
                  const std::stop_token& stop = {}, const LogLimits& limits = {});

}  // namespace spotserver
