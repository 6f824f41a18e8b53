#include "server/owned.hpp"

#include <memory>
#include <string>
#include <utility>

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

namespace spotserver {
namespace {

Fd openNull() { return Fd(::open("/dev/null", O_RDONLY | O_CLOEXEC)); }

bool isOpen(int fd) { return ::fcntl(fd, F_GETFD) != -1; }

TEST(Fd, EmptyHoldsMinusOneAndClosesNothing) {
  Fd fd;
  EXPECT_FALSE(fd);
  EXPECT_EQ(fd.get(), -1);
  EXPECT_EQ(fd.close(), 0);
  EXPECT_EQ(fd.release(), -1);
}

TEST(Fd, ZeroIsADescriptorLikeAnyOther) {
  Fd fd(0);
  EXPECT_TRUE(fd);
  EXPECT_EQ(fd.release(), 0);
}

TEST(Fd, ClosesAtTheEndOfItsScope) {
  int number = -1;
  {
    const Fd fd = openNull();
    ASSERT_TRUE(fd);
    number = fd.get();
    EXPECT_TRUE(isOpen(number));
  }
  EXPECT_FALSE(isOpen(number));
}

TEST(Fd, CloseEmptiesAndReportsWhatCloseSaid) {
  Fd good = openNull();
  ASSERT_TRUE(good);
  EXPECT_EQ(good.close(), 0);
  EXPECT_FALSE(good);

  Fd twin = openNull();
  ASSERT_TRUE(twin);
  ASSERT_EQ(::close(twin.get()), 0);
  errno = 0;
  EXPECT_EQ(twin.close(), -1);
  EXPECT_EQ(errno, EBADF);
  EXPECT_FALSE(twin);
}

TEST(Fd, ReleaseGivesUpWithoutClosing) {
  Fd fd = openNull();
  const int number = fd.release();
  EXPECT_FALSE(fd);
  EXPECT_TRUE(isOpen(number));
  ::close(number);
}

TEST(Fd, MovingLeavesTheSourceEmpty) {
  Fd first = openNull();
  const int number = first.get();
  Fd second(std::move(first));
  EXPECT_FALSE(first);  // NOLINT(bugprone-use-after-move): empty is promised
  EXPECT_EQ(second.get(), number);
  EXPECT_TRUE(isOpen(number));
}

TEST(Fd, AssigningClosesWhatWasHeld) {
  Fd held = openNull();
  const int old_number = held.get();
  Fd next = openNull();
  const int new_number = next.get();
  ASSERT_NE(old_number, new_number);
  held = Fd(next.release());
  EXPECT_EQ(held.get(), new_number);
  EXPECT_FALSE(isOpen(old_number));
  EXPECT_TRUE(isOpen(new_number));
}

TEST(Fd, AssigningToItselfKeepsTheDescriptor) {
  Fd fd = openNull();
  const int number = fd.get();
  Fd& same = fd;
  fd = std::move(same);
  EXPECT_EQ(fd.get(), number);
  EXPECT_TRUE(isOpen(number));
}

struct Handle {
  int* releases;
};
void releaseHandle(Handle* handle) { ++*handle->releases; }

TEST(With, CallsTheReleaseFunctionOnce) {
  int releases = 0;
  Handle handle{&releases};
  {
    const std::unique_ptr<Handle, With<releaseHandle>> owner(&handle);
    EXPECT_EQ(releases, 0);
  }
  EXPECT_EQ(releases, 1);
}

TEST(With, LeavesAnEmptyOwnerAlone) {
  // The release function would follow the null pointer.
  const std::unique_ptr<Handle, With<releaseHandle>> owner;
  EXPECT_EQ(owner.get(), nullptr);
}

TEST(With, CostsNoRoom) {
  EXPECT_EQ(sizeof(std::unique_ptr<Handle, With<releaseHandle>>), sizeof(void*));
}

}  // namespace
}  // namespace spotserver
