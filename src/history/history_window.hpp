// Merging one window of the receivers' history into the spot data.
#pragma once

#include <stop_token>

#include "history/history_reader.hpp"
#include "spots/spot_data.hpp"

namespace spotserver {

// Reads the window [from, to] (UTC epoch seconds, from <= to) of the history at data.history_path
// and merges it (mergeHistory). What the refresh passes: to = now, from = history_read_to - 300, or
// now - kRetention while nothing has been read; the overlap catches rows that were written late.
// An empty path, a missing file or a read that fails or is stopped clears data.history_in_use and
// changes nothing else. When only the process has run out of file descriptors, nothing changes at
// all: the history is as good as before.
// Never throws. Cost: readHistorySlots', up to 5 s while a writer keeps the file locked.
void readHistoryWindow(SpotData& data, double from, double to, std::stop_token stop = {}) noexcept;

// Makes `observations` (of the window [from, to], ascending by start) the intervals from `from` on,
// adds them to data.rates, and marks the history as in use and read up to `to`; the generation
// grows by one, also when there are no observations. Spots gathered while the history was out of
// use are dropped: the intervals tell the same decodes again.
// An interval that data.rates already has keeps its first count, even if the history changed.
// When memory runs out, throws std::bad_alloc with data as it was, save that data.rates may have
// got some of the intervals; the next merge adds the rest.
// Cost: the observations; what is formatted and looked up is so once for each channel.
void mergeHistory(SpotData& data, const HistorySlots& observations, double from, double to);

}  // namespace spotserver
