#include "spots/regular_file.hpp"

#include <algorithm>
#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace spotserver {
namespace {

// Non-blocking for the moment between stat and open, in which a FIFO may take the file's place.
Fd openForReading(const std::string& path) {
  int fd = -1;
  do {
    fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  } while (fd < 0 && errno == EINTR);
  return Fd(fd);
}

}  // namespace

bool isRegularFile(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

std::optional<RegularFile> openRegularFile(const std::string& path) {
  if (!isRegularFile(path)) return std::nullopt;
  Fd fd = openForReading(path);
  struct stat status {};
  if (!fd || ::fstat(fd.get(), &status) != 0 || !S_ISREG(status.st_mode)) return std::nullopt;
  return RegularFile{std::move(fd), status.st_ino, static_cast<std::uint64_t>(status.st_size),
                     status.st_mtim};
}

std::optional<std::size_t> readAt(int fd, std::uint64_t offset, char* buffer, std::size_t size) {
  std::size_t done = 0;
  while (done < size) {
    const ssize_t got = ::pread(fd, buffer + done, size - done, static_cast<off_t>(offset + done));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return std::nullopt;
    if (got == 0) break;
    done += static_cast<std::size_t>(got);
  }
  return done;
}

std::optional<std::string> readWhole(const RegularFile& file, std::size_t limit) {
  if (file.size > limit) return std::nullopt;
  // One byte more than the file had: a short read then says that this was all.
  const std::size_t step = std::max<std::size_t>(file.size + 1, 64 * 1024);
  std::string text;
  for (;;) {
    const std::size_t held = text.size();
    text.resize(held + step);
    const auto got = readAt(file.fd.get(), held, text.data() + held, step);
    if (!got) return std::nullopt;
    text.resize(held + *got);
    if (text.size() > limit) return std::nullopt;
    if (*got < step) return text;
  }
}

}  // namespace spotserver
