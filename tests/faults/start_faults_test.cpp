// A start during which calls fail: the server serves rightly, or says what is wrong and ends with
// the status for it. What it leaves is whole, and the next start goes its way.
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <memory>
#include <utility>

#include <sys/wait.h>

#include "faults/aftermath.hpp"
#include "faults/fault_test.hpp"
#include "faults/former_home.hpp"

namespace spotserver::faults {
namespace {

// How many starts under each fault a plain test run makes.
constexpr long kFew = 3;

const std::vector<std::string> kArguments = {"--pid-file", "spot.pid"};

struct Scenario {
  const char* name;
  std::shared_ptr<const MadeIdentity> identity = {};  // none: a first start
  bool with_history = false;
  bool in_background = false;
};

// One start under a fault, and the next one.
class FaultyStart {
 public:
  explicit FaultyStart(const Scenario& scenario)
      : scenario_(scenario), record_(scenario.with_history) {
    record_.giveTo(station_);
    if (scenario_.identity != nullptr) scenario_.identity->giveTo(station_);
  }

  // Starts with the fault at `due`, then without it.
  FaultedRun run(const Fault& fault, long due) {
    const Ending ending =
        scenario_.in_background ? detachUnder(fault, due) : startUnder(fault, due);
    if (scenario_.identity != nullptr) scenario_.identity->expectUntouched(station_);
    expectWholeIdentity(station_);
    if (!isAsBefore()) expectGoodStart(station_, kArguments, record_);
    return faulty_.run(ending);
  }

 private:
  Ending startUnder(const Fault& fault, long due) {
    faults_.arm(fault, due);
    ServerProcess server(faulty_.launch(kArguments));
    const Ending ending = endingOf(server, fault);
    faults_.disarm();
    if (ending != Ending::kServing) return ending;
    const bool answered = fault.call != Call::kAllocate || answers();
    if (answered) record_.expectToldBy(station_);
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
    const e2e::Outcome outcome = runToEnd(faulty_.launch(arguments));
    faults_.disarm();
    if (outcome.status == 0 && (fault.call != Call::kAllocate || answers())) {
      e2e::Process server(static_cast<pid_t>(std::stol(readFile(station_.workFile("spot.pid")))));
      record_.expectToldBy(station_);
      server.signal(SIGTERM);
      EXPECT_EQ(server.waitForExit(), 0);
      return Ending::kServing;
    }
    endAdopted();
    std::string told = outcome.errors + readFile(log);
    if (fault.call == Call::kAllocate && told.find("terminate called") != told.npos) {
      return Ending::kAborted;
    }
    // One that was ready may have found no memory for its threads, and tells so in the log.
    const std::size_t ready = told.find(e2e::kReady);
    if (ready != told.npos) told.erase(0, ready + std::string_view(e2e::kReady).size());
    EXPECT_TRUE(outcome.status != 0 || !told.empty()) << "nobody can talk to it";
    EXPECT_TRUE(told.empty() || isSpecified(std::max(outcome.status, 1), told)) << told;
    return Ending::kRefused;
  }

  // Ends what was started and came to us when its parent ended.
  void endAdopted() const {
    for (pid_t ended = 0; ended >= 0; ended = ::waitpid(-1, nullptr, WNOHANG)) {
      if (ended > 0 || !exists(station_.workFile("spot.pid"))) continue;
      ::kill(static_cast<pid_t>(std::stol(readFile(station_.workFile("spot.pid")))), SIGKILL);
    }
  }

  // Whether nothing was left, so that the next start is that of the beginning.
  bool isAsBefore() const {
    const std::size_t files = scenario_.identity != nullptr ? 2 : 0;
    const bool has_directory = exists(station_.configDir());
    return (has_directory ? namesIn(station_.configDir()).size() : 0) == files &&
           namesIn(station_.work()).size() == 1;
  }

  const Scenario scenario_;
  const KnownRecord record_;
  FaultyStation faulty_;
  const Station& station_ = faulty_.station;
  FaultSwitch& faults_ = faulty_.faults;
};

const Scenario kFirstStart = {.name = "first start"};

Scenario secondStart() {
  return {
      .name = "second start", .identity = std::make_shared<MadeIdentity>(), .with_history = true};
}

Scenario startInTheBackground() {
  return {.name = "start in the background",
          .identity = std::make_shared<MadeIdentity>(),
          .in_background = true};
}

using FaultsAtStart = FaultTest;

void failEverywhere(const Scenario& scenario, const std::vector<Fault>& faults, long few) {
  failEverywhere(scenario.name, faults, few, [&](const Fault& fault, long due) {
    return FaultyStart(scenario).run(fault, due);
  });
}

TEST_F(FaultsAtStart, FilesOfAFirstStart) { failEverywhere(kFirstStart, fileFaults(), 1); }

TEST_F(FaultsAtStart, MemoryOfAFirstStart) { failEverywhere(kFirstStart, memoryFaults(), 15); }

TEST_F(FaultsAtStart, FilesOfASecondStart) { failEverywhere(secondStart(), fileFaults(), kFew); }

TEST_F(FaultsAtStart, MemoryOfASecondStart) { failEverywhere(secondStart(), memoryFaults(), 60); }

TEST_F(FaultsAtStart, FilesOfAStartInTheBackground) {
  failEverywhere(startInTheBackground(), fileFaults(), kFew);
}

TEST_F(FaultsAtStart, MemoryOfAStartInTheBackground) {
  failEverywhere(startInTheBackground(), memoryFaults(), 20);
}

// Moves the directories of the former name and ends, then again without the fault.
FaultedRun migrateUnder(const Fault& fault, long due) {
  FaultyStation faulty;
  const FormerHome home(faulty.station);
  home.make();
  const e2e::Launch launch = faulty.station.launch({"--version"});
  faulty.faults.arm(fault, due);
  const e2e::Outcome outcome = runToEnd(faulty.faults.under(launch));
  faulty.faults.disarm();
  home.expectNothingLost();
  EXPECT_EQ(runToEnd(launch).status, 0);
  home.expectMoved(fault.call == Call::kName && fault.for_good);
  if (outcome.status != 0) return faulty.run(endingOf(outcome.status, outcome.errors, fault));
  EXPECT_EQ(outcome.errors, "");
  return faulty.run(Ending::kServing);
}

TEST_F(FaultsAtStart, FilesOfAMigration) {
  failEverywhere("migration", fileFaults(), kFew, migrateUnder);
}

TEST_F(FaultsAtStart, MemoryOfAMigration) {
  failEverywhere("migration", memoryFaults(), 40, migrateUnder);
}

// The two forks of the way into the background: only the first has somebody to tell.
TEST_F(FaultsAtStart, WithoutAProcessThereIsNoBackground) {
  FaultyStation faulty;
  FaultSwitch& faults = faulty.faults;
  const std::string log = faulty.station.home() + "/daemon.log";
  for (const auto& [fork, told] : {std::pair(0, "fork failed\n"), std::pair(1, "")}) {
    faults.arm({"fork", Call::kSpawn, EAGAIN}, fork);
    const e2e::Outcome outcome = runToEnd(faulty.launch({"--daemon", "--log-file", log}));
    EXPECT_TRUE(faults.struck());
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.errors, told);
    EXPECT_EQ(readFile(log), "");
  }
}

TEST_F(FaultsAtStart, WithoutAnyThreadThereIsNoService) {
  FaultyStation faulty;
  faulty.faults.arm({"thread", Call::kSpawn, EAGAIN, true}, 0);
  const e2e::Outcome outcome = runToEnd(faulty.launch(kArguments));
  EXPECT_TRUE(outcome.output.ends_with(e2e::kReady)) << outcome.output;
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.errors, "Failed to bind https://127.0.0.1:" + faulty.station.portText() +
                                " (port in use or permission denied?)\n");
  EXPECT_FALSE(exists(faulty.station.workFile("spot.pid")));
}

}  // namespace
}  // namespace spotserver::faults
