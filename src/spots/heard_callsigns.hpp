// Who was heard in the last day: the time each callsign was last heard, on any band and on each.
//
// Every log line asks here and every answer counts here, so times lie in flat arrays: asking costs
// two look-ups and no memory, counting is one pass over numbers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "spots/flat_index.hpp"
#include "spots/interned.hpp"

namespace spotserver {

// Times are UTC epoch seconds and never not-a-number. Not synchronised; a plain value.
//
//   HeardCallsigns heard;
//   heard.record("N0CALL", heard.band("20m"), now - 15);
//   heard.countSince(now - 3600)         // 1
//   heard.countSince("40m", now - 3600)  // 0
//   heard.pruneBefore(now - launcher::kRetention);
class HeardCallsigns {
 public:
  // The callsigns of one band, by the number each has over all bands.
  struct Band {
    std::vector<std::uint32_t> callsigns;
    std::vector<double> last_heard;  // of the callsign at the same place
    FlatIndex places;                // by callsign
  };

  // The band with this id, from now on if it is new. Valid until the next pruning, clearing or
  // copying. Throws std::bad_alloc.
  Band& band(std::string_view id);

  // Records that `callsign` was heard at `time` on `band`; a later time already known stays.
  // Throws std::bad_alloc, possibly after half the work; recording the same again is no harm.
  void record(std::string_view callsign, Band& band, double time) {
    recordNumber(remember(callsign, time), band, time);
  }

  // The same if the callsign counts. counts() is asked once for each callsign, then its verdict is
  // remembered until forgetVerdicts, or until the callsign leaves. Returns the verdict.
  template <typename Counts>
  bool recordIf(Counts&& counts, std::string_view callsign, Band& band, double time) {
    const std::uint32_t number = remember(callsign, time);
    if (known_[number].verdict == Verdict::kUnknown) {
      known_[number].verdict = counts() ? Verdict::kCounts : Verdict::kDoesNot;
    }
    if (known_[number].verdict != Verdict::kCounts) return false;
    recordNumber(number, band, time);
    return true;
  }
  // What was recorded stays. Cost: one look at every callsign.
  void forgetVerdicts() noexcept;

  // Callsigns last heard at `since` or later, on any band or on the one with this id.
  std::uint64_t countSince(double since) const;
  std::uint64_t countSince(std::string_view band, double since) const;

  // Removes what was last heard before the cutoff, remembered verdicts included, and bands left
  // without a callsign. Throws nothing. Cost: one look at every time.
  void pruneBefore(double cutoff) noexcept;
  // For a clock that was ahead: forgets on each band the callsigns last heard there after `time`.
  // Throws nothing. Cost: as pruneBefore.
  void forgetAfter(double time) noexcept;
  void clear() { *this = {}; }

  // Callsigns remembered, whether they count or not, and bands: for those who watch memory.
  std::size_t remembered() const { return names_.size(); }
  std::size_t bands() const { return bands_.size(); }

  // Calls fn(std::string_view callsign, double last_heard) for each, in no particular order.
  template <typename Fn>
  void forEach(Fn&& fn) const {
    for (std::uint32_t number = 0; number < last_heard_.size(); ++number) {
      const double time = last_heard_[number];
      if (time == time) fn(std::string_view(names_[number]), time);
    }
  }
  // Calls fn(std::string_view band, std::string_view callsign, double last_heard) for each.
  template <typename Fn>
  void forEachOnBands(Fn&& fn) const {
    for (const auto& [id, band] : bands_) {
      for (std::size_t i = 0; i < band.callsigns.size(); ++i) {
        fn(std::string_view(id), std::string_view(names_[band.callsigns[i]]), band.last_heard[i]);
      }
    }
  }

 private:
  static constexpr double kNever = std::numeric_limits<double>::quiet_NaN();  // >= nothing

  enum class Verdict : std::uint8_t { kUnknown, kCounts, kDoesNot };
  struct Known {
    double last_seen = kNever;  // no earlier than when it was heard; kNever: the number is free
    Verdict verdict = Verdict::kUnknown;
  };

  std::uint32_t remember(std::string_view callsign, double time);
  void recordNumber(std::uint32_t number, Band& band, double time);
  void forget(std::uint32_t number) noexcept;

  Interned<TextTraits> names_;      // a callsign's id is its number; each is held once
  std::vector<double> last_heard_;  // by number; kNever where it did not count or is free
  std::vector<Known> known_;        // by number
  std::map<std::string, Band, std::less<>> bands_;
};

}  // namespace spotserver
