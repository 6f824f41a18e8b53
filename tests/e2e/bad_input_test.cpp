// Whatever lies where the station's files should be: the server comes up and answers.
#include <csignal>
#include <filesystem>
#include <random>
#include <sstream>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "e2e/activity_model.hpp"
#include "e2e/station.hpp"

namespace spotserver::e2e {
namespace {

namespace fs = std::filesystem;

std::int64_t spotsOf(const Station& station) {
  return numberOf(station.activity().body, "window_spots");
}

struct Obstacle {
  const char* name;
  void (*place)(const std::string& path);
};

const Obstacle kObstacles[] = {
    {"a FIFO nobody writes to", [](const std::string& path) { mkfifo(path.c_str(), 0600); }},
    {"a directory", [](const std::string& path) { fs::create_directory(path); }},
    {"a link to nowhere", [](const std::string& path) { fs::create_symlink("nowhere", path); }},
    {"a link to itself", [](const std::string& path) { fs::create_symlink(path, path); }},
    {"an endless device", [](const std::string& path) { fs::create_symlink("/dev/zero", path); }},
    {"a file without any rights",
     [](const std::string& path) {
       writeFile(path, "");
       chmod(path.c_str(), 0);
     }},
};

TEST(BadInput, ObstacleInPlaceOfTheLog) {
  for (const Obstacle& obstacle : kObstacles) {
    SCOPED_TRACE(obstacle.name);
    const Station station;
    fs::create_directories(station.stateDir());
    obstacle.place(station.log());
    ServerProcess server = station.serve({"--history-db", "off"});
    EXPECT_EQ(spotsOf(station), 0);

    fs::remove(station.log());
    station.writeLog(logLine({wallClock() - 60, "14.074", "FT8", "K1ABC"}));
    EXPECT_EQ(spotsOf(station), 1) << "the log is read once it is there";

    fs::remove(station.log());
    obstacle.place(station.log());
    EXPECT_EQ(station.activity().status, 200);
    server.signal(SIGTERM);
    EXPECT_EQ(server.waitForExit(kStopLimit), 0);
  }
}

TEST(BadInput, ObstacleInPlaceOfTheCountryFile) {
  for (const Obstacle& obstacle : kObstacles) {
    SCOPED_TRACE(obstacle.name);
    const Station station;
    fs::remove(station.countryFile());
    obstacle.place(station.countryFile());
    // A sender that counts with any country file and with none.
    station.writeLog(logLine({wallClock() - 60, "14.074", "FT8", "K1ABC"}));
    ServerProcess server = station.serve({"--history-db", "off"});
    EXPECT_EQ(numberOf(station.activity().body, "window_unique_callsigns"), 1);
  }
}

TEST(BadInput, ObstacleInPlaceOfTheHistory) {
  for (const Obstacle& obstacle : kObstacles) {
    SCOPED_TRACE(obstacle.name);
    const Station station;
    obstacle.place(station.workFile("history.sqlite3"));
    station.writeLog(logLine({wallClock() - 60, "14.074", "FT8", "K1ABC"}));
    ServerProcess server = station.serve({"--history-db", "history.sqlite3"});
    EXPECT_EQ(station.activity().status, 200);
  }
}

TEST(BadInput, BrokenCountryFileKeepsTheOneInUse) {
  const Station station;
  const std::int64_t time = wallClock() - 600;
  station.writeLog(logText({{time, "14.074", "FT8", "K1ABC"}, {time, "14.074", "FT8", "Q1ABC"}}));
  ServerProcess server = station.serve({"--history-db", "off"});
  EXPECT_EQ(numberOf(station.activity().body, "window_unique_callsigns"), 1);
  writeFile(station.countryFile(), "not a country file\n");
  fs::last_write_time(station.countryFile(),
                      fs::last_write_time(station.countryFile()) + std::chrono::seconds(2));
  station.appendLog(
      logText({{time + 15, "7.074", "FT8", "K2ABC"}, {time + 15, "7.074", "FT8", "Q2ABC"}}));
  EXPECT_EQ(numberOf(station.activity().body, "window_unique_callsigns"), 2);
}

TEST(BadInput, LogOfRandomBytes) {
  const Station station;
  std::mt19937 random(7);
  std::string bytes(3'000'000, '\0');
  for (char& byte : bytes) byte = static_cast<char>(random());
  station.writeLog(bytes + "\n");
  ServerProcess server = station.serve({"--history-db", "off"});
  EXPECT_EQ(spotsOf(station), 0);
  station.appendLog(logLine({wallClock() - 60, "14.074", "FT8", "K1ABC"}));
  EXPECT_EQ(spotsOf(station), 1);
}

// A number behind `key` in a file of /proc/<pid>.
long long procNumber(const ServerProcess& server, const std::string& file, const std::string& key) {
  std::istringstream lines(readFile("/proc/" + std::to_string(server.pid()) + "/" + file));
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with(key)) return std::stoll(line.substr(key.size()));
  }
  throw std::runtime_error("no " + key + " in " + file);
}

TEST(BadInput, LineOfOneGigabyte) {
  constexpr std::uintmax_t kGigabyte = 1'000'000'000;
  const Station station;
  const std::int64_t time = wallClock() - 600;
  station.writeLog(logLine({time, "14.074", "FT8", "K1ABC"}));
  ServerProcess server = station.serve({"--history-db", "off"});
  EXPECT_EQ(spotsOf(station), 1);
  const long long peak_before = procNumber(server, "status", "VmHWM:");  // kB

  // A hole of zeros that takes no room on the disk.
  fs::resize_file(station.log(), fs::file_size(station.log()) + kGigabyte);
  EXPECT_EQ(spotsOf(station), 1);
  const long long peak = procNumber(server, "status", "VmHWM:");
  EXPECT_LT(peak - peak_before, 50'000) << "kB more than before";

  // What was looked at is not looked at again.
  const long long read_before = procNumber(server, "io", "rchar:");
  EXPECT_EQ(spotsOf(station), 1);
  EXPECT_LT(procNumber(server, "io", "rchar:") - read_before, 4'000'000);

  station.appendLog("end of the long line\n" + logLine({time + 15, "14.074", "FT8", "K2ABC"}));
  EXPECT_EQ(spotsOf(station), 2);
}

TEST(BadInput, StartOnALogThatIsOneGigabyteOfOneLine) {
  const Station station;
  station.writeLog("");
  fs::resize_file(station.log(), 1'000'000'000);
  ServerProcess server = station.serve({"--history-db", "off"});
  EXPECT_EQ(spotsOf(station), 0);
  EXPECT_LT(procNumber(server, "status", "VmHWM:"), 400'000);
  station.appendLog("\n" + logLine({wallClock() - 60, "14.074", "FT8", "K1ABC"}));
  EXPECT_EQ(spotsOf(station), 1);
}

}  // namespace
}  // namespace spotserver::e2e
