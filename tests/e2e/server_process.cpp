#include "e2e/server_process.hpp"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <random>
#include <stdexcept>
#include <utility>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace spotserver::e2e {
namespace {

[[noreturn]] void fail(const std::string& what) {
  throw std::runtime_error(what + ": " + std::strerror(errno));
}

struct Pipe {
  Fd read_end;
  Fd write_end;
};

Pipe makePipe() {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) fail("pipe2");
  return {Fd(ends[0]), Fd(ends[1])};
}

// Writes until nothing more fits; returns how many bytes that took.
std::size_t fill(const Fd& pipe) {
  const int flags = fcntl(pipe.get(), F_GETFL);
  fcntl(pipe.get(), F_SETFL, flags | O_NONBLOCK);
  const std::string block(PIPE_BUF, '-');  // fits whole or not at all
  std::size_t filled = 0;
  while (write(pipe.get(), block.data(), block.size()) > 0) filled += block.size();
  fcntl(pipe.get(), F_SETFL, flags);
  return filled;
}

bool belongsToTheUser(std::string_view variable) {
  for (const std::string_view name : {"HOME=", "XDG_"}) {
    if (variable.substr(0, name.size()) == name) return true;
  }
  return false;
}

std::vector<std::string> environmentOf(const Launch& launch) {
  std::vector<std::string> all;
  for (char** variable = environ; *variable != nullptr; ++variable) {
    if (!belongsToTheUser(*variable)) all.emplace_back(*variable);
  }
  for (const auto& [name, value] : launch.environment) {
    all.push_back(name);
    all.back().append("=").append(value);
  }
  return all;
}

std::vector<char*> pointersTo(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  pointers.reserve(texts.size() + 1);
  for (std::string& text : texts) pointers.push_back(text.data());
  pointers.push_back(nullptr);
  return pointers;
}

// Between fork and exec only calls that are safe there; all memory is ready before.
[[noreturn]] void becomeServer(const Launch& launch, char** arguments, char** environment,
                               int output, int errors) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  ::signal(SIGPIPE, SIG_DFL);
  const int input = open("/dev/null", O_RDONLY);
  if (chdir(launch.directory.c_str()) != 0 || dup2(input, 0) < 0 || dup2(output, 1) < 0 ||
      dup2(errors, 2) < 0) {
    _exit(127);
  }
  // Nothing else that the tester happened to inherit.
  close_range(3, ~0U, 0);
  for (const int fd : launch.closed_descriptors) ::close(fd);
  for (const auto& [resource, value] : launch.limits) {
    const rlimit limit{value, value};
    setrlimit(static_cast<__rlimit_resource_t>(resource), &limit);
  }
  if (launch.traced) ptrace(PTRACE_TRACEME);
  execve(SPOT_SERVER_BINARY, arguments, environment);
  _exit(127);
}

// Counters of a coverage build are written by a process that ends by itself only.
#ifdef SPOT_COVERAGE
constexpr bool kEndsGently = true;
#else
constexpr bool kEndsGently = false;
#endif

bool endedGently(Process& process) {
  try {
    process.signal(SIGTERM);
    process.waitForExit(std::chrono::seconds(5));
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

// Appends what one read gives; false at the end of the pipe, which is then closed.
bool takeFrom(Fd& pipe, std::string& text) {
  char buffer[4096];
  const ssize_t got = read(pipe.get(), buffer, sizeof buffer);
  if (got > 0) {
    text.append(buffer, static_cast<std::size_t>(got));
    return true;
  }
  if (got < 0 && errno == EINTR) return true;
  pipe.close();
  return false;
}

sockaddr_in loopback(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

// Empty when `port` is taken for this kind of socket.
std::optional<Fd> bindLoopback(int kind, int port) {
  Fd fd(socket(AF_INET, kind | SOCK_CLOEXEC, 0));
  if (!fd) fail("socket");
  const sockaddr_in address = loopback(port);
  if (bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    return std::nullopt;
  }
  return fd;
}

}  // namespace

pid_t spawn(const Launch& launch, int output, int errors) {
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  std::vector<std::string> arguments = {kCommandName};
  arguments.insert(arguments.end(), launch.arguments.begin(), launch.arguments.end());
  std::vector<std::string> environment = environmentOf(launch);
  auto argument_pointers = pointersTo(arguments);
  auto environment_pointers = pointersTo(environment);
  const pid_t pid = fork();
  if (pid < 0) fail("fork");
  if (pid == 0) {
    becomeServer(launch, argument_pointers.data(), environment_pointers.data(), output, errors);
  }
  return pid;
}

int millisecondsUntil(Clock::time_point deadline) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return left > 0 ? static_cast<int>(left) : 0;
}

// By number: the C library's declarations lack C linkage before its 2.37.
Fd pidfdOf(pid_t pid) {
  Fd handle(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
  if (!handle) fail("pidfd_open");
  return handle;
}

Process::~Process() {
  if (pid_ <= 0 || (kEndsGently && endedGently(*this))) return;
  ::kill(pid_, SIGKILL);
  while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
  }
}

void Process::signal(int number) const {
  if (pid_ <= 0 || ::kill(pid_, number) != 0) fail("kill");
}

int Process::waitForExit(std::chrono::milliseconds patience) {
  const Fd handle = pidfdOf(pid_);
  const auto deadline = Clock::now() + patience;
  pollfd ended{handle.get(), POLLIN, 0};
  while (poll(&ended, 1, millisecondsUntil(deadline)) <= 0) {
    if (Clock::now() >= deadline) {
      throw std::runtime_error("process " + std::to_string(pid_) + " is still running");
    }
  }
  int status = 0;
  if (waitpid(pid_, &status, 0) != pid_) fail("waitpid");
  pid_ = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

ServerProcess::ServerProcess(const Launch& launch) {
  Pipe output = makePipe();
  Pipe errors = makePipe();
  if (launch.output_full) filling_ = fill(output.write_end);
  process_ = Process(spawn(launch, output.write_end.get(), errors.write_end.get()));
  output_pipe_ = std::move(output.read_end);
  errors_pipe_ = std::move(errors.read_end);
}

bool ServerProcess::readMore(Clock::time_point deadline) {
  if (!output_pipe_ && !errors_pipe_) return false;
  // A closed pipe's -1 is what poll skips.
  pollfd pipes[] = {{output_pipe_.get(), POLLIN, 0}, {errors_pipe_.get(), POLLIN, 0}};
  const int ready = poll(pipes, 2, millisecondsUntil(deadline));
  if (ready == 0) {
    throw std::runtime_error("no more output in time; printed: " + output_ + errors_);
  }
  if (pipes[0].revents != 0) takeFrom(output_pipe_, output_);
  const std::size_t foreign = std::min(filling_, output_.size());
  output_.erase(0, foreign);
  filling_ -= foreign;
  if (pipes[1].revents != 0) takeFrom(errors_pipe_, errors_);
  return true;
}

const std::string& ServerProcess::awaitOutput(std::string_view text) {
  const auto deadline = Clock::now() + kPatience;
  while (output_.find(text) == std::string::npos) {
    if (!readMore(deadline)) {
      throw std::runtime_error("the server's output ended; printed: " + output_ + errors_);
    }
  }
  return output_;
}

int ServerProcess::waitForExit(std::chrono::milliseconds patience) {
  const int status = process_.waitForExit(patience);
  const auto deadline = Clock::now() + kPatience;
  while (readMore(deadline)) {
  }
  return status;
}

Outcome runToEnd(const Launch& launch) {
  ServerProcess server(launch);
  const int status = server.waitForExit();
  return {status, server.output(), server.errors()};
}

DirectoryWatch::DirectoryWatch(const std::string& directory) : events_(inotify_init1(IN_CLOEXEC)) {
  if (!events_ || inotify_add_watch(events_.get(), directory.c_str(), IN_MOVED_TO) < 0) {
    fail("inotify on " + directory);
  }
}

void DirectoryWatch::awaitArrival(std::string_view name) {
  const auto deadline = Clock::now() + kPatience;
  for (;;) {
    pollfd ready{events_.get(), POLLIN, 0};
    if (poll(&ready, 1, millisecondsUntil(deadline)) == 0) {
      throw std::runtime_error(std::string(name) + " did not appear");
    }
    alignas(inotify_event) char buffer[4096];
    const ssize_t got = read(events_.get(), buffer, sizeof buffer);
    for (ssize_t at = 0; at < got;) {
      const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
      if (event->len > 0 && name == event->name) return;
      at += static_cast<ssize_t>(sizeof *event + event->len);
    }
  }
}

// Ports below the range from which the kernel takes the local ports of outgoing connections, so
// that no client of any test can sit on one. A UDP socket of the same number, which a server never
// uses, tells the other tests that the port is taken, also between two starts of our server.
PortLease::PortLease() {
  std::random_device random;
  for (int attempt = 0; attempt < 1000; ++attempt) {
    const int port = 20000 + static_cast<int>(random() % 10000);
    auto claim = bindLoopback(SOCK_DGRAM, port);
    if (claim && bindLoopback(SOCK_STREAM, port)) {
      port_ = port;
      claim_ = std::move(*claim);
      return;
    }
  }
  throw std::runtime_error("no free port");
}

}  // namespace spotserver::e2e
