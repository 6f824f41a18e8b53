// A first start on a disk that is full or cannot be written: the reason is told, nothing half
// written stays, and the next start with room goes through.
#include <csignal>
#include <filesystem>
#include <optional>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include "e2e/station.hpp"
#include "file_facts.hpp"
#include "scoped_limits.hpp"

namespace spotserver::hostile {
namespace {

using e2e::exists;
using e2e::Outcome;
using e2e::ServerProcess;
using e2e::Station;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

// Puts this process and its children into namespaces of their own, in which an ordinary user may
// mount. They stay the same user there, and a program started there has no rights beyond his.
bool enterOwnNamespaces() {
  const std::string uid = std::to_string(::geteuid());
  const std::string gid = std::to_string(::getegid());
  if (::unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) return false;
  e2e::writeFile("/proc/self/setgroups", "deny");
  e2e::writeFile("/proc/self/uid_map", uid + " " + uid + " 1");
  e2e::writeFile("/proc/self/gid_map", gid + " " + gid + " 1");
  return true;
}

// A memory disk of a few pages over a directory.
class SmallDisk {
 public:
  SmallDisk(const std::string& directory, int pages) : directory_(directory) {
    const std::string options = "mode=0700,size=" + std::to_string(pages * ::getpagesize());
    const auto isMounted = [&] {
      return ::mount("none", directory.c_str(), "tmpfs", 0, options.c_str()) == 0;
    };
    mounted_ = isMounted() || (::geteuid() != 0 && enterOwnNamespaces() && isMounted());
  }
  ~SmallDisk() {
    if (mounted_) ::umount2(directory_.c_str(), MNT_DETACH);
  }
  SmallDisk(const SmallDisk&) = delete;
  SmallDisk& operator=(const SmallDisk&) = delete;

  explicit operator bool() const { return mounted_; }
  void makeReadOnly() const {
    if (::mount("none", directory_.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr) != 0) {
      throw std::runtime_error("Cannot remount " + directory_);
    }
  }

 private:
  std::string directory_;
  bool mounted_;
};

void expectGoodStart(const Station& station) {
  {
    ServerProcess server = station.serve({"--pid-file", "spot.pid"});
    EXPECT_EQ(station.get(e2e::kHealthPath).status, 200);
    server.signal(SIGTERM);
    EXPECT_EQ(server.waitForExit(e2e::kStopLimit), 0);
  }
  EXPECT_THAT(namesIn(station.configDir()), ElementsAre("spot-server.crt", "spot-server.key"));
  EXPECT_EQ(modeOf(station.key()), 0600);
}

TEST(FirstStart, KeyThatDoesNotFitOnTheDiskIsNotKept) {
  for (const rlim_t room : {0U, 1U, 1000U, 1500U}) {
    SCOPED_TRACE(room);
    const Station station;
    std::optional<FileSizeLimit> full(room);
    const Outcome outcome = runToEnd(station.usualLaunch());
    full.reset();
    EXPECT_EQ(outcome.status, 1);
    EXPECT_THAT(outcome.errors,
                StartsWith("TLS certificate error: PEM_write_PrivateKey failed: error:"));
    EXPECT_EQ(outcome.output, "");
    EXPECT_THAT(namesIn(station.configDir()), IsEmpty());
    expectGoodStart(station);
  }
}

TEST(FirstStart, FullDiskSaysSoAndKeepsNoEmptyFile) {
  const Station station;
  {
    const SmallDisk disk(station.home(), 1);
    if (!disk) GTEST_SKIP() << "this system lets this user mount nothing";
    e2e::writeFile(station.home() + "/filler", "x");  // takes the one page
    const Outcome outcome = runToEnd(station.usualLaunch());
    EXPECT_EQ(outcome.status, 1);
    EXPECT_THAT(outcome.errors,
                StartsWith("TLS certificate error: PEM_write_PrivateKey failed: error:"));
    EXPECT_THAT(namesIn(station.configDir()), IsEmpty());
    std::filesystem::remove(station.home() + "/filler");

    // Room for the key alone.
    const Outcome half = runToEnd(station.usualLaunch());
    EXPECT_EQ(half.status, 1);
    EXPECT_THAT(half.errors, StartsWith("TLS certificate error: PEM_write_X509 failed: error:"));
    EXPECT_THAT(namesIn(station.configDir()), ElementsAre("spot-server.key"));
    EXPECT_EQ(modeOf(station.key()), 0600);
  }
  expectGoodStart(station);
}

TEST(FirstStart, ReadOnlyHomeSaysSo) {
  const Station station;
  {
    const SmallDisk disk(station.home(), 8);
    if (disk) {
      disk.makeReadOnly();
    } else if (::geteuid() != 0) {
      std::filesystem::permissions(station.home(), std::filesystem::perms(0500));
    } else {
      GTEST_SKIP() << "root may write everywhere, and cannot mount here";
    }
    const Outcome outcome = runToEnd(station.usualLaunch());
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.errors, "TLS certificate error: Cannot create key (exists or unwritable): " +
                                  station.key() + "\n");
    EXPECT_THAT(namesIn(station.home()), IsEmpty());
    if (!disk) std::filesystem::permissions(station.home(), std::filesystem::perms(0700));
  }
  expectGoodStart(station);
}

TEST(FirstStart, ReadOnlyHomeWithAnIdentityElsewhereServes) {
  const Station station;
  {
    ServerProcess server = station.serve({"--cert", "crt", "--key", "key"});
    server.signal(SIGTERM);
    server.waitForExit(e2e::kStopLimit);
  }
  const SmallDisk disk(station.home(), 8);
  if (!disk) GTEST_SKIP() << "this system lets this user mount nothing";
  disk.makeReadOnly();
  ServerProcess server = station.serve({"--cert", "crt", "--key", "key"});
  EXPECT_EQ(station.activity().status, 200);
}

TEST(FirstStart, KeyIsPrivateWhateverTheUmask) {
  for (const mode_t mask : {0U, 077U, 0777U}) {
    SCOPED_TRACE(mask);
    const Station station;
    std::filesystem::create_directories(station.configDir());
    std::optional<ScopedUmask> scope(mask);
    const Outcome outcome = [&] {
      ServerProcess server(station.usualLaunch());
      server.awaitOutput(e2e::kReady);
      server.signal(SIGTERM);
      const int status = server.waitForExit(e2e::kStopLimit);
      return Outcome{status, server.output(), server.errors()};
    }();
    scope.reset();
    EXPECT_EQ(outcome.status, 0) << outcome.errors;
    EXPECT_EQ(modeOf(station.key()) & 077, 0);
  }
}

}  // namespace
}  // namespace spotserver::hostile
