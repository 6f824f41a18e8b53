// The user's directories under their former name are carried over by the very first act of a start.
#include <csignal>
#include <filesystem>

#include <gtest/gtest.h>

#include "e2e/activity_model.hpp"
#include "e2e/station.hpp"

namespace spotserver::e2e {
namespace {

namespace fs = std::filesystem;

struct OldHome {
  std::string config;
  std::string data;
  std::string state;
};

OldHome oldHomeOf(const Station& station) {
  const std::string home = station.home();
  return {home + "/.config/velkor-tuner", home + "/.local/share/velkor-tuner",
          home + "/.local/state/velkor-tuner"};
}

std::string newName(std::string path) {
  return path.replace(path.rfind("velkor-tuner"), 12, "corvane");
}

TEST(Migration, UserOfTheFormerNameNoticesNothing) {
  const Station station;
  const OldHome old = oldHomeOf(station);
  std::string fingerprint;
  {
    ServerProcess before = station.serve();
    fingerprint = TlsClient(station.port()).fingerprint();
  }
  fs::rename(station.configDir(), old.config);
  writeFile(old.data + "/ALL.TXT", logLine({wallClock() - 600, "14.074", "FT8", "K1ABC"}));
  writeFile(old.state + "/left.over", "kept");
  writeFile(old.config + "/velkor-tuner.conf",
            "# velkor-tuner\nall-txt = " + old.data + "/ALL.TXT\nhistory-db = off\n");
  fs::permissions(old.config + "/velkor-tuner.conf", fs::perms(0640));

  const std::string config = station.configDir() + "/corvane.conf";
  ServerProcess server = station.serve({"--config", config});
  EXPECT_EQ(bannerValue(server.output(), "TLS SHA-256:"), fingerprint);
  EXPECT_EQ(bannerValue(server.output(), "source:"), newName(old.data) + "/ALL.TXT");
  EXPECT_EQ(bannerValue(server.output(), "spots held:"), "1");
  for (const std::string& directory : {old.config, old.data, old.state}) {
    EXPECT_EQ(fs::read_symlink(directory), "corvane") << directory;
    EXPECT_TRUE(fs::is_directory(fs::symlink_status(newName(directory)))) << directory;
  }
  EXPECT_EQ(readFile(config),
            "# velkor-tuner\nall-txt = " + newName(old.data) + "/ALL.TXT\nhistory-db = off\n");
  EXPECT_EQ(permissionsOf(config), 0640u);
  EXPECT_FALSE(exists(station.configDir() + "/velkor-tuner.conf"));
  EXPECT_FALSE(exists(config + ".rename"));
  EXPECT_EQ(readFile(station.stateDir() + "/left.over"), "kept");
  EXPECT_EQ(server.errors(), "");
}

TEST(Migration, HappensBeforeTheCommandLineIsRead) {
  const std::vector<std::string> cases[] = {{"--version"}, {"--help"}, {"--port", "0"}};
  for (const auto& arguments : cases) {
    SCOPED_TRACE(arguments[0]);
    const Station station;
    const OldHome old = oldHomeOf(station);
    writeFile(old.state + "/ALL.TXT", "");
    runToEnd(station.launch(arguments));
    EXPECT_TRUE(exists(station.stateDir() + "/ALL.TXT"));
    EXPECT_EQ(fs::read_symlink(old.state), "corvane");
  }
}

TEST(Migration, NewDirectoryInUseIsLeftAlone) {
  const Station station;
  const OldHome old = oldHomeOf(station);
  writeFile(old.config + "/velkor-tuner.conf", "all-txt = " + old.data + "/ALL.TXT\n");
  writeFile(station.configDir() + "/mine.conf", "all-txt = " + old.data + "/ALL.TXT\n");
  ServerProcess server = station.serve();
  EXPECT_TRUE(fs::is_directory(fs::symlink_status(old.config)));
  EXPECT_EQ(readFile(station.configDir() + "/mine.conf"), "all-txt = " + old.data + "/ALL.TXT\n");
  EXPECT_TRUE(exists(old.config + "/velkor-tuner.conf"));
}

TEST(Migration, EmptyNewDirectoryMakesRoom) {
  const Station station;
  const OldHome old = oldHomeOf(station);
  writeFile(old.state + "/ALL.TXT", logLine({wallClock() - 600, "14.074", "FT8", "K1ABC"}));
  fs::create_directories(station.stateDir());
  ServerProcess server = station.serve();
  EXPECT_EQ(bannerValue(server.output(), "spots held:"), "1");
  EXPECT_EQ(fs::read_symlink(old.state), "corvane");
}

TEST(Migration, SecondStartChangesNothing) {
  const Station station;
  const OldHome old = oldHomeOf(station);
  const std::string config = station.configDir() + "/corvane.conf";
  writeFile(old.config + "/velkor-tuner.conf", "token = 12345678\n");
  runToEnd(station.launch({"--version"}));
  // Written by the user afterwards: a second start must not touch it.
  writeFile(config, "all-txt = " + old.data + "/ALL.TXT\n");
  const auto written = fs::last_write_time(config);
  runToEnd(station.launch({"--version"}));
  EXPECT_EQ(readFile(config), "all-txt = " + old.data + "/ALL.TXT\n");
  EXPECT_EQ(fs::last_write_time(config), written);
  EXPECT_EQ(fs::read_symlink(old.config), "corvane");
}

TEST(Migration, FollowsTheXdgVariables) {
  const Station station;
  const std::string base = station.home() + "/settings";
  writeFile(base + "/velkor-tuner/velkor-tuner.conf",
            "all-txt = " + base + "/velkor-tuner/ALL.TXT\n");
  Launch launch = station.launch({"--version"});
  launch.environment["XDG_CONFIG_HOME"] = base;
  launch.environment["XDG_STATE_HOME"] = "relative";
  EXPECT_EQ(runToEnd(launch).status, 0);
  EXPECT_EQ(readFile(base + "/corvane/corvane.conf"), "all-txt = " + base + "/corvane/ALL.TXT\n");
}

}  // namespace
}  // namespace spotserver::e2e
