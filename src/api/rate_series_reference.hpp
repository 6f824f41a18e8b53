// A little script language whose programs put the same additions, prunings and questions to the
// real index and to the flat list of its reference.
#pragma once

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "api/rate_index.hpp"
#include "api/rate_index_reference.hpp"
#include "api/rate_series.hpp"

namespace launcher {

// Runs one script against index and reference; every byte string is a script.
//   const std::string difference = RateScript(bytes).run();  // empty: they agree
// Times lie on a grid of 1/8 s, where double arithmetic is exact. Doubles of any kind at all go to
// an index of their own, which has no reference but must survive them.
class RateScript {
 public:
  explicit RateScript(std::span<const std::uint8_t> bytes) : bytes_(bytes) {}

  std::string run() {
    while (difference_.empty() && !bytes_.empty()) step();
    if (difference_.empty()) compareHoldings();
    return difference_;
  }

 private:
  static constexpr double kEpoch = 1'763'175'600;

  using Points = std::vector<RatePoint>;

  // What a question led to: points, or the text of an error.
  struct Outcome {
    Points points;
    std::string error;

    bool operator==(const Outcome& other) const {
      const auto same = [](const RatePoint& a, const RatePoint& b) {
        return a.t == b.t && a.rate == b.rate;
      };
      return error == other.error && std::equal(points.begin(), points.end(), other.points.begin(),
                                                other.points.end(), same);
    }

    std::string text() const {
      std::string lines = error + "\n";
      for (const RatePoint& point : points) {
        char line[80];
        std::snprintf(line, sizeof line, "  %.17g %.17g\n", point.t, point.rate.value_or(-1));
        lines += line;
      }
      return lines;
    }
  };

  void step() {
    switch (byte() % 16) {
      case 8:
        addReports();
        break;
      case 9:
        now_ += signedByte() * 7.5;
        break;
      case 10:
        now_ += signedByte() * 900.0;
        break;
      case 11:
        prune();
        break;
      case 12:
      case 13:
        compareRate();
        break;
      case 14:
        compareSeries();
        break;
      case 15:
        survive();
        break;
      default:
        add();
    }
  }

  void add() {
    const std::string_view source = someSource();
    double frequency = someFrequency();
    double length = someLength();
    double start = pastTime(length);
    double now = now_;
    const std::uint64_t count = byte() % 20;
    switch (byte()) {
      case 0:
        start = oddDouble();
        break;
      case 1:
        length = oddDouble();
        break;
      case 2:
        frequency = oddDouble();
        break;
      case 3:
        now = oddDouble();
        break;
      default:
        break;
    }
    addInterval(index_, source, count, now, start, length, frequency);
    reference_.add(source, count, now, start, length, frequency);
  }

  // One call for the index, interval by interval for the reference.
  void addReports() {
    std::vector<SourceReport> reports(1 + byte() % 3);
    for (SourceReport& report : reports) {
      report = {std::string(someSource()), someFrequency(), someLength(), {}};
      for (int slots = byte() % 6; slots > 0; --slots) {
        const double start = byte() == 0 ? oddDouble() : pastTime(report.length_s);
        report.slots.push_back({start, byte() % std::uint64_t{20}});
      }
    }
    addIntervals(index_, reports, now_);
    for (const SourceReport& report : reports) {
      for (const SlotCount& slot : report.slots) {
        reference_.add(report.source_key, slot.count, now_, slot.start, report.length_s,
                       report.frequency_hz);
      }
    }
  }

  void prune() {
    const std::uint8_t how = byte();
    const double now = how == 0 ? oddDouble() : now_ + (how - 128) * 60.0;
    pruneIndex(index_, now);
    reference_.prune(now);
    compareHoldings();
  }

  void compareRate() {
    const std::string_view band = someBand();
    const int smoothing = byte() % 43 - 1;
    const double t = pastTime(0);
    expectSame(
        [&] {
          return Points{{t, rateAt(index_, band, smoothing, t)}};
        },
        [&] {
          return Points{{t, reference_.rateAt(band, smoothing, t)}};
        });
  }

  void compareSeries() {
    static constexpr int kHours[] = {1, 1, 1, 1, 1, 1, 6, 24, 0, 2};
    const std::string_view band = someBand();
    const int smoothing = byte() % 43 - 1;
    const int hours = kHours[byte() % std::size(kHours)];
    const double now = std::floor(now_);
    if (std::exchange(hours_asked_, hours_asked_ + hours) > 30) return;  // keeps a script short
    expectSame([&] { return bandSeries(index_, band, smoothing, hours, now); },
               [&] { return reference_.series(band, smoothing, hours, now); });
  }

  void survive() {
    const double now = anyDouble();
    const double start = anyDouble();
    addInterval(odd_index_, "", 1, now, start, anyDouble(), anyDouble());
    addInterval(odd_index_, "", 1, start, start, 15, 14'074'000);
    const int smoothing = 1 + byte() % 40;
    const std::optional<double> rate = rateAt(odd_index_, "20m", smoothing, anyDouble());
    if (rate && !(*rate >= 0)) difference_ = "a rate below zero or not a number";
    for (const RatePoint& point : bandSeries(odd_index_, "20m", smoothing, 1, now)) {
      if (point.rate != rateAt(odd_index_, "20m", smoothing, point.t)) {
        difference_ = "a curve with a point that is not the rate then";
      }
    }
    if (byte() == 0) pruneIndex(odd_index_, anyDouble());
  }

  void compareHoldings() {
    const std::string held = ReferenceRates::text(index_);
    const std::string expected = reference_.text();
    if (held != expected) difference_ = "index holds\n" + held + "reference holds\n" + expected;
  }

  template <typename Real, typename Plain>
  void expectSame(Real real, Plain plain) {
    const Outcome answer = outcomeOf(real);
    const Outcome expected = outcomeOf(plain);
    if (answer == expected) return;
    difference_ = "index answers\n" + answer.text() + "reference answers\n" + expected.text();
  }

  template <typename Query>
  static Outcome outcomeOf(Query query) {
    try {
      return {query(), ""};
    } catch (const std::invalid_argument& error) {
      return {{}, error.what()};
    }
  }

  std::string_view someSource() {
    static constexpr std::string_view kSources[] = {"FT8/14.074000", "FT4/14.080000", ""};
    return kSources[byte() % std::size(kSources)];
  }

  double someFrequency() {
    static constexpr double kFrequencies[] = {14'074'000, 14'080'000,  7'074'000, 1'800'000,
                                              13'500'000, 450'000'001, 1e300};
    return kFrequencies[byte() % std::size(kFrequencies)];
  }

  double someLength() {
    static constexpr double kLengths[] = {15, 7.5, 10, 6, 30, 120, 0.5, 3600, 86'400};
    return kLengths[byte() % std::size(kLengths)];
  }

  std::string_view someBand() {
    static constexpr std::string_view kBands[] = {
        "20m", "20m", "40m", "160m", "13.500000 MHz", "450.000001 MHz", "6m", ""};
    return kBands[byte() % std::size(kBands)];
  }

  // A time on the grid, mostly a little before now; `length` lets an end fall around now + 1.
  double pastTime(double length) {
    switch (byte() % 8) {
      case 0:
        return now_ + 1 - length + signedByte() * 0.125;
      case 1:
        return now_ - kRetention + signedByte() * 0.5;
      case 2:
        return now_ - byte() * 256.0 - byte();
      case 3:
        return std::floor(now_ / 60) * 60 - (byte() % 16) * 60.0;
      case 4:
        return now_ + signedByte() * 60.0;
      default:
        return now_ - length - byte() * 7.5;
    }
  }

  double oddDouble() {
    static constexpr double kOdd[] = {std::numeric_limits<double>::quiet_NaN(),
                                      std::numeric_limits<double>::infinity(),
                                      -std::numeric_limits<double>::infinity(), 0, -15};
    return kOdd[byte() % std::size(kOdd)];
  }

  double anyDouble() {
    std::uint64_t bits = 0;
    for (int i = 0; i < 8; ++i) bits = bits << 8 | byte();
    return std::bit_cast<double>(bits);
  }

  int signedByte() { return static_cast<std::int8_t>(byte()); }

  std::uint8_t byte() {
    if (bytes_.empty()) return 0;
    const std::uint8_t first = bytes_.front();
    bytes_ = bytes_.subspan(1);
    return first;
  }

  std::span<const std::uint8_t> bytes_;
  double now_ = kEpoch;
  BandRateIndex index_;
  ReferenceRates reference_;
  BandRateIndex odd_index_;
  int hours_asked_ = 0;
  std::string difference_;
};

}  // namespace launcher
