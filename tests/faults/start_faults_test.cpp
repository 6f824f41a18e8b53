// A start during which calls fail: the server serves rightly, or says what is wrong and ends with
// the status for it. What it leaves is whole, and the next start goes its way.
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <utility>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include "e2e/activity_model.hpp"
#include "faults/fault_driver.hpp"
#include "faults/made_identity.hpp"
#include "file_facts.hpp"
#include "sanitizers.hpp"

namespace spotserver::faults {
namespace {

using e2e::exists;
using e2e::readFile;
using e2e::ServerProcess;
using e2e::Station;
using testing::ElementsAre;

namespace fs = std::filesystem;

// How many starts under each fault a plain test run makes.
constexpr long kFew = 4;

const std::vector<std::string> kArguments = {"--pid-file", "spot.pid", "--history-db", "off"};

const Fault kFileFaults[] = {
    {"open: input/output error", Call::kOpen, EIO},
    {"open: too many open files", Call::kOpen, EMFILE},
    {"open: too many open files", Call::kOpen, EMFILE, true},
    {"open: no space left", Call::kOpen, ENOSPC},
    {"open: interrupted", Call::kOpen, EINTR},
    {"read: input/output error", Call::kRead, EIO},
    {"read: input/output error", Call::kRead, EIO, true},
    {"read: interrupted", Call::kRead, EINTR},
    {"read: short", Call::kRead, kShort},
    {"read: short", Call::kRead, kShort, true},
    {"write: input/output error", Call::kWrite, EIO},
    {"write: no space left", Call::kWrite, ENOSPC},
    {"write: no space left", Call::kWrite, ENOSPC, true},
    {"write: interrupted", Call::kWrite, EINTR},
    {"write: short", Call::kWrite, kShort, true},
    {"close: input/output error", Call::kClose, EIO},
    {"close: no space left", Call::kClose, ENOSPC, true},
    {"close: interrupted", Call::kClose, EINTR, true},
    {"stat: input/output error", Call::kStat, EIO},
    {"stat: input/output error", Call::kStat, EIO, true},
    {"rename: input/output error", Call::kName, EIO},
    {"rename: no space left", Call::kName, ENOSPC, true},
};

const Fault kMemoryFaults[] = {
    {"allocation", Call::kAllocate, ENOMEM},
    {"allocation", Call::kAllocate, ENOMEM, true},
};

// Where a start takes place and what came of the one under the fault.
class FaultyStart {
 public:
  explicit FaultyStart(const MadeIdentity* identity, bool in_background = false)
      : identity_(identity), in_background_(in_background), faults_(station_.home() + "/faults") {
    heard_ = {{e2e::wallClock() / 60 * 60 - 600, "14.074", "FT8", "K1ABC"}};
    station_.writeLog(logText(heard_));
    if (identity_ != nullptr) identity_->giveTo(station_);
  }

  // Starts with the fault at `due`, then without it.
  Ending run(const Fault& fault, long due) {
    const Ending ending = in_background_ ? detachUnder(fault, due) : startUnder(fault, due);
    expectWholeIdentity();
    if (!isAsBefore()) expectGoodStart();
    return ending;
  }
  bool struck() const { return faults_.struck(); }
  long seen() const { return faults_.seen(); }

 private:
  Ending startUnder(const Fault& fault, long due) {
    faults_.arm(fault, due);
    ServerProcess server(faults_.under(station_.usualLaunch(kArguments)));
    const Ending ending = endingOf(server, fault);
    faults_.disarm();
    if (ending != Ending::kServing) return ending;
    const bool answered = fault.call != Call::kAllocate || answers();
    if (answered) expectRightAnswer();
    server.signal(SIGTERM);
    const int status = server.waitForExit();
    if (!answered && isSpecified(status, server.errors())) return Ending::kRefused;
    if (!answered && status == 128 + SIGABRT) return Ending::kAborted;
    EXPECT_TRUE(answered) << "it runs, but nobody can talk to it";
    EXPECT_EQ(status, 0) << server.errors();
    EXPECT_FALSE(exists(station_.workFile("spot.pid")));
    return Ending::kServing;
  }

  // Without memory for its threads it may have ended after all.
  bool answers() const {
    try {
      station_.get(e2e::kHealthPath);
      return true;
    } catch (const std::runtime_error&) {
      return false;
    }
  }

  // The start in the background confirms or fails, and tells the reason at the terminal or in the
  // log. It may have come to serve although the confirmation did not arrive.
  Ending detachUnder(const Fault& fault, long due) {
    const std::string log = station_.home() + "/daemon.log";
    e2e::writeFile(log, "");
    std::vector<std::string> arguments = kArguments;
    arguments.insert(arguments.end(), {"--daemon", "--log-file", log});
    faults_.arm(fault, due);
    const e2e::Outcome outcome = runToEnd(faults_.under(station_.usualLaunch(arguments)));
    faults_.disarm();
    if (outcome.status == 0) {
      e2e::Process server(static_cast<pid_t>(std::stol(readFile(station_.workFile("spot.pid")))));
      expectRightAnswer();
      server.signal(SIGTERM);
      EXPECT_EQ(server.waitForExit(), 0);
      return Ending::kServing;
    }
    endAdopted();
    const std::string told = outcome.errors + readFile(log);
    EXPECT_EQ(outcome.status, 1) << told;
    EXPECT_TRUE(told.empty() || told.ends_with(e2e::kReady) || isSpecified(1, told)) << told;
    return Ending::kRefused;
  }

  // Ends what was started and came to us when its parent ended.
  void endAdopted() const {
    for (pid_t ended = 0; ended >= 0; ended = ::waitpid(-1, nullptr, WNOHANG)) {
      if (ended > 0 || !exists(station_.workFile("spot.pid"))) continue;
      ::kill(static_cast<pid_t>(std::stol(readFile(station_.workFile("spot.pid")))), SIGKILL);
    }
  }

  void expectRightAnswer() const {
    const std::string body = station_.activity().body;
    EXPECT_EQ(body, e2e::expectedFromLog({}, e2e::generatedAt(body), heard_));
  }

  void expectWholeIdentity() const {
    if (identity_ != nullptr) {
      identity_->expectUntouched(station_);
      return;
    }
    if (exists(station_.key())) {
      EXPECT_TRUE(readFile(station_.key()).ends_with("-----END PRIVATE KEY-----\n"));
      EXPECT_EQ(e2e::permissionsOf(station_.key()), 0600u);
    }
    if (exists(station_.certificate())) {
      EXPECT_TRUE(readFile(station_.certificate()).ends_with("-----END CERTIFICATE-----\n"));
    }
  }

  // Whether nothing was left, so that the next start is that of the beginning.
  bool isAsBefore() const {
    return identity_ != nullptr && namesIn(station_.configDir()).size() == 2 &&
           namesIn(station_.work()).size() == 1;
  }

  void expectGoodStart() const {
    if (exists(station_.key()) && !exists(station_.certificate())) {
      // Nobody but its owner takes a key away.
      const e2e::Outcome outcome = runToEnd(station_.usualLaunch(kArguments));
      EXPECT_EQ(outcome.errors,
                "TLS certificate error: Cannot create key (exists or unwritable): " +
                    station_.key() + "\n");
      fs::remove(station_.key());
    }
    ServerProcess server = station_.serve(kArguments);
    EXPECT_THAT(namesIn(station_.configDir()), ElementsAre("spot-server.crt", "spot-server.key"));
    EXPECT_THAT(namesIn(station_.work()), ElementsAre("cty.dat", "spot.pid"));
  }

  const MadeIdentity* identity_;
  const bool in_background_;
  Station station_;
  FaultSwitch faults_;
  std::vector<e2e::Heard> heard_;
};

void failEverywhere(const std::string& start, const Fault& fault, const MadeIdentity* identity,
                    long few, bool in_background = false) {
  const std::string what = start + ", " + describe(fault);
  SCOPED_TRACE(what);
  FaultyStart counting(identity, in_background);
  counting.run({fault.name, fault.call, 0}, 0);
  Tally tally(what);
  long struck = 0;
  for (const long place : Places(what, counting.seen(), few)) {
    SCOPED_TRACE(place);
    FaultyStart faulty(identity, in_background);
    tally.add(faulty.run(fault, place));
    struck += faulty.struck() ? 1 : 0;
    if (testing::Test::HasFailure()) return;
  }
  EXPECT_TRUE(struck > 0 || tally.runs() == 0) << "the fault never struck";
}

class FaultsAtStart : public testing::Test {
 protected:
  void SetUp() override {
    if (kSanitized) GTEST_SKIP() << "the sanitizers' own library takes the place of ours";
  }
};

TEST_F(FaultsAtStart, FilesOfAFirstStart) {
  for (const Fault& fault : kFileFaults) failEverywhere("first start", fault, nullptr, 1);
}

TEST_F(FaultsAtStart, FilesOfASecondStart) {
  const MadeIdentity identity;
  for (const Fault& fault : kFileFaults) failEverywhere("second start", fault, &identity, kFew);
}

TEST_F(FaultsAtStart, FilesOfAStartInTheBackground) {
  const MadeIdentity identity;
  for (const Fault& fault : kFileFaults) {
    failEverywhere("start in the background", fault, &identity, kFew, true);
  }
}

TEST_F(FaultsAtStart, MemoryOfAFirstStart) {
  for (const Fault& fault : kMemoryFaults) failEverywhere("first start", fault, nullptr, 15);
}

TEST_F(FaultsAtStart, MemoryOfASecondStart) {
  const MadeIdentity identity;
  for (const Fault& fault : kMemoryFaults) failEverywhere("second start", fault, &identity, 60);
}

// The two forks of the way into the background: only the first has somebody to tell.
TEST_F(FaultsAtStart, WithoutAProcessThereIsNoBackground) {
  const Station station;
  FaultSwitch faults(station.home() + "/faults");
  const std::string log = station.home() + "/daemon.log";
  for (const auto& [fork, told] : {std::pair(0, "fork failed\n"), std::pair(1, "")}) {
    faults.arm({"fork", Call::kSpawn, EAGAIN}, fork);
    const e2e::Outcome outcome =
        runToEnd(faults.under(station.usualLaunch({"--daemon", "--log-file", log})));
    EXPECT_TRUE(faults.struck());
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.errors, told);
    EXPECT_EQ(readFile(log), "");
  }
}

TEST_F(FaultsAtStart, WithoutAnyThreadThereIsNoService) {
  const Station station;
  FaultSwitch faults(station.home() + "/faults");
  faults.arm({"thread", Call::kSpawn, EAGAIN, true}, 0);
  const e2e::Outcome outcome = runToEnd(faults.under(station.usualLaunch(kArguments)));
  EXPECT_TRUE(outcome.output.ends_with(e2e::kReady)) << outcome.output;
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.errors, "Failed to bind https://127.0.0.1:" + station.portText() +
                                " (port in use or permission denied?)\n");
  EXPECT_FALSE(exists(station.workFile("spot.pid")));
}

}  // namespace
}  // namespace spotserver::faults
