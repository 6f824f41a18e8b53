// Reading a whole day of the receivers' history, that of the sample station, as the first refresh
// does. Beside it the same with a record of its own for every slot.
#include <cstdint>
#include <string>

#include <benchmark/benchmark.h>

#include "api/rate_index.hpp"
#include "history/history_reader.hpp"
#include "station_day.hpp"
#include "station_history.hpp"
#include "temp_dir.hpp"

namespace spotserver {
namespace {

constexpr station::Tick kEnd = 2 * std::int64_t{1'763'175'617};
constexpr double kNow = static_cast<double>(kEnd) / 2;

class StationDay {
 public:
  StationDay() {
    const station::Tick begin = kEnd - station::kTicksPerSecond * std::int64_t{89'100};
    station::History history(path);
    station::Day({.seed = 1, .begin = begin, .end = kEnd}).run(kEnd, [&](const auto& slot) {
      history.record(slot);
    });
    history.commit();
  }

 private:
  TempDir dir_;

 public:
  const std::string path = dir_.path("history.sqlite3");
};

void BM_DayOfSlots(benchmark::State& state) {
  static const StationDay day;
  for (auto _ : state) {
    benchmark::DoNotOptimize(readHistorySlots(day.path, kNow - launcher::kRetention, kNow));
  }
}
BENCHMARK(BM_DayOfSlots)->Unit(benchmark::kMillisecond);

void BM_DayOfObservations(benchmark::State& state) {
  static const StationDay day;
  for (auto _ : state) {
    benchmark::DoNotOptimize(readHistory(day.path, kNow - launcher::kRetention, kNow));
  }
}
BENCHMARK(BM_DayOfObservations)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace spotserver
