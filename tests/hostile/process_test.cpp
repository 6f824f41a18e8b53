// The server process under limits, with neighbours and among signals.
#include <chrono>
#include <csignal>
#include <memory>
#include <optional>
#include <random>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "e2e/activity_model.hpp"
#include "e2e/station.hpp"
#include "history_file.hpp"
#include "hostile/await.hpp"
#include "hostile/busy_machine.hpp"
#include "hostile/hostile_clients.hpp"
#include "hostile/process_facts.hpp"
#include "sanitizers.hpp"

namespace spotserver::hostile {
namespace {

using namespace std::chrono_literals;
using e2e::Clock;
using e2e::Launch;
using e2e::ServerProcess;
using e2e::Station;
using e2e::TlsClient;

constexpr rlim_t kMebibyte = 1 << 20;

void expectServes(const Station& station) {
  EXPECT_EQ(station.get(e2e::kHealthPath).status, 200);
  EXPECT_EQ(station.activity().status, 200);
}

void expectCleanStop(ServerProcess& server) {
  server.signal(SIGTERM);
  EXPECT_EQ(server.waitForExit(e2e::kStopLimit), 0);
}

// --- limits ---

TEST(Stacks, NoRangeEndsTheProcessWhateverTheStackLimit) {
  const std::string ranges[] = {manyRanges("0-0"), manyRanges("-"), longRange(),
                                "bytes=0-" + std::string(8100, '1'), std::string(8100, ',')};
  for (const rlim_t limit : {1 * kMebibyte, 2 * kMebibyte, 8 * kMebibyte, RLIM_INFINITY}) {
    SCOPED_TRACE(limit);
    const Station station;
    Launch launch = station.usualLaunch();
    launch.limits[RLIMIT_STACK] = limit;
    ServerProcess server(launch);
    server.awaitOutput(e2e::kReady);
    for (const std::string& range : ranges) {
      EXPECT_GT(station.get(e2e::kHealthPath, {{"Range", range}}).status, 0);
    }
    expectServes(station);
    expectCleanStop(server);
  }
}

// The stacks of 64 workers do not fit: some threads cannot be created.
TEST(Threads, AsManyAsTheSystemGrantsServe) {
  if (kSanitized) GTEST_SKIP() << "a sanitizer needs more address space than any limit";
  const Station station;
  Launch launch = station.usualLaunch();
  launch.limits[RLIMIT_AS] = 512 * kMebibyte;
  ServerProcess server(launch);
  server.awaitOutput(e2e::kReady);
  for (int i = 0; i < 20; ++i) expectServes(station);
  EXPECT_LT(factOf(server.pid(), "status", "Threads:"), 64);
  EXPECT_GT(factOf(server.pid(), "status", "Threads:"), 4);
  expectCleanStop(server);
}

class FewDescriptors : public testing::Test {
 protected:
  static constexpr rlim_t kDescriptors = 64;
  static constexpr rlim_t kDescriptorsForFiles = 8;
  static constexpr std::size_t kPeers = 200;
  static constexpr int kDecodesOfHistory = 10;

  FewDescriptors() {
    const std::int64_t time = e2e::wallClock() - 600;
    HistoryFile(station_.workFile("history.sqlite3"))
        .add({.minute = time / 60, .mask = 0b1111, .counts = countsBlob({1, 2, 3, 4})});
    station_.writeLog(e2e::logLine({time, "14.074", "FT8", "K1ABC"}));
    Launch launch = station_.usualLaunch({"--history-db", "history.sqlite3"});
    launch.limits[RLIMIT_NOFILE] = kDescriptors;
    server_ = std::make_unique<ServerProcess>(launch);
    server_->awaitOutput(e2e::kReady);
  }

  // Silent peers, as many of them accepted as ever will be: what the station's files may need is
  // left, less the one that the accept loop holds while it waits for room.
  Crowd crowd() {
    Crowd peers(Crowd::Kind::kSilent, station_.port(), kPeers);
    awaitThat(
        [&] { return openDescriptors(server_->pid()) >= kDescriptors - kDescriptorsForFiles + 1; });
    return peers;
  }

  const Station& station() const { return station_; }
  ServerProcess& server() { return *server_; }

 private:
  Station station_;
  std::unique_ptr<ServerProcess> server_;
};

TEST_F(FewDescriptors, TheStationsFilesStayReadable) {
  const std::string request = e2e::requestText("GET", e2e::kActivityPath, e2e::bearer(e2e::kToken));
  for (int look = 0; look < 5; ++look) {
    SCOPED_TRACE(look);
    TlsClient phone(station().port());
    phone.send(request.substr(0, request.size() - 2));  // keeps its place while the crowd comes
    const Crowd peers = crowd();
    const std::string sender = "K2AB" + std::string(1, static_cast<char>('A' + look));
    station().appendLog(e2e::logLine({e2e::wallClock() - 60, "14.074", "FT8", sender}));
    phone.send(request.substr(request.size() - 2));
    const std::string answer = phone.receive().body;
    EXPECT_EQ(e2e::numberOf(answer, "window_spots"), kDecodesOfHistory) << "history in use";
    EXPECT_EQ(e2e::numberOf(answer, "window_unique_callsigns"), 2 + look) << "log read to its end";
  }
}

TEST_F(FewDescriptors, ServesAgainAsSoonAsTheCrowdHasLeft) {
  { const Crowd peers = crowd(); }
  // Who does not notice that they left holds on to them for ten seconds.
  EXPECT_LT(timeOfHealth(station().port()), 5s);
  expectServes(station());
}

TEST_F(FewDescriptors, StopsWhileACrowdIsAtTheDoor) {
  const Crowd peers = crowd();
  expectCleanStop(server());
}

// --- descriptors closed at the start ---

std::vector<std::vector<int>> closedCombinations() {
  std::vector<std::vector<int>> all;
  for (int bits = 0; bits < 8; ++bits) {
    std::vector<int> closed;
    for (const int fd : {0, 1, 2}) {
      if ((bits >> fd & 1) != 0) closed.push_back(fd);
    }
    all.push_back(closed);
  }
  return all;
}

void expectWholeIdentity(const Station& station) {
  EXPECT_TRUE(e2e::readFile(station.certificate()).ends_with("-----END CERTIFICATE-----\n"));
  EXPECT_TRUE(e2e::readFile(station.key()).ends_with("-----END PRIVATE KEY-----\n"));
}

TEST(ClosedDescriptors, EveryCombinationServesInTheForeground) {
  for (const auto& closed : closedCombinations()) {
    SCOPED_TRACE(testing::PrintToString(closed));
    const Station station;
    Launch launch = station.usualLaunch({"--pid-file", "spot.pid"});
    launch.closed_descriptors = closed;
    e2e::DirectoryWatch watch(station.work());
    ServerProcess server(launch);
    watch.awaitArrival("spot.pid");
    expectServes(station);
    expectWholeIdentity(station);
    expectCleanStop(server);
  }
}

TEST(ClosedDescriptors, EveryCombinationServesInTheBackground) {
  for (const auto& closed : closedCombinations()) {
    SCOPED_TRACE(testing::PrintToString(closed));
    const Station station;
    Launch launch =
        station.usualLaunch({"--daemon", "--pid-file", "spot.pid", "--log-file", "spot.log"});
    launch.closed_descriptors = closed;
    EXPECT_EQ(e2e::runToEnd(launch).status, 0);
    e2e::Process daemon(std::stoi(e2e::readFile(station.workFile("spot.pid"))));
    expectServes(station);
    expectWholeIdentity(station);
    EXPECT_TRUE(e2e::readFile(station.workFile("spot.log")).ends_with(e2e::kReady));
    daemon.signal(SIGTERM);
    EXPECT_EQ(daemon.waitForExit(e2e::kStopLimit), 0);
  }
}

// --- the port ---

TEST(Port, ASecondServerNeverSharesIt) {
  const Station station;
  const ServerProcess first = station.serve();
  for (int attempt = 0; attempt < 20; ++attempt) {
    const e2e::Outcome second = e2e::runToEnd(station.usualLaunch());
    EXPECT_EQ(second.status, 1);
    EXPECT_EQ(second.errors, "Failed to bind https://127.0.0.1:" + station.portText() + "\n");
  }
  expectServes(station);
}

TEST(Port, IsFreeAgainStraightAfterAKill) {
  const Station station;
  for (int attempt = 0; attempt < 20; ++attempt) {
    ServerProcess server = station.serve();
    const Crowd idle(Crowd::Kind::kIdle, station.port(), 3);
    server.signal(SIGKILL);
    EXPECT_EQ(server.waitForExit(), 128 + SIGKILL) << attempt;
  }
}

// A stopped server accepts nothing: all of them have to find room in the kernel's line.
TEST(Port, ThreeHundredMayConnectAtOnce) {
  const Station station;
  ServerProcess server = station.serve();
  server.signal(SIGSTOP);
  const auto begin = Clock::now();
  {
    const Crowd peers(Crowd::Kind::kSilent, station.port(), 300);
    EXPECT_LT(Clock::now() - begin, 10s) << "whom a full line turns away tries for minutes";
  }
  server.signal(SIGCONT);
  expectServes(station);
}

// --- stopping ---

TEST(Stopping, ASignalAtAnyMomentOfAStartUnderLoadIsNotLost) {
  const Station station;
  {
    const ServerProcess first = station.serve();  // makes the certificate
    expectServes(station);
  }
  const BusyMachine load(2);
  std::mt19937 random(20);
  for (int start = 0; start < 30; ++start) {
    e2e::DirectoryWatch watch(station.work());
    ServerProcess server(station.usualLaunch({"--pid-file", "spot.pid"}));
    watch.awaitArrival("spot.pid");
    // At once as often as not: the first moments are the short ones.
    if (start % 2 == 0) std::this_thread::sleep_for(std::chrono::milliseconds(random() % 300));
    server.signal(SIGTERM);
    EXPECT_EQ(server.waitForExit(), 0) << start;
    EXPECT_FALSE(e2e::exists(station.workFile("spot.pid"))) << start;
  }
}

// The answer of a server that is stopped while it waits for its history. None: the two seconds were
// over that a request may take then.
std::optional<e2e::Response> answerOfAStop(const Station& station, HistoryFile& history) {
  ServerProcess server = station.serve({"--history-db", "history.sqlite3", "--pid-file", "pid"});
  // Another view than the one asked for below, whose answer must not be at hand.
  EXPECT_EQ(e2e::numberOf(station.activity("?hours=1").body, "window_spots"), 3) << "history";
  history.exec("BEGIN EXCLUSIVE");
  TlsClient phone(station.port());
  phone.send(e2e::requestText("GET", e2e::kActivityPath, e2e::bearer(e2e::kToken)));
  // The reader looks at a locked database a thousand times a second at most, and opens it first.
  awaitThat([&] { return hasOpen(server.pid(), station.workFile("history.sqlite3")); });
  const auto begin = Clock::now();
  expectCleanStop(server);
  const bool slow = Clock::now() - begin >= 2s;
  EXPECT_FALSE(e2e::exists(station.workFile("pid")));
  history.exec("COMMIT");
  try {
    return phone.receive();
  } catch (const std::runtime_error&) {
    if (!slow) throw;
    return std::nullopt;
  }
}

TEST(Stopping, AHistoryThatIsBusyHoldsNothingUp) {
  const Station station;
  HistoryFile history(station.workFile("history.sqlite3"));
  const std::int64_t minute = e2e::wallClock() / 60 - 3;
  history.add({.minute = minute, .mask = 1, .counts = countsBlob({3})});
  const e2e::Heard heard{minute * 60, "14.074", "FT8", "K1ABC"};
  station.writeLog(e2e::logLine(heard));
  std::optional<e2e::Response> answer;
  for (int attempt = 0; attempt < 5 && !answer; ++attempt) answer = answerOfAStop(station, history);
  ASSERT_TRUE(answer.has_value()) << "it had no time to answer, five times";
  EXPECT_EQ(answer->status, 200);
  // From the log, of which nothing is read any more. Its senders are known, its decodes are not:
  // they were read while the history told of them.
  EXPECT_EQ(answer->body, e2e::expectedDocument({}, e2e::generatedAt(answer->body), {}, {heard}));
}

TEST(Stopping, ClientsOfEveryKindAtOnceHoldNothingUp) {
  const Station station;
  ServerProcess server = station.serve({"--pid-file", "pid"});
  const int port = station.port();
  const Crowd silent(Crowd::Kind::kSilent, port, 10);
  const Crowd idle(Crowd::Kind::kIdle, port, 10);
  const Crowd trickling(Crowd::Kind::kTrickling, port, 10);
  expectCleanStop(server);
  EXPECT_FALSE(e2e::exists(station.workFile("pid")));
}

}  // namespace
}  // namespace spotserver::hostile
