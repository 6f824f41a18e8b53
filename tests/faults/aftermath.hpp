// What a start may leave behind that came to grief, and what the next one makes of it.
#pragma once

#include <string>
#include <vector>

#include "e2e/activity_model.hpp"
#include "e2e/station.hpp"

namespace spotserver::faults {

// What a station has recorded a few minutes ago: one decode in the log and, if there is one, a
// minute in the history. Old enough to be in every answer of a test.
class KnownRecord {
 public:
  explicit KnownRecord(bool with_history = false);
  void giveTo(const e2e::Station& station) const;
  // Asks the server that runs on `station`.
  void expectToldBy(const e2e::Station& station) const;

 private:
  bool with_history_;
  std::int64_t minute_;  // since the epoch
  std::vector<e2e::Heard> heard_;
};

// Certificate and key are whole as far as they are there, and nobody but the owner can read
// anything that may hold the key.
void expectWholeIdentity(const e2e::Station& station);

// Starts again. A key whose certificate was not written any more must be told and left alone; its
// owner takes it away. Then the server serves what is recorded, and ends without a trace.
void expectGoodStart(const e2e::Station& station, const std::vector<std::string>& arguments,
                     const KnownRecord& record);

}  // namespace spotserver::faults
