// Counting the callsigns last heard since some time, of 20,000 on each of 12 bands: 240,000 entries
// in flat arrays, and in maps by callsign. Recording one that is known, too.
#include <cstdint>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "allocations.hpp"
#include "api/band_plan.hpp"
#include "spots/heard_callsigns.hpp"
#include "spots/heard_callsigns_reference.hpp"

namespace {

using namespace spotserver;

constexpr std::size_t kCallsigns = 20'000;
constexpr std::size_t kBands = 12;
constexpr double kNow = 1'763'175'600;
constexpr double kDay = 86'400;

const std::vector<std::string>& callsigns() {
  static const std::vector<std::string> all = [] {
    std::vector<std::string> made;
    for (std::size_t i = 0; i < kCallsigns; ++i) made.push_back("N" + std::to_string(i) + "AB");
    return made;
  }();
  return all;
}

double heardAt(std::size_t callsign, std::size_t band) {
  return kNow - static_cast<double>((callsign * 7919 + band * 104'729) % 86'400);
}

// Calls record(callsign, band id, time) for every entry.
template <typename Record>
void everyEntry(Record&& record) {
  for (std::size_t band = 0; band < kBands; ++band) {
    for (std::size_t i = 0; i < kCallsigns; ++i) {
      record(callsigns()[i], launcher::bandTable()[band].id, heardAt(i, band));
    }
  }
}

// Counts since half a day ago on every band and over all, as an answer does.
template <typename Heard>
void countAll(benchmark::State& state, const Heard& heard) {
  std::uint64_t count = 0;
  const auto before = allocations();
  for (auto _ : state) {
    count = heard.countSince(kNow - kDay / 2);
    for (std::size_t band = 0; band < kBands; ++band) {
      count += heard.countSince(launcher::bandTable()[band].id, kNow - kDay / 2);
    }
    benchmark::DoNotOptimize(count);
  }
  state.counters["allocations"] = static_cast<double>(allocations() - before);
  state.counters["counted"] = static_cast<double>(count);
}

HeardCallsigns heardOfDay() {
  HeardCallsigns heard;
  everyEntry([&](const std::string& callsign, const std::string& band, double time) {
    heard.record(callsign, heard.band(band), time);
  });
  return heard;
}

void countHeard(benchmark::State& state) {
  static const HeardCallsigns heard = heardOfDay();
  countAll(state, heard);
}
BENCHMARK(countHeard)->Unit(benchmark::kMicrosecond);

void countHeardInMaps(benchmark::State& state) {
  PlainHeard heard;
  everyEntry([&](const std::string& callsign, const std::string& band, double time) {
    heard.record(callsign, band, time);
  });
  countAll(state, heard);
}
BENCHMARK(countHeardInMaps)->Unit(benchmark::kMicrosecond);

void recordKnown(benchmark::State& state) {
  HeardCallsigns heard = heardOfDay();
  HeardCallsigns::Band& band = heard.band("20m");
  std::size_t i = 0;
  const auto before = allocations();
  for (auto _ : state) heard.record(callsigns()[i++ * 7919 % kCallsigns], band, kNow);
  state.counters["allocations"] = static_cast<double>(allocations() - before);
}
BENCHMARK(recordKnown);

// Once a minute: everything is looked through and nothing has to go.
void pruneNothing(benchmark::State& state) {
  HeardCallsigns heard = heardOfDay();
  for (auto _ : state) heard.pruneBefore(kNow - kDay - 1);
}
BENCHMARK(pruneNothing)->Unit(benchmark::kMicrosecond);

}  // namespace
