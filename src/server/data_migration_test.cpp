#include "server/data_migration.hpp"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <map>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "file_facts.hpp"
#include "scoped_limits.hpp"
#include "temp_dir.hpp"

namespace spotserver {
namespace {

namespace fs = std::filesystem;
using Names = std::vector<std::string>;
using Variables = std::map<std::string, std::string>;

void migrateWith(const Variables& variables) {
  migrateDataDirectories([&](const char* name) -> const char* {
    const auto found = variables.find(name);
    return found == variables.end() ? nullptr : found->second.c_str();
  });
}

// A home with the three bases where they are by default.
struct Home {
  TempDir dir;
  std::string config = dir.path(".config");
  std::string data = dir.path(".local/share");
  std::string state = dir.path(".local/state");

  Home() {
    for (const auto& base : {config, data, state}) fs::create_directories(base);
  }
  void migrate() const { migrateWith({{"HOME", dir.path()}}); }
  // Writes a file below the home and the directories it needs.
  void put(const std::string& name, std::string_view text) const {
    fs::create_directories(fs::path(dir.path(name)).parent_path());
    dir.write(name, text);
  }
  std::string read(const std::string& name) const { return contentOf(dir.path(name)); }
};

std::string linkAt(const std::string& path) {
  std::error_code none;
  return fs::read_symlink(path, none).string();
}

// Every name below `root` with its type, mode, size, write time and link target.
std::vector<std::string> inventory(const std::string& root) {
  std::vector<std::string> lines;
  for (const auto& entry : fs::recursive_directory_iterator(root)) {
    struct stat status {};
    EXPECT_EQ(::lstat(entry.path().c_str(), &status), 0);
    lines.push_back(entry.path().string() + " " + std::to_string(status.st_mode) + " " +
                    std::to_string(status.st_size) + " " + std::to_string(status.st_ino) + " " +
                    std::to_string(status.st_mtim.tv_sec) + "." +
                    std::to_string(status.st_mtim.tv_nsec) + " " + linkAt(entry.path().string()));
  }
  std::sort(lines.begin(), lines.end());
  return lines;
}

TEST(DataMigration, MovesEachDirectoryAndLeavesALink) {
  const Home home;
  home.put(".config/velkor-tuner/notes.txt", "config");
  home.put(".local/share/velkor-tuner/history.sqlite3", "data");
  home.put(".local/state/velkor-tuner/sub/ALL.TXT", "state");
  home.migrate();
  EXPECT_EQ(home.read(".config/corvane/notes.txt"), "config");
  EXPECT_EQ(home.read(".local/share/corvane/history.sqlite3"), "data");
  EXPECT_EQ(home.read(".local/state/corvane/sub/ALL.TXT"), "state");
  for (const auto& base : {home.config, home.data, home.state}) {
    EXPECT_EQ(linkAt(base + "/velkor-tuner"), "corvane") << base;
    EXPECT_FALSE(fs::is_symlink(base + "/corvane")) << base;
    EXPECT_EQ(namesIn(base), (Names{"corvane", "velkor-tuner"}));
  }
  EXPECT_EQ(home.read(".config/velkor-tuner/notes.txt"), "config");  // by the old path, too
}

TEST(DataMigration, RewritesPathsIntoTheOldDirectories) {
  const Home home;
  const std::string old_data = home.data + "/velkor-tuner/";
  home.put(".config/velkor-tuner/station.conf", "history-db=" + old_data + "h.sqlite3\n");
  home.put(".config/velkor-tuner/other.ini",
           "a=" + home.config + "/velkor-tuner/a\n" + "b=" + home.state + "/velkor-tuner/b\n");
  home.put(".local/share/velkor-tuner/h.sqlite3", "");
  home.migrate();
  EXPECT_EQ(home.read(".config/corvane/station.conf"),
            "history-db=" + home.data + "/corvane/h.sqlite3\n");
  EXPECT_EQ(home.read(".config/corvane/other.ini"),
            "a=" + home.config + "/corvane/a\nb=" + home.state + "/corvane/b\n");
  EXPECT_EQ(namesIn(home.config + "/corvane"), (Names{"other.ini", "station.conf"}));
}

TEST(DataMigration, RewritesOnlyPathsWithTheSlashBehindThem) {
  const Home home;
  const std::string old_path = home.data + "/velkor-tuner";
  const std::string new_path = home.data + "/corvane";
  const struct {
    std::string before;
    std::string after;
  } cases[] = {
      {old_path + "/", new_path + "/"},
      {old_path + "/a " + old_path + "/b", new_path + "/a " + new_path + "/b"},
      {old_path + "/" + old_path + "/", new_path + "/" + new_path + "/"},
      {old_path, old_path},
      {old_path + "\n", old_path + "\n"},
      {old_path + "2/", old_path + "2/"},
      {"velkor-tuner/ ~/.local/share/velkor-tuner/", "velkor-tuner/ ~/.local/share/velkor-tuner/"},
      {"", ""},
      {std::string("\0\xff\r\n", 4) + old_path + "/x",
       std::string("\0\xff\r\n", 4) + new_path + "/x"},
  };
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    home.put(".config/velkor-tuner/" + std::to_string(i) + ".conf", cases[i].before);
  }
  home.migrate();
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    EXPECT_EQ(home.read(".config/corvane/" + std::to_string(i) + ".conf"), cases[i].after) << i;
  }
}

TEST(DataMigration, WhatWasPutInIsNotReplacedAgain) {
  const TempDir dir;
  fs::create_directory(dir.path("velkor-tuner"));
  // Below the root directory the slash that one replacement ends with could begin the next.
  dir.write("velkor-tuner/x.conf", "a=/velkor-tuner/velkor-tuner/b");
  migrateWith({{"XDG_CONFIG_HOME", dir.path()}, {"XDG_DATA_HOME", "/"}});
  EXPECT_EQ(contentOf(dir.path("corvane/x.conf")), "a=/corvane/velkor-tuner/b");
}

TEST(DataMigration, PairsAreAppliedInBaseOrder) {
  const TempDir dir;
  const std::string config = dir.path("config");
  const std::string data = config + "/corvane/data";  // what the first pair makes, the second finds
  fs::create_directories(config + "/velkor-tuner");
  dir.write("config/velkor-tuner/x.conf", config + "/velkor-tuner/data/velkor-tuner/h");
  migrateWith({{"XDG_CONFIG_HOME", config}, {"XDG_DATA_HOME", data}});
  EXPECT_EQ(contentOf(config + "/corvane/x.conf"), data + "/corvane/h");
}

TEST(DataMigration, OnlyConfAndIniFilesOfTheDirectoryItselfAreRewritten) {
  const Home home;
  const std::string text = home.data + "/velkor-tuner/x";
  const char* untouched[] = {"x.CONF", "x.conf.bak", "x.txt", "conf", ".conf", "sub/x.conf"};
  for (const char* name : untouched) home.put(".config/velkor-tuner/" + std::string(name), text);
  home.put("outside.conf", text);
  fs::create_symlink(home.dir.path("outside.conf"), home.config + "/velkor-tuner/link.conf");
  fs::create_directory(home.config + "/velkor-tuner/directory.conf");
  ASSERT_EQ(::mkfifo((home.config + "/velkor-tuner/fifo.conf").c_str(), 0600), 0);
  home.put(".config/velkor-tuner/a.b.ini", text);
  home.migrate();
  for (const char* name : untouched) {
    EXPECT_EQ(home.read(".config/corvane/" + std::string(name)), text) << name;
  }
  EXPECT_EQ(home.read("outside.conf"), text);
  EXPECT_TRUE(fs::is_symlink(home.config + "/corvane/link.conf"));
  EXPECT_EQ(home.read(".config/corvane/a.b.ini"), home.data + "/corvane/x");
}

TEST(DataMigration, RewrittenFilesKeepTheirPermissionBits) {
  const Home home;
  const ScopedUmask umask(0077);
  const std::string text = home.data + "/velkor-tuner/x";
  for (const mode_t mode : {0644u, 0600u, 0440u, 0666u}) {
    const std::string name = ".config/velkor-tuner/" + std::to_string(mode) + ".conf";
    home.put(name, text);
    ASSERT_EQ(::chmod(home.dir.path(name).c_str(), mode), 0);
  }
  home.migrate();
  for (const mode_t mode : {0644u, 0600u, 0440u, 0666u}) {
    const std::string name = ".config/corvane/" + std::to_string(mode) + ".conf";
    EXPECT_EQ(modeOf(home.dir.path(name)), static_cast<int>(mode));
    EXPECT_EQ(home.read(name), home.data + "/corvane/x");
  }
}

TEST(DataMigration, AFileWithoutOldPathsKeepsItsWriteTime) {
  const Home home;
  home.put(".config/velkor-tuner/plain.ini", "port=80 # velkor-tuner\n");
  home.put(".config/velkor-tuner/velkor-tuner.conf", "port=80\n");
  const std::string moved = home.config + "/corvane/plain.ini";
  const auto long_ago = fs::file_time_type::clock::now() - std::chrono::hours(1000);
  fs::last_write_time(home.config + "/velkor-tuner/plain.ini", long_ago);
  struct stat before {};
  ASSERT_EQ(::stat((home.config + "/velkor-tuner/plain.ini").c_str(), &before), 0);
  home.migrate();
  struct stat after {};
  ASSERT_EQ(::stat(moved.c_str(), &after), 0);
  EXPECT_EQ(after.st_mtim.tv_sec, before.st_mtim.tv_sec);
  EXPECT_EQ(after.st_mtim.tv_nsec, before.st_mtim.tv_nsec);
  EXPECT_EQ(after.st_ino, before.st_ino);
}

TEST(DataMigration, TheMainConfigurationFileGetsTheNewName) {
  const Home home;
  home.put(".config/velkor-tuner/velkor-tuner.conf", "a=" + home.data + "/velkor-tuner/x");
  home.migrate();
  EXPECT_EQ(namesIn(home.config + "/corvane"), Names{"corvane.conf"});
  EXPECT_EQ(home.read(".config/corvane/corvane.conf"), "a=" + home.data + "/corvane/x");
}

TEST(DataMigration, BothMainConfigurationFilesStayAndAreRewritten) {
  const Home home;
  home.put(".config/velkor-tuner/velkor-tuner.conf", "old=" + home.data + "/velkor-tuner/x");
  home.put(".config/velkor-tuner/corvane.conf", "new=" + home.data + "/velkor-tuner/x");
  home.migrate();
  EXPECT_EQ(home.read(".config/corvane/velkor-tuner.conf"), "old=" + home.data + "/corvane/x");
  EXPECT_EQ(home.read(".config/corvane/corvane.conf"), "new=" + home.data + "/corvane/x");
}

TEST(DataMigration, ALinkInPlaceOfTheMainConfigurationFileStays) {
  const Home home;
  home.put(".config/velkor-tuner/velkor-tuner.conf", "x");
  fs::create_symlink("nowhere", home.config + "/velkor-tuner/corvane.conf");
  home.migrate();
  EXPECT_EQ(linkAt(home.config + "/corvane/corvane.conf"), "nowhere");
  EXPECT_EQ(home.read(".config/corvane/velkor-tuner.conf"), "x");
}

TEST(DataMigration, ANewDirectoryWithAnythingInItIsNeverTouched) {
  const Home home;
  const std::string text = home.config + "/velkor-tuner/x";
  home.put(".config/velkor-tuner/old.conf", text);
  home.put(".config/corvane/new.conf", text);
  const auto before = inventory(home.dir.path());
  home.migrate();
  EXPECT_EQ(inventory(home.dir.path()), before);
}

TEST(DataMigration, AnEmptyNewDirectoryGivesWay) {
  const Home home;
  home.put(".config/velkor-tuner/old.conf", "x");
  fs::create_directory(home.config + "/corvane");
  home.migrate();
  EXPECT_EQ(home.read(".config/corvane/old.conf"), "x");
  EXPECT_EQ(linkAt(home.config + "/velkor-tuner"), "corvane");
}

TEST(DataMigration, ANewNameTakenByAnythingElseBlocksTheMove) {
  for (const char* kind : {"file", "link to nowhere", "link to an empty directory"}) {
    const Home home;
    home.put(".config/velkor-tuner/old.conf", "x");
    fs::create_directory(home.dir.path("empty"));
    const std::string taken = home.config + "/corvane";
    if (kind == std::string("file")) home.put(".config/corvane", "y");
    if (kind == std::string("link to nowhere")) fs::create_symlink("nowhere", taken);
    if (kind == std::string("link to an empty directory")) {
      fs::create_symlink(home.dir.path("empty"), taken);
    }
    const auto before = inventory(home.dir.path());
    home.migrate();
    EXPECT_EQ(inventory(home.dir.path()), before) << kind;
  }
}

TEST(DataMigration, OnlyARealDirectoryIsMoved) {
  for (const char* kind : {"nothing", "file", "link to a directory"}) {
    const Home home;
    const std::string old_path = home.config + "/velkor-tuner";
    fs::create_directory(home.config + "/elsewhere");
    if (kind == std::string("file")) home.put(".config/velkor-tuner", "y");
    if (kind == std::string("link to a directory")) fs::create_symlink("elsewhere", old_path);
    fs::create_directory(home.config + "/corvane");
    const auto before = inventory(home.dir.path());
    home.migrate();
    EXPECT_EQ(inventory(home.dir.path()), before) << kind;
  }
}

TEST(DataMigration, AnAbsoluteVariableWinsOverTheHome) {
  const Home home;
  home.put("elsewhere/velkor-tuner/x.conf", home.dir.path("elsewhere/velkor-tuner/x"));
  home.put(".config/velkor-tuner/x.conf", "home");
  migrateWith({{"HOME", home.dir.path()}, {"XDG_CONFIG_HOME", home.dir.path("elsewhere")}});
  EXPECT_EQ(home.read("elsewhere/corvane/x.conf"), home.dir.path("elsewhere/corvane/x"));
  EXPECT_EQ(linkAt(home.dir.path("elsewhere/velkor-tuner")), "corvane");
  EXPECT_EQ(namesIn(home.config), Names{"velkor-tuner"});
}

TEST(DataMigration, ARelativeOrEmptyVariableIsIgnored) {
  for (const char* value : {"elsewhere", "./elsewhere", ""}) {
    const Home home;
    home.put("elsewhere/velkor-tuner/x", "");
    home.put(".config/velkor-tuner/x", "home");
    const auto before = fs::current_path();
    fs::current_path(home.dir.path());
    migrateWith({{"HOME", home.dir.path()}, {"XDG_CONFIG_HOME", value}});
    fs::current_path(before);
    EXPECT_EQ(home.read(".config/corvane/x"), "home") << value;
    EXPECT_EQ(namesIn(home.dir.path("elsewhere")), Names{"velkor-tuner"}) << value;
  }
}

TEST(DataMigration, WithoutHomeAndVariablesNothingHappens) {
  const Home home;
  home.put(".config/velkor-tuner/x.conf", home.config + "/velkor-tuner/x");
  const auto before = inventory(home.dir.path());
  const auto working_directory = fs::current_path();
  fs::current_path(home.dir.path());
  for (const Variables& variables :
       {Variables{}, {{"HOME", ""}}, {{"HOME", "."}}, {{"XDG_CONFIG_HOME", ".config"}}}) {
    migrateWith(variables);
    EXPECT_EQ(inventory(home.dir.path()), before) << ::testing::PrintToString(variables);
  }
  fs::current_path(working_directory);
}

TEST(DataMigration, AVariableIsEnoughWithoutAHome) {
  const Home home;
  home.put(".local/state/velkor-tuner/ALL.TXT", "log");
  migrateWith({{"XDG_STATE_HOME", home.state}});
  EXPECT_EQ(home.read(".local/state/corvane/ALL.TXT"), "log");
}

TEST(DataMigration, WithoutAConfigurationBaseNoFileIsRewritten) {
  const Home home;
  const std::string text = home.data + "/velkor-tuner/x";
  home.put(".local/share/velkor-tuner/x.conf", text);
  migrateWith({{"XDG_DATA_HOME", home.data}});
  EXPECT_EQ(home.read(".local/share/corvane/x.conf"), text);
}

TEST(DataMigration, AMoveOfAnotherDirectoryRewritesTheNewConfigurationToo) {
  const Home home;
  home.put(".config/corvane/corvane.conf", home.data + "/velkor-tuner/x");
  home.put(".local/share/velkor-tuner/x", "");
  home.migrate();
  EXPECT_EQ(home.read(".config/corvane/corvane.conf"), home.data + "/corvane/x");
}

TEST(DataMigration, OneBaseForAllThreeIsMovedOnce) {
  const TempDir dir;
  fs::create_directory(dir.path("velkor-tuner"));
  dir.write("velkor-tuner/x.conf", dir.path("velkor-tuner/a"));
  migrateWith({{"XDG_CONFIG_HOME", dir.path()},
               {"XDG_DATA_HOME", dir.path()},
               {"XDG_STATE_HOME", dir.path()}});
  EXPECT_EQ(contentOf(dir.path("corvane/x.conf")), dir.path("corvane/a"));
  EXPECT_EQ(namesIn(dir.path()), (Names{"corvane", "velkor-tuner"}));
}

TEST(DataMigration, ASecondStartChangesNothing) {
  const Home home;
  home.put(".config/velkor-tuner/velkor-tuner.conf", home.data + "/velkor-tuner/x");
  home.put(".local/share/velkor-tuner/x", "");
  home.migrate();
  home.put(".config/corvane/late.conf", home.data + "/velkor-tuner/x");  // the user's business now
  home.put(".config/corvane/late.conf.rename", "the user's");
  const auto before = inventory(home.dir.path());
  home.migrate();
  EXPECT_EQ(inventory(home.dir.path()), before);
}

// ---- failures ----

TEST(DataMigration, ADirectoryThatCannotBeMovedIsSkippedAndTheOthersAreNot) {
  const AsOrdinaryUser user;
  const Home home;
  const std::string text = home.data + "/velkor-tuner/x " + home.config + "/velkor-tuner/y";
  home.put(".config/velkor-tuner/x.conf", text);
  home.put(".local/share/velkor-tuner/x", "");
  home.put(".local/state/velkor-tuner/x", "");
  ::chmod(home.data.c_str(), 0500);
  home.migrate();
  ::chmod(home.data.c_str(), 0700);
  EXPECT_EQ(namesIn(home.data), Names{"velkor-tuner"});
  EXPECT_EQ(linkAt(home.state + "/velkor-tuner"), "corvane");
  // The pair of a base that could be resolved counts whether or not its directory moved.
  EXPECT_EQ(home.read(".config/corvane/x.conf"),
            home.data + "/corvane/x " + home.config + "/corvane/y");
  home.migrate();  // the next start picks up what is left
  EXPECT_EQ(linkAt(home.data + "/velkor-tuner"), "corvane");
}

TEST(DataMigration, AMoveThatFailsRewritesNothing) {
  const AsOrdinaryUser user;
  const Home home;
  home.put(".config/corvane/x.conf", home.data + "/velkor-tuner/x");
  home.put(".local/share/velkor-tuner/x", "");
  ::chmod(home.data.c_str(), 0500);
  home.migrate();
  ::chmod(home.data.c_str(), 0700);
  EXPECT_EQ(home.read(".config/corvane/x.conf"), home.data + "/velkor-tuner/x");
}

TEST(DataMigration, AFileThatCannotBeReadIsSkipped) {
  const AsOrdinaryUser user;
  const Home home;
  const std::string text = home.data + "/velkor-tuner/x";
  home.put(".config/velkor-tuner/a.conf", text);
  home.put(".config/velkor-tuner/b.conf", text);
  ::chmod((home.config + "/velkor-tuner/a.conf").c_str(), 0);
  home.migrate();
  ::chmod((home.config + "/corvane/a.conf").c_str(), 0600);
  EXPECT_EQ(home.read(".config/corvane/a.conf"), text);
  EXPECT_EQ(home.read(".config/corvane/b.conf"), home.data + "/corvane/x");
}

TEST(DataMigration, ADirectoryThatCannotBeWrittenKeepsItsFiles) {
  const AsOrdinaryUser user;
  const Home home;
  const std::string text = home.data + "/velkor-tuner/x";
  home.put(".config/corvane/a.conf", text);
  home.put(".config/corvane/velkor-tuner.conf", text);
  home.put(".local/share/velkor-tuner/x", "");
  ::chmod((home.config + "/corvane").c_str(), 0500);
  home.migrate();
  ::chmod((home.config + "/corvane").c_str(), 0700);
  EXPECT_EQ(linkAt(home.data + "/velkor-tuner"), "corvane");
  EXPECT_EQ(home.read(".config/corvane/a.conf"), text);
  EXPECT_EQ(namesIn(home.config + "/corvane"), (Names{"a.conf", "velkor-tuner.conf"}));
}

TEST(DataMigration, ADirectoryThatCannotBeListedIsLeftAlone) {
  const AsOrdinaryUser user;
  const Home home;
  home.put(".config/corvane/a.conf", home.data + "/velkor-tuner/x");
  home.put(".local/share/velkor-tuner/x", "");
  ::chmod((home.config + "/corvane").c_str(), 0);
  home.migrate();
  ::chmod((home.config + "/corvane").c_str(), 0700);
  EXPECT_EQ(linkAt(home.data + "/velkor-tuner"), "corvane");
  EXPECT_EQ(home.read(".config/corvane/a.conf"), home.data + "/velkor-tuner/x");
}

TEST(DataMigration, OnAFullDiskAFileStaysAsItWas) {
  const Home home;
  const std::string text = home.data + "/velkor-tuner/x";
  home.put(".config/velkor-tuner/a.conf", text);
  {
    const FileSizeLimit limit(4);
    home.migrate();
  }
  EXPECT_EQ(linkAt(home.config + "/velkor-tuner"), "corvane");
  EXPECT_EQ(namesIn(home.config + "/corvane"), Names{"a.conf"});
  EXPECT_EQ(home.read(".config/corvane/a.conf"), text);
}

TEST(DataMigration, AFileOfMoreThan16MebibytesIsLeftAlone) {
  const Home home;
  const std::string text = home.data + "/velkor-tuner/x";
  constexpr std::uintmax_t kLimit = 16 << 20;
  home.put(".config/velkor-tuner/largest.conf", text);
  fs::resize_file(home.config + "/velkor-tuner/largest.conf", kLimit);
  home.put(".config/velkor-tuner/larger.conf", text);
  fs::resize_file(home.config + "/velkor-tuner/larger.conf", kLimit + 1);
  home.put(".config/velkor-tuner/sparse.conf", text);
  fs::resize_file(home.config + "/velkor-tuner/sparse.conf", std::uintmax_t{1} << 40);
  home.migrate();
  const std::size_t saved = std::string("velkor-tuner").size() - std::string("corvane").size();
  EXPECT_EQ(fs::file_size(home.config + "/corvane/largest.conf"), kLimit - saved);
  EXPECT_EQ(fs::file_size(home.config + "/corvane/larger.conf"), kLimit + 1);
  EXPECT_EQ(fs::file_size(home.config + "/corvane/sparse.conf"), std::uintmax_t{1} << 40);
}

// ---- a run that was killed, and the next start ----

TEST(DataMigration, KilledBetweenTwoDirectoriesTheNextStartMovesTheRest) {
  const Home home;
  home.put(".config/corvane/velkor-tuner.conf", "h=" + home.data + "/velkor-tuner/x");
  fs::create_directory_symlink("corvane", home.config + "/velkor-tuner");
  home.put(".local/share/velkor-tuner/x", "");
  home.migrate();
  EXPECT_EQ(linkAt(home.data + "/velkor-tuner"), "corvane");
  EXPECT_EQ(home.read(".config/corvane/corvane.conf"), "h=" + home.data + "/corvane/x");
}

TEST(DataMigration, KilledAfterTheEmptyDirectoryWentTheNextStartMoves) {
  const Home home;
  home.put(".config/velkor-tuner/x", "");
  home.migrate();
  EXPECT_EQ(namesIn(home.config), (Names{"corvane", "velkor-tuner"}));
}

TEST(DataMigration, KilledBeforeTheLinkTheNewDirectoryIsInUse) {
  const Home home;
  home.put(".config/corvane/corvane.conf", "x");
  const auto before = inventory(home.dir.path());
  home.migrate();
  EXPECT_EQ(inventory(home.dir.path()), before);
}

TEST(DataMigration, KilledWhileRewritingTheLeftoverGoesAndTheOldPathStillLeadsThere) {
  const Home home;
  const std::string text = home.data + "/velkor-tuner/x";
  home.put(".config/corvane/a.conf", text);
  home.put(".config/corvane/a.conf.rename", home.data + "/corv");
  home.put(".config/corvane/b.ini", text);
  home.put(".config/corvane/b.ini.rename", "");
  home.put(".config/corvane/c.txt.rename", "the user's");
  home.put(".config/corvane/e.conf", text);
  home.put(".config/corvane/e.conf.rename", "the user's");
  home.put(".config/corvane/f.conf.rename", "");  // beside nothing
  home.put(".config/corvane/g.conf", "nothing to rewrite");
  home.put(".config/corvane/g.conf.rename", "");
  fs::create_directory(home.config + "/corvane/d.conf.rename");
  home.put(".local/share/corvane/x", "history");
  fs::create_directory_symlink("corvane", home.config + "/velkor-tuner");
  fs::create_directory_symlink("corvane", home.data + "/velkor-tuner");
  home.migrate();
  EXPECT_EQ(namesIn(home.config + "/corvane"),
            (Names{"a.conf", "b.ini", "c.txt.rename", "d.conf.rename", "e.conf", "e.conf.rename",
                   "f.conf.rename", "g.conf", "g.conf.rename"}));
  EXPECT_EQ(home.read(".config/corvane/a.conf"), text);
  EXPECT_EQ(contentOf(text), "history");
}

TEST(DataMigration, WhereNothingWasEverMovedNoLeftoverIsLookedFor) {
  const Home home;
  home.put(".config/corvane/a.conf.rename", "the user's");
  home.migrate();
  EXPECT_EQ(home.read(".config/corvane/a.conf.rename"), "the user's");
}

TEST(DataMigration, ALeftoverOrPlantedLinkAtTheTemporaryNameIsNoObstacle) {
  const Home home;
  home.put("victim", "precious");
  home.put(".config/velkor-tuner/a.conf", home.data + "/velkor-tuner/x");
  home.put(".config/velkor-tuner/a.conf.rename", "a much longer leftover" + std::string(999, '.'));
  home.put(".config/velkor-tuner/b.conf", home.data + "/velkor-tuner/y");
  fs::create_symlink(home.dir.path("victim"), home.config + "/velkor-tuner/b.conf.rename");
  home.migrate();
  EXPECT_EQ(home.read("victim"), "precious");
  EXPECT_EQ(home.read(".config/corvane/a.conf"), home.data + "/corvane/x");
  EXPECT_EQ(home.read(".config/corvane/b.conf"), home.data + "/corvane/y");
  EXPECT_EQ(namesIn(home.config + "/corvane"), (Names{"a.conf", "b.conf"}));
}

TEST(DataMigration, TheFormWithoutArgumentsReadsTheProcessEnvironment) {
  const TempDir dir;
  fs::create_directories(dir.path("velkor-tuner/sub"));
  // The other two lead nowhere, so that the tester's own directories stay out of it.
  const ScopedVariable config("XDG_CONFIG_HOME", dir.path("nowhere"));
  const ScopedVariable data("XDG_DATA_HOME", dir.path("nowhere"));
  const ScopedVariable state("XDG_STATE_HOME", dir.path());
  migrateDataDirectories();
  EXPECT_EQ(linkAt(dir.path("velkor-tuner")), "corvane");
  EXPECT_TRUE(fs::is_directory(dir.path("corvane/sub")));
}

}  // namespace
}  // namespace spotserver
