// Bringing the spot data up to date: country file, then history, then decode log.
#pragma once

#include <stop_token>

#include "spots/spot_data.hpp"

namespace spotserver {

// Reads what is new at `now` (UTC epoch seconds), unless the last refresh is less than
// `min_interval` seconds old or the data is synthetic.
//   refreshSpots(data, now, 15);
//
//  - Country file: the first candidate that is a regular file, read when it changed.
//  - History: the window since the last successful read, with 300 s of overlap.
//  - Log: the lines appended since the last refresh. A log larger than 1 MiB is begun some ten
//    minutes before the oldest line that is held. A log that was replaced or truncated empties the
//    spots and is read from its start; callsigns stay until they age out.
//  - Everything older than kRetention is dropped, with or without a log (pruneSpots). A log line
//    that is older when it is read is counted and not held.
//
// While the history is in use, log lines only supply callsigns; decodes come from the history then.
// The generation grows by one when the place in the log moved, the log was read from its start
// again or the clock was set, and by one for a history read.
//
// The clock. When `now` lies more than 600 s before the last refresh, the clock was wrong: spots,
// intervals and rates are emptied, callsigns heard more than kRetention ahead of `now` forgotten,
// and both sources read anew at once. A smaller step back waits until the time comes round. A log
// line dated more than kRetention ahead is left out, its sender too; when the clock gets there the
// log is read anew.
//
// Every failure is silent and leaves what is held, and the sources after it are read all the same.
// A log line counts once, whatever fails. `stop` ends a long read early and what was consumed by
// then stays consumed; once it is requested, nothing is read or dropped any more.
//
// Cost: what is new, and what is dropped. When that is nothing, a few system calls, the intervals
// of one minute, and once a minute a look at every callsign. A line whose sender and channel are
// known takes no memory but its eight bytes.
void refreshSpots(SpotData& data, double now, double min_interval,
                  const std::stop_token& stop = {}) noexcept;

}  // namespace spotserver
