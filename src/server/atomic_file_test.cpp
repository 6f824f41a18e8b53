#include "server/atomic_file.hpp"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <functional>
#include <utility>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include "file_facts.hpp"
#include "scoped_limits.hpp"
#include "temp_dir.hpp"

namespace {

// What the system calls below answer instead of working; 0: they work. Reset by each test.
struct Faults {
  int link = 0;
  int fsync = 0;
  int close = 0;
  int write_once = 0;          // the next write only
  std::size_t write_most = 0;  // bytes taken by one write; 0: all
};
Faults g_faults;

long answer(int error, long result) {
  if (error == 0) return result;
  errno = error;
  return -1;
}

}  // namespace

// These stand in for the C library's own, for this program.
extern "C" int link(const char* from, const char* to) noexcept {
  if (g_faults.link != 0) return static_cast<int>(answer(g_faults.link, 0));
  return static_cast<int>(::syscall(SYS_linkat, AT_FDCWD, from, AT_FDCWD, to, 0));
}

extern "C" int fsync(int fd) {
  const long result = ::syscall(SYS_fsync, fd);
  return static_cast<int>(answer(g_faults.fsync, result));
}

extern "C" int close(int fd) {
  const long result = ::syscall(SYS_close, fd);
  return static_cast<int>(answer(g_faults.close, result));
}

extern "C" ssize_t write(int fd, const void* data, std::size_t size) {
  if (const int error = std::exchange(g_faults.write_once, 0); error != 0) return answer(error, 0);
  if (g_faults.write_most != 0) size = std::min(size, g_faults.write_most);
  return ::syscall(SYS_write, fd, data, size);
}

namespace spotserver {
namespace {

namespace fs = std::filesystem;
using Names = std::vector<std::string>;
using Step = WriteFailure::Step;

struct Outcome {
  bool done = false;
  Step step{};
  int error = 0;
};

Outcome outcomeOf(const std::optional<WriteFailure>& failure) {
  return failure ? Outcome{false, failure->step, failure->error} : Outcome{true, {}, 0};
}

// Writes under `faults`, which end with the call.
Outcome writeUnder(const Faults& faults, const std::string& path, const AtomicWrite& how = {}) {
  g_faults = faults;
  const auto failure = write_atomically(path, "new text", how);
  g_faults = {};
  return outcomeOf(failure);
}

TEST(WriteAtomically, MakesAFileOfTheGivenMode) {
  const ScopedUmask umask(0);
  const TempDir dir;
  for (const mode_t mode : {0600u, 0666u, 0400u}) {
    const std::string path = dir.path(std::to_string(mode));
    EXPECT_FALSE(write_atomically(path, "text", {.mode = mode}));
    EXPECT_EQ(contentOf(path), "text");
    EXPECT_EQ(modeOf(path), static_cast<int>(mode));
  }
  EXPECT_EQ(namesIn(dir.path()).size(), 3u);
}

TEST(WriteAtomically, TheUmaskTakesItsBits) {
  const TempDir dir;
  const struct {
    mode_t umask;
    int mode;
  } cases[] = {{0, 0666}, {0022, 0644}, {0077, 0600}, {0777, 0}};
  for (const auto& c : cases) {
    const ScopedUmask umask(c.umask);
    EXPECT_FALSE(write_atomically(dir.path("x"), "text", {.mode = 0666}));
    EXPECT_EQ(modeOf(dir.path("x")), c.mode);
  }
}

TEST(WriteAtomically, WritesAnyBytesAndNone) {
  const TempDir dir;
  const std::string bytes("a\0\n\xff", 4);
  EXPECT_FALSE(write_atomically(dir.path("x"), bytes));
  EXPECT_EQ(contentOf(dir.path("x")), bytes);
  EXPECT_FALSE(write_atomically(dir.path("x"), ""));
  EXPECT_EQ(contentOf(dir.path("x")), "");
}

TEST(WriteAtomically, CopiesPermissionBitsWhateverTheUmask) {
  const ScopedUmask umask(0077);
  const TempDir dir;
  const std::string path = dir.write("x", "old");
  for (const mode_t mode : {0644u, 0400u, 04755u}) {
    ASSERT_EQ(::chmod(path.c_str(), mode), 0);
    struct stat status {};
    ASSERT_EQ(::stat(path.c_str(), &status), 0);
    EXPECT_FALSE(write_atomically(path, "new", {.like = &status}));
    EXPECT_EQ(modeOf(path), static_cast<int>(mode));
    EXPECT_EQ(contentOf(path), "new");
  }
}

TEST(WriteAtomically, RootLeavesTheFileToItsOwner) {
  const TempDir dir;
  const std::string path = dir.write("x", "old");
  struct stat status {};
  ASSERT_EQ(::stat(path.c_str(), &status), 0);
  const bool root = ::geteuid() == 0;
  status.st_uid = root ? 65534 : ::geteuid();
  EXPECT_FALSE(write_atomically(path, "new", {.like = &status}));
  struct stat after {};
  ASSERT_EQ(::stat(path.c_str(), &after), 0);
  EXPECT_EQ(after.st_uid, status.st_uid);
}

TEST(WriteAtomically, AnotherOwnerIsNoObstacleForAnOrdinaryUser) {
  const AsOrdinaryUser user;
  const TempDir dir;
  struct stat status {};
  ASSERT_EQ(::stat("/", &status), 0);  // root's
  status.st_mode = 0640;
  EXPECT_FALSE(write_atomically(dir.path("x"), "new", {.like = &status}));
  EXPECT_EQ(modeOf(dir.path("x")), 0640);
}

TEST(WriteAtomically, UnlinksWhatLiesAtTheTemporaryName) {
  const TempDir dir;
  dir.write("victim", "precious");
  const std::function<void(const std::string&)> obstacles[] = {
      [](const std::string& name) { std::ofstream(name) << "a longer leftover text"; },
      [&](const std::string& name) { fs::create_symlink(dir.path("victim"), name); },
      [&](const std::string& name) { fs::create_symlink(dir.path("nowhere"), name); },
      [&](const std::string& name) { fs::create_hard_link(dir.path("victim"), name); },
      [](const std::string& name) { ASSERT_EQ(::mkfifo(name.c_str(), 0600), 0); },
  };
  for (const auto& put : obstacles) {
    put(dir.path("x.rename"));
    EXPECT_FALSE(write_atomically(dir.path("x"), "text", {.suffix = ".rename"}));
    EXPECT_EQ(contentOf(dir.path("x")), "text");
    EXPECT_EQ(contentOf(dir.path("victim")), "precious");
    EXPECT_EQ(namesIn(dir.path()), (Names{"victim", "x"}));
  }
}

TEST(WriteAtomically, ADirectoryAtTheTemporaryNameIsAFailure) {
  const TempDir dir;
  fs::create_directory(dir.path("x.tmp"));
  const Outcome outcome = writeUnder({}, dir.path("x"));
  EXPECT_FALSE(outcome.done);
  EXPECT_EQ(outcome.step, Step::kCreate);
  EXPECT_EQ(outcome.error, EEXIST);
  EXPECT_EQ(namesIn(dir.path()), Names{"x.tmp"});
}

TEST(WriteAtomically, ReplacesALinkAndNotItsTarget) {
  const TempDir dir;
  dir.write("target", "precious");
  fs::create_symlink("target", dir.path("x"));
  EXPECT_FALSE(write_atomically(dir.path("x"), "text"));
  EXPECT_FALSE(fs::is_symlink(dir.path("x")));
  EXPECT_EQ(contentOf(dir.path("target")), "precious");
}

TEST(WriteAtomically, NeverReplacesADeviceFifoSocketOrDirectory) {
  const TempDir dir;
  ASSERT_EQ(::mkfifo(dir.path("fifo").c_str(), 0600), 0);
  ASSERT_EQ(::mknod(dir.path("socket").c_str(), S_IFSOCK | 0600, 0), 0);
  fs::create_directory(dir.path("directory"));
  Names names = {"fifo", "socket", "directory"};
  // Only root can make devices.
  const bool device = ::mknod(dir.path("null").c_str(), S_IFCHR | 0600, makedev(1, 3)) == 0;
  if (device) names.emplace_back("null");
  const auto before = namesIn(dir.path());
  for (const std::string& name : names) {
    const Outcome outcome = writeUnder({}, dir.path(name));
    EXPECT_FALSE(outcome.done) << name;
    EXPECT_EQ(outcome.step, Step::kPlace) << name;
    EXPECT_EQ(namesIn(dir.path()), before) << name;
  }
}

TEST(WriteAtomically, WithoutReplaceTheFirstOneStays) {
  const TempDir dir;
  const AtomicWrite keep{.replace = false};
  EXPECT_TRUE(writeUnder({}, dir.path("x"), keep).done);
  EXPECT_EQ(namesIn(dir.path()), Names{"x"});
  dir.write("x", "first");
  fs::create_symlink("nowhere", dir.path("dangling"));
  fs::create_directory(dir.path("empty"));
  const auto before = namesIn(dir.path());
  for (const char* name : {"x", "dangling", "empty"}) {
    for (const int link_error : {0, EPERM}) {
      const Outcome outcome = writeUnder({.link = link_error}, dir.path(name), keep);
      EXPECT_FALSE(outcome.done) << name;
      EXPECT_EQ(outcome.step, Step::kPlace) << name;
      EXPECT_EQ(outcome.error, EEXIST) << name;
      EXPECT_EQ(namesIn(dir.path()), before) << name;
    }
  }
  EXPECT_EQ(contentOf(dir.path("x")), "first");
}

TEST(WriteAtomically, WithoutReplaceWorksWhereThereAreNoHardLinks) {
  const TempDir dir;
  EXPECT_TRUE(writeUnder({.link = EPERM}, dir.path("x"), {.replace = false}).done);
  EXPECT_EQ(contentOf(dir.path("x")), "new text");
  EXPECT_EQ(namesIn(dir.path()), Names{"x"});
}

TEST(WriteAtomically, AFailureAtAnyStepLeavesTheOldFileAlone) {
  const TempDir dir;
  const std::string path = dir.write("x", "old");
  const struct {
    Faults faults;
    int error;
  } cases[] = {{{.write_once = ENOSPC}, ENOSPC},
               {{.fsync = EIO}, EIO},
               {{.close = ENOSPC}, ENOSPC},
               {{.close = EIO}, EIO}};
  for (const auto& c : cases) {
    const Outcome outcome = writeUnder(c.faults, path);
    EXPECT_FALSE(outcome.done);
    EXPECT_EQ(outcome.step, Step::kWrite);
    EXPECT_EQ(outcome.error, c.error);
    EXPECT_EQ(contentOf(path), "old");
    EXPECT_EQ(namesIn(dir.path()), Names{"x"});
  }
}

TEST(WriteAtomically, InterruptionsAndShortWritesAreNoFailure) {
  const TempDir dir;
  const Faults cases[] = {
      {.fsync = EINVAL}, {.close = EINTR}, {.write_once = EINTR}, {.write_most = 3}};
  for (const Faults& faults : cases) {
    const std::string path = dir.write("x", "old");
    EXPECT_TRUE(writeUnder(faults, path).done);
    EXPECT_EQ(contentOf(path), "new text");
  }
}

TEST(WriteAtomically, AFileThatCannotGrowIsNotWritten) {
  const TempDir dir;
  const std::string path = dir.write("x", "old");
  const Outcome outcome = [&] {
    const FileSizeLimit limit(4);
    return writeUnder({}, path);
  }();
  EXPECT_EQ(outcome.step, Step::kWrite);
  EXPECT_EQ(outcome.error, EFBIG);
  EXPECT_EQ(contentOf(path), "old");
  EXPECT_EQ(namesIn(dir.path()), Names{"x"});
}

TEST(WriteAtomically, AMissingOrForbiddenDirectoryIsAFailureToCreate) {
  const AsOrdinaryUser user;
  const TempDir dir;
  const std::string path = dir.write("x", "old");
  ::chmod(dir.path().c_str(), 0500);
  const Outcome forbidden = writeUnder({}, path);
  ::chmod(dir.path().c_str(), 0700);
  EXPECT_EQ(forbidden.step, Step::kCreate);
  EXPECT_EQ(forbidden.error, EACCES);
  EXPECT_EQ(contentOf(path), "old");
  const Outcome missing = writeUnder({}, dir.path("none/x"));
  EXPECT_EQ(missing.step, Step::kCreate);
  EXPECT_EQ(missing.error, ENOENT);
}

}  // namespace
}  // namespace spotserver
