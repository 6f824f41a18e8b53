// Turning the spot data into the activity of each band: how many decodes an hour now and over the
// last hours, how many decodes, decode intervals and callsigns.
//
// Decode intervals come from the receivers' history where it is in use (and the data is no
// demonstration), otherwise from the decode log: all spots of one mode, dial frequency and time are
// one interval. The caller holds the store's lock.
#pragma once

#include "api/activity_snapshot.hpp"
#include "spots/spot_data.hpp"

namespace spotserver {

// The answer for one view: `hours` 1, 6 or 24, `smoothing` 1..40 minutes, `now` in UTC epoch
// seconds. Always computed anew; activityAt keeps what it computes.
// Throws like launcher::bandSeries, if a band was heard.
// Cost: the spots (or history intervals) and callsigns held, and a curve for every band listed.
ActivitySnapshot buildActivity(const SpotData& data, int hours, int smoothing, double now);

}  // namespace spotserver
