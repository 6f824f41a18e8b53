// Turning the spot data into the activity of each band: how many decodes an hour now and over the
// last hours, how many decodes, decode intervals and callsigns.
//
// Decode intervals come from the receivers' history where it is in use (and the data is no
// demonstration), otherwise from the decode log: all spots of one mode, dial frequency and time are
// one interval. Both functions expect the caller to hold the store's lock.
#pragma once

#include "api/activity_snapshot.hpp"
#include "spots/spot_data.hpp"

namespace spotserver {

// The answer for one view: `hours` 1, 6 or 24, `smoothing` 1..40 minutes, `now` in UTC epoch
// seconds. The last answer for the same view is given again, with `generated` set to `now`, while
// the data's generation and the minute of `now` are those it was computed in; otherwise the answer
// is built and kept in data.cache.
//   auto held = store.lock();
//   const ActivitySnapshot snapshot = activityAt(*held, 6, 3, now);
// Throws like launcher::bandSeries.
ActivitySnapshot activityAt(SpotData& data, int hours, int smoothing, double now);

// The answer for one view, computed anew; data.cache is neither asked nor changed.
// Throws like launcher::bandSeries, if a band was heard.
// Cost: the spots (or history intervals) and callsigns held, and a curve for every band listed.
ActivitySnapshot buildActivity(const SpotData& data, int hours, int smoothing, double now);

}  // namespace spotserver
