#include "server/pid_file.hpp"

#include <stdexcept>

#include <unistd.h>

#include "server/atomic_file.hpp"
#include "spots/regular_file.hpp"

namespace spotserver {
namespace {

constexpr std::size_t kLongestPidFile = 64;  // bytes, far more than any process ID has

std::string pid_text() { return std::to_string(::getpid()) + "\n"; }

}  // namespace

void write_pid_file(const std::string& path) {
  if (write_atomically(path, pid_text())) {
    throw std::runtime_error("Cannot write PID file: " + path);
  }
}

void remove_pid_file(const std::string& path) {
  const auto file = openRegularFile(path);
  if (file && readWhole(*file, kLongestPidFile) == pid_text()) ::unlink(path.c_str());
}

}  // namespace spotserver
