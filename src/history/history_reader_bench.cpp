// Reading the receivers' history: the whole day of the sample station, as the first refresh does,
// and a day and five minutes of 13 channels. Beside each the same with a record of its own for
// every slot.
#include <cstdint>
#include <string>

#include <benchmark/benchmark.h>

#include "api/band_plan.hpp"
#include "api/rate_index.hpp"
#include "history/history_reader.hpp"
#include "history_file.hpp"
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

// 24 h 45 min of one FT8 receiver on each of the 13 bands, with an index on minute.
class ThirteenChannels {
 public:
  ThirteenChannels() {
    HistoryFile file(path);
    file.exec("CREATE INDEX by_minute ON minutes(minute)");
    file.exec("BEGIN");
    const std::int64_t last = launcher::minuteOf(kNow);
    for (std::int64_t minute = last - 1485; minute <= last; ++minute) {
      for (const launcher::BandInfo& band : launcher::bandTable()) {
        file.add({.receiver = "RX " + band.id,
                  .frequency = static_cast<std::int64_t>(band.low_hz),
                  .minute = minute});
      }
    }
    file.exec("COMMIT");
  }

 private:
  TempDir dir_;

 public:
  const std::string path = dir_.path("history.sqlite3");
};

// Calls read(path, from, to) for the last so many seconds.
template <typename Read>
void thirteenChannels(benchmark::State& state, Read read) {
  static const ThirteenChannels day;
  const double from = kNow - static_cast<double>(state.range(0));
  std::size_t slots = 0;
  for (auto _ : state) slots = read(day.path, from, kNow);
  state.counters["slots"] = static_cast<double>(slots);
}

void BM_ThirteenChannels(benchmark::State& state) {
  thirteenChannels(state, [](const std::string& path, double from, double to) {
    return readHistorySlots(path, from, to).slots.size();
  });
}
BENCHMARK(BM_ThirteenChannels)->Arg(89'100)->Arg(300)->Unit(benchmark::kMicrosecond);

void BM_ThirteenChannelsAsObservations(benchmark::State& state) {
  thirteenChannels(state, [](const std::string& path, double from, double to) {
    return readHistory(path, from, to).size();
  });
}
BENCHMARK(BM_ThirteenChannelsAsObservations)->Arg(89'100)->Arg(300)->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace spotserver
