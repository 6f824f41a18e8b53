#include "spots/heard_callsigns.hpp"

#include <utility>

namespace spotserver {
namespace {

void raise(double& time, double to) {
  if (!(time >= to)) time = to;  // so that kNever is raised
}

// A hash that no two callsigns share, so that the index alone tells them apart. Times an odd number
// spreads those that were heard first, and so on every band, over the whole index.
std::uint32_t hashOf(std::uint32_t number) { return number * 0x9e3779b1; }

// A loop without a branch, so that a quarter of a million times take a tenth of a millisecond.
std::uint64_t countFrom(const std::vector<double>& times, double since) {
  std::uint64_t count = 0;
  for (const double time : times) count += time >= since ? 1 : 0;
  return count;
}

// The room is made before anything is changed.
void add(HeardCallsigns::Band& band, std::uint32_t number, double time) {
  const std::size_t size = band.callsigns.size();
  band.places.reserve(size + 1);
  if (band.last_heard.capacity() == size) band.last_heard.reserve(2 * size + 1);
  band.callsigns.push_back(number);
  band.last_heard.push_back(time);
  band.places.insert(hashOf(number), static_cast<std::uint32_t>(size));
}

// The last one takes the place of the one that goes.
void removeAt(HeardCallsigns::Band& band, std::uint32_t place) noexcept {
  const auto last = static_cast<std::uint32_t>(band.callsigns.size() - 1);
  band.places.erase(hashOf(band.callsigns[place]), place);
  if (place != last) {
    band.places.renumber(hashOf(band.callsigns[last]), last, place);
    band.callsigns[place] = band.callsigns[last];
    band.last_heard[place] = band.last_heard[last];
  }
  band.callsigns.pop_back();
  band.last_heard.pop_back();
}

// Removes the places of which goes(band, place) is true, and the bands that are empty then.
template <typename Bands, typename Goes>
void removeIf(Bands& bands, Goes&& goes) noexcept {
  for (auto& [id, band] : bands) {
    for (auto place = static_cast<std::uint32_t>(band.callsigns.size()); place-- > 0;) {
      if (goes(band, place)) removeAt(band, place);
    }
  }
  std::erase_if(bands, [](const auto& band) { return band.second.callsigns.empty(); });
}

}  // namespace

HeardCallsigns::Band& HeardCallsigns::band(std::string_view id) {
  const auto known = bands_.find(id);
  return known != bands_.end() ? known->second : bands_.emplace(id, Band{}).first->second;
}

// The number of a callsign that was seen at `time`.
std::uint32_t HeardCallsigns::remember(std::string_view callsign, double time) {
  std::uint32_t number = names_.find(callsign);
  if (number == names_.kNone) {
    if (names_.size() == known_.size()) {  // no number is free
      last_heard_.resize(known_.size() + 1, kNever);
      known_.resize(known_.size() + 1);
    }
    number = names_.acquire(callsign);
  }
  raise(known_[number].last_seen, time);
  return number;
}

void HeardCallsigns::recordNumber(std::uint32_t number, Band& band, double time) {
  raise(last_heard_[number], time);
  const auto any = [](std::uint32_t) { return true; };  // the hash is unique
  const std::uint32_t place = band.places.find(hashOf(number), any);
  if (place == FlatIndex::kNone) {
    add(band, number, time);
  } else {
    raise(band.last_heard[place], time);
  }
}

void HeardCallsigns::forgetVerdicts() noexcept {
  for (Known& known : known_) known.verdict = Verdict::kUnknown;
}

std::uint64_t HeardCallsigns::countSince(double since) const {
  return countFrom(last_heard_, since);
}

std::uint64_t HeardCallsigns::countSince(std::string_view band, double since) const {
  const auto found = bands_.find(band);
  return found == bands_.end() ? 0 : countFrom(found->second.last_heard, since);
}

// A callsign is on no band later than it was seen, so its number is free for another one when it
// goes.
void HeardCallsigns::pruneBefore(double cutoff) noexcept {
  removeIf(bands_, [cutoff](const Band& band, std::uint32_t place) {
    return band.last_heard[place] < cutoff;
  });
  for (std::uint32_t number = 0; number < known_.size(); ++number) {
    if (last_heard_[number] < cutoff) last_heard_[number] = kNever;
    if (known_[number].last_seen < cutoff) forget(number);
  }
}

void HeardCallsigns::forgetAfter(double time) noexcept {
  removeIf(bands_,
           [time](const Band& band, std::uint32_t place) { return band.last_heard[place] > time; });
  for (double& last_heard : last_heard_) {
    if (last_heard > time) last_heard = kNever;
  }
  for (const auto& [id, band] : bands_) {
    for (std::size_t place = 0; place < band.callsigns.size(); ++place) {
      double& last_heard = last_heard_[band.callsigns[place]];
      if (!(last_heard >= band.last_heard[place])) last_heard = band.last_heard[place];
    }
  }
  for (std::uint32_t number = 0; number < known_.size(); ++number) {
    double& last_seen = known_[number].last_seen;
    if (!(last_seen > time)) continue;
    if (last_heard_[number] <= time) {
      last_seen = last_heard_[number];
    } else {
      forget(number);
    }
  }
}

// On no band any more.
void HeardCallsigns::forget(std::uint32_t number) noexcept {
  last_heard_[number] = kNever;
  known_[number] = {};
  names_.release(number);
}

}  // namespace spotserver
