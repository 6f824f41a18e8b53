#include "faults/fault_walk.hpp"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <map>
#include <random>

#include <gtest/gtest.h>

namespace spotserver::faults {
namespace {

long variable(const char* name) {
  const char* value = std::getenv(name);
  return value == nullptr ? 0 : std::atol(value);
}

struct Walk {
  long from = 0;
  long step = 1;
  bool to_the_end = true;
};

Walk walkThrough(const std::string& what, long count, long few) {
  if (const long step = variable("SPOT_FAULTS_STEP"); step > 0) {
    return {variable("SPOT_FAULTS_FROM") % step, step, true};
  }
  const long step = std::max(1L, (count + few - 1) / few);
  const auto from = static_cast<long>(std::random_device()() % static_cast<unsigned long>(step));
  std::printf("%s: every %ld of %ld from %ld\n", what.c_str(), step, count, from);
  return {from, step, false};
}

}  // namespace

long forEachCall(const std::string& what, long count, long few,
                 const std::function<bool(long)>& visit) {
  const Walk walk = walkThrough(what, count, few);
  long reached = 0;
  for (long call = walk.from; walk.to_the_end || call < count; call += walk.step) {
    const std::string place = what + ", call " + std::to_string(call);
    SCOPED_TRACE(place);
    bool there = true;
    try {
      there = visit(call);
    } catch (const std::exception& error) {
      ADD_FAILURE() << place << ": " << error.what();
    }
    reached += there ? 1 : 0;
    if (testing::Test::HasFailure() || (!there && call >= count)) break;
  }
  EXPECT_TRUE(reached > 0 || walk.from >= count) << what << ": no run came so far";
  return reached;
}

void failEverywhere(const std::string& what, const std::vector<Fault>& faults, long few,
                    const std::function<FaultedRun(const Fault&, long due)>& run) {
  std::map<Call, long> counts;
  for (const Fault& fault : faults) {
    if (!counts.contains(fault.call)) {
      counts[fault.call] = run({"nothing", fault.call, 0, false}, 0).seen;
    }
    const std::string faulty = what + ", " + describe(fault);
    long endings[3] = {};
    forEachCall(faulty, counts[fault.call], few, [&](long due) {
      const FaultedRun done = run(fault, due);
      if (done.struck) ++endings[static_cast<int>(done.ending)];
      return done.struck;
    });
    if (testing::Test::HasFailure()) return;
    std::printf("%s: %ld served, %ld told why not, %ld aborted\n", faulty.c_str(), endings[0],
                endings[1], endings[2]);
  }
}

}  // namespace spotserver::faults
