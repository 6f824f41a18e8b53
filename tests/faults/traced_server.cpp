#include "faults/traced_server.hpp"

#include <cerrno>
#include <csignal>
#include <stdexcept>
#include <thread>

#include <fcntl.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>

namespace spotserver::faults {
namespace {

using e2e::Clock;

constexpr int kSystemCallStop = SIGTRAP | 0x80;
constexpr long kOptions = PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACECLONE | PTRACE_O_TRACEFORK |
                          PTRACE_O_TRACEVFORK | PTRACE_O_EXITKILL;

int exitStatusOf(int status) {
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// One run: a loop over what waitpid reports.
class Tracer {
 public:
  Tracer(const e2e::Launch& launch, long kill_at) : kill_at_(kill_at) {
    e2e::Launch traced = launch;
    traced.traced = true;
    const Fd null(::open("/dev/null", O_WRONLY | O_CLOEXEC));
    first_ = e2e::spawn(traced, null.get(), null.get());
    int status = 0;
    if (::waitpid(first_, &status, 0) != first_ || !WIFSTOPPED(status) ||
        ::ptrace(PTRACE_SETOPTIONS, first_, nullptr, kOptions) != 0) {
      ::kill(first_, SIGKILL);
      ::waitpid(first_, nullptr, 0);
      throw std::runtime_error("Cannot trace");
    }
    goOn(first_, 0);
  }

  TracedRun run() {
    for (;;) {
      int status = 0;
      const pid_t who = ::waitpid(-1, &status, __WALL | WNOHANG);
      if (who < 0 && errno == ECHILD) return run_;
      if (who > 0) {
        last_event_ = Clock::now();
        handle(who, status);
      } else if (who == 0) {
        checkTime();
        std::this_thread::yield();
      }
    }
  }

 private:
  struct Thread {
    bool inside_call = false;
  };

  static void goOn(pid_t who, int signal) {
    ::ptrace(PTRACE_SYSCALL, who, nullptr, static_cast<long>(signal));
  }

  void handle(pid_t who, int status) {
    if (!WIFSTOPPED(status)) {
      if (who == first_) run_.status = exitStatusOf(status);
      threads_.erase(who);
      return;
    }
    const bool is_new = threads_.try_emplace(who).second;
    const int signal = WSTOPSIG(status);
    if (over_) {
      ::kill(who, SIGKILL);
    } else if (signal == kSystemCallStop) {
      enterOrLeave(who);
    } else if (signal == SIGTRAP || (is_new && signal == SIGSTOP)) {
      goOn(who, 0);  // an event of the trace itself
    } else {
      goOn(who, signal);
    }
  }

  void enterOrLeave(pid_t who) {
    Thread& thread = threads_[who];
    thread.inside_call = !thread.inside_call;
    if (thread.inside_call) {
      __ptrace_syscall_info info{};
      ::ptrace(PTRACE_GET_SYSCALL_INFO, who, sizeof info, &info);
      const auto number = static_cast<long>(info.entry.nr);
      if (number == SYS_accept || number == SYS_accept4) {
        endAll();
        return;
      }
      if (run_.calls++ == kill_at_) {
        run_.killed = true;
        ::kill(who, SIGKILL);
        return;
      }
    }
    goOn(who, 0);
  }

  void endAll() {
    over_ = true;
    for (const auto& [who, thread] : threads_) ::kill(who, SIGKILL);
  }

  void checkTime() {
    const auto still_for = Clock::now() - last_event_;
    if (still_for < e2e::kPatience) return;
    endAll();
    throw std::runtime_error("it neither serves nor ends");
  }

  const long kill_at_;
  pid_t first_ = -1;
  std::map<pid_t, Thread> threads_;
  bool over_ = false;
  TracedRun run_;
  Clock::time_point last_event_ = Clock::now();
};

}  // namespace

TracedRun runKilledAt(const e2e::Launch& launch, long kill_at) {
  return Tracer(launch, kill_at).run();
}

bool mayTrace(const e2e::Launch& launch) {
  try {
    runKilledAt(launch, 0);
    return true;
  } catch (const std::runtime_error&) {
    return false;
  }
}

}  // namespace spotserver::faults
