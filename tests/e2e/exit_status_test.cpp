// Every way in which a start fails after the settings are read: one short message on standard
// error, nothing on standard output, status 1.
#include <csignal>
#include <filesystem>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include "e2e/station.hpp"

namespace spotserver::e2e {
namespace {

namespace fs = std::filesystem;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

void expectFailure(const Outcome& outcome, const std::string& message) {
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.errors, message + "\n");
  EXPECT_EQ(outcome.output, "");
}

// An identity made by a start of its own.
void makeIdentity(const Station& station, const std::string& certificate, const std::string& key) {
  ServerProcess server = station.serve({"--cert", certificate, "--key", key});
  server.signal(SIGTERM);
  server.waitForExit();
}

TEST(ExitStatus, DaemonLogThatCannotBeOpened) {
  const Station station;
  const std::string log = station.workFile("missing/spot.log");
  expectFailure(runToEnd(station.usualLaunch({"--daemon", "--log-file", log})),
                "Cannot open daemon log: " + log);
}

// With one descriptor after the other: the log comes before the pipe, and that takes two.
TEST(ExitStatus, BackgroundWithoutDescriptorsForItsPipe) {
  const Station station;
  makeIdentity(station, "my.crt", "my.key");
  Launch launch = station.usualLaunch({"--daemon", "--log-file", station.workFile("spot.log"),
                                       "--cert", "my.crt", "--key", "my.key"});
  Outcome outcome;
  for (rlim_t most = 4; outcome.errors != "pipe failed\n" && most < 32; ++most) {
    launch.limits[RLIMIT_NOFILE] = most;
    outcome = runToEnd(launch);
    ASSERT_NE(outcome.status, 0) << most;
  }
  expectFailure(outcome, "pipe failed");
}

TEST(ExitStatus, PidFileInAMissingDirectory) {
  const Station station;
  const std::string pid_file = station.workFile("missing/spot.pid");
  expectFailure(runToEnd(station.usualLaunch({"--pid-file", pid_file})),
                "Cannot write PID file: " + pid_file);
}

TEST(ExitStatus, PidFileWhoseNameIsADirectory) {
  const Station station;
  const std::string pid_file = station.workFile("spot.pid");
  fs::create_directory(pid_file);
  expectFailure(runToEnd(station.usualLaunch({"--pid-file", pid_file})),
                "Cannot write PID file: " + pid_file);
  EXPECT_FALSE(exists(pid_file + ".tmp"));
}

TEST(ExitStatus, CertificateThatIsGarbage) {
  const Station station;
  writeFile(station.workFile("bad.crt"), "garbage\n");
  writeFile(station.workFile("bad.key"), "garbage\n");
  const Outcome outcome = runToEnd(station.usualLaunch({"--cert", "bad.crt", "--key", "bad.key"}));
  EXPECT_EQ(outcome.status, 1);
  EXPECT_THAT(outcome.errors, StartsWith("TLS certificate error: PEM_read_X509 failed for " +
                                         station.workFile("bad.crt") + ": error:"));
  EXPECT_THAT(outcome.errors, EndsWith("no start line\n"));
  EXPECT_EQ(outcome.output, "");
}

TEST(ExitStatus, KeyWithoutItsCertificateIsNeverOverwritten) {
  const Station station;
  const std::string key = station.workFile("my.key");
  writeFile(key, "precious\n");
  expectFailure(runToEnd(station.usualLaunch({"--cert", "my.crt", "--key", key})),
                "TLS certificate error: Cannot create key (exists or unwritable): " + key);
  EXPECT_EQ(readFile(key), "precious\n");
  EXPECT_FALSE(exists(station.workFile("my.crt")));
}

TEST(ExitStatus, KeyInAMissingDirectory) {
  const Station station;
  const std::string key = station.workFile("missing/my.key");
  expectFailure(runToEnd(station.usualLaunch({"--key", key})),
                "TLS certificate error: Cannot create key (exists or unwritable): " + key);
}

TEST(ExitStatus, CertificateInAMissingDirectoryLeavesAWholeKey) {
  const Station station;
  const std::string certificate = station.workFile("missing/my.crt");
  expectFailure(runToEnd(station.usualLaunch({"--cert", certificate, "--key", "my.key"})),
                "TLS certificate error: Cannot write certificate: " + certificate);
  EXPECT_THAT(readFile(station.workFile("my.key")), EndsWith("-----END PRIVATE KEY-----\n"));
}

TEST(ExitStatus, FullDiskUnderTheCertificate) {
  const Station station;
  const Outcome outcome = runToEnd(station.usualLaunch({"--cert", "/dev/full", "--key", "my.key"}));
  EXPECT_EQ(outcome.status, 1);
  EXPECT_THAT(outcome.errors, StartsWith("TLS certificate error: PEM_write_X509 failed"));
  EXPECT_THAT(readFile(station.workFile("my.key")), EndsWith("-----END PRIVATE KEY-----\n"));
}

TEST(ExitStatus, CertificateAndKeyOfDifferentPairs) {
  const Station station;
  makeIdentity(station, "one.crt", "one.key");
  makeIdentity(station, "two.crt", "two.key");
  expectFailure(runToEnd(station.usualLaunch({"--cert", "one.crt", "--key", "two.key"})),
                "Failed to initialise TLS server (bad certificate or key?)");
}

TEST(ExitStatus, KeyThatIsAFifoIsNotWaitedFor) {
  const Station station;
  makeIdentity(station, "my.crt", "other.key");
  ASSERT_EQ(mkfifo(station.workFile("my.key").c_str(), 0600), 0);
  expectFailure(runToEnd(station.usualLaunch({"--cert", "my.crt", "--key", "my.key"})),
                "Failed to initialise TLS server (bad certificate or key?)");
}

TEST(ExitStatus, KeyThatIsGarbage) {
  const Station station;
  makeIdentity(station, "one.crt", "one.key");
  writeFile(station.workFile("one.key"), "garbage\n");
  expectFailure(runToEnd(station.usualLaunch({"--cert", "one.crt", "--key", "one.key"})),
                "Failed to initialise TLS server (bad certificate or key?)");
}

// The system may forbid every protocol version that the server has: nobody could connect.
TEST(ExitStatus, TlsThatNobodyCouldTalkTo) {
  const Station station;
  writeFile(station.workFile("openssl.cnf"),
            "openssl_conf = all\n[all]\nssl_conf = tls\n[tls]\nsystem_default = contexts\n"
            "[contexts]\nMaxProtocol = TLSv1\n");
  Launch launch = station.usualLaunch();
  launch.environment["OPENSSL_CONF"] = station.workFile("openssl.cnf");
  expectFailure(runToEnd(launch), "Failed to initialise TLS server (bad certificate or key?)");
}

// What the system asks of clients by itself, certificates that can be verified or groups of old, is
// no reason not to serve.
TEST(ExitStatus, TlsSettingsThatOnlyClientsMindAreNone) {
  for (const std::string demand : {"VerifyMode = Peer", "Groups = ffdhe2048"}) {
    const Station station;
    writeFile(station.workFile("openssl.cnf"),
              "openssl_conf = all\n[all]\nssl_conf = tls\n[tls]\nsystem_default = contexts\n"
              "[contexts]\n" +
                  demand + "\n");
    Launch launch = station.usualLaunch();
    launch.environment["OPENSSL_CONF"] = station.workFile("openssl.cnf");
    ServerProcess server(launch);
    server.awaitOutput("Press Ctrl-C");
    server.signal(SIGTERM);
    EXPECT_EQ(server.waitForExit(), 0) << demand;
  }
}

TEST(ExitStatus, SecondInstanceOnThePort) {
  const Station station;
  ServerProcess first = station.serve({"--pid-file", "first.pid"});
  const std::string pid_text = readFile(station.workFile("first.pid"));
  const std::string message = "Failed to bind https://127.0.0.1:" + station.portText();

  expectFailure(runToEnd(station.usualLaunch({"--pid-file", "first.pid"})), message);
  expectFailure(runToEnd(station.usualLaunch(
                    {"--daemon", "--pid-file", "first.pid", "--log-file", "second.log"})),
                message);

  EXPECT_FALSE(exists(station.workFile("second.log"))) << "detached although the port was busy";
  EXPECT_EQ(readFile(station.workFile("first.pid")), pid_text);
  EXPECT_EQ(station.get(kHealthPath).status, 200);
}

TEST(ExitStatus, SecondInstanceOnAllInterfaces) {
  const Station station;
  ServerProcess first = station.serve();
  expectFailure(runToEnd(station.usualLaunch({"--bind", "0.0.0.0"})),
                "Failed to bind https://0.0.0.0:" + station.portText());
}

// "localhost", or no name at all, stands for ::1 and 127.0.0.1.
TEST(ExitStatus, SecondInstanceOnAHostOfTwoAddresses) {
  for (const std::string host : {"localhost", ""}) {
    const Station station;
    ServerProcess first = station.serve({"--bind", host});
    expectFailure(runToEnd(station.usualLaunch({"--bind", host})),
                  "Failed to bind https://" + host + ":" + station.portText());
  }
}

TEST(ExitStatus, PortHeldByAnotherProgram) {
  const Station station;
  const Station neighbour;
  ServerProcess other = neighbour.serve();
  expectFailure(runToEnd(station.usualLaunch({"--port", neighbour.portText()})),
                "Failed to bind https://127.0.0.1:" + neighbour.portText());
}

TEST(ExitStatus, AddressThatIsNotOurs) {
  const Station station;
  expectFailure(runToEnd(station.usualLaunch({"--bind", "192.0.2.1"})),
                "Failed to bind https://192.0.2.1:" + station.portText());
}

// An OpenSSL configuration that names a random generator which does not exist.
Launch withoutRandomness(const Station& station, Launch launch) {
  writeFile(station.workFile("openssl.cnf"),
            "openssl_conf = init\n[init]\nrandom = source\n[source]\nrandom = NO-SUCH-DRBG\n");
  launch.environment["OPENSSL_CONF"] = station.workFile("openssl.cnf");
  return launch;
}

TEST(ExitStatus, NoRandomnessForTheToken) {
  const Station station;
  expectFailure(runToEnd(withoutRandomness(station, station.launch({"--port", station.portText(),
                                                                    "--bind", "127.0.0.1"}))),
                "Fatal: OpenSSL RAND_bytes failed; refusing to start with a weak token.");
  EXPECT_FALSE(exists(station.key()));
}

TEST(ExitStatus, NoRandomnessForTheKey) {
  const Station station;
  const Outcome outcome = runToEnd(withoutRandomness(station, station.usualLaunch()));
  EXPECT_EQ(outcome.status, 1);
  EXPECT_THAT(outcome.errors, StartsWith("TLS certificate error: EVP_RSA_gen failed: error:"));
  EXPECT_FALSE(exists(station.key()));
  EXPECT_FALSE(exists(station.certificate()));
}

// The listening socket of another process of ours, as a descriptor of our own; empty when the
// kernel or a container does not let us have it.
Fd listeningSocketOf(pid_t pid) {
  const Fd process = pidfdOf(pid);
  for (const auto& entry : fs::directory_iterator("/proc/" + std::to_string(pid) + "/fd")) {
    const int number = std::stoi(entry.path().filename().string());
    Fd copy(static_cast<int>(syscall(SYS_pidfd_getfd, process.get(), number, 0)));
    int listening = 0;
    socklen_t size = sizeof listening;
    if (copy && getsockopt(copy.get(), SOL_SOCKET, SO_ACCEPTCONN, &listening, &size) == 0 &&
        listening != 0) {
      return copy;
    }
  }
  return Fd();
}

TEST(ExitStatus, AcceptLoopThatFailsByItself) {
  const Station station;
  ServerProcess server = station.serve({"--pid-file", "spot.pid"});
  const Fd listening = listeningSocketOf(server.pid());
  if (!listening) GTEST_SKIP() << "this system does not let us reach the server's socket";
  ASSERT_EQ(shutdown(listening.get(), SHUT_RDWR), 0);
  EXPECT_EQ(server.waitForExit(), 1);
  EXPECT_EQ(server.errors(), "Failed to bind https://127.0.0.1:" + station.portText() +
                                 " (port in use or permission denied?)\n");
  EXPECT_FALSE(exists(station.workFile("spot.pid")));
}

}  // namespace
}  // namespace spotserver::e2e
