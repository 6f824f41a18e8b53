#include "server/pid_file.hpp"

#include <atomic>
#include <filesystem>
#include <thread>

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

const std::string kOwn = std::to_string(::getpid()) + "\n";

TEST(PidFile, HoldsTheProcessIdAndALineFeedPrivately) {
  const ScopedUmask umask(0);
  const TempDir dir;
  write_pid_file(dir.path("x.pid"));
  EXPECT_EQ(contentOf(dir.path("x.pid")), kOwn);
  EXPECT_EQ(modeOf(dir.path("x.pid")), 0600);
  EXPECT_EQ(namesIn(dir.path()), Names{"x.pid"});
}

TEST(PidFile, ReplacesAnOldOneAndALeftoverTemporary) {
  const TempDir dir;
  dir.write("x.pid", "123456789012345678901234567890\n");
  dir.write("x.pid.tmp", "a longer text than any process ID\n");
  write_pid_file(dir.path("x.pid"));
  EXPECT_EQ(contentOf(dir.path("x.pid")), kOwn);
  EXPECT_EQ(namesIn(dir.path()), Names{"x.pid"});
}

TEST(PidFile, NeverFollowsAPlantedLink) {
  const TempDir dir;
  dir.write("victim", "precious");
  fs::create_symlink(dir.path("victim"), dir.path("x.pid.tmp"));
  fs::create_symlink(dir.path("victim"), dir.path("x.pid"));
  write_pid_file(dir.path("x.pid"));
  EXPECT_EQ(contentOf(dir.path("victim")), "precious");
  EXPECT_FALSE(fs::is_symlink(dir.path("x.pid")));
  EXPECT_EQ(contentOf(dir.path("x.pid")), kOwn);
}

TEST(PidFile, FailuresNameThePathAndLeaveNoTemporary) {
  const TempDir dir;
  fs::create_directory(dir.path("directory"));
  fs::create_directories(dir.path("blocked.tmp/full"));
  ASSERT_EQ(::mkfifo(dir.path("fifo").c_str(), 0600), 0);
  const auto before = namesIn(dir.path());
  for (const char* name : {"missing/x.pid", "directory", "directory/", "blocked", "fifo"}) {
    const std::string path = dir.path(name);
    EXPECT_EQ(errorOf([&] { write_pid_file(path); }), "Cannot write PID file: " + path);
    EXPECT_EQ(namesIn(dir.path()), before) << name;
  }
}

TEST(PidFile, ADirectoryWithoutWritePermissionIsAFailure) {
  const AsOrdinaryUser user;
  const TempDir dir;
  const std::string path = dir.path("x.pid");
  ::chmod(dir.path().c_str(), 0500);
  EXPECT_EQ(errorOf([&] { write_pid_file(path); }), "Cannot write PID file: " + path);
  ::chmod(dir.path().c_str(), 0700);
  EXPECT_EQ(namesIn(dir.path()), Names{});
}

TEST(PidFile, AFullDiskLeavesTheOldFileAndNoTemporary) {
  const TempDir dir;
  const std::string path = dir.write("x.pid", "1\n");
  const std::string error = [&] {
    const FileSizeLimit limit(1);
    return errorOf([&] { write_pid_file(path); });
  }();
  EXPECT_EQ(error, "Cannot write PID file: " + path);
  EXPECT_EQ(contentOf(path), "1\n");
  EXPECT_EQ(namesIn(dir.path()), Names{"x.pid"});
}

TEST(PidFile, IsNeverSeenHalfWritten) {
  const TempDir dir;
  const std::string path = dir.path("x.pid");
  std::atomic<bool> done{false};
  std::thread writer([&] {
    while (!done) {
      write_pid_file(path);
      remove_pid_file(path);
    }
  });
  for (int sightings = 0; sightings < 100;) {
    std::ifstream in(path);
    if (!in) continue;
    const std::string seen{std::istreambuf_iterator<char>(in), {}};
    EXPECT_EQ(seen, kOwn);
    ++sightings;
  }
  done = true;
  writer.join();
}

TEST(RemovePidFile, RemovesOnlyAFileWithOurNumber) {
  const TempDir dir;
  const std::string other = std::to_string(::getpid() + 1) + "\n";
  const struct {
    std::string text;
    bool removed;
  } cases[] = {{kOwn, true},        {other, false},      {"", false},
               {kOwn + "x", false}, {"0" + kOwn, false}, {kOwn + std::string(100, ' '), false}};
  for (const auto& c : cases) {
    const std::string path = dir.write("x.pid", c.text);
    remove_pid_file(path);
    EXPECT_EQ(!fs::exists(path), c.removed) << c.text;
  }
}

TEST(RemovePidFile, IsSilentAboutWhatIsNoPidFile) {
  const TempDir dir;
  fs::create_directory(dir.path("directory"));
  ASSERT_EQ(::mkfifo(dir.path("fifo").c_str(), 0600), 0);
  for (const char* name : {"missing", "directory", "fifo"}) remove_pid_file(dir.path(name));
  EXPECT_EQ(namesIn(dir.path()), (Names{"directory", "fifo"}));
}

}  // namespace
}  // namespace spotserver
