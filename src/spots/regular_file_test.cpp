#include "spots/regular_file.hpp"

#include <algorithm>
#include <functional>
#include <stdexcept>
#include <string>

#include <errno.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include "other_process.hpp"
#include "temp_dir.hpp"

namespace {

// What the system makes of the next reads: first so many interruptions, then so much at most.
int interruptions = 0;
std::size_t most_at_once = ~std::size_t{0};

}  // namespace

// Stands in for the C library's, which on a disk neither stops early nor is interrupted.
extern "C" ssize_t pread(int fd, void* buffer, size_t size, off_t offset) {
  if (interruptions > 0) {
    --interruptions;
    errno = EINTR;
    return -1;
  }
  return ::syscall(SYS_pread64, fd, buffer, std::min(size, most_at_once), offset);
}

namespace spotserver {
namespace {

using ::testing::Optional;

void check(int result, const std::string& what) {
  if (result != 0) throw std::runtime_error(what + " failed");
}

// Leaves a socket file behind, as a server that was killed does.
void makeSocket(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  const Fd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  check(::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), "bind");
}

// Runs `work` as a user without privileges: root may read what no permission bit allows.
void asOrdinaryUser(const std::function<void()>& work) {
  constexpr uid_t kNobody = 65534;
  OtherProcess process([&](const Peer&) {
    if (::geteuid() == 0) {
      check(::setgroups(0, nullptr), "setgroups");
      check(::setgid(kNobody), "setgid");
      check(::setuid(kNobody), "setuid");
    }
    work();
  });
  EXPECT_EQ(process.join(), 0);
}

void expect(bool condition, const std::string& what) {
  if (!condition) throw std::runtime_error("not so: " + what);
}

TEST(OpenRegularFile, TellsInodeSizeAndWriteTimeOfTheOpenedFile) {
  const TempDir dir;
  const std::string path = dir.write("log", "twelve bytes");
  const timespec times[] = {{1, 2}, {1'741'947'330, 123'456'789}};
  ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
  struct stat status {};
  ASSERT_EQ(::stat(path.c_str(), &status), 0);

  const auto file = openRegularFile(path);
  ASSERT_TRUE(file);
  EXPECT_TRUE(file->fd);
  EXPECT_EQ(file->inode, status.st_ino);
  EXPECT_EQ(file->size, 12U);
  EXPECT_EQ(file->modified.tv_sec, 1'741'947'330);
  EXPECT_EQ(file->modified.tv_nsec, 123'456'789);
  EXPECT_TRUE(isRegularFile(path));
}

TEST(OpenRegularFile, AcceptsAnEmptyFile) {
  const TempDir dir;
  const auto file = openRegularFile(dir.write("empty", ""));
  ASSERT_TRUE(file);
  EXPECT_EQ(file->size, 0U);
}

TEST(OpenRegularFile, IsReadOnlyAndClosedOnExec) {
  const TempDir dir;
  const auto file = openRegularFile(dir.write("log", "x"));
  ASSERT_TRUE(file);
  EXPECT_EQ(::fcntl(file->fd.get(), F_GETFL) & O_ACCMODE, O_RDONLY);
  EXPECT_EQ(::fcntl(file->fd.get(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
}

TEST(OpenRegularFile, FollowsLinks) {
  const TempDir dir;
  const std::string target = dir.write("log", "linked");
  ASSERT_EQ(::symlink(target.c_str(), dir.path("one").c_str()), 0);
  ASSERT_EQ(::symlink("one", dir.path("two").c_str()), 0);
  ASSERT_TRUE(isRegularFile(dir.path("two")));
  const auto file = openRegularFile(dir.path("two"));
  ASSERT_TRUE(file);
  EXPECT_THAT(readWhole(*file, 100), Optional(std::string("linked")));
}

TEST(OpenRegularFile, RefusesWhateverIsNoRegularFileWithoutBlocking) {
  const TempDir dir;
  ASSERT_EQ(::mkdir(dir.path("directory").c_str(), 0700), 0);
  ASSERT_EQ(::mkfifo(dir.path("fifo").c_str(), 0600), 0);
  makeSocket(dir.path("socket"));
  ASSERT_EQ(::symlink("nowhere", dir.path("dangling").c_str()), 0);
  ASSERT_EQ(::symlink("loop", dir.path("loop").c_str()), 0);
  ASSERT_EQ(::symlink("fifo", dir.path("link-to-fifo").c_str()), 0);
  const std::string file = dir.write("file", "x");

  const std::string cases[] = {
      dir.path("missing"),
      dir.path("directory"),
      dir.path("fifo"),
      dir.path("socket"),
      dir.path("dangling"),
      dir.path("loop"),
      file + "/below",
      file + "/",
      dir.path("link-to-fifo"),
      "/dev/null",
      "",
      std::string(5000, 'x'),
  };
  for (const auto& path : cases) {
    EXPECT_FALSE(isRegularFile(path)) << path;
    EXPECT_FALSE(openRegularFile(path)) << path;
  }
}

TEST(OpenRegularFile, NeverOpensAFifo) {
  const TempDir dir;
  const std::string fifo = dir.path("fifo");
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  const Fd opens(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
  ASSERT_GE(::inotify_add_watch(opens.get(), fifo.c_str(), IN_OPEN), 0);
  inotify_event event{};

  EXPECT_FALSE(openRegularFile(fifo));
  EXPECT_EQ(::read(opens.get(), &event, sizeof event), -1) << "a waiting writer would have woken";
  EXPECT_EQ(errno, EAGAIN);

  const Fd reader(::open(fifo.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  EXPECT_EQ(::read(opens.get(), &event, sizeof event), static_cast<ssize_t>(sizeof event))
      << "the watch does not work";
}

TEST(OpenRegularFile, RefusesAnUnreadableFile) {
  const TempDir dir;
  ASSERT_EQ(::chmod(dir.path().c_str(), 0755), 0);
  const std::string open = dir.write("open", "x");
  const std::string shut = dir.write("shut", "x");
  ASSERT_EQ(::chmod(open.c_str(), 0644), 0);
  ASSERT_EQ(::chmod(shut.c_str(), 0000), 0);
  asOrdinaryUser([&] {
    expect(openRegularFile(open).has_value(), "the open file opens");
    expect(!openRegularFile(shut), "the shut file does not open");
    expect(isRegularFile(shut), "the shut file is still a regular file");
  });
}

TEST(OpenRegularFile, KeepsReadingTheFileThatWasOpenedWhenTheNameMovesOn) {
  const TempDir dir;
  const std::string path = dir.write("log", "old");
  const auto file = openRegularFile(path);
  ASSERT_TRUE(file);
  ASSERT_EQ(::rename(dir.write("next", "brand new").c_str(), path.c_str()), 0);
  EXPECT_THAT(readWhole(*file, 100), Optional(std::string("old")));
}

TEST(ReadAt, ReadsFromAnyOffset) {
  const TempDir dir;
  const auto file = openRegularFile(dir.write("log", "0123456789"));
  ASSERT_TRUE(file);
  const struct {
    std::uint64_t offset;
    std::size_t size;
    const char* text;
  } cases[] = {
      {0, 10, "0123456789"}, {0, 4, "0123"}, {6, 4, "6789"}, {6, 5, "6789"},
      {9, 1, "9"},           {10, 1, ""},    {99, 7, ""},    {3, 0, ""},
  };
  for (const auto& c : cases) {
    char buffer[16] = {};
    const auto got = readAt(file->fd.get(), c.offset, buffer, c.size);
    ASSERT_TRUE(got) << c.offset << " " << c.size;
    EXPECT_EQ(std::string(buffer, *got), c.text) << c.offset << " " << c.size;
  }
}

TEST(ReadAt, GoesOnAfterShortReadsAndInterruptions) {
  const TempDir dir;
  const auto file = openRegularFile(dir.write("log", "0123456789"));
  ASSERT_TRUE(file);
  char buffer[16] = {};
  interruptions = 2;
  most_at_once = 3;
  const auto got = readAt(file->fd.get(), 1, buffer, 8);
  const auto rest = readAt(file->fd.get(), 5, buffer + 8, 8);
  most_at_once = ~std::size_t{0};
  EXPECT_EQ(interruptions, 0);
  EXPECT_THAT(got, Optional(8U));
  EXPECT_THAT(rest, Optional(5U));
  EXPECT_STREQ(buffer, "1234567856789");
}

TEST(ReadAt, LeavesTheDescriptorsPositionAlone) {
  const TempDir dir;
  const auto file = openRegularFile(dir.write("log", "0123456789"));
  ASSERT_TRUE(file);
  ASSERT_EQ(::lseek(file->fd.get(), 7, SEEK_SET), 7);
  char buffer[4];
  EXPECT_THAT(readAt(file->fd.get(), 0, buffer, 4), Optional(4U));
  EXPECT_EQ(::lseek(file->fd.get(), 0, SEEK_CUR), 7);
}

TEST(ReadAt, IsEmptyOnAReadError) {
  const TempDir dir;
  char buffer[4];
  EXPECT_FALSE(readAt(-1, 0, buffer, 4));
  const Fd directory(::open(dir.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  ASSERT_TRUE(directory);
  EXPECT_FALSE(readAt(directory.get(), 0, buffer, 4));
  // No file is as long as that: the offset does not fit the system's type.
  const auto file = openRegularFile(dir.write("log", "x"));
  ASSERT_TRUE(file);
  EXPECT_FALSE(readAt(file->fd.get(), ~std::uint64_t{0}, buffer, 4));
}

TEST(ReadWhole, HoldsExactlyTheFile) {
  const TempDir dir;
  // The sizes around the 64 KiB that are read at once.
  for (const std::size_t size : {0U, 1U, 65'534U, 65'535U, 65'536U, 65'537U, 200'000U}) {
    std::string text(size, '.');
    for (std::size_t i = 0; i < size; ++i) text[i] = static_cast<char>(i * 31 % 251);
    const auto file = openRegularFile(dir.write("file", text));
    ASSERT_TRUE(file) << size;
    EXPECT_TRUE(readWhole(*file, 200'000) == text) << size;
  }
}

TEST(ReadWhole, TheLimitItselfIsAllowed) {
  const TempDir dir;
  const auto file = openRegularFile(dir.write("file", "12345"));
  ASSERT_TRUE(file);
  EXPECT_FALSE(readWhole(*file, 4));
  EXPECT_THAT(readWhole(*file, 5), Optional(std::string("12345")));
  EXPECT_THAT(readWhole(*file, 6), Optional(std::string("12345")));
}

TEST(ReadWhole, SeesWhatWasAppendedSinceOpening) {
  const TempDir dir;
  const std::string path = dir.write("file", "12");
  const auto file = openRegularFile(path);
  ASSERT_TRUE(file);
  dir.append("file", "345");
  EXPECT_THAT(readWhole(*file, 5), Optional(std::string("12345")));
  EXPECT_FALSE(readWhole(*file, 4)) << "the limit holds for the file as read";

  const std::string much(200'000, '6');  // more than one step of reading
  dir.append("file", much);
  EXPECT_TRUE(readWhole(*file, 300'000) == "12345" + much);
  EXPECT_FALSE(readWhole(*file, 200'004));
}

TEST(ReadWhole, SeesTheFileShrinkSinceOpening) {
  const TempDir dir;
  const std::string path = dir.write("file", "12345");
  const auto file = openRegularFile(path);
  ASSERT_TRUE(file);
  ASSERT_EQ(::truncate(path.c_str(), 2), 0);
  EXPECT_THAT(readWhole(*file, 5), Optional(std::string("12")));
}

TEST(ReadWhole, ReadsNothingOfASparseTebibyte) {
  const TempDir dir;
  const std::string path = dir.write("file", "");
  ASSERT_EQ(::truncate(path.c_str(), off_t{1} << 40), 0);
  const auto file = openRegularFile(path);
  ASSERT_TRUE(file);
  EXPECT_EQ(file->size, std::uint64_t{1} << 40);
  EXPECT_FALSE(readWhole(*file, 16 * 1024 * 1024));
}

TEST(ReadWhole, ReadsFilesThatTellNoSize) {
  const auto file = openRegularFile("/proc/self/status");
  ASSERT_TRUE(file);
  EXPECT_EQ(file->size, 0U);
  EXPECT_THAT(readWhole(*file, 100'000), Optional(::testing::HasSubstr("Pid:")));
}

TEST(ReadWhole, IsEmptyOnAReadError) {
  const TempDir dir;
  RegularFile directory;
  directory.fd = Fd(::open(dir.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  ASSERT_TRUE(directory.fd);
  EXPECT_FALSE(readWhole(directory, 100));
}

}  // namespace
}  // namespace spotserver
