// Stopping: by either signal, at any moment, whatever the clients do; and the PID file with it.
#include <csignal>
#include <filesystem>

#include <gtest/gtest.h>

#include "e2e/activity_model.hpp"
#include "e2e/station.hpp"

namespace spotserver::e2e {
namespace {

constexpr const char* kPidFile = "spot.pid";

// Signals the server and expects a clean end in time.
void expectCleanStop(ServerProcess& server, int signal = SIGTERM) {
  const std::string banner = server.output();
  server.signal(signal);
  EXPECT_EQ(server.waitForExit(kStopLimit), 0);
  EXPECT_EQ(server.output(), banner) << "a stop says nothing";
  EXPECT_EQ(server.errors(), "");
}

TEST(Stop, EitherSignalEndsWithStatusZeroAndTakesThePidFile) {
  const Station station;
  for (const int signal : {SIGTERM, SIGINT}) {
    ServerProcess server = station.serve({"--pid-file", kPidFile});
    EXPECT_EQ(readFile(station.workFile(kPidFile)), std::to_string(server.pid()) + "\n");
    EXPECT_EQ(permissionsOf(station.workFile(kPidFile)), 0600u);
    expectCleanStop(server, signal);
    EXPECT_FALSE(exists(station.workFile(kPidFile))) << signal;
    EXPECT_THROW(connectTcp(station.port()), std::runtime_error);
  }
}

TEST(Stop, SignalBetweenPidFileAndFirstRequestIsNotLost) {
  const Station station;
  for (int round = 0; round < 20; ++round) {
    DirectoryWatch watch(station.work());
    ServerProcess server(station.usualLaunch({"--pid-file", kPidFile}));
    watch.awaitArrival(kPidFile);
    server.signal(round % 2 == 0 ? SIGTERM : SIGINT);
    EXPECT_EQ(server.waitForExit(kStopLimit), 0) << round;
    EXPECT_FALSE(exists(station.workFile(kPidFile))) << round;
  }
}

// The banner stands between the PID file and the accept loop: a server that cannot print it is
// surely not running yet.
TEST(Stop, SignalWhileTheBannerIsHeldUpIsNotLost) {
  const Station station;
  for (const int signal : {SIGTERM, SIGINT}) {
    DirectoryWatch watch(station.work());
    Launch launch = station.usualLaunch({"--pid-file", kPidFile});
    launch.output_full = true;
    ServerProcess server(launch);
    watch.awaitArrival(kPidFile);
    server.signal(signal);
    server.awaitOutput(kReady);
    EXPECT_EQ(server.waitForExit(kStopLimit), 0) << signal;
    EXPECT_FALSE(exists(station.workFile(kPidFile))) << signal;
  }
}

TEST(Stop, SecondSignalChangesNothing) {
  const Station station;
  ServerProcess server = station.serve({"--pid-file", kPidFile});
  TlsClient phone(station.port());
  EXPECT_EQ(phone.request("GET", kHealthPath).status, 200);
  server.signal(SIGTERM);
  server.signal(SIGINT);
  server.signal(SIGTERM);
  EXPECT_EQ(server.waitForExit(kStopLimit), 0);
  EXPECT_FALSE(exists(station.workFile(kPidFile)));
}

TEST(Stop, IdleKeepAliveClient) {
  const Station station;
  ServerProcess server = station.serve();
  TlsClient phone(station.port());
  EXPECT_EQ(phone.request("GET", kHealthPath).status, 200);
  expectCleanStop(server);
  phone.awaitClose();
}

TEST(Stop, SilentTcpClient) {
  const Station station;
  ServerProcess server = station.serve();
  const Fd silent = connectTcp(station.port());
  EXPECT_EQ(station.get(kHealthPath).status, 200);  // by now the silent one is taken, too
  expectCleanStop(server);
}

TEST(Stop, ClientInTheMiddleOfItsHandshake) {
  const Station station;
  ServerProcess server = station.serve();
  const Fd halfway = connectTcp(station.port());
  sendAll(halfway, std::string("\x16\x03\x01\x02\x00\x01", 6));  // a ClientHello begins
  EXPECT_EQ(station.get(kHealthPath).status, 200);
  expectCleanStop(server);
}

TEST(Stop, ClientInTheMiddleOfItsRequest) {
  const Station station;
  ServerProcess server = station.serve();
  TlsClient phone(station.port());
  EXPECT_EQ(phone.request("GET", kHealthPath).status, 200);
  phone.send("GET /api/v1/heal");
  TlsClient fresh(station.port());
  fresh.send("GET /api/v1/health HTTP/1.1\r\nHost: ");
  expectCleanStop(server);
}

TEST(Stop, ClientInTheMiddleOfItsBody) {
  const Station station;
  ServerProcess server = station.serve();
  TlsClient phone(station.port());
  phone.send(requestText("POST", kHealthPath,
                         {{"Content-Length", "1000"}, {"Content-Type", "text/plain"}}) +
             "so far");
  EXPECT_EQ(station.get(kHealthPath).status, 200);
  expectCleanStop(server);
}

TEST(Stop, ManyIdleClients) {
  const Station station;
  ServerProcess server = station.serve();
  std::vector<TlsClient> phones;
  std::vector<Fd> silent;
  for (int n = 0; n < 30; ++n) {
    phones.emplace_back(station.port());
    phones.back().request("GET", kHealthPath);
    silent.push_back(connectTcp(station.port()));
  }
  expectCleanStop(server);
}

// A day of many bands makes an answer of megabytes, more than the sockets between us hold.
std::string megabytesOfBands(int bands = 300) {
  std::vector<Heard> decodes;
  for (int n = 0; n < bands; ++n) {
    decodes.push_back({wallClock() - 3600, "9." + std::to_string(100 + n), "FT8", ""});
  }
  return logText(decodes);
}

TEST(Stop, ClientThatDoesNotReadItsAnswer) {
  const Station station;
  station.writeLog(megabytesOfBands());
  ServerProcess server = station.serve({"--history-db", "off"});
  TlsClient phone(station.port());
  phone.send(requestText("GET", std::string(kActivityPath) + "?hours=24", bearer(kToken)));
  EXPECT_EQ(phone.peek(12), "HTTP/1.1 200");
  expectCleanStop(server);
}

TEST(Stop, ClientThatVanishesMidAnswerHarmsNobody) {
  const Station station;
  station.writeLog(megabytesOfBands());
  ServerProcess server = station.serve({"--history-db", "off"});
  for (int n = 0; n < 3; ++n) {
    TlsClient phone(station.port());
    phone.send(requestText("GET", std::string(kActivityPath) + "?hours=24", bearer(kToken)));
    EXPECT_EQ(phone.peek(12), "HTTP/1.1 200");
    phone.reset();
  }
  EXPECT_EQ(station.get(kHealthPath).status, 200);
  expectCleanStop(server);
}

TEST(Stop, AnswerUnderWayIsDelivered) {
  const Station station;
  station.writeLog(megabytesOfBands(150));
  bool delivered = false;
  for (int attempt = 0; attempt < 10 && !delivered; ++attempt) {
    ServerProcess server = station.serve({"--history-db", "off"});
    TlsClient phone(station.port());
    phone.send(requestText("GET", std::string(kActivityPath) + "?hours=24", bearer(kToken)));
    EXPECT_EQ(phone.peek(12), "HTTP/1.1 200");
    const auto begin = Clock::now();
    server.signal(SIGTERM);
    try {
      EXPECT_TRUE(phone.receive().body.ends_with("}]}]}"));
      delivered = true;
    } catch (const std::runtime_error&) {
      ASSERT_GE(Clock::now() - begin, std::chrono::seconds(2))
          << "cut before it had its time";  // else: a slow machine
    }
    EXPECT_EQ(server.waitForExit(kStopLimit), 0);
  }
  EXPECT_TRUE(delivered);
}

TEST(Stop, StartsAgainAtOnceOnItsPort) {
  const Station station;
  for (int run = 0; run < 3; ++run) {
    ServerProcess server = station.serve();
    TlsClient phone(station.port());  // the server's side closes first and lingers in the kernel
    EXPECT_EQ(phone.request("GET", kHealthPath).status, 200) << run;
    expectCleanStop(server);
  }
}

TEST(Stop, StartsAgainAtOnceAfterAKill) {
  const Station station;
  for (int run = 0; run < 3; ++run) {
    ServerProcess server = station.serve();
    TlsClient phone(station.port());
    EXPECT_EQ(phone.request("GET", kHealthPath).status, 200) << run;
    server.signal(SIGKILL);
    EXPECT_EQ(server.waitForExit(), 128 + SIGKILL) << run;
  }
}

TEST(PidFile, OneThatNowBelongsToAnotherStays) {
  const Station station;
  ServerProcess server = station.serve({"--pid-file", kPidFile});
  writeFile(station.workFile(kPidFile), "1\n");
  expectCleanStop(server);
  EXPECT_EQ(readFile(station.workFile(kPidFile)), "1\n");
}

TEST(PidFile, AlreadyGoneIsNoTrouble) {
  const Station station;
  ServerProcess server = station.serve({"--pid-file", kPidFile});
  ASSERT_EQ(unlink(station.workFile(kPidFile).c_str()), 0);
  expectCleanStop(server);
}

TEST(PidFile, LeftoversOfACrashAreReplaced) {
  const Station station;
  writeFile(station.workFile(kPidFile), "999999999\n");
  writeFile(station.workFile("spot.pid.tmp"), "999");
  ServerProcess server = station.serve({"--pid-file", kPidFile});
  EXPECT_EQ(readFile(station.workFile(kPidFile)), std::to_string(server.pid()) + "\n");
  EXPECT_FALSE(exists(station.workFile("spot.pid.tmp")));
}

TEST(PidFile, PlantedLinkIsNotFollowed) {
  const Station station;
  writeFile(station.workFile("victim"), "precious\n");
  std::filesystem::create_symlink("victim", station.workFile("spot.pid.tmp"));
  ServerProcess server = station.serve({"--pid-file", kPidFile});
  EXPECT_EQ(readFile(station.workFile("victim")), "precious\n");
  EXPECT_EQ(readFile(station.workFile(kPidFile)), std::to_string(server.pid()) + "\n");
}

// Readers find either no file or the whole number and its line feed.
TEST(PidFile, IsNeverSeenHalfWritten) {
  const Station station;
  for (int round = 0; round < 5; ++round) {
    DirectoryWatch watch(station.work());
    ServerProcess server(station.usualLaunch({"--pid-file", kPidFile}));
    watch.awaitArrival(kPidFile);
    EXPECT_EQ(readFile(station.workFile(kPidFile)), std::to_string(server.pid()) + "\n");
  }
}

}  // namespace
}  // namespace spotserver::e2e
