// Accepts that fail though nothing is wrong with the listener: the server goes on with it, and
// keeps the connections that it has.
#include <cerrno>
#include <csignal>
#include <optional>
#include <thread>

#include "faults/fault_test.hpp"

namespace spotserver::faults {
namespace {

using e2e::TlsClient;

const Fault kPassingFaults[] = {
    {"connection gone", Call::kAccept, ECONNABORTED},
    {"protocol error", Call::kAccept, EPROTO},
    {"no file in the whole system", Call::kAccept, ENFILE},
    {"no buffer", Call::kAccept, ENOBUFS},
    {"no memory", Call::kAccept, ENOMEM},
};

class FaultsOfAccept : public FaultTest {
 protected:
  void serve() {
    server_.emplace(faulty_.launch({"--pid-file", "spot.pid"}));
    server_->awaitOutput(e2e::kReady);
  }

  // An accept that waits already ends with this connection, and the next one fails.
  void strike(const Fault& fault) {
    faults_.arm(fault, 0);
    const Fd connection = e2e::connectTcp(station_.port());
    const auto deadline = e2e::Clock::now() + e2e::kPatience;
    while (!faults_.struck() && e2e::Clock::now() < deadline) std::this_thread::yield();
    ASSERT_TRUE(faults_.struck());
  }

  void expectServed() const { EXPECT_EQ(station_.get(e2e::kHealthPath).status, 200); }

  void expectGoodEnd() {
    server_->signal(SIGTERM);
    EXPECT_EQ(server_->waitForExit(), 0);
    EXPECT_EQ(server_->errors(), "");
    EXPECT_FALSE(exists(station_.workFile("spot.pid")));
  }

  FaultyStation faulty_;
  const Station& station_ = faulty_.station;
  FaultSwitch& faults_ = faulty_.faults;
  std::optional<ServerProcess> server_;
};

TEST_F(FaultsOfAccept, OneThatPassesIsNotTheEnd) {
  serve();
  TlsClient standing(station_.port());
  for (const Fault& fault : kPassingFaults) {
    SCOPED_TRACE(describe(fault));
    ASSERT_NO_FATAL_FAILURE(strike(fault));
    expectServed();
    EXPECT_EQ(standing.request("GET", e2e::kHealthPath).status, 200);
  }
  expectGoodEnd();
}

TEST_F(FaultsOfAccept, WhoCameMeanwhileIsServedOnceItIsOver) {
  serve();
  ASSERT_NO_FATAL_FAILURE(strike({"no memory", Call::kAccept, ENOMEM, true}));
  const Fd waiting = e2e::connectTcp(station_.port());
  faults_.disarm();
  expectServed();
  expectGoodEnd();
}

TEST_F(FaultsOfAccept, StopIsHeardWhileTheyLast) {
  serve();
  ASSERT_NO_FATAL_FAILURE(strike({"no memory", Call::kAccept, ENOMEM, true}));
  expectGoodEnd();
}

}  // namespace
}  // namespace spotserver::faults
