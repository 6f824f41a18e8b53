// Everything the server knows of the last day of reception: one plain record that free functions
// work on. SpotStore puts a lock around it.
#pragma once

#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "api/activity_answer.hpp"
#include "api/rate_index.hpp"
#include "spots/cty.hpp"
#include "spots/heard_callsigns.hpp"
#include "spots/interval_queue.hpp"
#include "spots/log_reader.hpp"
#include "spots/spot_queue.hpp"

namespace spotserver {

// Times are UTC epoch seconds throughout.
struct SpotData {
  std::string all_txt_path;                 // absolute; the decode log
  std::string history_path;                 // absolute; empty: no history
  std::vector<std::string> cty_candidates;  // absolute, most preferred first

  bool demo = false;        // synthetic data: nothing is ever read again
  double last_refresh = 0;  // 0: never
  LogPosition log;
  // Of the log lines dated further ahead than is held, the date of the earliest. Once the clock is
  // there the log is read anew.
  double left_out_from = std::numeric_limits<double>::infinity();
  SpotQueue spots;                               // lines read while no history was in use
  IntervalQueue intervals;                       // ascending by start; from the history
  double history_read_to = 0;                    // 0: nothing read yet
  HeardCallsigns heard;                          // the senders of the last day; see pruneSpots
  std::optional<std::int64_t> callsigns_pruned;  // in this minute; empty: never
  bool history_in_use = false;                   // the last read of the history succeeded
  launcher::BandRateIndex rates;                 // filled from the history
  ActivityCache cache;
  std::uint64_t generation = 0;  // grows when new data was consumed
  cty::Database countries;
  // Of the log lines that were accepted. Kept for whoever looks at the store; no answer shows them.
  std::uint64_t accepted_lines = 0;  // a log read anew counts anew
  double newest_decode = 0;          // the latest time ever; 0: none
};

// Records that `callsign` was heard at `time` on `band`; a later time already known stays.
// Recording the same again changes nothing. Throws std::bad_alloc, possibly after half the work.
void recordCallsign(SpotData& data, std::string_view callsign, std::string_view band, double time);

// Whether a sender counts as a distinct callsign: without a country file, and when it begins with
// "<", as it stands; otherwise when it has at most 32 characters and belongs to a country.
//   isCounted(countries, "N0CALL")  // true
//   isCounted(countries, "QQ0QQ")   // false: no entity covers it
bool isCounted(const cty::Database& countries, std::string_view callsign);

// Callsigns that were last heard at `since` (UTC epoch seconds) or later, on any band or on the one
// with this id. Asked about times within the retention the answer does not depend on when callsigns
// were pruned. Cost: one look at the time of each callsign.
std::uint64_t heardSince(const SpotData& data, double since);
std::uint64_t heardOnBandSince(const SpotData& data, std::string_view band, double since);

// recordCallsign if isCounted says so, which is asked once for each callsign: whoever changes
// data.countries calls data.heard.forgetVerdicts(). Returns what it said. `band` is one of
// data.heard. Throws like recordCallsign.
bool recordSender(SpotData& data, std::string_view callsign, HeardCallsigns::Band& band,
                  double time);

// Drops everything older than now - kRetention: spots, intervals, callsigns last heard before that,
// and the rate index's minutes before the one it lies in. What is dated exactly then stays. The
// callsigns are looked through once in a minute of `now` only: no view reaches back so far that it
// could tell. Throws nothing. Cost: what is dropped, and once a minute a look at every callsign.
void pruneSpots(SpotData& data, double now);

}  // namespace spotserver
