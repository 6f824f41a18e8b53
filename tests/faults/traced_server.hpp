// The server run call by call under ptrace(2), to be killed at the system call of one's choice.
#pragma once

#include <map>

#include <sys/types.h>

#include "e2e/server_process.hpp"

namespace spotserver::faults {

// How a run went.
struct TracedRun {
  long calls = 0;       // system calls begun, those of all its threads and processes
  bool killed = false;  // it was at the call asked for
  int status = -1;      // of the process started, as Process::waitForExit tells it
};

// A start up to the accept loop. Whoever begins the system call number `kill_at` (the first is 0)
// is killed before that call has any effect, its process that is: of a start in the background the
// others live on. When the server is about to accept, whatever is left of the run is killed too. No
// process survives.
//   const long calls = runKilledAt(launch, kNever).calls;
//   for (long n = 0; n < calls; ++n) runKilledAt(launch, n);
// Throws when the run neither ends nor serves in time. Start it from a thread that has no other
// children.
inline constexpr long kNever = -1;
TracedRun runKilledAt(const e2e::Launch& launch, long kill_at);

// Whether this system lets us trace at all.
bool mayTrace(const e2e::Launch& launch);

}  // namespace spotserver::faults
