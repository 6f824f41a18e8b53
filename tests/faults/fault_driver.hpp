// The test's side of the faults: arming them, and judging how a start ended.
#pragma once

#include <string>

#include "e2e/station.hpp"
#include "faults/fault_kinds.hpp"

namespace spotserver::faults {

// The memory that the test shares with the servers it starts. One for any number of them.
//   FaultSwitch faults(station.workFile("faults"));
//   ServerProcess server(faults.under(station.usualLaunch()));
//   faults.arm({"open", Call::kOpen, EIO}, 3);  // the fourth open from here fails
//   ...
//   faults.disarm();
class FaultSwitch {
 public:
  explicit FaultSwitch(const std::string& path);
  ~FaultSwitch();
  FaultSwitch(const FaultSwitch&) = delete;
  FaultSwitch& operator=(const FaultSwitch&) = delete;

  // `launch` with the library preloaded.
  e2e::Launch under(e2e::Launch launch) const;

  void arm(const Fault& fault, long due);
  void disarm();
  // Counts from the last arming on; they stay readable afterwards.
  long seen() const { return control_->seen; }
  bool struck() const { return control_->failed > 0; }

 private:
  std::string path_;
  Control* control_;
};

// How a run went on.
enum class Ending {
  kServing,
  kRefused,  // it told why and ended
  kAborted,  // without memory even for that
};

// Waits until the server serves or has ended. Throws when it does neither in time, and when it ends
// in a way that no user should see: an unknown message, a signal other than the abort of a program
// without memory.
Ending endingOf(e2e::ServerProcess& server, const Fault& fault);

// The same of a server that has ended without serving.
Ending endingOf(int status, const std::string& errors, const Fault& fault);

// Whether `errors` is a message that a start may end with, and `status` its status.
bool isSpecified(int status, const std::string& errors);

}  // namespace spotserver::faults
