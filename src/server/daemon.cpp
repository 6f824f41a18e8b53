#include "server/daemon.hpp"

#include <cerrno>
#include <cstdio>
#include <exception>
#include <stdexcept>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "server/owned.hpp"

namespace spotserver {
namespace {

constexpr char kConfirmed = 1;

// Non-blocking for the open alone: a FIFO without a reader must not hold the start up.
Fd open_log(const std::string& path) {
  Fd log(::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_NONBLOCK | O_CLOEXEC | O_NOCTTY,
                0600));
  if (!log) throw std::runtime_error("Cannot open daemon log: " + path);
  const int flags = ::fcntl(log.get(), F_GETFL);
  ::fcntl(log.get(), F_SETFL, flags & ~O_NONBLOCK);
  return log;
}

// Exit status of the calling process: 0 when the detached one confirmed.
int await_confirmation(const Fd& pipe, pid_t first_child) {
  char byte = 0;
  ssize_t count = 0;
  do {
    count = ::read(pipe.get(), &byte, 1);
  } while (count < 0 && errno == EINTR);
  while (::waitpid(first_child, nullptr, 0) < 0 && errno == EINTR) {
  }
  return count == 1 && byte == kConfirmed ? 0 : 1;
}

// The first child: leads a new session, so that the second can never gain a terminal.
void leave_session() {
  if (::setsid() < 0) ::_exit(1);
  const pid_t second = ::fork();
  if (second < 0) ::_exit(1);
  if (second > 0) ::_exit(0);
}

void redirect_standard_descriptors(const Fd& log) {
  const Fd null(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  if (!null || ::dup2(null.get(), STDIN_FILENO) < 0 || ::dup2(log.get(), STDOUT_FILENO) < 0 ||
      ::dup2(log.get(), STDERR_FILENO) < 0) {
    ::_exit(1);
  }
}

void confirm(Fd pipe) {
  ssize_t count = 0;
  do {
    count = ::write(pipe.get(), &kConfirmed, 1);
  } while (count < 0 && errno == EINTR);
  if (count != 1) ::_exit(1);
}

}  // namespace

void fill_standard_descriptors() {
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
    // open() takes the lowest free descriptor, which is the closed one.
    if (::fcntl(fd, F_GETFD) < 0) ::open("/dev/null", O_RDWR);
  }
}

std::optional<int> detach(const std::string& log_file, const std::function<void()>& prepare) {
  Fd log = open_log(log_file);
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
  Fd confirmed(ends[0]);
  Fd confirming(ends[1]);

  const pid_t first_child = ::fork();
  if (first_child < 0) throw std::runtime_error("fork failed");
  if (first_child > 0) {
    log.close();
    confirming.close();
    return await_confirmation(confirmed, first_child);
  }

  leave_session();
  confirmed.close();
  ::umask(077);
  if (::chdir("/") != 0) ::_exit(1);
  redirect_standard_descriptors(log);
  log.close();
  try {
    prepare();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    ::_exit(1);
  }
  confirm(std::move(confirming));
  return std::nullopt;
}

}  // namespace spotserver
