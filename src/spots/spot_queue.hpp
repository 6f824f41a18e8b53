// The accepted decodes of the last day, by minute.
//
// A station with ten receivers hears millions of lines a day, so spots are packed: everything that
// one channel decoded at one time is a decode interval, kept once, and a spot is its sender and its
// interval. Channels and senders are kept once, too, and leave with their last spot.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "api/rate_index.hpp"
#include "spots/flat_index.hpp"
#include "spots/interned.hpp"

namespace spotserver {

// One accepted log line.
struct ParsedSpot {
  double time = 0;       // UTC epoch seconds
  double frequency = 0;  // dial frequency, Hz
  int mode = 0;          // ModeCode
  std::string band;      // band id of the dial frequency
  std::string callsign;  // sender, possibly empty
};

// What a receiver listens to.
struct Channel {
  double frequency = 0;  // dial frequency, Hz
  int mode = 0;          // ModeCode
  std::string band;      // band id of the dial frequency
};

// Spots bucketed by minute, so that a line dated in the future or out of order costs no more than
// any other and never holds back the pruning of the rest. Not synchronised; a plain value.
//
//   queue.append({now - 15, 14'074'000, kFt8, "20m", "N0CALL"});
//   queue.forEach(now - 3600, now, [&](const ParsedSpot& spot) { ... });
//   queue.forEachInterval(now - 3600, now, [&](double time, std::uint32_t channel, auto count) {
//     use(time, queue.channel(channel).band, count);
//   });
//   queue.pruneBefore(now - launcher::kRetention);
//
// The spots of one time, dial frequency and mode are one interval; -0.0 and 0.0 Hz are the same
// frequency. All spots of an interval show the frequency and band of its first.
//
// Memory: eight bytes a spot and up to a quarter more; some 40 for each interval.
class SpotQueue {
 public:
  // Cost: one look-up among the senders when the spot is of the interval of the one before, else
  // one among the minutes, intervals and channels as well; no memory of its own is taken for a
  // sender and a channel that are held. A time beyond the range of minute numbers is kept in the
  // first or last bucket; a time that is no number is at no time, so such a spot is not kept.
  // Throws std::bad_alloc, and then holds what it held before.
  void append(const ParsedSpot& spot) {
    append(spot.time, spot.frequency, spot.mode, spot.band, spot.callsign);
  }
  void append(double time, double frequency, int mode, std::string_view band,
              std::string_view callsign);
  void clear() { *this = {}; }
  std::size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  // Removes every spot with time < cutoff, wherever it stands; one exactly at the cutoff stays. A
  // cutoff that is no number removes nothing. Throws nothing.
  // Cost: the spots removed, the intervals of the cutoff's own minute and, when one of them goes,
  // the spots of that minute.
  void pruneBefore(double cutoff);

  // Calls fn(const ParsedSpot&) for every spot with from <= time <= to, minute by minute ascending;
  // within a minute in the order of arrival. Bounds that are in the wrong order or no numbers
  // enclose nothing. `fn` must not change the queue; the spot lasts for the call only.
  // Cost: the spots in the minutes touched.
  template <typename Fn>
  void forEach(double from, double to, Fn&& fn) const {
    ParsedSpot shown;
    forEachMinute(from, to, [&](const Minute& minute) {
      for (const Spot& spot : minute.spots) {
        const Group& group = minute.groups[spot.group];
        if (!(group.time >= from && group.time <= to)) continue;
        const Channel& heard_on = channels_[group.channel];
        shown.time = group.time;
        shown.frequency = heard_on.frequency;
        shown.mode = heard_on.mode;
        shown.band = heard_on.band;
        shown.callsign = senders_[spot.sender];
        fn(static_cast<const ParsedSpot&>(shown));
      }
    });
  }

  // Calls fn(double time, std::uint32_t channel, std::uint64_t count) for every decode interval
  // with from <= time <= to, minute by minute ascending; within a minute in the order in which the
  // intervals were first heard of. `count`: its spots, one at least. Bounds and `fn` as above.
  // Cost: the intervals in the minutes touched.
  template <typename Fn>
  void forEachInterval(double from, double to, Fn&& fn) const {
    forEachMinute(from, to, [&](const Minute& minute) {
      for (const Group& group : minute.groups) {
        if (group.count == 0 || !(group.time >= from && group.time <= to)) continue;
        fn(group.time, group.channel, static_cast<std::uint64_t>(group.count));
      }
    });
  }

  // The channel that a visit named; valid, like its id, until the queue changes. Two ids may be of
  // one frequency and mode: where the caller gave it two bands, or wrote zero with a minus.
  const Channel& channel(std::uint32_t id) const { return channels_[id]; }
  // Above every channel id in use: the size of an array by channel.
  std::size_t channelIdEnd() const { return channels_.idEnd(); }

  // Channels and senders held, for those who watch memory.
  std::size_t channels() const { return channels_.size(); }
  std::size_t senders() const { return senders_.size(); }

 private:
  struct ChannelTraits {
    struct Key {
      double frequency;
      int mode;
      std::string_view band;
    };
    using Value = Channel;
    static std::uint32_t hash(const Key& key);
    static bool same(const Channel& channel, const Key& key);
    static Channel make(const Key& key);
  };
  using ChannelKey = ChannelTraits::Key;

  // A decode interval. One without spots is held until its minute goes: nothing shows it.
  struct Group {
    double time = 0;
    std::uint32_t channel = 0;
    std::uint32_t count = 0;
  };
  struct Spot {
    std::uint32_t group = 0;  // place in Minute::groups
    std::uint32_t sender = 0;
  };
  struct Minute {
    std::vector<Group> groups;
    std::vector<Spot> spots;
    FlatIndex by_interval;     // the places in `groups`
    std::uint32_t newest = 0;  // place of the group of the last spot
  };
  // Where the last spot went. Minutes are not shared, so neither a copy of a queue nor one whose
  // minutes were moved away knows.
  struct LastMinute {
    LastMinute() = default;
    LastMinute(const LastMinute& /*other*/) noexcept {}
    LastMinute(LastMinute&& other) noexcept { other.minute = nullptr; }
    LastMinute& operator=(LastMinute other) noexcept {
      std::swap(minute, other.minute);
      return *this;
    }
    ~LastMinute() = default;
    Minute* minute = nullptr;
  };

  template <typename Fn>
  void forEachMinute(double from, double to, Fn&& fn) const {
    if (!(from <= to)) return;
    const auto end = by_minute_.upper_bound(launcher::minuteOf(to));
    for (auto minute = by_minute_.lower_bound(launcher::minuteOf(from)); minute != end;) {
      const Minute& visited = (minute++)->second;
      // Minutes lie far apart in memory: the next one comes while this one is worked on.
      if (minute != end) prefetch(minute->second.groups);
      fn(visited);
    }
  }

  static void prefetch(const std::vector<Group>& groups) {
    constexpr std::size_t kGroupsOfCacheLine = 64 / sizeof(Group);
    for (std::size_t i = 0; i < groups.size(); i += kGroupsOfCacheLine) {
      __builtin_prefetch(&groups[i]);
    }
  }

  bool isOf(const Group& group, double time, const ChannelKey& key) const;
  bool goesOn(double time, const ChannelKey& key) const;
  std::uint32_t groupOf(Minute& minute, double time, const ChannelKey& key);
  std::uint32_t addGroup(Minute& minute, std::uint32_t hash, double time, const ChannelKey& key);
  void release(const Minute& minute);
  void pruneMinute(Minute& minute, double cutoff);

  std::map<std::int64_t, Minute> by_minute_;
  Interned<ChannelTraits> channels_;  // held by the groups
  Interned<TextTraits> senders_;      // held by the spots
  std::size_t size_ = 0;
  LastMinute last_;
};

}  // namespace spotserver
