// --daemon: what the terminal sees, what the detached server is like, and where its words go.
#include <csignal>
#include <filesystem>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include "e2e/activity_model.hpp"
#include "e2e/station.hpp"

namespace spotserver::e2e {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

constexpr const char* kPidFile = "spot.pid";
constexpr const char* kLogFile = "spot.log";

// Detaches; the command has returned and said nothing. The detached server is ours to stop.
Process detach(const Station& station, const Launch& launch) {
  const Outcome outcome = runToEnd(launch);
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.output, "");
  EXPECT_EQ(outcome.errors, "");
  return Process(std::stoi(readFile(station.workFile(kPidFile))));
}

Launch daemonLaunch(const Station& station, const std::vector<std::string>& extra = {}) {
  std::vector<std::string> arguments = {"--daemon", "--pid-file",   kPidFile, "--log-file",
                                        kLogFile,   "--history-db", "off"};
  arguments.insert(arguments.end(), extra.begin(), extra.end());
  return station.usualLaunch(arguments);
}

// The log once the server answers: its banner is printed before the first request is taken.
std::string logOfAnsweringServer(const Station& station, const std::string& path) {
  EXPECT_EQ(station.get(kHealthPath).status, 200);
  return readFile(path);
}

std::string procLink(const Process& process, const std::string& name) {
  return fs::read_symlink("/proc/" + std::to_string(process.pid()) + "/" + name).string();
}

TEST(Daemon, ReturnsWithThePidFileWrittenAndTheBannerInTheLog) {
  const Station station;
  Process daemon = detach(station, daemonLaunch(station));
  const std::string pid = std::to_string(daemon.pid());
  EXPECT_EQ(readFile(station.workFile(kPidFile)), pid + "\n");
  EXPECT_EQ(permissionsOf(station.workFile(kPidFile)), 0600u);
  EXPECT_FALSE(exists(station.workFile("spot.pid.tmp")));

  const std::string log = logOfAnsweringServer(station, station.workFile(kLogFile));
  const Banner banner = usualBanner(station, TlsClient(station.port()).fingerprint());
  EXPECT_EQ(log, "Daemon PID: " + pid + "\n" + text(banner));
  EXPECT_EQ(permissionsOf(station.workFile(kLogFile)), 0600u);

  daemon.signal(SIGTERM);
  EXPECT_EQ(daemon.waitForExit(kStopLimit), 0);
  EXPECT_FALSE(exists(station.workFile(kPidFile)));
  EXPECT_EQ(readFile(station.workFile(kLogFile)), log) << "a stop says nothing";
}

TEST(Daemon, LetsGoOfTerminalDirectoryAndSession) {
  const Station station;
  const Process daemon = detach(station, daemonLaunch(station));
  EXPECT_EQ(procLink(daemon, "cwd"), "/");
  EXPECT_EQ(procLink(daemon, "fd/0"), "/dev/null");
  EXPECT_EQ(procLink(daemon, "fd/1"), station.workFile(kLogFile));
  EXPECT_EQ(procLink(daemon, "fd/2"), station.workFile(kLogFile));
  const std::string proc = "/proc/" + std::to_string(daemon.pid());
  EXPECT_THAT(readFile(proc + "/status"), HasSubstr("\nUmask:\t0077\n"));
  EXPECT_NE(getsid(daemon.pid()), getsid(0));
  EXPECT_NE(getsid(daemon.pid()), daemon.pid()) << "a session leader could get a terminal again";

  logOfAnsweringServer(station, station.workFile(kLogFile));
  for (const auto& entry : fs::directory_iterator(proc + "/fd")) {
    std::error_code gone;
    const std::string target = fs::read_symlink(entry.path(), gone).string();
    const int number = std::stoi(entry.path().filename().string());
    EXPECT_FALSE(target.starts_with("pipe:")) << number << " " << target;
    EXPECT_FALSE(number > 2 && target == station.workFile(kLogFile)) << number;
  }
}

TEST(Daemon, InterruptStopsItToo) {
  const Station station;
  Process daemon = detach(station, daemonLaunch(station));
  daemon.signal(SIGINT);
  EXPECT_EQ(daemon.waitForExit(kStopLimit), 0);
  EXPECT_FALSE(exists(station.workFile(kPidFile)));
}

TEST(Daemon, LogGoesToTheStateDirectoryByDefault) {
  const Station station;
  const Process daemon = detach(
      station, station.usualLaunch({"--daemon", "--pid-file", kPidFile, "--history-db", "off"}));
  EXPECT_EQ(permissionsOf(station.stateDir()), 0700u);
  const std::string path = station.stateDir() + "/spot-server.log";
  EXPECT_THAT(logOfAnsweringServer(station, path), HasSubstr(kReady));
  EXPECT_EQ(permissionsOf(path), 0600u);
}

TEST(Daemon, LogIsContinuedNotReplaced) {
  const Station station;
  writeFile(station.workFile(kLogFile), "kept\n");
  for (int run = 0; run < 2; ++run) {
    Process daemon = detach(station, daemonLaunch(station));
    logOfAnsweringServer(station, station.workFile(kLogFile));
    daemon.signal(SIGTERM);
    daemon.waitForExit();
  }
  const std::string log = readFile(station.workFile(kLogFile));
  EXPECT_TRUE(log.starts_with("kept\nDaemon PID: ")) << log;
  const std::size_t first = log.find("Daemon PID: ");
  EXPECT_NE(log.find("Daemon PID: ", first + 1), std::string::npos) << log;
}

TEST(Daemon, RelativePathsStayValidAfterDetaching) {
  const Station station;
  const std::int64_t time = wallClock() - 600;
  writeFile(station.workFile("log.txt"),
            logText({{time, "14.074", "FT8", "K1ABC"}, {time + 15, "14.074", "FT8", "Q1ABC"}}));
  const Process daemon = detach(station, daemonLaunch(station, {"--all-txt", "log.txt", "--cert",
                                                                "my.crt", "--key", "my.key"}));
  std::string body = station.activity().body;
  EXPECT_EQ(numberOf(body, "window_spots"), 2);
  EXPECT_EQ(numberOf(body, "window_unique_callsigns"), 1);

  // The log and the country file are still found where they were.
  writeFile(station.countryFile(), "Quizland: 14: 28: EU: 51.00: -10.00: -1.0: Q:\n    Q;\n");
  fs::last_write_time(station.countryFile(),
                      fs::last_write_time(station.countryFile()) + std::chrono::seconds(2));
  writeFile(station.workFile("log.txt"), logText({{time, "14.074", "FT8", "K1ABC"},
                                                  {time + 15, "14.074", "FT8", "Q1ABC"},
                                                  {time + 30, "14.074", "FT8", "Q2ABC"}}));
  body = station.activity().body;
  EXPECT_EQ(numberOf(body, "window_spots"), 3);
  EXPECT_EQ(numberOf(body, "window_unique_callsigns"), 2);
}

TEST(Daemon, ConfigurationFileCanAskForIt) {
  const Station station;
  writeFile(station.workFile("spot.conf"),
            "daemon = true\npid-file = spot.pid\n"
            "log-file = spot.log\n");
  Process daemon = detach(station, station.usualLaunch({"--config", "spot.conf"}));
  EXPECT_THAT(logOfAnsweringServer(station, station.workFile(kLogFile)), HasSubstr(kReady));
}

TEST(Daemon, GeneratedTokenStandsInTheLog) {
  const Station station;
  const Process daemon =
      detach(station, station.launch({"--port", station.portText(), "--bind", "127.0.0.1",
                                      "--daemon", "--pid-file", kPidFile, "--log-file", kLogFile}));
  const std::string log = logOfAnsweringServer(station, station.workFile(kLogFile));
  EXPECT_EQ(station.get(kActivityPath, bearer(bannerValue(log, "Token:"))).status, 200);
}

TEST(Daemon, NeedsNoPidFile) {
  const Station station;
  const Outcome outcome = runToEnd(station.usualLaunch({"--daemon", "--log-file", kLogFile}));
  EXPECT_EQ(outcome.status, 0);
  const std::string log = logOfAnsweringServer(station, station.workFile(kLogFile));
  const std::string label = "Daemon PID: ";
  ASSERT_TRUE(log.starts_with(label)) << log;
  Process daemon(std::stoi(log.substr(label.size())));
  daemon.signal(SIGTERM);
  EXPECT_EQ(daemon.waitForExit(kStopLimit), 0);
}

TEST(Daemon, BadPidDirectoryIsToldInTheLog) {
  const Station station;
  const std::string pid_file = station.workFile("missing/spot.pid");
  const Outcome outcome =
      runToEnd(station.usualLaunch({"--daemon", "--pid-file", pid_file, "--log-file", kLogFile}));
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.output, "");
  EXPECT_EQ(outcome.errors, "");
  EXPECT_EQ(readFile(station.workFile(kLogFile)), "Cannot write PID file: " + pid_file + "\n");
  // The detached child is ours now; the port is free once it has ended.
  const auto deadline = Clock::now() + kPatience;
  while (::waitpid(-1, nullptr, WNOHANG) >= 0) {
    ASSERT_LT(Clock::now(), deadline) << "the detached child lives on";
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  const ServerProcess server = station.serve();
}

TEST(Daemon, ClosedStandardDescriptorsAreNoObstacle) {
  const Station station;
  Launch launch = daemonLaunch(station);
  launch.closed_descriptors = {0, 1, 2};
  Process daemon = detach(station, launch);
  EXPECT_THAT(logOfAnsweringServer(station, station.workFile(kLogFile)), HasSubstr(kReady));
  EXPECT_EQ(procLink(daemon, "fd/0"), "/dev/null");
  EXPECT_EQ(procLink(daemon, "fd/1"), station.workFile(kLogFile));
  daemon.signal(SIGTERM);
  EXPECT_EQ(daemon.waitForExit(kStopLimit), 0);
}

TEST(Daemon, StartsAgainAtOnceOnItsPort) {
  const Station station;
  for (int run = 0; run < 3; ++run) {
    Process daemon = detach(station, daemonLaunch(station));
    TlsClient phone(station.port());
    EXPECT_EQ(phone.request("GET", kHealthPath).status, 200) << run;
    daemon.signal(SIGTERM);
    EXPECT_EQ(daemon.waitForExit(kStopLimit), 0) << run;
  }
}

}  // namespace
}  // namespace spotserver::e2e
