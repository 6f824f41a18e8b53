// The answers given last: a phone that asks every few seconds is not worth a new computation.
#pragma once

#include <memory>

#include "api/activity_answer.hpp"
#include "spots/spot_data.hpp"

namespace spotserver {

// The answer for one view: `hours` 1, 6 or 24, `smoothing` 1..40 minutes, `now` in UTC epoch
// seconds. The last answer for the same view is given again while the data's generation and the
// minute of `now` are those it was computed in; otherwise it is computed and kept in data.cache.
// The caller holds the store's lock, and lets it go before asking the answer for its text.
//   const auto answer = activityAt(*store.lock(), 6, 3, now);
//   const std::string text = answer->document(now);
// Never null. Throws like buildActivity. Cost: that of buildActivity, or next to nothing.
std::shared_ptr<const ActivityAnswer> activityAt(SpotData& data, int hours, int smoothing,
                                                 double now);

}  // namespace spotserver
