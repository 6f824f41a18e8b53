#include "station_log.hpp"

#include <algorithm>
#include <cerrno>
#include <stdexcept>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace station {
namespace {

constexpr std::size_t kPiece = 1 << 20;

}  // namespace

LogFile::LogFile(const std::string& path)
    : path_(path), file_(::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644)) {
  if (!file_) throw std::runtime_error("Cannot write log: " + path);
  if (::flock(file_.get(), LOCK_EX | LOCK_NB) != 0) {
    throw std::runtime_error("Another sample station is writing: " + path);
  }
  if (::ftruncate(file_.get(), 0) != 0) throw std::runtime_error("Cannot write log: " + path);
}

void LogFile::append(std::string_view lines) {
  lines_ += static_cast<std::uint64_t>(std::count(lines.begin(), lines.end(), '\n'));
  pending_ += lines;
  if (pending_.size() >= kPiece) flush();
}

void LogFile::flush() {
  std::string_view rest = pending_;
  while (!rest.empty()) {
    const ssize_t written = ::write(file_.get(), rest.data(), rest.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) throw std::runtime_error("Cannot write log: " + path_);
    rest.remove_prefix(static_cast<std::size_t>(written));
  }
  pending_.clear();
}

}  // namespace station
