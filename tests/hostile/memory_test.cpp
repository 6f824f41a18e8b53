// What strangers without a token can make the server hold in memory.
#include <atomic>
#include <deque>
#include <future>
#include <stdexcept>

#include <gtest/gtest.h>

#include "e2e/station.hpp"
#include "hostile/hostile_clients.hpp"
#include "hostile/process_facts.hpp"
#include "sanitizers.hpp"

namespace spotserver::hostile {
namespace {

using e2e::ServerProcess;
using e2e::Station;
using e2e::TlsClient;

constexpr long long kGrowthLimit = 32 * 1024;  // KiB
// Ranges are matched one at a time, each on four megabytes of stack. A thread that stands still
// meanwhile lets others begin. All 64 would take 256.
constexpr long long kStacksLimit = 96 * 1024;
constexpr std::size_t kWorkers = 64;

class Memory : public testing::Test {
 protected:
  Memory() {
    // What a server needs for its first requests is not what is measured.
    for (std::size_t i = 0; i < 2 * kWorkers; ++i) timeOfHealth(station_.port());
    before_ = peakMemory(server_.pid());
  }

  int port() const { return station_.port(); }
  void expectFlat(const std::string& what, long long limit = kGrowthLimit) const {
    if (kSanitized) return;
    EXPECT_LT(peakMemory(server_.pid()) - before_, limit) << "KiB more for " << what;
  }

  // Does it as often as there are workers, at once.
  template <typename Work>
  static void onAllWorkers(Work work) {
    std::vector<std::future<void>> clients;
    for (std::size_t i = 0; i < kWorkers; ++i) {
      clients.push_back(std::async(std::launch::async, work));
    }
    for (auto& client : clients) client.get();
  }

 private:
  Station station_;
  ServerProcess server_ = station_.serve();
  long long before_ = 0;
};

TEST_F(Memory, NoBodyIsUnpackedOrCollected) {
  for (const HarmfulBody& body : harmfulBodies(256 << 20, 64 << 20)) {
    SCOPED_TRACE(body.name);
    const e2e::Response answer = send(body, port());
    EXPECT_EQ(answer.status_line, "HTTP/1.1 404 Not Found");
    EXPECT_EQ(answer.body, "{\"error\":\"not found\"}");
    expectFlat(body.name);
  }
}

// Sends `more` until the server has had enough; an attacker who is not cut gives up at 64 MiB.
void sendEndlessly(int port, std::string_view begin, std::string_view more) {
  TlsClient client(port);
  const auto sendAll = [&] {
    client.send(begin);
    for (std::size_t sent = 0; sent < (std::size_t{64} << 20); sent += more.size()) {
      client.send(more);
    }
  };
  EXPECT_THROW(sendAll(), std::runtime_error);
}

TEST_F(Memory, EndlessRequestLinesOnAllWorkers) {
  onAllWorkers([this] { sendEndlessly(port(), "GET /", std::string(4096, 'a')); });
  expectFlat("endless request lines");
}

TEST_F(Memory, EndlessHeaderLinesOnAllWorkers) {
  onAllWorkers([this] { sendEndlessly(port(), "GET / HTTP/1.1\r\nX: ", std::string(4096, 'b')); });
  expectFlat("endless header lines");
}

// Five bytes on the wire take more than a hundred in the library's map of headers.
TEST_F(Memory, EndlessRowsOfShortHeadersOnAllWorkers) {
  std::string headers;
  while (headers.size() < 4096) headers += "a:b\r\n";
  onAllWorkers([&] { sendEndlessly(port(), "GET / HTTP/1.1\r\n", headers); });
  expectFlat("short headers");
}

TEST_F(Memory, LongRangesOnAllWorkers) {
  for (const std::string& range : {manyRanges("0-0"), longRange()}) {
    std::atomic<std::size_t> answers = 0;
    onAllWorkers([&] {
      try {
        TlsClient(port()).request("GET", e2e::kHealthPath, {{"Range", range}});
        ++answers;
      } catch (const std::runtime_error&) {
        // On a slow machine one may be taken for idle and give way to another.
      }
    });
    EXPECT_GT(answers, kWorkers / 2);
    expectFlat("long ranges", kStacksLimit);
  }
}

// Behind a request in the same record of TLS: the library has it without another read.
TEST_F(Memory, LongRangesThatComeTogetherWithAnotherRequest) {
  const std::string pair =
      e2e::requestText("GET", e2e::kHealthPath) +
      e2e::requestText("GET", e2e::kHealthPath, {{"Range", manyRanges("0-0")}});
  std::deque<TlsClient> clients;
  for (std::size_t i = 0; i < kWorkers; ++i) clients.emplace_back(port()).send(pair);
  for (auto& client : clients) {
    const e2e::Response answer = client.receive();
    EXPECT_EQ(answer.status, 200);
    EXPECT_EQ(answer.header("Connection"), "close");
  }
  for (auto& client : clients) client.awaitClose();
  expectFlat("long ranges behind another request", kStacksLimit);
}

// Each asks for the document four thousand times in one request, makes the five requests that one
// connection may, and takes nothing: what the sockets cannot hold stays with the server.
TEST_F(Memory, ManyRangesForAllWorkersAndNobodyTakesThem) {
  const std::string request =
      e2e::requestText("GET", e2e::kHealthPath, {{"Range", manyRanges("-")}});
  std::deque<TlsClient> clients;
  for (std::size_t i = 0; i < kWorkers; ++i) clients.emplace_back(port());
  for (int n = 0; n < 5; ++n) {
    for (auto& client : clients) client.send(request);
  }
  for (auto& client : clients) client.peek(12);  // all are being answered
  expectFlat("many ranges");
}

}  // namespace
}  // namespace spotserver::hostile
