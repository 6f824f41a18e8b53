// What peers can do to workers, memory and descriptors, at full size.
#include <algorithm>
#include <csignal>
#include <deque>
#include <future>

#include "e2e/station.hpp"
#include "hostile/hostile_clients.hpp"
#include "hostile/measure.hpp"
#include "hostile/process_facts.hpp"

namespace spotserver::hostile {
namespace {

using namespace std::chrono_literals;
using e2e::Clock;
using e2e::ServerProcess;
using e2e::Station;
using e2e::TlsClient;

constexpr std::size_t kWorkers = 64;
constexpr double kMemoryLimit = 32;  // MiB that all of it may add
const Crowd::Kind kCrowds[] = {Crowd::Kind::kSilent, Crowd::Kind::kIdle, Crowd::Kind::kTrickling,
                               Crowd::Kind::kDeep, Crowd::Kind::kBody};

double mebibytes(long long kibibytes) { return static_cast<double>(kibibytes) / 1024; }

std::vector<Milliseconds> timesOfHealth(int port, int count, const e2e::Headers& headers = {}) {
  std::vector<Milliseconds> times;
  for (int i = 0; i < count; ++i) times.push_back(timeOfHealth(port, headers));
  return times;
}

void crowd(Report& report) {
  for (const auto kind : kCrowds) {
    const Station station;
    const ServerProcess server = station.serve();
    const Crowd peers(kind, station.port(), kWorkers - 1);
    const auto times = timesOfHealth(station.port(), 1000);
    const std::string beside = " beside 63 " + std::string(nameOf(kind)) + " peers";
    report.figure("median of health" + beside, quantile(times, 0.5).count(), "ms");
    report.atMost(50, "p99 of health" + beside, quantile(times, 0.99).count(), "ms");
    // For longer than a trickling peer pauses.
    const auto large = timesOfHealth(station.port(), 5000, {{"X-Large", std::string(700, 'l')}});
    report.atMost(50, "p99 of a browser's" + beside, quantile(large, 0.99).count(), "ms");
  }
  for (const auto kind : kCrowds) {
    const Station station;
    const ServerProcess server = station.serve();
    const Crowd peers(kind, station.port(), kWorkers);
    const bool quiet = kind == Crowd::Kind::kSilent || kind == Crowd::Kind::kIdle;
    report.atMost(quiet ? 11'000 : 31'000,
                  "first answer beside 64 " + std::string(nameOf(kind)) + " peers",
                  timeOfHealth(station.port()).count(), "ms");
  }
}

void bodies(Report& report) {
  for (const HarmfulBody& body : harmfulBodies(std::size_t{1} << 30, std::size_t{256} << 20)) {
    const Station station;
    const ServerProcess server = station.serve();
    timesOfHealth(station.port(), 200);
    const auto before = peakMemory(server.pid());
    const int status = send(body, station.port()).status;
    const auto growth = peakMemory(server.pid()) - before;
    report.all("404 for a body: " + body.name, status == 404 ? 1 : 0, 1);
    report.atMost(kMemoryLimit, "memory for a body: " + body.name, mebibytes(growth), "MiB");
  }
}

// Sends `begin`, then `more` again and again until the server cuts; returns the bytes sent.
std::size_t sendUntilCut(TlsClient& client, std::string_view begin, std::string_view more) {
  std::size_t sent = 0;
  try {
    client.send(begin);
    for (; sent < (std::size_t{1} << 30); sent += more.size()) client.send(more);
  } catch (const std::runtime_error&) {
    return sent;
  }
  throw std::runtime_error("never cut");
}

struct EndlessHead {
  const char* name;
  std::string begin;
  std::string more;
};

std::vector<EndlessHead> endlessHeads() {
  return {{"request line", "GET /", std::string(4096, 'a')},
          {"header line", "GET / HTTP/1.1\r\nX: ", std::string(4096, 'b')},
          {"row of short headers", "GET / HTTP/1.1\r\n", "a:b\r\na:b\r\na:b\r\na:b\r\n"}};
}

void endless(Report& report) {
  for (const EndlessHead& head : endlessHeads()) {
    const Station station;
    const ServerProcess server = station.serve();
    timesOfHealth(station.port(), 200);
    const auto before = peakMemory(server.pid());
    TlsClient client(station.port());
    const auto begin = Clock::now();
    const std::size_t sent = sendUntilCut(client, head.begin, head.more);
    const std::string name = std::string("endless ") + head.name;
    report.atMost(1000, name + ": cut after", Milliseconds(Clock::now() - begin).count(), "ms");
    report.figure(name + ": bytes sent", static_cast<double>(sent) / 1024, "KiB");
    std::vector<std::future<void>> clients;
    for (std::size_t i = 0; i < kWorkers; ++i) {
      clients.push_back(std::async(std::launch::async, [&] {
        TlsClient another(station.port());
        sendUntilCut(another, head.begin, head.more);
      }));
    }
    for (auto& done : clients) done.wait();
    report.atMost(kMemoryLimit, name + ", 64 at once: memory",
                  mebibytes(peakMemory(server.pid()) - before), "MiB");
  }
}

std::vector<std::pair<const char*, std::string>> longRanges() {
  return {{"one long range", longRange()},
          {"2000 ranges", manyRanges("0-0")},
          {"4000 whole documents", manyRanges("-")}};
}

void ranges(Report& report) {
  for (const auto& [name, value] : longRanges()) {
    const Station station;
    const ServerProcess server = station.serve();
    timesOfHealth(station.port(), 200);
    const auto before = peakMemory(server.pid());
    const auto ask = [&, &text = value] {
      for (int i = 0; i < 20; ++i) {
        TlsClient(station.port()).request("GET", e2e::kHealthPath, {{"Range", text}});
      }
    };
    ask();
    report.figure(std::string(name) + ", 20 in turn: memory",
                  mebibytes(peakMemory(server.pid()) - before), "MiB");
    std::vector<std::future<void>> clients;
    for (std::size_t i = 0; i < kWorkers; ++i) {
      clients.push_back(std::async(std::launch::async, ask));
    }
    for (auto& done : clients) done.wait();
    report.atMost(kMemoryLimit, std::string(name) + ", 64 at once: memory",
                  mebibytes(peakMemory(server.pid()) - before), "MiB");
  }
}

void untaken(Report& report) {
  const Station station;
  const ServerProcess server = station.serve();
  timesOfHealth(station.port(), 200);
  const auto before = peakMemory(server.pid());
  const std::string request =
      e2e::requestText("GET", e2e::kHealthPath, {{"Range", manyRanges("-")}});
  std::deque<TlsClient> clients;
  for (std::size_t i = 0; i < kWorkers; ++i) clients.emplace_back(station.port());
  for (int n = 0; n < 8; ++n) {
    for (auto& client : clients) client.send(request);
  }
  for (auto& client : clients) client.peek(12);
  report.atMost(kMemoryLimit, "4000 whole documents, 8 times 64 untaken: memory",
                mebibytes(peakMemory(server.pid()) - before), "MiB");
}

void backlog(Report& report) {
  const Station station;
  const ServerProcess server = station.serve();
  std::vector<Milliseconds> times;
  std::deque<Fd> peers;
  for (int round = 0; round < 5; ++round) {
    peers.clear();
    std::vector<std::future<std::pair<Fd, Milliseconds>>> connects;
    for (int i = 0; i < 300; ++i) {
      connects.push_back(std::async(std::launch::async, [&station] {
        const auto begin = Clock::now();
        Fd socket = e2e::connectTcp(station.port());
        return std::pair<Fd, Milliseconds>(std::move(socket), Clock::now() - begin);
      }));
    }
    for (auto& connect : connects) {
      auto [socket, time] = connect.get();
      peers.push_back(std::move(socket));
      times.push_back(time);
    }
  }
  report.atMost(50, "median of 300 connects at once", quantile(times, 0.5).count(), "ms");
  report.figure("longest of 300 connects at once", quantile(times, 1).count(), "ms");
}

}  // namespace

std::vector<Subject> connectionSubjects() {
  return {{"crowd", "as many idle peers as workers, and one less", crowd},
          {"bodies", "request bodies that cost memory", bodies},
          {"endless", "request lines and headers without an end", endless},
          {"ranges", "Range headers of 8 KiB", ranges},
          {"untaken", "Range headers of 8 KiB whose answers nobody takes", untaken},
          {"backlog", "300 connects at once", backlog}};
}

}  // namespace spotserver::hostile
