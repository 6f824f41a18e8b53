// Whether an answer is right, computed a second time from what the files held.
#pragma once

#include <map>
#include <string>
#include <tuple>

#include "e2e/activity_model.hpp"
#include "server/mutex.hpp"
#include "soak/ledger.hpp"

namespace spotserver::soak {

enum class Source { kHistory, kLog };  // where a server's decodes and intervals come from

// What may have gone into one answer.
struct Circumstances {
  Source source = Source::kLog;
  e2e::View view;
  std::size_t oldest = 0;     // versions of the files
  std::size_t newest = 0;     //
  std::int64_t asked = 0;     // wall clock, whole UTC epoch seconds
  std::int64_t answered = 0;  //
};

// Safe to share between threads. Keeps the documents it computed for the next answer like it.
class Judge {
 public:
  explicit Judge(const Ledger& ledger) : ledger_(ledger) {}

  // Empty when `body` is right, else what is wrong. A server reuses the bands of an answer within
  // its minute: they then are as of an earlier second than "generated", which both are checked.
  std::string complaint(const std::string& body, const Circumstances& about) SPOT_EXCLUDES(mutex_);

 private:
  // The bands and counts of the document computed at `now`: all behind "generated".
  std::string expected(const Circumstances& about, std::size_t version, std::int64_t now)
      SPOT_EXCLUDES(mutex_);

  using Key = std::tuple<std::size_t, std::int64_t, int, int, Source>;

  const Ledger& ledger_;
  Mutex mutex_;
  std::map<Key, std::string> computed_ SPOT_GUARDED_BY(mutex_);
};

}  // namespace spotserver::soak
