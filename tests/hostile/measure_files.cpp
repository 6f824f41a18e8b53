// What files in bad states can do to start, refresh and memory, at full size.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <optional>
#include <string>
#include <thread>

#include "file_facts.hpp"
#include "hostile/health_watch.hpp"
#include "hostile/measure.hpp"
#include "hostile/process_facts.hpp"
#include "hostile/troubled_files.hpp"
#include "scoped_limits.hpp"

namespace spotserver::hostile {
namespace {

using namespace std::chrono_literals;
using e2e::Clock;
using e2e::ServerProcess;
using e2e::Station;

namespace fs = std::filesystem;

constexpr double kQuick = 2000;  // ms for a start or a refresh
constexpr double kMegabyte = 1e6;
constexpr double kMemoryLimit = 64;  // MB that a file may add
constexpr double kHealthLimit = 50;  // ms

double megabytes(long long kibibytes) { return static_cast<double>(kibibytes) * 1024 / kMegabyte; }

template <typename Act>
double timeOf(Act act) {
  const auto begin = Clock::now();
  act();
  return Milliseconds(Clock::now() - begin).count();
}

std::int64_t spotsOf(const Station& station) {
  return e2e::numberOf(station.activity().body, "window_spots");
}

std::string lineAt(std::int64_t time) { return e2e::logLine({time, "14.074", "FT8", "K1ABC"}); }

void reportHealth(Report& report, const std::string& what, HealthWatch& health) {
  report.atMost(kHealthLimit, what + ": health p99", quantile(health.end(), 0.99).count(), "ms");
}

// Refreshes for two seconds, five at least, with health asked beside them.
void reportRefreshes(Report& report, const std::string& what, const Station& station,
                     const ServerProcess& server, std::int64_t spots) {
  const long long before = peakMemory(server.pid());
  HealthWatch health(station.port());
  double longest = 0;
  const auto end = Clock::now() + 2s;
  int right = 0;
  int looks = 0;
  while (looks < 5 || Clock::now() < end) {
    longest = std::max(longest, timeOf([&] { right += spotsOf(station) == spots ? 1 : 0; }));
    ++looks;
  }
  report.all(what + ": right answers", right, looks);
  report.atMost(kQuick, what + ": longest refresh", longest, "ms");
  reportHealth(report, what, health);
  report.atMost(kMemoryLimit, what + ": memory", megabytes(peakMemory(server.pid()) - before),
                "MB");
}

void fifos(Report& report) {
  const Station station;
  placeFifos(station);
  std::optional<ServerProcess> server;
  report.atMost(kQuick, "FIFOs in all places: start", timeOf([&] { server = station.serve(); }),
                "ms");
  reportRefreshes(report, "FIFOs in all places", station, *server, 0);
}

// Bytes that lie on the disk: what a hole takes to read is the kernel's affair, up to seconds.
void appendGibibyte(const Station& station) {
  const std::string mebibyte(std::size_t{1} << 20, 'x');
  for (int i = 0; i < 1024; ++i) station.appendLog(mebibyte);
}

void longLine(Report& report) {
  const Station station;
  station.writeLog(lineAt(e2e::wallClock() - 600));
  const ServerProcess server = station.serve();
  const long long before = peakMemory(server.pid());
  appendGibibyte(station);
  HealthWatch health(station.port());
  report.atMost(kQuick, "line of 1 GiB: first refresh", timeOf([&] { spotsOf(station); }), "ms");
  reportHealth(report, "line of 1 GiB, first refresh", health);
  report.atMost(kMemoryLimit, "line of 1 GiB, first refresh: memory",
                megabytes(peakMemory(server.pid()) - before), "MB");
  reportRefreshes(report, "line of 1 GiB, later", station, server, 1);
}

void sparse(Report& report) {
  const Station small;
  const ServerProcess plain = small.serve();
  const Station station;
  station.writeLog("");
  appendHole(station, std::uintmax_t{1} << 40);
  std::optional<ServerProcess> server;
  report.atMost(kQuick, "sparse file of 1 TiB: start", timeOf([&] { server = station.serve(); }),
                "ms");
  report.atMost(kMemoryLimit, "sparse file of 1 TiB, start: memory beyond a plain start",
                megabytes(peakMemory(server->pid()) - peakMemory(plain.pid())), "MB");
  station.appendLog("\n" + lineAt(e2e::wallClock() - 600));
  reportRefreshes(report, "sparse file of 1 TiB", station, *server, 1);
}

// Highest figures of temporary files while `act` runs, MB.
template <typename Act>
double temporaryDuring(pid_t pid, Act act) {
  std::uintmax_t most = 0;
  {
    const std::jthread watch([&](const std::stop_token& stop) {
      while (!stop.stop_requested()) {
        most = std::max(most, temporaryBytes(pid));
        std::this_thread::sleep_for(2ms);
      }
    });
    act();
  }
  return static_cast<double>(most) / kMegabyte;
}

// One request while the history is in trouble, and one when it is well again.
template <typename Hurt, typename Heal>
void measureHistory(Report& report, const std::string& what, Hurt hurt, Heal heal) {
  const Station station;
  fs::create_directories(station.stateDir());
  std::optional<HistoryFile> history(historyPathOf(station));
  history->add({.minute = e2e::wallClock() / 60 - 3, .mask = 1, .counts = countsBlob({7})});
  const ServerProcess server = station.serve();
  const long long before = peakMemory(server.pid());
  hurt(station, history);
  station.appendLog(lineAt(e2e::wallClock() - 300));

  HealthWatch health(station.port());
  std::int64_t spots = 0;
  double time = 0;
  const double temporary =
      temporaryDuring(server.pid(), [&] { time = timeOf([&] { spots = spotsOf(station); }); });
  report.atMost(6000, what + ": answer", time, "ms");
  report.all(what + ": answer from the log", spots == 1 ? 1 : 0, 1);
  reportHealth(report, what, health);
  report.atMost(kMemoryLimit, what + ": temporary files", temporary, "MB");
  report.figure(what + ": memory", megabytes(peakMemory(server.pid()) - before), "MB");
  heal(station, history);
  report.all(what + ": back at the next look", spotsOf(station) == 7 ? 1 : 0, 1);
}

void locked(Report& report) {
  measureHistory(
      report, "locked history", [](auto&, auto& history) { history->exec("BEGIN EXCLUSIVE"); },
      [](auto&, auto& history) { history->exec("COMMIT"); });
}

void endlessView(Report& report) {
  measureHistory(
      report, "endless view",
      [](const Station& station, auto& history) {
        history.reset();
        fs::rename(historyPathOf(station), historyPathOf(station) + ".kept");
        makeEndlessHistory(station);
      },
      [](const Station& station, auto&) {
        fs::rename(historyPathOf(station) + ".kept", historyPathOf(station));
      });
}

void hugeField(Report& report) {
  measureHistory(
      report, "field of 400 MB", [](auto&, auto& history) { addHugeField(*history, 400'000'000); },
      [](auto&, auto& history) {
        history->exec("DELETE FROM minutes WHERE length(CAST(receiver AS BLOB)) > 3");
      });
}

// First starts with so much room on the disk, each followed by one with all of it.
void fullDisk(Report& report) {
  int told = 0;
  int private_keys = 0;
  int clean = 0;
  constexpr rlim_t kRooms[] = {0, 1, 100, 1000, 1500, 1600, 1650, 1700};
  const ScopedUmask everything_readable(0);
  for (const rlim_t room : kRooms) {
    const Station station;
    std::optional<FileSizeLimit> full(room);
    const e2e::Outcome outcome = runToEnd(station.usualLaunch());
    full.reset();
    const bool empty = namesIn(station.configDir()).empty();
    told += outcome.status == 1 && outcome.errors.starts_with("TLS certificate error: ") && empty;
    const ServerProcess server = station.serve();
    private_keys += modeOf(station.key()) == 0600;
    clean += namesIn(station.configDir()).size() == 2;
  }
  const int starts = static_cast<int>(std::size(kRooms));
  report.all("first start on a full disk: told, nothing left", told, starts);
  report.all("next start: identity and nothing else", clean, starts);
  report.all("next start: key for its owner alone, umask 000", private_keys, starts);
}

}  // namespace

std::vector<Subject> fileSubjects() {
  return {{"fifos", "FIFOs in place of log, country file and history", fifos},
          {"longline", "a line of 1 GiB without an end", longLine},
          {"sparse", "a log of 1 TiB of nothing", sparse},
          {"locked", "a history that its writer keeps locked", locked},
          {"view", "a history that is an endless view", endlessView},
          {"field", "a history with a field of 400 MB", hugeField},
          {"fulldisk", "first starts without room; tools/faults.sh has the rest", fullDisk}};
}

}  // namespace spotserver::hostile
