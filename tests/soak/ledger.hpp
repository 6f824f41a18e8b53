// What the station's files have held, change by change, so that any answer can be computed again
// later.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "e2e/activity_model.hpp"
#include "server/mutex.hpp"

namespace spotserver::soak {

// The files at one moment, as a server that read all of them holds them.
struct Contents {
  std::vector<e2e::Heard> log;    // lines of the decode log as it lies there
  std::vector<e2e::Heard> heard;  // senders that ever counted, from this log and those before it
  std::vector<e2e::Slot> slots;   // of the receivers' history
};

// What there ever was to hold, counted.
struct Stock {
  std::size_t lines = 0;
  std::size_t callsigns = 0;  // different ones
  std::size_t slots = 0;
};

// One writer changes the files and says so; many readers ask what an answer may rest on. A change
// is announced before its first byte is written and settled after its last, so a server that looks
// at the files holds one of the versions from the one settled when it began to the one announced
// when it was done.
//
//   ledger.announceLine({now, "14.074", "FT8", "K1ABC"}, true);
//   station.appendLog(...);
//   ledger.settle();
class Ledger {
 public:
  // Further content. `counts`: the sender's country is known.
  void announceLine(const e2e::Heard& line, bool counts) SPOT_EXCLUDES(mutex_);
  void announceSlots(const std::vector<e2e::Slot>& slots) SPOT_EXCLUDES(mutex_);
  // A log that is empty, or holds every line there ever was. Of these, the senders that did not
  // count before are asked about again.
  void announceEmptyLog() SPOT_EXCLUDES(mutex_);
  void announceWholeLog(const std::function<bool(const std::string& callsign)>& counts)
      SPOT_EXCLUDES(mutex_);
  void settle() SPOT_EXCLUDES(mutex_);

  // Numbers of versions: the newest that is in the files for certain, and that may be.
  std::size_t settled() const SPOT_EXCLUDES(mutex_);
  std::size_t announced() const SPOT_EXCLUDES(mutex_);
  Contents at(std::size_t version) const SPOT_EXCLUDES(mutex_);
  Stock stockAt(std::size_t version) const SPOT_EXCLUDES(mutex_);
  // Every line there ever was.
  std::vector<e2e::Heard> lines() const SPOT_EXCLUDES(mutex_);

 private:
  // Ends of the vectors below, and where the log begins.
  struct Version {
    std::size_t log_begin = 0;
    std::size_t log_end = 0;
    std::size_t heard_end = 0;
    std::size_t slots_end = 0;
  };

  // The next version: `log_begin` onward of all that is on record.
  void announce(std::size_t log_begin) SPOT_REQUIRES(mutex_);

  mutable Mutex mutex_;
  std::vector<e2e::Heard> lines_ SPOT_GUARDED_BY(mutex_);
  std::vector<bool> counted_ SPOT_GUARDED_BY(mutex_);  // by line: it is in heard_
  std::vector<e2e::Heard> heard_ SPOT_GUARDED_BY(mutex_);
  std::vector<e2e::Slot> slots_ SPOT_GUARDED_BY(mutex_);
  std::vector<Version> versions_ SPOT_GUARDED_BY(mutex_) = {{}};
  std::size_t settled_ SPOT_GUARDED_BY(mutex_) = 0;
};

}  // namespace spotserver::soak
