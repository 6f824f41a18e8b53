// What the store's lock is held for when an answer is computed anew, on a busy day of the sample
// station: three million lines, from the log and from the history. Beside it the plain way to group
// the log into intervals.
#include <cstdint>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include <benchmark/benchmark.h>

#include "api/activity.hpp"
#include "api/band_plan.hpp"
#include "history/history_window.hpp"
#include "spots/mode.hpp"
#include "station_day.hpp"

namespace spotserver {
namespace {

constexpr station::Tick kEnd = 2 * std::int64_t{1'763'175'617};
constexpr double kNow = static_cast<double>(kEnd) / 2;
constexpr station::Tick kDay = 86'400 * station::kTicksPerSecond;
constexpr std::uint64_t kLines = 3'000'000;

void everySlot(const station::SlotHandler& handle) {
  station::Day({.seed = 1, .begin = kEnd - kDay, .end = kEnd, .lines = kLines}).run(kEnd, handle);
}

double secondsOf(station::Tick tick) {
  return static_cast<double>(tick) / station::kTicksPerSecond;
}

SpotData dayOfLog() {
  SpotData data;
  everySlot([&](const station::Slot& slot) {
    const auto dial = static_cast<double>(slot.receiver.dial_hz);
    const std::string band = launcher::bandForFrequency(dial).id;
    for (std::uint64_t i = 0; i < slot.decodes; ++i) {
      data.spots.append({secondsOf(slot.start / 2 * 2), dial, slot.receiver.mode, band, ""});
    }
  });
  return data;
}

SpotData dayOfHistory() {
  std::vector<HistoryObservation> seen;
  everySlot([&](const station::Slot& slot) {
    if (!slot.listened) return;
    seen.push_back({.receiver = slot.receiver.name(),
                    .mode = std::string(modeName(slot.receiver.mode)),
                    .frequency = static_cast<double>(slot.receiver.dial_hz),
                    .start = secondsOf(slot.start),
                    .count = slot.decodes});
  });
  std::stable_sort(seen.begin(), seen.end(),
                   [](const auto& a, const auto& b) { return a.start < b.start; });
  SpotData data;
  mergeHistory(data, slotsOf(seen), kNow - launcher::kRetention, kNow);
  return data;
}

void BM_AnswerFromLog(benchmark::State& state) {
  static const SpotData data = dayOfLog();
  for (auto _ : state) {
    benchmark::DoNotOptimize(buildActivity(data, static_cast<int>(state.range(0)), 3, kNow));
  }
}
BENCHMARK(BM_AnswerFromLog)->Arg(1)->Arg(6)->Arg(24)->Unit(benchmark::kMicrosecond);

void BM_AnswerFromHistory(benchmark::State& state) {
  static const SpotData data = dayOfHistory();
  for (auto _ : state) {
    benchmark::DoNotOptimize(buildActivity(data, static_cast<int>(state.range(0)), 3, kNow));
  }
}
BENCHMARK(BM_AnswerFromHistory)->Arg(1)->Arg(6)->Arg(24)->Unit(benchmark::kMicrosecond);

// Spots of `frequencies` dial frequencies outside every band, a million lines in all. The cost must
// grow with the points of the answer, no faster.
void BM_OffPlanFrequencies(benchmark::State& state) {
  const auto frequencies = static_cast<int>(state.range(0));
  constexpr int kOffPlanLines = 1'000'000;
  SpotData data;
  for (int line = 0; line < kOffPlanLines; ++line) {
    const double dial = 200'000'000 + 1'000.0 * (line % frequencies);
    const double time = kNow - 86'400 + line / frequencies * 15.0;
    data.spots.append({time, dial, kFt8, launcher::bandForFrequency(dial).id, ""});
  }
  for (auto _ : state) benchmark::DoNotOptimize(buildActivity(data, 24, 3, kNow));
  state.SetComplexityN(state.range(0));
}
BENCHMARK(BM_OffPlanFrequencies)
    ->Arg(720)
    ->Arg(1'440)
    ->Arg(2'880)
    ->Arg(5'760)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3)
    ->Complexity(benchmark::oN);

}  // namespace
}  // namespace spotserver
