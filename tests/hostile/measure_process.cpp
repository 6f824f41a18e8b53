// What surroundings and signals can do to the process, at full size.
#include <atomic>
#include <csignal>
#include <functional>
#include <random>
#include <thread>

#include "e2e/activity_model.hpp"
#include "e2e/station.hpp"
#include "history_file.hpp"
#include "hostile/await.hpp"
#include "hostile/busy_machine.hpp"
#include "hostile/hostile_clients.hpp"
#include "hostile/measure.hpp"
#include "hostile/process_facts.hpp"

namespace spotserver::hostile {
namespace {

using namespace std::chrono_literals;
using e2e::Clock;
using e2e::Launch;
using e2e::ServerProcess;
using e2e::Station;
using e2e::TlsClient;

constexpr double kStopLimit = 3000;  // ms
constexpr const char* kPidFile = "spot.pid";

// Whether it stopped with status 0 and without its PID file; reports how long that took.
void stop(Report& report, const Station& station, ServerProcess& server, const std::string& what) {
  const auto begin = Clock::now();
  server.signal(SIGTERM);
  const int status = server.waitForExit();
  report.atMost(kStopLimit, "stop with " + what, Milliseconds(Clock::now() - begin).count(), "ms");
  const bool clean = status == 0 && !e2e::exists(station.workFile(kPidFile));
  report.all("status 0 and no PID file with " + what, clean ? 1 : 0, 1);
}

void stopWithCrowds(Report& report) {
  for (const auto kind : {Crowd::Kind::kSilent, Crowd::Kind::kIdle, Crowd::Kind::kTrickling}) {
    const Station station;
    ServerProcess server = station.serve({"--pid-file", kPidFile});
    const Crowd peers(kind, station.port(), 60);
    stop(report, station, server, std::string("60 ") + nameOf(kind) + " peers");
  }
}

void stopWithBusyHistory(Report& report) {
  const Station station;
  HistoryFile history(station.workFile("history.sqlite3"));
  ServerProcess server = station.serve({"--history-db", "history.sqlite3", "--pid-file", kPidFile});
  history.exec("BEGIN EXCLUSIVE");
  TlsClient phone(station.port());
  phone.send(e2e::requestText("GET", e2e::kActivityPath, e2e::bearer(e2e::kToken)));
  awaitThat([&] { return hasOpen(server.pid(), station.workFile("history.sqlite3")); });
  stop(report, station, server, "the history busy");
  report.all("200 for the request that waited for it", phone.receive().status == 200 ? 1 : 0, 1);
}

// Many bands make an answer of megabytes, which is in flight until the phone takes it.
void stopWithAnswerInFlight(Report& report) {
  const Station station;
  std::vector<e2e::Heard> decodes;
  for (int n = 0; n < 300; ++n) {
    decodes.push_back({e2e::wallClock() - 3600, "9." + std::to_string(100 + n), "FT8", ""});
  }
  station.writeLog(e2e::logText(decodes));
  ServerProcess server = station.serve({"--history-db", "off", "--pid-file", kPidFile});
  TlsClient phone(station.port());
  phone.send(e2e::requestText("GET", std::string(e2e::kActivityPath) + "?hours=24",
                              e2e::bearer(e2e::kToken)));
  phone.peek(12);
  std::jthread slow([&phone, &report] {
    std::this_thread::sleep_for(1s);
    const bool whole = phone.receive().body.ends_with("}]}]}");
    report.all("whole answer after a second in flight", whole ? 1 : 0, 1);
  });
  stop(report, station, server, "a request in flight for a second");
}

void stops(Report& report) {
  stopWithCrowds(report);
  stopWithBusyHistory(report);
  stopWithAnswerInFlight(report);
}

// Starts and stops `count` times; returns how many ends were clean.
int cleanStarts(int count, unsigned seed) {
  const Station station;
  std::mt19937 random(seed);
  int clean = 0;
  for (int start = 0; start < count; ++start) {
    e2e::DirectoryWatch watch(station.work());
    ServerProcess server(station.usualLaunch({"--pid-file", kPidFile}));
    watch.awaitArrival(kPidFile);
    std::this_thread::sleep_for(std::chrono::milliseconds(random() % 301));
    server.signal(SIGTERM);
    const bool good = server.waitForExit() == 0 && !e2e::exists(station.workFile(kPidFile));
    if (good) ++clean;
  }
  return clean;
}

void signals(Report& report) {
  constexpr int kStarts = 1000;
  constexpr unsigned kAtOnce = 8;
  const BusyMachine load(1);
  std::atomic<int> clean = 0;
  {
    std::vector<std::jthread> starters;
    for (unsigned i = 0; i < kAtOnce; ++i) {
      starters.emplace_back([&clean, i] {
        try {
          clean += cleanStarts(kStarts / kAtOnce, i);
        } catch (const std::exception&) {
          // Not one of these is counted.
        }
      });
    }
  }
  report.all("SIGTERM 0 to 300 ms after the PID file: clean ends", clean, kStarts);
}

void stacks(Report& report) {
  const std::string many = manyRanges("0-0");
  const std::string one = longRange();
  const std::pair<const char*, rlim_t> limits[] = {
      {"1 MiB", 1 << 20}, {"2 MiB", 2 << 20}, {"8 MiB", 8 << 20}, {"unlimited", RLIM_INFINITY}};
  for (const auto& [name, limit] : limits) {
    const Station station;
    Launch launch = station.usualLaunch();
    launch.limits[RLIMIT_STACK] = limit;
    ServerProcess server(launch);
    server.awaitOutput(e2e::kReady);
    int answered = 0;
    for (int i = 0; i < 100; ++i) {
      station.get(e2e::kHealthPath, {{"Range", i % 2 == 0 ? many : one}});
      if (station.get(e2e::kHealthPath).status == 200) ++answered;
    }
    report.all(std::string("served after a long Range, stack ") + name, answered, 100);
  }
}

void threads(Report& report) {
  for (const rlim_t mebibytes : {rlim_t{320}, rlim_t{512}, rlim_t{768}}) {
    const Station station;
    Launch launch = station.usualLaunch();
    launch.limits[RLIMIT_AS] = mebibytes << 20;
    ServerProcess server(launch);
    server.awaitOutput(e2e::kReady);
    int answered = 0;
    for (int i = 0; i < 100; ++i) {
      if (station.activity().status == 200) ++answered;
    }
    const std::string space = std::to_string(mebibytes) + " MiB of address space";
    report.figure("threads in " + space,
                  static_cast<double>(factOf(server.pid(), "status", "Threads:")), "");
    report.all("answers in " + space, answered, 100);
  }
}

void port(Report& report) {
  constexpr int kTimes = 20;
  int refused = 0;
  int restarted = 0;
  const Station station;
  {
    const ServerProcess first = station.serve();
    const std::string text = "Failed to bind https://127.0.0.1:" + station.portText() + "\n";
    for (int i = 0; i < kTimes; ++i) {
      const e2e::Outcome second = e2e::runToEnd(station.usualLaunch());
      if (second.status == 1 && second.errors == text) ++refused;
    }
  }
  for (int i = 0; i < kTimes; ++i) {
    ServerProcess server = station.serve();
    const Crowd idle(Crowd::Kind::kIdle, station.port(), 5);
    server.signal(SIGKILL);
    server.waitForExit();
    ++restarted;  // the next serve() throws when it cannot bind
  }
  const ServerProcess last = station.serve();
  report.all("second server refused with its message", refused, kTimes);
  report.all("bound straight after kill -9", restarted, kTimes);
}

void descriptors(Report& report) {
  int foreground = 0;
  int background = 0;
  for (int bits = 0; bits < 8; ++bits) {
    for (const bool daemon : {false, true}) {
      const Station station;
      Launch launch = station.usualLaunch({"--pid-file", kPidFile, "--log-file", "spot.log"});
      if (daemon) launch.arguments.emplace_back("--daemon");
      for (const int fd : {0, 1, 2}) {
        if ((bits >> fd & 1) != 0) launch.closed_descriptors.push_back(fd);
      }
      e2e::DirectoryWatch watch(station.work());
      ServerProcess server(launch);
      watch.awaitArrival(kPidFile);
      const e2e::Process detached(daemon ? std::stoi(e2e::readFile(station.workFile(kPidFile)))
                                         : -1);
      if (station.activity().status == 200) ++(daemon ? background : foreground);
    }
  }
  report.all("combinations of closed descriptors, foreground", foreground, 8);
  report.all("combinations of closed descriptors, daemon", background, 8);
}

void crowdedDescriptors(Report& report) {
  const Station station;
  const std::int64_t time = e2e::wallClock() - 600;
  HistoryFile(station.workFile("history.sqlite3"))
      .add({.minute = time / 60, .mask = 0b1111, .counts = countsBlob({1, 2, 3, 4})});
  station.writeLog(e2e::logLine({time, "14.074", "FT8", "K1ABC"}));
  Launch launch = station.usualLaunch({"--history-db", "history.sqlite3"});
  launch.limits[RLIMIT_NOFILE] = 64;
  ServerProcess server(launch);
  server.awaitOutput(e2e::kReady);
  int in_use = 0;
  {
    TlsClient phone(station.port());
    const Crowd peers(Crowd::Kind::kSilent, station.port(), 200);
    for (int i = 0; i < 4; ++i) {
      std::this_thread::sleep_for(500ms);
      const auto answer = phone.request("GET", e2e::kActivityPath, e2e::bearer(e2e::kToken));
      if (e2e::numberOf(answer.body, "window_spots") == 10) ++in_use;
    }
    const auto before = processorTime(server.pid());
    std::this_thread::sleep_for(5s);
    const auto used = processorTime(server.pid()) - before;
    report.atMost(5, "processor beside 200 peers, 64 descriptors",
                  100 * Milliseconds(used).count() / 5000, "%");
  }
  report.all("history in use meanwhile", in_use, 4);
  report.atMost(1000, "first answer after they left", timeOfHealth(station.port()).count(), "ms");
}

}  // namespace

std::vector<Subject> processSubjects() {
  return {{"stop", "SIGTERM whatever the clients do", stops},
          {"signals", "SIGTERM at any moment of 1,000 starts under load", signals},
          {"stacks", "long Range headers under small stack limits", stacks},
          {"threads", "threads that cannot be created", threads},
          {"port", "a second server, and a restart after kill -9", port},
          {"closed", "started with descriptors 0, 1, 2 closed", descriptors},
          {"few", "200 peers with 64 descriptors", crowdedDescriptors}};
}

}  // namespace spotserver::hostile
