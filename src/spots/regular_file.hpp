// Opening station files safely: whatever lies at the path, looking at it never blocks.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include <sys/types.h>
#include <time.h>

#include "server/owned.hpp"

namespace spotserver {

struct RegularFile {
  Fd fd;  // read-only, closed on exec
  ino_t inode = 0;
  std::uint64_t size = 0;  // bytes when opened
  timespec modified{};     // last write when opened, UTC, nanoseconds as far as the disk keeps them
};

// Opens `path` for reading and requires a regular file (links are followed). Inode, size and write
// time come from the opened descriptor, so they belong to the bytes that will be read even when
// the name moves on to another file.
//   if (const auto log = openRegularFile("/home/op/ALL.TXT")) readAt(log->fd.get(), 0, ...);
// Empty: missing, unreadable, or a directory, FIFO, socket or device. Those are not opened at all:
// opening a FIFO would wake its writer, opening a device may set it in motion.
std::optional<RegularFile> openRegularFile(const std::string& path);

// Whether `path` names a regular file right now (links are followed). Opens nothing; the file may
// still be unreadable.
bool isRegularFile(const std::string& path);

// Reads up to `size` bytes at `offset` into `buffer`, going on after short reads and EINTR. The
// descriptor's own position neither matters nor moves.
// Returns the bytes read, fewer than `size` only at the end of the file; empty on a read error.
std::optional<std::size_t> readAt(int fd, std::uint64_t offset, char* buffer, std::size_t size);

// The whole file as text, with what was appended since it was opened. Empty on a read error or
// when it holds more than `limit` bytes; a file that was longer than that when opened is not read.
// Memory: the file plus 64 KiB. Throws std::bad_alloc.
std::optional<std::string> readWhole(const RegularFile& file, std::size_t limit);

}  // namespace spotserver
