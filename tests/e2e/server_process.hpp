// Starting the real server as a child process: its output, its signals, its end.
//
// Nothing here waits for a fixed time: every wait ends with an event (text on a pipe, the end of a
// process, a file appearing) or throws once kPatience is over. A test leaves no server behind:
// whatever a Process still holds when it goes is killed and reaped.
#pragma once

#include <chrono>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include <sys/resource.h>
#include <sys/types.h>

#include "server/owned.hpp"

namespace spotserver::e2e {

// How long a test waits for something that must happen. Far more than a healthy server needs.
inline constexpr std::chrono::seconds kPatience{45};

using Clock = std::chrono::steady_clock;

// Milliseconds from now to `deadline`, as poll(2) wants them; 0 when it has passed.
int millisecondsUntil(Clock::time_point deadline);

// How to start the server.
struct Launch {
  std::vector<std::string> arguments;  // behind argv[0], which is kCommandName
  std::string directory;               // working directory
  // Set on top of the tester's own environment, of which HOME and XDG_* are left out. Locale and
  // time zone pass through: in none of them may a test end differently.
  std::map<std::string, std::string> environment;
  std::vector<int> closed_descriptors;  // which of 0, 1 and 2 are not open in the new process
  std::map<int, rlim_t> limits;         // RLIMIT_... to the value it gets, soft and hard
  // Standard output is full: the first word that the server prints holds it up until the tester
  // reads.
  bool output_full = false;
  // Stops at its first instruction, as a tracee of the starting thread.
  bool traced = false;
};

inline constexpr const char* kCommandName = "corvane-spot-server";

// A child of this process, also one adopted after its own parent has gone (a detached server):
// the test process is a subreaper, so such a child's status comes here. Killed when this goes.
class Process {
 public:
  Process() = default;
  explicit Process(pid_t pid) : pid_(pid) {}
  Process(Process&& other) noexcept : pid_(std::exchange(other.pid_, -1)) {}
  Process& operator=(Process&& other) noexcept {
    std::swap(pid_, other.pid_);
    return *this;
  }
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;
  ~Process();

  pid_t pid() const { return pid_; }
  void signal(int number) const;
  // The exit status, or 128 + the signal that ended it. Throws when it is not over in time.
  int waitForExit(std::chrono::milliseconds patience = kPatience);

 private:
  pid_t pid_ = -1;
};

// The bare process, with its standard output and errors on these descriptors: for a test that
// watches over it in a way of its own.
pid_t spawn(const Launch& launch, int output, int errors);

// A descriptor that stands for the process and becomes readable when it ends.
Fd pidfdOf(pid_t pid);

// One run of the server with its output and errors on pipes.
//   ServerProcess server(launch);
//   server.awaitOutput("Press Ctrl-C to stop.\n");
//   server.signal(SIGTERM);
//   EXPECT_EQ(server.waitForExit(), 0);
class ServerProcess {
 public:
  explicit ServerProcess(const Launch& launch);

  // Reads standard output until it contains `text`; returns all of it so far. Throws, with what
  // was printed, when the server ends or time runs out before.
  const std::string& awaitOutput(std::string_view text);

  pid_t pid() const { return process_.pid(); }
  void signal(int number) const { process_.signal(number); }
  // The exit status; afterwards output() and errors() are complete. Throws when somebody else
  // still holds the pipes, as a detached process must not.
  int waitForExit(std::chrono::milliseconds patience = kPatience);

  const std::string& output() const { return output_; }
  const std::string& errors() const { return errors_; }

 private:
  // Waits for more on either pipe and takes it; false when both have ended.
  bool readMore(Clock::time_point deadline);

  Process process_;
  Fd output_pipe_;
  Fd errors_pipe_;
  std::size_t filling_ = 0;  // bytes on the output pipe that are not the server's
  std::string output_;
  std::string errors_;
};

// What a run that ends by itself left behind.
struct Outcome {
  int status = -1;
  std::string output;
  std::string errors;
};

Outcome runToEnd(const Launch& launch);

// Watches one directory for files appearing complete: renamed into place. Make it before the
// event may happen.
class DirectoryWatch {
 public:
  explicit DirectoryWatch(const std::string& directory);
  // Waits until a file called `name` has been moved to its place.
  void awaitArrival(std::string_view name);

 private:
  Fd events_;
};

// A loopback TCP port that no other test uses while this lives.
class PortLease {
 public:
  PortLease();
  int port() const { return port_; }

 private:
  int port_ = 0;
  Fd claim_;
};

}  // namespace spotserver::e2e
