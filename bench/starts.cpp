// Starts two programs in turn and compares what it costs until each has said that it is ready or
// has ended: processor time, time, and the memory it holds then.
//   starts 11 'Press Ctrl-C' ./corvane-spot-server --all-txt LOG -- ./limit_start LOG cty.dat
// Ready is who has printed a line that begins with the text given; it is ended then. Standard input
// and errors of the programs are ours. Medians over all rounds, and the ratio of the first to the
// second.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "server/owned.hpp"
#include "statistics.hpp"
#include "tool.hpp"

namespace {

using spotserver::Fd;

struct Cost {
  std::vector<double> processor = {};  // milliseconds
  std::vector<double> elapsed = {};    // milliseconds
  std::vector<double> memory = {};     // megabytes resident; of one that ended, the most it held
};

struct Program {
  std::vector<char*> arguments;  // with a null at the end
  Cost cost = {};
};

// A child process that is ended with its owner.
class Child {
 public:
  Child(char* const* arguments, int out) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out, STDOUT_FILENO);
    const int error = posix_spawnp(&pid_, arguments[0], &actions, nullptr, arguments, environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) throw std::runtime_error(std::string("Cannot start ") + arguments[0]);
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  ~Child() {
    if (pid_ == 0) return;
    kill(pid_, SIGTERM);
    waitpid(pid_, nullptr, 0);
  }
  pid_t pid() const { return pid_; }
  // What the ended child has used.
  rusage wait() {
    rusage used{};
    int status = 0;
    if (wait4(pid_, &status, 0, &used) != pid_) throw std::runtime_error("Lost a child");
    pid_ = 0;
    if (status != 0) throw std::runtime_error("A program failed");
    return used;
  }

 private:
  pid_t pid_ = 0;
};

double milliseconds(const timespec& time) {
  return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_nsec) / 1e6;
}
double milliseconds(const timeval& time) {
  return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_usec) / 1e3;
}
double millisecondsOf(clockid_t clock) {
  timespec time{};
  clock_gettime(clock, &time);
  return milliseconds(time);
}

double residentMegabytes(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("VmRSS:")) return std::strtod(line.c_str() + 6, nullptr) / 1024;
  }
  throw std::runtime_error("A program ended too early");
}

// Reads until a line begins with `ready`; false: the other end was closed before.
bool waitForLine(int in, std::string_view ready) {
  std::string text = "\n";
  char chunk[4096];
  for (ssize_t got = 0; (got = read(in, chunk, sizeof chunk)) > 0;) {
    text.append(chunk, static_cast<std::size_t>(got));
    if (text.find("\n" + std::string(ready)) != text.npos) return true;
  }
  return false;
}

void measure(Program& program, std::string_view ready) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("No pipe");
  const Fd in(ends[0]);
  Fd out(ends[1]);
  const double begin = millisecondsOf(CLOCK_MONOTONIC);
  Child child(program.arguments.data(), out.get());
  out.close();
  Cost& cost = program.cost;
  if (waitForLine(in.get(), ready)) {
    clockid_t clock{};
    clock_getcpuclockid(child.pid(), &clock);
    cost.processor.push_back(millisecondsOf(clock));
    cost.memory.push_back(residentMegabytes(child.pid()));
  } else {
    const rusage used = child.wait();
    cost.processor.push_back(milliseconds(used.ru_utime) + milliseconds(used.ru_stime));
    cost.memory.push_back(static_cast<double>(used.ru_maxrss) / 1024);
  }
  cost.elapsed.push_back(millisecondsOf(CLOCK_MONOTONIC) - begin);
}

void run(int argc, char** argv) {
  Program first;
  Program second;
  Program* program = &first;
  for (int i = 3; i < argc; ++i) {
    if (program == &first && std::string_view(argv[i]) == "--") {
      program = &second;
    } else {
      program->arguments.push_back(argv[i]);
    }
  }
  if (first.arguments.empty() || second.arguments.empty()) {
    throw std::runtime_error("Two programs are compared, with -- between them");
  }
  first.arguments.push_back(nullptr);
  second.arguments.push_back(nullptr);
  const int rounds = std::atoi(argv[1]);
  for (int round = 0; round < rounds; ++round) {
    measure(round % 2 == 0 ? first : second, argv[2]);
    measure(round % 2 == 0 ? second : first, argv[2]);
  }
  spotserver::reportPairs("processor", first.cost.processor, second.cost.processor, "ms");
  spotserver::reportPairs("time", first.cost.elapsed, second.cost.elapsed, "ms");
  spotserver::reportPairs("memory", first.cost.memory, second.cost.memory, "MB");
}

}  // namespace

int main(int argc, char** argv) {
  return spotserver::runTool(
      argc >= 6, "Usage: starts ROUNDS READY PROGRAM [ARGUMENT]... -- PROGRAM [ARGUMENT]...\n",
      [&] { run(argc, argv); });
}
