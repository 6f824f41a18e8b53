// The log reader in its plainest form, for tests: standard streams and getline, one line after the
// other, nothing remembered; and two scripts that hold the reader to it.
#pragma once

#include <cstdint>
#include <istream>
#include <new>
#include <optional>
#include <span>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "byte_script.hpp"
#include "log_lines.hpp"
#include "spots/all_txt.hpp"
#include "spots/log_reader.hpp"

namespace spotserver {

// The complete lines of `in`, without those longer than `longest`.
inline std::vector<std::string> plainLines(std::istream& in, std::size_t longest) {
  std::vector<std::string> lines;
  std::string line;
  while (std::getline(in, line)) {
    if (in.eof()) break;  // the last line has no newline yet
    if (line.size() <= longest) lines.push_back(line);
  }
  return lines;
}

// Where the lines dated `target` or later begin in a log of more than 64 KiB. A line still without
// its end is read as it stands.
inline std::uint64_t plainLogStart(std::istream& in, std::uint64_t size, double target) {
  std::uint64_t low = 0;
  std::uint64_t upper = size;
  std::uint64_t span = size;
  do {
    span /= 2;
    const std::uint64_t probe = low + span;
    in.clear();
    in.seekg(static_cast<std::streamoff>(probe));
    std::string line;
    if (probe > 0) std::getline(in, line);
    std::optional<double> time;
    if (std::getline(in, line) && line.size() > 12) time = parseAllTxtTime(line.substr(0, 13));
    if (time && *time >= target) {
      upper = probe;
    } else {
      low = probe;
      span = upper - probe;
    }
  } while (span > 65'536);
  return low;
}

// A log that lies in memory.
class MemoryLog {
 public:
  void append(std::string_view text) {
    text_ += text;
    if (write(fd_.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
      throw std::runtime_error("Cannot write to memory");
    }
  }
  const std::string& text() const { return text_; }
  RegularFile open() const {
    struct stat status {};
    fstat(fd_.get(), &status);
    return {Fd(dup(fd_.get())), status.st_ino, static_cast<std::uint64_t>(status.st_size), {}};
  }

 private:
  Fd fd_{memfd_create("log", MFD_CLOEXEC)};
  std::string text_;
};

// Lets a log grow by bits and pieces as `bytes` say, looks at it after each, and drops a line now
// and then. Chunks and limits are so small that every boundary is met.
class LogLinesScript {
 public:
  explicit LogLinesScript(std::span<const std::uint8_t> bytes)
      : script_(bytes),
        limits_{.chunk = 1 + script_.below(24), .longest_line = script_.below(24)} {}

  // What differed first; empty when nothing did.
  std::string run() {
    grow();
    const std::size_t start = script_.below(4) == 0 ? script_.below(log_.text().size() + 1) : 0;
    position_ = startOfLog(log_.open(), start);
    while (!script_.done()) {
      look();
      if (lines_ != expected(start)) return "lines of " + log_.text();
      if (continuesLog(log_.open(), position_) != std::optional(true)) return "tail";
      grow();
    }
    return "";
  }

 private:
  void grow() {
    std::string piece;
    for (std::size_t n = script_.below(24); n > 0; --n) piece += "ab\r\n"[script_.below(4)];
    log_.append(piece);
  }

  void look() {
    std::size_t until_failure = script_.below(8);
    const auto take = [&](std::string_view line) {
      if (until_failure-- == 1) throw std::bad_alloc();
      lines_.emplace_back(line);
    };
    try {
      readLogLines(log_.open(), position_, take, {}, limits_);
    } catch (const std::bad_alloc&) {
      look();
    }
  }

  std::vector<std::string> expected(std::size_t start) const {
    std::istringstream in(log_.text().substr(start));
    std::string rest;
    if (start > 0) std::getline(in, rest);
    return plainLines(in, limits_.longest_line);
  }

  ByteScript script_;
  LogLimits limits_;
  MemoryLog log_;
  LogPosition position_;
  std::vector<std::string> lines_;
};

// Searches a log of runs of lines, most of them in order, for a date that `bytes` choose.
class LogStartScript {
 public:
  explicit LogStartScript(std::span<const std::uint8_t> bytes) : script_(bytes) {}

  std::string run() {
    MemoryLog log;
    while (log.text().size() <= 65'536 || (!script_.done() && log.text().size() < 300'000)) {
      log.append(runOfLines());
    }
    const RegularFile file = log.open();
    std::istringstream in(log.text());
    for (const double age : {0.0, 0.1, 0.5, 0.9, 1.0}) {
      const double target = kFirst + (time_ - kFirst) * age;
      const auto plain = plainLogStart(in, file.size, target);
      if (findLogStart(file, target) != plain) {
        return "start for " + std::to_string(target) + ", not " + std::to_string(plain);
      }
    }
    return "";
  }

 private:
  static constexpr double kFirst = 1'741'947'330;

  std::string runOfLines() {
    std::string run;
    const std::size_t kind = script_.below(16);
    const std::size_t step = script_.below(8);
    const std::size_t unfinished = script_.below(16);
    for (std::size_t n = 256 - script_.below(256); n > 0; --n) {
      time_ += static_cast<double>(step);
      run += lineOf(kind, n);
    }
    if (unfinished == 15) run.pop_back();
    return run;
  }

  std::string lineOf(std::size_t kind, std::size_t n) const {
    switch (kind) {
      case 1:
        return std::string(n, 'j') + "\n";
      case 2:
        return std::string(8 * n, 'l') + "\n";
      case 3:
        return decodeLine(time_ - 500, "CQ N0CALL FN42");
      case 4:
        return decodeLine(time_ + 500, "CQ N0CALL FN42");
      case 5:
        return timestamp(time_).substr(0, n % 14) + "\n";
      default:
        return decodeLine(time_, "CQ N0CALL FN42");
    }
  }

  ByteScript script_;
  double time_ = kFirst;
};

}  // namespace spotserver
