// What clients do to connections and workers, by mistake or on purpose.
#include <deque>

#include <gtest/gtest.h>
#include <sys/socket.h>

#include "e2e/activity_model.hpp"
#include "e2e/station.hpp"
#include "hostile/hostile_clients.hpp"
#include "hostile/service_fixture.hpp"

namespace spotserver::hostile {
namespace {

using e2e::Clock;
using e2e::TlsClient;

constexpr std::size_t kWorkers = 4;

// What is short for whoever is to be cut, and still long for an honest client whose machine stands
// still for a moment.
constexpr auto kShort = 2s;

// Nobody is cut within a test, unless it makes a limit short.
ConnectionLimits patientLimits() {
  ConnectionLimits limits;
  limits.workers = kWorkers;
  limits.handshake = limits.request = limits.write = limits.idle = 60s;
  limits.drain = limits.release = 20s;
  limits.linger = 300ms;
  return limits;
}

// The client has its answer a moment before the server sees it written. Returns when it has.
void request(const Service& service, TlsClient& phone) {
  EXPECT_EQ(phone.request("GET", e2e::kHealthPath).status, 200);
  awaitThat([&] { return service.in_flight() == 0; });
}

// The first is idle longest.
std::deque<TlsClient> idlePhones(const Service& service, std::size_t count) {
  std::deque<TlsClient> phones;
  for (std::size_t i = 0; i < count; ++i) request(service, phones.emplace_back(service.port()));
  return phones;
}

// Of all limits only the one on a single request counts.
ConnectionLimits onlyRequestBytes() {
  auto limits = patientLimits();
  limits.all_request_bytes = std::size_t{1} << 30;
  return limits;
}

// Returns when the server has ended the connection of a bare socket.
void awaitEnd(const Fd& socket) {
  char byte;
  while (::recv(socket.get(), &byte, 1, 0) > 0) {
  }
}

// The library gives up a peer as well, after thirty seconds without a byte.
constexpr auto kLongBeforeTheLibrary = 15s;

TEST(Connections, AllWorkersButOneMayBeHeldBySilentPeers) {
  Service service(patientLimits());
  std::deque<Fd> silent;
  for (std::size_t i = 0; i + 1 < kWorkers; ++i) silent.push_back(e2e::connectTcp(service.port()));
  for (int i = 0; i < 10; ++i) EXPECT_EQ(service.health(), 200);
  for (const Fd& peer : silent) {
    char byte;
    EXPECT_EQ(::recv(peer.get(), &byte, 1, MSG_DONTWAIT), -1) << "still connected";
  }
}

TEST(Connections, AllWorkersButOneMayBeHeldByTricklingPeers) {
  Service service(patientLimits());
  const std::string request = e2e::requestText("GET", e2e::kHealthPath);
  std::deque<TlsClient> trickling;
  for (std::size_t i = 0; i + 1 < kWorkers; ++i) {
    trickling.emplace_back(service.port()).send(request.substr(0, 5));
  }
  for (int i = 0; i < 10; ++i) EXPECT_EQ(service.health(), 200);
  for (auto& peer : trickling) {
    peer.send(request.substr(5));
    EXPECT_EQ(peer.receive().status, 200) << "still connected";
  }
}

TEST(Connections, APeerSilentInTheHandshakeIsCut) {
  auto limits = patientLimits();
  limits.handshake = kShort;
  Service service(limits);
  std::deque<Fd> silent;
  const auto begin = Clock::now();
  for (std::size_t i = 0; i < kWorkers; ++i) silent.push_back(e2e::connectTcp(service.port()));
  EXPECT_EQ(service.health(), 200);  // answered once one of them is gone
  for (const Fd& peer : silent) awaitEnd(peer);
  EXPECT_LT(Clock::now() - begin, kLongBeforeTheLibrary);
}

TEST(Connections, TheLongestIdleConnectionGivesWayToANewOne) {
  auto limits = patientLimits();
  limits.idle = 200ms;
  Service service(limits);
  auto phones = idlePhones(service, kWorkers);
  request(service, phones[0]);  // now 1 is idle longest
  TlsClient newcomer(service.port());
  EXPECT_EQ(newcomer.request("GET", e2e::kHealthPath).status, 200);
  phones[1].awaitClose();
  for (const std::size_t i : {std::size_t{0}, std::size_t{2}, std::size_t{3}}) {
    EXPECT_EQ(phones[i].request("GET", e2e::kHealthPath).status, 200) << i;
  }
}

// Which of them has been idle longest is the server's to know: it sees the ends of their handshakes
// in an order of its own.
TEST(Connections, AConnectionThatNeverAskedIsIdleToo) {
  auto limits = patientLimits();
  limits.idle = 200ms;
  Service service(limits);
  std::deque<TlsClient> mute;
  for (std::size_t i = 0; i < kWorkers; ++i) mute.emplace_back(service.port());
  EXPECT_EQ(service.health(), 200);
  std::size_t served = 0;
  for (auto& peer : mute) {
    try {
      served += peer.request("GET", e2e::kHealthPath).status == 200 ? 1 : 0;
    } catch (const std::runtime_error&) {
      // This one has given way.
    }
  }
  EXPECT_EQ(served, kWorkers - 1);
}

TEST(Connections, NoIdleConnectionIsCutWhileNobodyWaits) {
  auto limits = patientLimits();
  limits.idle = 1ms;
  Service service(limits);
  auto phones = idlePhones(service, kWorkers - 1);
  std::this_thread::sleep_for(500ms);  // meanwhile the watcher looks five times
  for (auto& phone : phones) EXPECT_EQ(phone.request("GET", e2e::kHealthPath).status, 200);
}

TEST(Connections, ARequestThatTricklesIsCut) {
  auto limits = patientLimits();
  limits.request = kShort;
  Service service(limits);
  std::deque<TlsClient> trickling;
  const auto begin = Clock::now();
  for (std::size_t i = 0; i < kWorkers; ++i) trickling.emplace_back(service.port()).send("GET /");
  EXPECT_EQ(service.health(), 200);
  for (auto& peer : trickling) peer.awaitClose();
  EXPECT_LT(Clock::now() - begin, kLongBeforeTheLibrary);
}

// A small plain body of that size, which the library reads.
std::string headOfBody(std::size_t size) {
  return e2e::requestText(
      "POST", e2e::kHealthPath,
      {{"Content-Length", std::to_string(size)}, {"Content-Type", "text/plain"}});
}

TEST(Connections, ABodyThatTricklesIsCut) {
  auto limits = patientLimits();
  limits.request = kShort;
  Service service(limits);
  std::deque<TlsClient> trickling;
  const auto begin = Clock::now();
  for (std::size_t i = 0; i < kWorkers; ++i) {
    trickling.emplace_back(service.port()).send(headOfBody(65'536));
  }
  EXPECT_EQ(service.health(), 200);
  for (auto& peer : trickling) peer.awaitClose();
  EXPECT_LT(Clock::now() - begin, kLongBeforeTheLibrary);
}

TEST(Connections, SendingNowAndThenDoesNotProlongARequest) {
  auto limits = patientLimits();
  limits.request = kShort;
  for (const std::string& head : {std::string("GET /"), headOfBody(65'536)}) {
    SCOPED_TRACE(head);
    Service service(limits);
    TlsClient peer(service.port());
    const auto end = Clock::now() + 10 * limits.request;
    peer.send(head);
    EXPECT_THROW(
        while (Clock::now() < end) {
          peer.send("x");
          std::this_thread::sleep_for(20ms);
        },
        std::runtime_error);
  }
}

// What bounds a head is less than a body may have.
TEST(Connections, ABodyIsNoPartOfItsHead) {
  auto limits = patientLimits();
  limits.request_bytes = 4096;
  limits.all_request_bytes = 4096;
  Service service(limits);
  TlsClient peer(service.port());
  for (int i = 0; i < 2; ++i) {
    peer.send(headOfBody(65'536));
    peer.send(std::string(65'536, 'b'));
    EXPECT_EQ(peer.receive().status, 404);
  }
}

// Sends `begin`, then `more` until the server cuts; returns the bytes that it let us send.
std::size_t sendUntilCut(const Service& service, std::string_view begin, std::string_view more) {
  constexpr std::size_t kNever = std::size_t{64} << 20;
  TlsClient peer(service.port());
  peer.send(begin);
  std::size_t sent = 0;
  EXPECT_THROW(for (; sent < kNever; sent += more.size()) peer.send(more), std::runtime_error);
  return sent;
}

// What sockets may hold beyond what the server has read.
constexpr std::size_t kSockets = std::size_t{16} << 20;

TEST(Connections, AnEndlessRequestLineIsCutAtItsLimit) {
  const auto limits = onlyRequestBytes();
  Service service(limits);
  const auto begin = Clock::now();
  const std::size_t sent = sendUntilCut(service, "GET /", std::string(16 * 1024, 'a'));
  EXPECT_GE(sent, limits.request_bytes / 2);
  EXPECT_LE(sent, limits.request_bytes + kSockets);
  EXPECT_LT(Clock::now() - begin, kLongBeforeTheLibrary);
  EXPECT_EQ(service.health(), 200);
}

TEST(Connections, AnEndlessHeaderIsCutAtItsLimit) {
  const auto limits = onlyRequestBytes();
  Service service(limits);
  const auto begin = Clock::now();
  const std::size_t sent = sendUntilCut(service, "GET /api/v1/health HTTP/1.1\r\n",
                                        "X-More: " + std::string(1000, 'm') + "\r\n");
  EXPECT_GE(sent, limits.request_bytes / 2);
  EXPECT_LE(sent, limits.request_bytes + kSockets);
  EXPECT_LT(Clock::now() - begin, kLongBeforeTheLibrary);
  EXPECT_EQ(service.health(), 200);
}

// Many bands make an answer of megabytes, more than the sockets between the two hold.
std::string requestForMuch(const Service& service) {
  std::vector<e2e::Heard> decodes;
  for (int n = 0; n < 300; ++n) {
    decodes.push_back({e2e::wallClock() - 3600, "9." + std::to_string(100 + n), "FT8", ""});
  }
  service.writeLog(e2e::logText(decodes));
  return e2e::requestText("GET", std::string(e2e::kActivityPath) + "?hours=24",
                          {{"X-Spot-Token", service.token()}});
}

TEST(Connections, APeerThatTakesNothingOfItsAnswerIsCut) {
  auto limits = patientLimits();
  limits.write = kShort;
  Service service(limits);
  TlsClient peer(service.port());
  peer.send(requestForMuch(service));
  EXPECT_EQ(peer.peek(12), "HTTP/1.1 200");
  const auto begin = Clock::now();
  awaitThat([&] { return service.in_flight() == 0; });
  EXPECT_LT(Clock::now() - begin, kLongBeforeTheLibrary);
  EXPECT_THROW(peer.receive(), std::runtime_error) << "the end of the answer never came";
}

// They take a little of it again and again, each time soon enough not to be cut for that.
TEST(Connections, AnswersThatAreTakenSlowlyGiveWayToANewConnection) {
  auto limits = patientLimits();
  limits.write = 3s;
  Service service(limits);
  const std::string request = requestForMuch(service);
  std::deque<TlsClient> slow;
  for (std::size_t i = 0; i < kWorkers; ++i) slow.emplace_back(service.port());
  for (auto& peer : slow) {
    for (int n = 0; n < 3; ++n) peer.send(request);
  }
  for (auto& peer : slow) peer.peek(12);
  const std::jthread taking([&](const std::stop_token& stop) {
    for (std::size_t taken = 1; !stop.stop_requested(); taken += 256 * 1024) {
      for (auto& peer : slow) {
        try {
          peer.peek(taken);
        } catch (const std::runtime_error&) {
          // This one has given way.
        }
      }
      std::this_thread::sleep_for(300ms);
    }
  });
  const auto begin = Clock::now();
  EXPECT_EQ(service.health(), 200);
  EXPECT_LT(Clock::now() - begin, kLongBeforeTheLibrary);
}

// A deep request waits for its turn, but not for one that only pretends to come.
TEST(Connections, LargeRequestsThatTrickleDoNotHoldUpAnother) {
  const auto limits = patientLimits();
  Service service(limits);
  std::deque<TlsClient> trickling;
  const e2e::Headers large = {{"X-Large", std::string(2 * limits.deep_request_bytes, 'l')}};
  std::string head = e2e::requestText("GET", e2e::kHealthPath, large);
  head.resize(head.size() - 2);
  for (std::size_t i = 0; i + 1 < kWorkers; ++i) trickling.emplace_back(service.port()).send(head);
  awaitThat([&] { return service.in_flight() == kWorkers - 1; });
  for (int i = 0; i < 10; ++i) {
    EXPECT_EQ(TlsClient(service.port()).request("GET", e2e::kHealthPath, large).status, 200);
  }
  for (auto& peer : trickling) {
    peer.send("\r\n");
    EXPECT_EQ(peer.receive().status, 200);
  }
}

// Every byte of theirs takes a whole turn, and there is always one of them in line.
TEST(Connections, LargeRequestsThatNeverStopTricklingDoNotStarveAnother) {
  auto limits = patientLimits();
  limits.workers = 16;
  limits.turn = 400ms;
  Service service(limits);
  const e2e::Headers large = {{"X-Large", std::string(2 * limits.deep_request_bytes, 'l')}};
  const std::string head = e2e::requestText("GET", e2e::kHealthPath, large);
  std::deque<TlsClient> trickling;
  for (std::size_t i = 0; i + 1 < limits.workers; ++i) {
    trickling.emplace_back(service.port()).send(head.substr(0, head.size() - 4));
  }
  const std::jthread trickle([&](const std::stop_token& stop) {
    for (; !stop.stop_requested(); std::this_thread::sleep_for(limits.turn + 100ms)) {
      for (auto& peer : trickling) {
        try {
          peer.send("l");
        } catch (const std::runtime_error&) {
          // The server has cut this one.
        }
      }
    }
  });
  std::vector<Milliseconds> times;
  for (int i = 0; i < 5; ++i) {
    const auto begin = Clock::now();
    EXPECT_EQ(TlsClient(service.port()).request("GET", e2e::kHealthPath, large).status, 200);
    times.push_back(Clock::now() - begin);
  }
  EXPECT_GE(service.in_flight(), limits.workers - 1) << "all of them are still at it";
  // The first may have to wait until each of the others has had one.
  EXPECT_LT(quantile(times, 0.5), 4 * limits.turn);
}

TEST(Connections, AnAbsurdRangeIsAnsweredAndTheServerGoesOn) {
  Service service(patientLimits());
  TlsClient peer(service.port());
  const e2e::Headers range = {{"Range", "bytes=99999999999999999999999-"}};
  EXPECT_EQ(peer.request("GET", e2e::kHealthPath, range).status, 416);
  EXPECT_EQ(peer.request("GET", e2e::kHealthPath).status, 200);
}

// The library looks at the socket alone before it reads on.
TEST(Connections, RequestsThatCameInOnePieceAreAnsweredWhenMoreComes) {
  Service service(patientLimits());
  TlsClient peer(service.port());
  peer.send(std::string(kHealthRequest) + kHealthRequest);
  EXPECT_EQ(peer.receive().status, 200);
  peer.send(kHealthRequest);
  EXPECT_EQ(peer.receive().status, 200);
  EXPECT_EQ(peer.receive().status, 200);
}

TEST(Connections, ManyAtOnceAreAllServed) {
  Service service(patientLimits());
  std::vector<std::future<int>> answers;
  for (int i = 0; i < 100; ++i) {
    answers.push_back(std::async(std::launch::async, [&service] { return service.health(); }));
  }
  for (auto& answer : answers) EXPECT_EQ(answer.get(), 200);
}

// Whatever a refresh meets in the station's files, it holds the store meanwhile.
TEST(Connections, HealthDoesNotWaitForARefresh) {
  Service service(patientLimits());
  const auto held = service.store().lock();
  EXPECT_EQ(service.health(), 200);
}

// --- stopping ---

TEST(Stopping, NoClientHoldsTheServiceUp) {
  auto limits = patientLimits();
  limits.drain = 200ms;
  Service service(limits);
  auto phones = idlePhones(service, 1);
  TlsClient trickling(service.port());
  trickling.send("GET /");
  const Fd silent = e2e::connectTcp(service.port());
  const Fd waiting = e2e::connectTcp(service.port());
  const Fd waiting_too = e2e::connectTcp(service.port());
  awaitThat([&] { return service.in_flight() == 1; });
  const auto begin = Clock::now();
  EXPECT_TRUE(service.stop());
  EXPECT_LT(Clock::now() - begin, kLongBeforeTheLibrary);
}

TEST(Stopping, ABodyUnderWayMayStillComeToItsEnd) {
  Service service(patientLimits());
  TlsClient phone(service.port());
  phone.send(headOfBody(2));
  phone.send("a");
  awaitThat([&] { return service.in_flight() == 1; });
  auto stopped = std::async(std::launch::async, [&service] { return service.stop(); });
  EXPECT_EQ(stopped.wait_for(100ms), std::future_status::timeout);
  phone.send("b");
  EXPECT_EQ(phone.receive().status, 404);
  EXPECT_TRUE(stopped.get());
}

TEST(Stopping, ARequestInFlightStillGetsItsAnswer) {
  Service service(patientLimits());
  TlsClient phone(service.port());
  std::future<bool> stopped;
  {
    const auto held = service.store().lock();  // the request waits for this
    phone.send("GET /api/v1/activity HTTP/1.1\r\nHost: s\r\nX-Spot-Token: " + service.token() +
               "\r\n\r\n");
    awaitThat([&] { return service.in_flight() == 1; });
    stopped = std::async(std::launch::async, [&service] { return service.stop(); });
    EXPECT_EQ(stopped.wait_for(1s), std::future_status::timeout);
  }
  EXPECT_EQ(phone.receive().status, 200);
  EXPECT_TRUE(stopped.get());
}

}  // namespace
}  // namespace spotserver::hostile
