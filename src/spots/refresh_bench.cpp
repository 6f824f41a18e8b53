// A refresh as the store's lock is held for it, on a day of three million lines of the sample
// station: with nothing new, and with a hundred new lines. And the first one, of days with more and
// more lines.
#include <cstdint>
#include <ctime>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "sample_log.hpp"
#include "spots/refresh.hpp"
#include "temp_dir.hpp"

namespace spotserver {
namespace {

constexpr double kEnd = 1'742'000'000;  // of the sample log
constexpr std::int64_t kLines = 3'000'000;

// A log on disk and the data that was read from it.
class BusyDay {
 public:
  explicit BusyDay(std::int64_t lines = kLines) : log_(dir_.path("ALL.TXT"), std::ios::binary) {
    log_ << sampleLog(static_cast<std::uint64_t>(lines)) << std::flush;
    data.all_txt_path = dir_.path("ALL.TXT");
    refresh(kEnd);
  }
  void append(const std::string& lines) { log_ << lines << std::flush; }
  void refresh(double now) { refreshSpots(data, now, 0); }

  SpotData data;

 private:
  TempDir dir_;
  std::ofstream log_;
};

// A hundred decodes of four channels at `time`.
std::string hundredLines(double time) {
  const auto seconds = static_cast<std::time_t>(time);
  std::tm date{};
  gmtime_r(&seconds, &date);
  char stamp[16];
  std::strftime(stamp, sizeof stamp, "%y%m%d_%H%M%S", &date);
  std::string lines;
  for (int i = 0; i < 100; ++i) {
    const char* const dials[] = {"7.074", "10.136", "14.074", "21.074"};
    lines += stamp + std::string(" ") + dials[i / 25] + " Rx FT8 -12 0.2 1234 CQ N" +
             std::to_string(i % 10) + "CALL FN42\n";
  }
  return lines;
}

void BM_FirstRefresh(benchmark::State& state) {
  static std::map<std::int64_t, BusyDay> days;
  const BusyDay& day = days.try_emplace(state.range(0), state.range(0)).first->second;
  for (auto _ : state) {
    SpotData data;
    data.all_txt_path = day.data.all_txt_path;
    refreshSpots(data, kEnd, 0);
    benchmark::DoNotOptimize(data.spots.size());
  }
  state.SetComplexityN(state.range(0));
}
BENCHMARK(BM_FirstRefresh)
    ->Arg(375'000)
    ->Arg(750'000)
    ->Arg(1'500'000)
    ->Arg(3'000'000)
    ->Unit(benchmark::kMillisecond)
    ->Complexity(benchmark::oN);

// The clock stands still, so nothing grows old.
void BM_NothingNew(benchmark::State& state) {
  BusyDay day;
  for (auto _ : state) day.refresh(kEnd);
  state.counters["held"] = static_cast<double>(day.data.spots.size());
}
BENCHMARK(BM_NothingNew)->Unit(benchmark::kMicrosecond);

// The clock goes on by fifteen seconds, so a slot of every channel grows old. Once a minute all
// callsigns are looked through; that is in the mean.
void BM_NothingNewLater(benchmark::State& state) {
  BusyDay day;
  double now = kEnd;
  for (auto _ : state) day.refresh(now += 15);
}
BENCHMARK(BM_NothingNewLater)->Unit(benchmark::kMicrosecond)->Iterations(1'000);

void BM_HundredNewLines(benchmark::State& state) {
  BusyDay day;
  double now = kEnd;
  for (auto _ : state) {
    state.PauseTiming();
    day.append(hundredLines(now += 15));
    state.ResumeTiming();
    day.refresh(now);
  }
  state.counters["held"] = static_cast<double>(day.data.spots.size());
}
BENCHMARK(BM_HundredNewLines)->Unit(benchmark::kMicrosecond)->Iterations(1'000);

}  // namespace
}  // namespace spotserver
