// The curves of the 13 bands over 24 hours, five minutes of smoothing: one walk over the intervals
// against a window scanned for every sample. First one receiver a band, then all modes on each.
#include <cstdint>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "api/band_plan.hpp"
#include "api/rate_index.hpp"
#include "api/rate_series.hpp"
#include "spots/mode.hpp"

namespace launcher {
namespace {

constexpr double kNow = 1'763'175'617;

std::vector<SourceReport> reports(int modes) {
  std::vector<SourceReport> all;
  for (const BandInfo& band : bandTable()) {
    for (int mode = 0; mode < modes; ++mode) {
      const double length = spotserver::slotSeconds(mode);
      SourceReport report{
          channelKey(spotserver::modeName(mode), band.low_hz), band.low_hz, length, {}};
      for (double start = kNow - 86'400; start + length <= kNow; start += length) {
        report.slots.push_back({start, static_cast<std::uint64_t>(start) % 17});
      }
      all.push_back(std::move(report));
    }
  }
  return all;
}

BandRateIndex indexOf(int modes) {
  BandRateIndex index;
  addIntervals(index, reports(modes), kNow);
  return index;
}

void BM_Curves(benchmark::State& state) {
  const BandRateIndex index = indexOf(static_cast<int>(state.range(0)));
  for (auto _ : state) {
    for (const BandInfo& band : bandTable()) {
      benchmark::DoNotOptimize(bandSeries(index, band.id, 5, 24, kNow));
    }
  }
}
BENCHMARK(BM_Curves)->Arg(1)->Arg(4)->Arg(7)->Unit(benchmark::kMicrosecond);

void BM_CurvesBySample(benchmark::State& state) {
  const BandRateIndex index = indexOf(static_cast<int>(state.range(0)));
  for (auto _ : state) {
    for (const BandInfo& band : bandTable()) {
      for (double t = kNow - 86'400; t <= kNow; t += 60) {
        benchmark::DoNotOptimize(rateAt(index, band.id, 5, t));
      }
    }
  }
}
BENCHMARK(BM_CurvesBySample)->Arg(1)->Arg(4)->Arg(7)->Unit(benchmark::kMicrosecond);

void BM_AddIntervals(benchmark::State& state) {
  const std::vector<SourceReport> day = reports(static_cast<int>(state.range(0)));
  std::int64_t slots = 0;
  for (const SourceReport& report : day) slots += std::ssize(report.slots);
  for (auto _ : state) {
    BandRateIndex index;
    addIntervals(index, day, kNow);
    benchmark::DoNotOptimize(index.size());
  }
  state.SetItemsProcessed(slots * static_cast<std::int64_t>(state.iterations()));
}
BENCHMARK(BM_AddIntervals)->Arg(1)->Arg(4)->Arg(7)->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace launcher
