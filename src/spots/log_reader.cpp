#include "spots/log_reader.hpp"

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>

#include "spots/all_txt.hpp"

namespace spotserver {
namespace {

constexpr std::uint64_t kSearchEnd = 64 * 1024;  // the search stops at a span of so many bytes
constexpr std::size_t kTimestampSize = 13;       // YYMMDD_HHMMSS

// A piece of the file in memory.
struct Chunk {
  std::uint64_t begin = 0;  // offset of its first byte
  std::string_view text;
};

// A buffer that chunks are read into, one after the other.
class ChunkBuffer {
 public:
  explicit ChunkBuffer(std::size_t size)
      : size_(size), bytes_(std::make_unique_for_overwrite<char[]>(size)) {}

  // What the file holds from `begin` up to `end`, as far as it fits. Empty text: nothing more
  // there, or a read error. Valid until the next call.
  Chunk read(const RegularFile& file, std::uint64_t begin, std::uint64_t end) {
    const auto wanted = static_cast<std::size_t>(std::min<std::uint64_t>(size_, end - begin));
    const auto got = readAt(file.fd.get(), begin, bytes_.get(), wanted);
    return {begin, std::string_view(bytes_.get(), got.value_or(0))};
  }

 private:
  std::size_t size_;
  std::unique_ptr<char[]> bytes_;
};

// The first newline in [begin, end).
std::optional<std::uint64_t> findNewline(const RegularFile& file, std::uint64_t begin,
                                         std::uint64_t end, ChunkBuffer& buffer) {
  while (begin < end) {
    const Chunk chunk = buffer.read(file, begin, end);
    if (chunk.text.empty()) break;
    const auto newline = chunk.text.find('\n');
    if (newline != chunk.text.npos) return begin + newline;
    begin += chunk.text.size();
  }
  return std::nullopt;
}

// The date of the first line that begins behind `probe`; a line still without its end counts.
std::optional<double> dateBehind(const RegularFile& file, std::uint64_t probe,
                                 ChunkBuffer& buffer) {
  const auto limit = std::min<std::uint64_t>(file.size, probe + kMaxLogLine);
  const auto newline = findNewline(file, probe, limit, buffer);
  if (!newline) return std::nullopt;
  const auto begin = *newline + 1;
  // A shorter line shows its newline among these bytes, or the file ends: they are no timestamp.
  const auto end = std::min<std::uint64_t>(file.size, begin + kTimestampSize);
  return parseAllTxtTime(buffer.read(file, begin, end).text);
}

// Lets the tail end with `chunk`.
void follow(LogTail& tail, const Chunk& chunk) {
  const std::size_t added = std::min(chunk.text.size(), LogTail::kSize);
  // After a reading that was broken off the chunk begins before the tail's end.
  const std::size_t joined = chunk.begin == tail.end ? tail.size : 0;
  const std::size_t kept = std::min(joined, LogTail::kSize - added);
  std::memmove(tail.bytes.data(), tail.bytes.data() + (joined - kept), kept);
  std::memcpy(tail.bytes.data() + kept, chunk.text.data() + (chunk.text.size() - added), added);
  tail.size = kept + added;
  tail.end = chunk.begin + chunk.text.size();
}

// One call of readLogLines.
class LineReader {
 public:
  LineReader(const RegularFile& file, LogPosition& position,
             const std::function<void(std::string_view)>& line, std::size_t longest_line)
      : file_(file), position_(position), line_(line), longest_line_(longest_line) {}

  // Consumes the lines that end in `chunk`, which begins at position.scanned. False: what lies
  // before the chunk could not be read.
  bool consume(const Chunk& chunk) {
    follow(position_.tail, chunk);
    std::size_t from = 0;
    for (;;) {
      const std::size_t newline = chunk.text.find('\n', from);
      if (newline == chunk.text.npos) break;
      if (!handOut(chunk, newline)) return false;
      from = newline + 1;
      position_.offset = position_.scanned = chunk.begin + from;
      position_.skip_line = false;
    }
    position_.scanned = chunk.begin + chunk.text.size();
    return true;
  }

 private:
  bool handOut(const Chunk& chunk, std::size_t newline) {
    const std::uint64_t length = chunk.begin + newline - position_.offset;
    if (position_.skip_line || length > longest_line_) return true;
    if (position_.offset >= chunk.begin) {
      line_(chunk.text.substr(newline - length, length));
      return true;
    }
    cut_line_.resize(length);
    const auto got = readAt(file_.fd.get(), position_.offset, cut_line_.data(), length);
    if (got != length) return false;
    line_(cut_line_);
    return true;
  }

  const RegularFile& file_;
  LogPosition& position_;
  const std::function<void(std::string_view)>& line_;
  const std::size_t longest_line_;
  std::string cut_line_;  // that began before the chunk in hand
};

}  // namespace

LogPosition startOfLog(const RegularFile& file, std::uint64_t offset) {
  return {.inode = file.inode,
          .offset = offset,
          .scanned = offset,
          .skip_line = offset > 0,
          .tail = {}};
}

std::optional<bool> continuesLog(const RegularFile& file, const LogPosition& position) {
  if (file.inode != position.inode || file.size < position.offset) return false;
  const LogTail& tail = position.tail;
  std::array<char, LogTail::kSize> now{};
  const auto got = readAt(file.fd.get(), tail.end - tail.size, now.data(), tail.size);
  if (!got) return std::nullopt;
  return *got == tail.size && std::memcmp(now.data(), tail.bytes.data(), tail.size) == 0;
}

std::uint64_t findLogStart(const RegularFile& file, double target) {
  ChunkBuffer buffer(LogLimits{}.chunk);
  std::uint64_t low = 0;
  std::uint64_t high = file.size;
  while (high - low > kSearchEnd) {
    const std::uint64_t probe = low + (high - low) / 2;
    const auto date = dateBehind(file, probe, buffer);
    (date && *date >= target ? high : low) = probe;
  }
  return low;
}

bool readLogLines(const RegularFile& file, LogPosition& position,
                  const std::function<void(std::string_view)>& line, const std::stop_token& stop,
                  const LogLimits& limits) {
  if (position.scanned >= file.size) return false;
  const std::uint64_t before = position.offset;
  ChunkBuffer buffer(limits.chunk);
  LineReader reader(file, position, line, limits.longest_line);
  while (position.scanned < file.size && !stop.stop_requested()) {
    const Chunk chunk = buffer.read(file, position.scanned, file.size);
    if (chunk.text.empty() || !reader.consume(chunk)) break;
  }
  return position.offset != before;
}

}  // namespace spotserver
