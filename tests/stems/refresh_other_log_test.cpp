// What a refresh does when the log is another one than before: truncated, replaced, gone.
#include <filesystem>
#include <functional>
#include <random>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "spots/refresh_reference.hpp"
#include "stems/refresh_fixture.hpp"

namespace spotserver {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Key;
using ::testing::UnorderedElementsAre;

TEST_F(Refresh, TruncatedLogEmptiesTheSpotsAndIsReadAgain) {
  writeLog(heard("N0AAA") + heard("N0BBB"));
  refresh();
  writeLog(heard("N0CCC"));
  refresh();
  EXPECT_THAT(callsigns(data), ElementsAre("N0CCC"));
  EXPECT_EQ(data.accepted_lines, 3u);
}

TEST_F(Refresh, LogCutByOneByteIsReadAgain) {
  const std::string log = heard("N0AAA") + heard("N0BBB");
  writeLog(log);
  refresh();
  std::filesystem::resize_file(data.all_txt_path, log.size() - 1);
  refresh();
  EXPECT_THAT(callsigns(data), ElementsAre("N0AAA"));
  appendLog("\n" + heard("N0CCC"));
  refresh();
  EXPECT_THAT(callsigns(data), ElementsAre("N0AAA", "N0BBB", "N0CCC"));
}

TEST_F(Refresh, ReplacedLogEmptiesTheSpotsAndKeepsTheCallsigns) {
  writeLog(heard("N0AAA"));
  refresh();
  dir.write("new", heard("N0BBB") + heard("N0CCC"));
  std::filesystem::rename(dir.path("new"), data.all_txt_path);
  refresh();
  EXPECT_THAT(callsigns(data), ElementsAre("N0BBB", "N0CCC"));
  EXPECT_THAT(lastHeard(data), UnorderedElementsAre(Key("N0AAA"), Key("N0BBB"), Key("N0CCC")));
  refresh(kNow + 89'100);
  EXPECT_THAT(lastHeard(data), IsEmpty());
}

TEST_F(Refresh, LogGrownPastItsOldEndAfterATruncationIsReadAgain) {
  writeLog(heard("N0AAA") + heard("N0BBB"));
  refresh();
  writeLog(heard("N0CCC") + heard("N0DDD") + heard("N0EEE"));
  refresh();
  EXPECT_THAT(callsigns(data), ElementsAre("N0CCC", "N0DDD", "N0EEE"));
}

TEST_F(Refresh, VanishedLogLeavesTheStoreAsItIs) {
  writeLog(heard("N0AAA"));
  refresh();
  const auto generation = data.generation;
  std::filesystem::rename(data.all_txt_path, dir.path("aside"));
  refresh();
  EXPECT_THAT(callsigns(data), ElementsAre("N0AAA"));
  EXPECT_EQ(data.generation, generation);
  // The same file back at its place goes on where it was left.
  std::filesystem::rename(dir.path("aside"), data.all_txt_path);
  appendLog(heard("N0BBB"));
  refresh();
  EXPECT_THAT(callsigns(data), ElementsAre("N0AAA", "N0BBB"));
  EXPECT_EQ(data.accepted_lines, 2u);
}

TEST_F(Refresh, WhateverElseLiesInTheLogsPlaceIsLeftAlone) {
  writeLog(heard("N0AAA"));
  refresh();
  const std::string& path = data.all_txt_path;
  const std::string aside = dir.path("aside");
  std::filesystem::rename(path, aside);
  const struct {
    const char* name;
    std::function<void()> place;
  } cases[] = {
      {"directory", [&] { std::filesystem::create_directory(path); }},
      {"FIFO", [&] { ASSERT_EQ(mkfifo(path.c_str(), 0600), 0); }},
      {"device", [&] { std::filesystem::create_symlink("/dev/zero", path); }},
      {"dangling link", [&] { std::filesystem::create_symlink(dir.path("none"), path); }},
      {"link to itself", [&] { std::filesystem::create_symlink(path, path); }},
  };
  for (const auto& c : cases) {
    c.place();
    refresh();
    EXPECT_THAT(callsigns(data), ElementsAre("N0AAA")) << c.name;
    std::filesystem::remove(path);
  }
  std::filesystem::rename(aside, path);
  appendLog(heard("N0BBB"));
  refresh();
  EXPECT_THAT(callsigns(data), ElementsAre("N0AAA", "N0BBB"));
}

TEST_F(Refresh, LogWithoutAPathIsNoLog) {
  data.all_txt_path = "";
  refresh();
  EXPECT_TRUE(data.spots.empty());
  EXPECT_EQ(data.last_refresh, kNow);
}

TEST_F(Refresh, LogThatOpensButCannotBeReadLeavesTheStoreAsItIs) {
  writeLog(heard("N0AAA"));
  refresh();
  // A regular file whose first page nobody can read; the store is to take it for the log it knows.
  data.all_txt_path = "/proc/self/mem";
  struct stat status {};
  ASSERT_EQ(stat(data.all_txt_path.c_str(), &status), 0);
  data.log.inode = status.st_ino;
  data.log.offset = 0;
  const auto generation = data.generation;
  refresh();
  EXPECT_THAT(callsigns(data), ElementsAre("N0AAA"));
  EXPECT_EQ(data.generation, generation);
}

TEST_F(Refresh, LinkToALogIsFollowed) {
  dir.write("real", heard("N0AAA"));
  std::filesystem::create_symlink(dir.path("real"), data.all_txt_path);
  refresh();
  EXPECT_THAT(callsigns(data), ElementsAre("N0AAA"));
}

TEST_F(Refresh, AnyScheduleOfGrowthAndReplacementEqualsAFreshStart) {
  std::mt19937 random(9);
  for (int round = 0; round < 500; ++round) {
    const auto script = randomScript(random, 1000);
    ASSERT_EQ(RefreshScript(script).run(), "") << "schedule " << round;
  }
}

}  // namespace
}  // namespace spotserver
