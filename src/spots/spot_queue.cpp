#include "spots/spot_queue.hpp"

#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>

namespace spotserver {
namespace {

// Room for one more, a quarter ahead: twice as much ahead, as a vector goes by itself, would double
// the memory of a day.
template <typename Item>
void makeRoom(std::vector<Item>& items) {
  if (items.size() == items.capacity()) items.reserve(items.size() + items.size() / 4 + 4);
}

// The same for numbers that compare equal, which -0.0 and 0.0 do.
std::uint64_t bitsOf(double number) { return std::bit_cast<std::uint64_t>(number + 0.0); }

std::uint32_t hashOf(double time, double frequency, int mode) {
  const std::uint64_t place = hashBits(bitsOf(frequency) + static_cast<std::uint64_t>(mode));
  return hashBits(bitsOf(time) ^ place << 32);
}

}  // namespace

std::uint32_t SpotQueue::ChannelTraits::hash(const Key& key) {
  return hashOf(0, key.frequency, key.mode);
}

// Bit for bit, so that every spelling of a frequency is given back as it came.
bool SpotQueue::ChannelTraits::same(const Channel& channel, const Key& key) {
  return std::bit_cast<std::uint64_t>(channel.frequency) ==
             std::bit_cast<std::uint64_t>(key.frequency) &&
         channel.mode == key.mode && channel.band == key.band;
}

Channel SpotQueue::ChannelTraits::make(const Key& key) {
  return {key.frequency, key.mode, std::string(key.band)};
}

bool SpotQueue::isOf(const Group& group, double time, const ChannelKey& key) const {
  const Channel& channel = channels_[group.channel];
  return group.time == time && channel.frequency == key.frequency && channel.mode == key.mode;
}

// Whether the spot is of the interval of the one before, as nearly all are.
bool SpotQueue::goesOn(double time, const ChannelKey& key) const {
  if (last_.minute == nullptr) return false;
  const Group& group = last_.minute->groups[last_.minute->newest];
  return group.count > 0 && isOf(group, time, key);
}

// Whatever can fail comes first. A minute or room left behind is no harm.
void SpotQueue::append(double time, double frequency, int mode, std::string_view band,
                       std::string_view callsign) {
  if (std::isnan(time)) return;
  const ChannelKey key{frequency, mode, band};
  const bool goes_on = goesOn(time, key);
  Minute& minute = goes_on ? *last_.minute : by_minute_[launcher::minuteOf(time)];
  makeRoom(minute.spots);
  const std::uint32_t sender = senders_.acquire(callsign);
  try {
    if (!goes_on) minute.newest = groupOf(minute, time, key);
  } catch (...) {
    senders_.release(sender);
    throw;
  }
  minute.spots.push_back({minute.newest, sender});
  ++minute.groups[minute.newest].count;
  last_.minute = &minute;
  ++size_;
}

// The place of the interval's group, which is added when there is none.
std::uint32_t SpotQueue::groupOf(Minute& minute, double time, const ChannelKey& key) {
  const std::uint32_t hash = hashOf(time, key.frequency, key.mode);
  const std::uint32_t found = minute.by_interval.find(
      hash, [&](std::uint32_t place) { return isOf(minute.groups[place], time, key); });
  if (found == FlatIndex::kNone) return addGroup(minute, hash, time, key);
  Group& group = minute.groups[found];
  if (group.count == 0) {  // its first spot anew: that one says how the channel is written
    const std::uint32_t channel = channels_.acquire(key);
    channels_.release(group.channel);
    group.channel = channel;
  }
  return found;
}

std::uint32_t SpotQueue::addGroup(Minute& minute, std::uint32_t hash, double time,
                                  const ChannelKey& key) {
  const auto place = static_cast<std::uint32_t>(minute.groups.size());
  makeRoom(minute.groups);
  minute.by_interval.reserve(minute.groups.size() + 1);
  minute.groups.push_back({time, channels_.acquire(key), 0});
  minute.by_interval.insert(hash, place);
  return place;
}

void SpotQueue::release(const Minute& minute) {
  for (const Spot& spot : minute.spots) senders_.release(spot.sender);
  for (const Group& group : minute.groups) channels_.release(group.channel);
  size_ -= minute.spots.size();
}

void SpotQueue::pruneBefore(double cutoff) {
  if (std::isnan(cutoff)) return;
  const std::int64_t minute = launcher::minuteOf(cutoff);
  auto bucket = by_minute_.begin();
  while (bucket != by_minute_.end() && bucket->first <= minute) {
    if (bucket->first == minute) pruneMinute(bucket->second, cutoff);
    if (bucket->first == minute && !bucket->second.spots.empty()) return;
    release(bucket->second);
    if (last_.minute == &bucket->second) last_.minute = nullptr;
    bucket = by_minute_.erase(bucket);
  }
}

void SpotQueue::pruneMinute(Minute& minute, double cutoff) {
  const auto is_old = [cutoff](const Group& group) { return group.time < cutoff; };
  const auto is_due = [&](const Group& group) { return group.count > 0 && is_old(group); };
  if (std::ranges::none_of(minute.groups, is_due)) return;
  size_ -= std::erase_if(minute.spots, [&](const Spot& spot) {
    if (!is_old(minute.groups[spot.group])) return false;
    senders_.release(spot.sender);
    return true;
  });
  for (Group& group : minute.groups) {
    if (is_old(group)) group.count = 0;
  }
}

}  // namespace spotserver
