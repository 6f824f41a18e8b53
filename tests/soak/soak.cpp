// Runs the built server under everything at once, for as long as one likes, and checks each of its
// answers.
//
//   soak --seconds N [--clients N] [--rate N] [--seed N] [--reserves 1]
//
// Two servers read one station whose files change all the time: one with its history, one with the
// log alone. Half of the clients ask either. Prints what it saw; the exit status is 0 when every
// document was right, nothing failed, descriptors and threads are as many as at the begin, both
// servers ended by themselves and, in a run of twenty minutes or more, memory stayed level.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <map>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

#include "soak/living_station.hpp"
#include "soak/phones.hpp"
#include "soak/process_watch.hpp"

namespace spotserver::soak {
namespace {

using std::chrono::milliseconds;

struct Options {
  double seconds = 60;
  double clients = 50;
  double rate = 200;  // requests a second, all clients together
  double seed = 1;
  double reserves = 0;  // 1: the C library keeps what was freed; memory is printed, not judged
};

constexpr double kLevelKbPerHour = 1024;
constexpr double kJudgedFrom = 1200;  // seconds: in less, the log's coming and going is the slope

// Makes the C library give back what is freed, so that resident memory is what the server holds.
// Otherwise it keeps small pieces for each worker and holes between large ones: megabytes that fill
// for hours, and in which a leak would hide.
constexpr const char* kNoReserves =
    "glibc.malloc.tcache_count=0:glibc.malloc.mmap_threshold=65536:"
    "glibc.malloc.trim_threshold=131072";

struct Subject {
  Subject(e2e::Launch launch, int at, Source what)
      : port(at), source(what), process(std::move(launch)) {
    process.awaitOutput(e2e::kReady);
  }

  int port;
  Source source;
  e2e::ServerProcess process;
  Holdings at_begin;
  Holdings at_end;
  std::vector<Holdings> samples;
  int status = -1;
};

void askOnce(const Subject& server) {
  const auto answer =
      e2e::TlsClient(server.port).request("GET", e2e::kActivityPath, e2e::bearer(e2e::kToken));
  if (answer.status != 200) throw std::runtime_error("activity: " + answer.status_line);
}

// Behind the banner the server still opens what it keeps, and starts its threads after that.
void awaitThreads(const Subject& server) {
  const auto deadline = e2e::Clock::now() + e2e::kPatience;
  while (holdingsOf(server.process.pid()).threads < 2 && e2e::Clock::now() < deadline) {
    std::this_thread::sleep_for(milliseconds(10));
  }
}

// Closed connections take the server a moment to put away.
Holdings holdingsAtRest(const Subject& server, std::size_t descriptors) {
  const auto deadline = e2e::Clock::now() + e2e::kPatience;
  Holdings held = holdingsOf(server.process.pid());
  while (held.descriptors > descriptors && e2e::Clock::now() < deadline) {
    std::this_thread::sleep_for(milliseconds(10));
    held = holdingsOf(server.process.pid());
  }
  return held;
}

class Soak {
 public:
  explicit Soak(const Options& options)
      : options_(options), life_(station_, static_cast<std::uint64_t>(options.seed)) {
    start(station_.port(), Source::kHistory, life_.historyPath());
    start(second_port_.port(), Source::kLog, "off");
  }

  bool run() {
    for (Subject& server : servers_) {
      awaitThreads(server);
      const std::size_t descriptors = holdingsOf(server.process.pid()).descriptors;
      askOnce(server);
      server.at_begin = holdingsAtRest(server, descriptors);
    }
    underLoad();
    for (Subject& server : servers_) {
      server.at_end = holdingsAtRest(server, server.at_begin.descriptors);
      server.process.signal(SIGTERM);
      server.status = server.process.waitForExit();
    }
    return report();
  }

 private:
  void start(int port, Source source, const std::string& history);
  void underLoad();
  void watch(e2e::Clock::time_point begin, e2e::Clock::time_point end);
  bool report();
  void reportNews() const;
  bool reportOn(const Subject& server) const;

  const Options options_;
  const e2e::Station station_;
  const e2e::PortLease second_port_;
  LivingStation life_;
  std::deque<Subject> servers_;
  Tally tally_;
  std::size_t changes_ = 0;
  std::size_t version_when_warm_ = 0;  // of the station's files
};

// With a look at the files at every request.
void Soak::start(int port, Source source, const std::string& history) {
  e2e::Launch launch =
      station_.launch({"--port", std::to_string(port), "--bind", "127.0.0.1", "--token",
                       e2e::kToken, "--reload", "0", "--history-db", history});
  if (options_.reserves == 0) launch.environment["GLIBC_TUNABLES"] = kNoReserves;
  servers_.emplace_back(std::move(launch), port, source);
}

void Soak::underLoad() {
  const std::chrono::duration<double> length(options_.seconds);
  const std::chrono::duration<double> period(options_.clients / options_.rate);
  const auto begin = e2e::Clock::now();
  const auto end = begin + std::chrono::duration_cast<e2e::Clock::duration>(length);

  Judge judge(life_.ledger());
  std::deque<Phone> phones;
  for (int i = 0; i < static_cast<int>(options_.clients); ++i) {
    const Subject& server = servers_[static_cast<std::size_t>(i) % servers_.size()];
    phones.emplace_back(server.port, server.source, life_.ledger(), judge, tally_,
                        static_cast<std::uint64_t>(options_.seed * 1000 + i));
  }
  std::vector<std::jthread> threads;
  threads.emplace_back([&](const std::stop_token& stop) {
    const milliseconds pause(std::min(3000, static_cast<int>(options_.seconds * 1000 / 30)));
    try {
      changes_ = life_.live(
          [&] {
            // A look that is under way may have begun before the last change, and when it takes
            // long, whoever waited for it takes no look of its own.
            for (int look = 0; look < 2; ++look) {
              for (const Subject& server : servers_) askOnce(server);
            }
          },
          pause, stop);
    } catch (const std::exception& error) {
      ++tally_.errors;
      tally_.complain(std::string("the station stopped: ") + error.what());
    }
  });
  for (Phone& phone : phones) {
    threads.emplace_back(
        [&] { phone.poll(std::chrono::duration_cast<e2e::Clock::duration>(period), end); });
  }
  watch(begin, end);
}

void Soak::watch(e2e::Clock::time_point begin, e2e::Clock::time_point end) {
  for (auto next = begin; next < end; next += std::chrono::seconds(1)) {
    std::this_thread::sleep_until(next);
    const std::chrono::duration<double> passed = next - begin;
    if (passed.count() < options_.seconds / 3) version_when_warm_ = life_.ledger().settled();
    for (Subject& server : servers_) {
      Holdings held = holdingsOf(server.process.pid());
      held.seconds = passed.count();
      server.samples.push_back(held);
    }
  }
}

bool Soak::report() {
  std::printf("%.0f s, %.0f clients, %zu changes of the station's files\n", options_.seconds,
              options_.clients, changes_);
  std::printf("requests %llu: documents compared %llu, resets %llu, wrong tokens %llu\n",
              static_cast<unsigned long long>(tally_.requests),
              static_cast<unsigned long long>(tally_.documents),
              static_cast<unsigned long long>(tally_.resets),
              static_cast<unsigned long long>(tally_.refused));
  std::printf("wrong documents %llu, errors %llu, idle connections found closed %llu\n",
              static_cast<unsigned long long>(tally_.wrong),
              static_cast<unsigned long long>(tally_.errors),
              static_cast<unsigned long long>(tally_.reconnects));
  std::printf("documents of an earlier look %llu, documents that took a second %llu\n",
              static_cast<unsigned long long>(tally_.late),
              static_cast<unsigned long long>(tally_.slow));
  for (const std::string& complaint : tally_.complaints()) std::printf("%s\n", complaint.c_str());
  bool good = tally_.wrong == 0 && tally_.errors == 0 && tally_.documents > 0 &&
              (tally_.late == 0 || tally_.slow > 0);
  for (const Subject& server : servers_) good = reportOn(server) && good;
  reportNews();
  std::printf("%s\n", good ? "passed" : "FAILED");
  return good;
}

// What the servers have to hold beyond what they held when they were warm: part of the slope.
void Soak::reportNews() const {
  const Stock before = life_.ledger().stockAt(version_when_warm_);
  const Stock after = life_.ledger().stockAt(life_.ledger().settled());
  std::printf("new in the last two thirds: %zu lines, %zu callsigns, %zu slots of the history\n",
              after.lines - before.lines, after.callsigns - before.callsigns,
              after.slots - before.slots);
}

bool Soak::reportOn(const Subject& server) const {
  const double slope = kilobytesPerHour(server.samples, options_.seconds / 3);
  std::printf(
      "server %s: memory %zu kB at begin, %zu kB at end, %+.0f kB an hour over the last "
      "two thirds;\n  descriptors %zu and %zu, threads %zu and %zu; exit status %d\n",
      server.source == Source::kHistory ? "with history" : "with log alone",
      server.at_begin.memory_kb, server.at_end.memory_kb, slope, server.at_begin.descriptors,
      server.at_end.descriptors, server.at_begin.threads, server.at_end.threads, server.status);
  std::printf("  memory by tenths of the run:");
  for (std::size_t tenth = 1; tenth <= 10 && !server.samples.empty(); ++tenth) {
    std::printf(" %zu", server.samples[(server.samples.size() - 1) * tenth / 10].memory_kb);
  }
  std::printf("\n");
  if (!server.process.errors().empty()) std::printf("%s\n", server.process.errors().c_str());
  return server.status == 0 && server.process.errors().empty() &&
         server.at_begin.descriptors == server.at_end.descriptors &&
         server.at_begin.threads == server.at_end.threads &&
         (options_.seconds < kJudgedFrom || options_.reserves > 0 || slope < kLevelKbPerHour);
}

Options optionsFrom(int argc, char** argv) {
  Options options;
  const std::map<std::string, double*> known = {{"--seconds", &options.seconds},
                                                {"--clients", &options.clients},
                                                {"--rate", &options.rate},
                                                {"--seed", &options.seed},
                                                {"--reserves", &options.reserves}};
  for (int i = 1; i < argc; i += 2) {
    const auto found = known.find(argv[i]);
    if (found == known.end() || i + 1 == argc || (*found->second = std::atof(argv[i + 1])) <= 0) {
      throw std::runtime_error(
          "Usage: soak [--seconds N] [--clients N] [--rate N] [--seed N] [--reserves 1]");
    }
  }
  return options;
}

}  // namespace
}  // namespace spotserver::soak

int main(int argc, char** argv) {
  try {
    return spotserver::soak::Soak(spotserver::soak::optionsFrom(argc, argv)).run() ? 0 : 1;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "soak: %s\n", error.what());
    return 2;
  }
}
