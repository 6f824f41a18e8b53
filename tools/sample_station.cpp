// corvane-sample-station: an invented station for trying the server without a radio.
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <exception>
#include <memory>
#include <span>
#include <stdexcept>

#include <signal.h>
#include <sys/prctl.h>
#include <sys/time.h>
#include <unistd.h>

#include "station_day.hpp"
#include "station_history.hpp"
#include "station_log.hpp"
#include "station_options.hpp"

namespace station {
namespace {

// After a longer leap of the clock (the machine slept, the clock was set) the station goes on from
// the new time: it heard nothing meanwhile.
constexpr Tick kLongestLeap = 120 * kTicksPerSecond;

timespec wallClock() {
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  return now;
}

Tick tickOf(const timespec& time) {
  return time.tv_sec * kTicksPerSecond + time.tv_nsec / (1'000'000'000 / kTicksPerSecond);
}

// From here on the process ends with its parent. Returns whether the parent is still there.
bool endWithParent(std::int64_t parent) {
  ::prctl(PR_SET_PDEATHSIG, SIGTERM);
  return ::getppid() == parent;
}

// The signals that end --follow; they are kept back and taken up while waiting.
sigset_t endingSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  return signals;
}

// Waits until the clock shows `tick`. Returns false when a signal asked to end.
bool waitUntil(Tick tick, const sigset_t& signals) {
  for (;;) {
    const timespec now = wallClock();
    const Tick left = tick - tickOf(now);
    if (left <= 0 || left > kLongestLeap) return true;
    const long into_tick = now.tv_nsec % (1'000'000'000 / kTicksPerSecond);
    const std::int64_t nanoseconds = left * (1'000'000'000 / kTicksPerSecond) - into_tick;
    const timespec wait{nanoseconds / 1'000'000'000, nanoseconds % 1'000'000'000};
    if (::sigtimedwait(&signals, nullptr, &wait) > 0) return false;
  }
}

// What the station keeps writing.
class Records {
 public:
  explicit Records(const Options& options) : log_(options.out) {
    if (!options.history.empty()) history_ = std::make_unique<History>(options.history);
  }

  // Writes every slot of `day` up to `until` and makes it visible to readers.
  void write(Day& day, Tick until) {
    day.run(until, [this](const Slot& slot) {
      log_.append(slot.lines);
      if (history_) history_->record(slot);
    });
    log_.flush();
    if (history_) history_->commit();
  }

  std::uint64_t lines() const { return log_.lines(); }

 private:
  LogFile log_;
  std::unique_ptr<History> history_;
};

void follow(Day& day, Records& records, Tick written, const sigset_t& signals) {
  for (;;) {
    const Tick next = Day::nextSlotEnd(written);
    if (!waitUntil(next, signals)) return;
    const Tick now = tickOf(wallClock());
    if (now - next > kLongestLeap || now < next) {
      day.skipTo(now);
    } else {
      records.write(day, now);
    }
    written = now;
  }
}

int run(std::span<char* const> arguments) {
  const Options options = readOptions(arguments, wallClock().tv_sec);
  if (options.help) {
    std::fputs(kHelp, stdout);
    return 0;
  }
  const sigset_t signals = endingSignals();
  if (options.follow) ::sigprocmask(SIG_BLOCK, &signals, nullptr);
  if (options.parent && !endWithParent(*options.parent)) return 0;

  const DayPlan plan = options.plan();
  Day day(plan);
  Records records(options);
  records.write(day, plan.end);
  std::printf("%llu lines written to %s\n", static_cast<unsigned long long>(records.lines()),
              options.out.c_str());
  std::fflush(stdout);
  if (options.follow) follow(day, records, plan.end, signals);
  return 0;
}

}  // namespace
}  // namespace station

int main(int argc, char** argv) {
  try {
    return station::run(std::span(argv + 1, static_cast<std::size_t>(argc > 1 ? argc - 1 : 0)));
  } catch (const std::exception& error) {
    std::fprintf(stderr, "corvane-sample-station: %s\n", error.what());
    return 1;
  }
}
