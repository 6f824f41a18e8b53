// What can be made to fail, and how.
#pragma once

#include <string>
#include <vector>

#include "faults/fault_control.hpp"

namespace spotserver::faults {

struct Fault {
  std::string name;
  Call call = Call::kNone;
  int error = 0;          // errno or kShort; 0: the calls are counted and none fails
  bool for_good = false;  // the call that is due and all later ones, not it alone
};

// "allocation, from there on" and the like, for messages.
std::string describe(const Fault& fault);

// An allocation, and all from one on.
std::vector<Fault> memoryFaults();

// Each kind of call that works on files with each of: input/output error, no space left, too many
// open files, interrupted; once and from there on. And half of what was asked for is read or
// written. Nobody is interrupted for good, but for closing, which is not repeated.
std::vector<Fault> fileFaults();

// All of these.
std::vector<Fault> allFaults();

}  // namespace spotserver::faults
