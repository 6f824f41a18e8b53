#include "server/atomic_file.hpp"

#include <cerrno>
#include <cstdio>

#include <fcntl.h>
#include <unistd.h>

#include "server/owned.hpp"

namespace spotserver {
namespace {

// Unlinks the name itself, so that neither a leftover nor a planted link is in the way.
Fd create_anew(const std::string& path, mode_t mode) {
  ::unlink(path.c_str());
  return Fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode));
}

bool write_all(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = ::write(fd, text.data(), text.size());
    if (written < 0 && errno != EINTR) return false;
    if (written > 0) text.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

// The owner first: a change of owner may clear permission bits. Only root can give a file away, and
// should: what is rewritten under sudo stays its user's. All others keep what they own anyway.
bool copy_access(int fd, const struct stat& model) {
  [[maybe_unused]] const int given = ::fchown(fd, model.st_uid, model.st_gid);
  return ::fchmod(fd, model.st_mode & 07777) == 0;
}

// Without this a power cut soon after the rename may leave an empty file under the final name.
bool flush_to_disk(int fd) {
  return ::fsync(fd) == 0 || errno == EINVAL || errno == ENOSYS;  // not every file system can
}

// On a full disk only the close may fail. An interrupted close has closed.
bool close_file(Fd& file) { return file.close() == 0 || errno == EINTR; }

bool fill(Fd& file, std::string_view text, const struct stat* like) {
  return write_all(file.get(), text) && (like == nullptr || copy_access(file.get(), *like)) &&
         flush_to_disk(file.get()) && close_file(file);
}

bool is_special(const std::string& path) {
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0) return false;
  const mode_t type = status.st_mode & S_IFMT;
  return type == S_IFCHR || type == S_IFBLK || type == S_IFIFO || type == S_IFSOCK;
}

// Gives `temporary` the name `path` unless that name is taken.
bool place_new(const std::string& temporary, const std::string& path) {
  if (::link(temporary.c_str(), path.c_str()) == 0) {
    ::unlink(temporary.c_str());
    return true;
  }
  if (errno == EEXIST) return false;
  // A file system without hard links, perhaps.
  return ::renameat2(AT_FDCWD, temporary.c_str(), AT_FDCWD, path.c_str(), RENAME_NOREPLACE) == 0;
}

bool place(const std::string& temporary, const std::string& path, bool replace) {
  if (!replace) return place_new(temporary, path);
  if (is_special(path)) {
    errno = EEXIST;
    return false;
  }
  return ::rename(temporary.c_str(), path.c_str()) == 0;
}

}  // namespace

std::optional<WriteFailure> write_atomically(const std::string& path, std::string_view text,
                                             const AtomicWrite& how) {
  using Step = WriteFailure::Step;
  const std::string temporary = path + std::string(how.suffix);
  Fd file = create_anew(temporary, how.mode);
  if (!file) return WriteFailure{Step::kCreate, errno};

  std::optional<WriteFailure> failure;
  if (!fill(file, text, how.like)) {
    failure = {Step::kWrite, errno};
  } else if (!place(temporary, path, how.replace)) {
    failure = {Step::kPlace, errno};
  }
  if (failure) ::unlink(temporary.c_str());
  return failure;
}

std::optional<WriteFailure> write_in_place(const std::string& path, std::string_view text,
                                           mode_t mode) {
  using Step = WriteFailure::Step;
  constexpr int kFlags = O_WRONLY | O_CREAT | O_TRUNC | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
  Fd file(::open(path.c_str(), kFlags, mode));
  if (!file) return WriteFailure{Step::kCreate, errno};
  if (!fill(file, text, nullptr)) return WriteFailure{Step::kWrite, errno};
  return std::nullopt;
}

}  // namespace spotserver
