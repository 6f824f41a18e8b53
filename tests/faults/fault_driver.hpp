// The test's side of the faults: arming them, walking through all places where one can strike, and
// judging how a start ended.
#pragma once

#include <string>

#include "e2e/station.hpp"
#include "faults/fault_control.hpp"

namespace spotserver::faults {

struct Fault {
  const char* name = "";
  Call call = Call::kNone;
  int error = 0;  // errno or kShort
  bool for_good = false;
};

// "allocation, from there on" and the like, for messages.
std::string describe(const Fault& fault);

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

// Every place at which something can be made to go wrong, or an even choice of them. All are
// visited when SPOT_FAULTS_STEP is 1; with the step n and SPOT_FAULTS_FROM every n-th, from there
// on. Without these variables at most `few` of `count`, from a random place, which is printed.
//   for (const long place : Places("second start, open", count, 40)) ...
class Places {
 public:
  Places(const std::string& what, long count, long few);

  struct Iterator {
    long place;
    long step;
    long operator*() const { return place; }
    Iterator& operator++() {
      place += step;
      return *this;
    }
    bool operator!=(const Iterator& end) const { return place < end.place; }
  };
  Iterator begin() const { return {from_, step_}; }
  Iterator end() const { return {count_, step_}; }

 private:
  long count_;
  long from_ = 0;
  long step_ = 1;
};

// How a run went on.
enum class Ending {
  kServing,
  kRefused,  // it told why and ended
  kAborted,  // without memory even for that
};

// What became of many runs; printed when it goes.
class Tally {
 public:
  explicit Tally(std::string what) : what_(std::move(what)) {}
  ~Tally();
  Tally(const Tally&) = delete;
  Tally& operator=(const Tally&) = delete;
  void add(Ending ending) { ++counts_[static_cast<int>(ending)]; }
  long runs() const { return counts_[0] + counts_[1] + counts_[2]; }

 private:
  std::string what_;
  long counts_[3] = {};
};

// Waits until the server serves or has ended. Throws when it does neither in time, and when it ends
// in a way that no user should see: an unknown message, a signal other than the abort of a program
// without memory.
Ending endingOf(e2e::ServerProcess& server, const Fault& fault);

// Whether `errors` is a message that a start may end with, and `status` its status.
bool isSpecified(int status, const std::string& errors);

}  // namespace spotserver::faults
