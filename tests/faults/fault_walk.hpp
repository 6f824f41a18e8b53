// The walk through all places at which something can be made to go wrong.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "faults/fault_driver.hpp"

namespace spotserver::faults {

// Visits the calls 0, 1, 2, ...; `visit` tells whether the run came to that call. `count` is how
// many a run has that nothing happens to, but no two runs are quite the same: the walk goes on
// until it is behind `count` and a run ends before its call. Ends early when a visit fails the
// test. Returns how many visits came to their call, and fails the test when none did.
//   forEachCall("second start", calls, 25, [&](long n) { return isKilledAt(n); });
// All calls are visited when SPOT_FAULTS_STEP is 1; with the step n and SPOT_FAULTS_FROM every
// n-th, from there on. Without these variables at most `few` of `count`, from a random one, which
// is printed.
long forEachCall(const std::string& what, long count, long few,
                 const std::function<bool(long)>& visit);

// What became of one run.
struct FaultedRun {
  Ending ending = Ending::kServing;
  bool struck = false;  // the fault did
  long seen = 0;        // calls of its kind
};

// Runs `what` with each of the faults at each place, or a `few` places, as above. Prints for each
// fault how the runs ended.
//   failEverywhere("second start", fileFaults(), 4, [&](const Fault& fault, long due) { ... });
void failEverywhere(const std::string& what, const std::vector<Fault>& faults, long few,
                    const std::function<FaultedRun(const Fault&, long due)>& run);

}  // namespace spotserver::faults
