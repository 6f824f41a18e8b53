// The texts of a snapshot, made once for all requests that are given it, and the table in which the
// answers given last are kept.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "api/activity_snapshot.hpp"
#include "server/gzip.hpp"
#include "server/once.hpp"

namespace spotserver {

// The document of one snapshot, ready to be sent at any time: only the time in it changes. The text
// is written and compressed by the first request that needs it, while others that need it wait;
// the snapshot is let go then. Any number of threads; no lock of ours may be held meanwhile.
//   const auto answer = std::make_shared<const ActivityAnswer>(buildActivity(data, 6, 3, now));
//   answer->document(now);       // {"generated":1763175600,"mode":"live",...
//   answer->document(now + 15);  // {"generated":1763175615,... and all else the same
// Throws std::bad_alloc; a later call then tries again.
class ActivityAnswer {
 public:
  explicit ActivityAnswer(ActivitySnapshot snapshot) : snapshot_(std::move(snapshot)) {}

  // The text with `generated` as its time. Cost: a copy, the first time the writing too.
  std::string document(double generated) const;

  // The same as a gzip file; empty where the text is too short for that to be worth it. Cost: a
  // copy of some seventh of the text, the first time the compression, see deflate_tail.
  std::optional<std::string> gzippedDocument(double generated) const;

 private:
  const std::string& tail() const;

  // Each is made once, and constant afterwards.
  mutable Once written_;
  mutable ActivitySnapshot snapshot_;  // until the tail is written
  mutable std::string tail_;
  mutable Once deflated_;
  mutable DeflatedTail deflated_tail_;
};

struct CachedActivity {
  std::uint64_t generation = 0;  // the store's generation when computed
  std::int64_t minute = 0;       // floor(now / 60) when computed
  std::shared_ptr<const ActivityAnswer> answer;
};

// (hours, smoothing) to the last answer: at most nine entries, overwritten, never evicted.
using ActivityCache = std::map<std::pair<int, int>, CachedActivity>;

}  // namespace spotserver
