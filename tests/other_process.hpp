// Work done in a process of its own, in step with the test.
#pragma once

#include <exception>
#include <functional>
#include <stdexcept>
#include <utility>

#include <errno.h>
#include <stdio.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "server/owned.hpp"

namespace spotserver {

// One end of the line between a test and the process it started.
class Peer {
 public:
  explicit Peer(Fd line) : line_(std::move(line)) {}

  // Lets the other side's wait return. Throws when the other side has ended.
  void signal() const {
    if (::send(line_.get(), "!", 1, MSG_NOSIGNAL) != 1) throw std::runtime_error("Peer has ended");
  }
  // Waits for the other side's signal. Throws when the other side ends instead.
  void wait() const {
    char byte = 0;
    ssize_t got = 0;
    do {
      got = ::recv(line_.get(), &byte, 1, 0);
    } while (got < 0 && errno == EINTR);
    if (got != 1) throw std::runtime_error("Peer has ended");
  }
  void hangUp() { line_.close(); }

 private:
  Fd line_;
};

// Forks; the child runs `work` and ends with status 0, or 1 with the message on standard error when
// that throws. Start it while the test has one thread and no database open.
//   OtherProcess writer([&](const Peer& test) { lock(path); test.signal(); test.wait(); });
//   writer.peer().wait();  // it is locked now
//   writer.peer().signal();
//   EXPECT_EQ(writer.join(), 0);
class OtherProcess {
 public:
  explicit OtherProcess(const std::function<void(const Peer&)>& work) {
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) throw std::runtime_error("No socketpair");
    Peer ours{Fd(ends[0])};
    Peer theirs{Fd(ends[1])};
    pid_ = ::fork();
    if (pid_ < 0) throw std::runtime_error("Cannot fork");
    if (pid_ == 0) {
      ours.hangUp();
      ::_exit(run(work, theirs));
    }
    peer_ = std::move(ours);
  }
  ~OtherProcess() { join(); }
  OtherProcess(const OtherProcess&) = delete;
  OtherProcess& operator=(const OtherProcess&) = delete;

  const Peer& peer() const { return peer_; }

  // Waits for the end of the child, whose further waits throw. Returns its exit status, -1 when a
  // signal ended it.
  int join() {
    peer_.hangUp();
    if (pid_ > 0) {
      int status = 0;
      while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
      }
      status_ = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
      pid_ = -1;
    }
    return status_;
  }

 private:
  static int run(const std::function<void(const Peer&)>& work, const Peer& test) {
    try {
      work(test);
      return 0;
    } catch (const std::exception& error) {
      ::fprintf(stderr, "Other process: %s\n", error.what());
      return 1;
    }
  }

  pid_t pid_ = -1;
  int status_ = -1;
  Peer peer_{Fd()};
};

}  // namespace spotserver
