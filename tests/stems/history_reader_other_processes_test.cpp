// Histories that another process locks, writes or owns while they are read.
#include <chrono>
#include <filesystem>
#include <stdexcept>
#include <stop_token>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "history_file.hpp"
#include "other_process.hpp"
#include "scoped_limits.hpp"
#include "server/owned.hpp"
#include "stems/history_reading.hpp"

namespace spotserver {
namespace {

using testing::ElementsAre;

// Makes a history with one row and keeps it locked against readers until the test hangs up.
void lockExclusively(const std::string& path, const Peer& test) {
  HistoryFile file(path);
  file.add({.minute = kMinute, .mask = 1});
  file.exec("BEGIN EXCLUSIVE");
  test.signal();
  test.wait();
  file.exec("COMMIT");
}

// That the read fails while the lock is held, and not only once it is gone, is what each of these
// tests shows: the lock goes after the read has returned.
TEST_F(HistoryReading, LockedHistoryFailsAfterTheTime) {
  OtherProcess writer([&](const Peer& test) { lockExclusively(path_, test); });
  writer.peer().wait();
  const HistoryLimits limits{.time = std::chrono::milliseconds(100)};
  const auto begun = std::chrono::steady_clock::now();
  EXPECT_EQ(failureOf(path_, kBase, kBase + 60, {}, limits), "database is locked");
  EXPECT_GE(std::chrono::steady_clock::now() - begun, limits.time);
  writer.peer().signal();
  EXPECT_EQ(writer.join(), 0);
  EXPECT_EQ(failureOf(path_, kBase, kBase + 60), "read");
}

TEST_F(HistoryReading, StopEndsTheWaitForALock) {
  OtherProcess writer([&](const Peer& test) { lockExclusively(path_, test); });
  writer.peer().wait();
  RunningRead read(path_, {.time = std::chrono::hours(1)});
  read.waitUntilItWaits();
  const auto stopped = std::chrono::steady_clock::now();
  read.stop();
  EXPECT_EQ(read.outcome(), "database is locked");
  EXPECT_LT(std::chrono::steady_clock::now() - stopped, std::chrono::seconds(10));
  writer.peer().signal();
  EXPECT_EQ(writer.join(), 0);
}

TEST_F(HistoryReading, LockThatGoesInTimeIsWaitedFor) {
  OtherProcess writer([&](const Peer& test) { lockExclusively(path_, test); });
  writer.peer().wait();
  RunningRead read(path_, {.time = std::chrono::hours(1)});
  read.waitUntilItWaits();
  writer.peer().signal();
  EXPECT_EQ(read.outcome(), "read");
  EXPECT_EQ(writer.join(), 0);
}

TEST_F(HistoryReading, StopBeforeTheReadEndsIt) {
  HistoryFile(path_).add({.minute = kMinute});
  std::stop_source stop;
  stop.request_stop();
  EXPECT_EQ(failureOf(path_, kBase, kBase + 60, stop.get_token()), "interrupted");
}

// Every read sees the rows of a moment, and later reads never fewer.
void readWhileWritten(const std::string& path, const std::string& journal_mode) {
  constexpr int kRows = 300;
  OtherProcess writer([&](const Peer& test) {
    HistoryFile file(path, 2, journal_mode);
    file.exec("PRAGMA wal_autocheckpoint=5");
    test.signal();
    test.wait();
    for (int i = 0; i < kRows; ++i) file.add({.minute = kMinute + i, .mask = 1});
    test.wait();
  });
  writer.peer().wait();
  writer.peer().signal();
  std::size_t seen = 0;
  while (seen < kRows) {
    const auto found =
        readHistory(path, kBase, kBase + 60 * kRows, {}, {.time = std::chrono::minutes(1)});
    ASSERT_GE(found.size(), seen);
    seen = found.size();
    for (std::size_t i = 0; i < seen; ++i) {
      ASSERT_EQ(found[i].start, kBase + 60 * static_cast<double>(i)) << "of " << seen;
    }
  }
  writer.peer().signal();
  EXPECT_EQ(writer.join(), 0);
}

TEST_F(HistoryReading, WriterWithWriteAheadLogIsReadWhileItAppends) {
  readWhileWritten(path_, "WAL");
}

TEST_F(HistoryReading, WriterWithRollbackJournalIsReadWhileItAppends) {
  readWhileWritten(path_, "DELETE");
}

// A history in a folder that its reader may not write: the receivers run as another user.
class ForeignHistory : public HistoryReading {
 protected:
  ForeignHistory() { std::filesystem::permissions(dir_.path(), std::filesystem::perms(0755)); }
  ~ForeignHistory() override { closeFolder(std::filesystem::perms(0755)); }

  void closeFolder(std::filesystem::perms mode = std::filesystem::perms(0555)) const {
    std::filesystem::permissions(dir_.path(), mode);
  }

  // Reads as an ordinary user; root would not notice the modes.
  void expectOutcome(const std::string& expected) const {
    OtherProcess reader([&](const Peer&) {
      if (::geteuid() == 0 && (::setgid(65534) != 0 || ::setuid(65534) != 0)) {
        throw std::runtime_error("Cannot become an ordinary user");
      }
      std::string outcome = "read";
      try {
        readHistory(path_, kBase, kBase + 60);
      } catch (const OutOfDescriptors&) {
        outcome = "out of descriptors";
      } catch (const std::runtime_error& error) {
        outcome = error.what();
      }
      if (outcome != expected) throw std::runtime_error(outcome + ", not " + expected);
    });
    EXPECT_EQ(reader.join(), 0);
  }

 private:
  const ScopedUmask readable_for_all_{022};
};

TEST_F(ForeignHistory, WithRollbackJournalIsRead) {
  HistoryFile(path_).add({.minute = kMinute});
  closeFolder();
  expectOutcome("read");
}

TEST_F(ForeignHistory, WithWriteAheadLogIsReadWhileItsWriterHasItOpen) {
  OtherProcess writer([&](const Peer& test) {
    HistoryFile file(path_, 2, "WAL");
    file.add({.minute = kMinute});
    test.signal();
    test.wait();
  });
  writer.peer().wait();
  closeFolder();
  expectOutcome("read");
  writer.peer().signal();
  EXPECT_EQ(writer.join(), 0);
}

TEST_F(ForeignHistory, ThatMayNotBeReadIsNoLackOfDescriptors) {
  HistoryFile(path_).add({.minute = kMinute});
  std::filesystem::permissions(path_, std::filesystem::perms(0));
  expectOutcome("unable to open database file");
}

// SQLite needs the shared index file beside the log, which only the writer could make here.
TEST_F(ForeignHistory, WithWriteAheadLogFailsWhenNobodyHasItOpen) {
  HistoryFile(path_, 2, "WAL").add({.minute = kMinute});
  closeFolder();
  expectOutcome("attempt to write a readonly database");
}

// The undefined-behaviour sanitizer opens a pipe when it meets a type of object for the first time,
// and takes the object for broken when it cannot. So it meets this one beforehand.
void showSanitizerTheError() {
  try {
    throw OutOfDescriptors("");
  } catch (const OutOfDescriptors& error) {
    EXPECT_STREQ(error.what(), "");
  }
}

// A write-ahead log takes three descriptors: the file, the log and its index.
TEST_F(HistoryReading, LackOfDescriptorsIsToldFromABadHistory) {
  HistoryFile(path_, 2, "WAL").add({.minute = kMinute});
  showSanitizerTheError();
  std::vector<std::string> outcomes;
  {
    const DescriptorLimit limit(64);
    std::vector<Fd> taken;
    for (int fd = ::dup(0); fd >= 0; fd = ::dup(0)) taken.emplace_back(fd);
    for (int spare = 0; spare <= 3; ++spare, taken.pop_back()) {
      try {
        readHistory(path_, kBase, kBase + 60);
        outcomes.push_back("read");
      } catch (const OutOfDescriptors& error) {
        outcomes.push_back(error.what());
      }
    }
  }
  const std::string lack = "unable to open database file";
  EXPECT_THAT(outcomes, ElementsAre(lack, lack, lack, "read"));
}

}  // namespace
}  // namespace spotserver
