#include "api/activity_cache.hpp"

#include "api/activity.hpp"

namespace spotserver {

std::shared_ptr<const ActivityAnswer> activityAt(SpotData& data, int hours, int smoothing,
                                                 double now) {
  const std::int64_t minute = launcher::minuteOf(now);
  const auto cached = data.cache.find({hours, smoothing});
  if (cached != data.cache.end() && cached->second.generation == data.generation &&
      cached->second.minute == minute) {
    return cached->second.answer;
  }
  auto answer = std::make_shared<const ActivityAnswer>(buildActivity(data, hours, smoothing, now));
  data.cache.insert_or_assign({hours, smoothing}, CachedActivity{data.generation, minute, answer});
  return answer;
}

}  // namespace spotserver
