// Killed at any system call of a start, the server leaves nothing half done: what is there is whole
// and private, and the next start works or says what is missing.
#include <gtest/gtest.h>

#include "faults/aftermath.hpp"
#include "faults/fault_walk.hpp"
#include "faults/former_home.hpp"
#include "faults/made_identity.hpp"
#include "faults/traced_server.hpp"
#include "scoped_limits.hpp"

namespace spotserver::faults {
namespace {

using e2e::Station;

// How many kills of each scenario a plain test run makes.
constexpr long kFew = 25;

const std::vector<std::string> kArguments = {"--pid-file", "spot.pid"};

class Killed : public testing::Test {
 protected:
  void SetUp() override {
    const Station station;
    if (!mayTrace(station.launch({"--version"}))) GTEST_SKIP() << "this system lets nobody trace";
  }

  // Kills a start on a copy of `prepare`d station at every place; `after` looks at what is left.
  template <typename Prepare, typename After>
  static void killEverywhere(const std::string& what, const std::vector<std::string>& arguments,
                             Prepare prepare, After after) {
    long calls = 0;
    {
      const Station station;
      prepare(station);
      calls = runKilledAt(station.usualLaunch(arguments), kNever).calls;
    }
    const long killed = forEachCall(what, calls, kFew, [&](long n) {
      const Station station;
      prepare(station);
      const bool there = runKilledAt(station.usualLaunch(arguments), n).killed;
      after(station);
      return there;
    });
    std::printf("%s: %ld kills\n", what.c_str(), killed);
  }

  // With certificate, key and a history.
  static void killLaterStarts(const std::string& what, const std::vector<std::string>& arguments) {
    const MadeIdentity identity;
    const KnownRecord record(true);
    killEverywhere(
        what, arguments,
        [&](const Station& station) {
          identity.giveTo(station);
          record.giveTo(station);
        },
        [&](const Station& station) {
          identity.expectUntouched(station);
          expectGoodStart(station, kArguments, record);
          identity.expectUntouched(station);
        });
  }
};

TEST_F(Killed, FirstStart) {
  const ScopedUmask everything_readable(0);
  const KnownRecord record;
  killEverywhere(
      "first start", kArguments, [&](const Station& station) { record.giveTo(station); },
      [&](const Station& station) {
        expectWholeIdentity(station);
        expectGoodStart(station, kArguments, record);
      });
}

TEST_F(Killed, SecondStart) { killLaterStarts("second start", kArguments); }

TEST_F(Killed, StartInTheBackground) {
  killLaterStarts("start in the background", {"--daemon", "--pid-file", "spot.pid"});
}

TEST_F(Killed, Migration) {
  killEverywhere(
      "migration", {"--version"}, [](const Station& station) { FormerHome(station).make(); },
      [](const Station& station) {
        const FormerHome home(station);
        home.expectNothingLost();
        EXPECT_EQ(runToEnd(station.launch({"--version"})).status, 0);
        home.expectMoved();
      });
}

}  // namespace
}  // namespace spotserver::faults
