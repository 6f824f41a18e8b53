// Taking a window of the receivers' history into the store, as a refresh does under the store's
// lock: the first time a whole day, then the last five minutes of a database with 2, 10 and 30 days
// and 100 channels and an index on minute.
#include <cstdint>
#include <map>
#include <string>

#include <benchmark/benchmark.h>

#include "history/history_window.hpp"
#include "history_file.hpp"
#include "temp_dir.hpp"

namespace spotserver {
namespace {

constexpr double kNow = 1'763'175'617;

// So many days of 100 channels, one row a minute each, with an index on minute.
class LongHistory {
 public:
  explicit LongHistory(std::int64_t days) {
    HistoryFile file(path);
    file.exec("CREATE INDEX by_minute ON minutes(minute)");
    file.exec("WITH RECURSIVE m(i) AS (SELECT 0 UNION ALL SELECT i+1 FROM m WHERE i<" +
              std::to_string(days * 1440 - 1) +
              "), "
              "c(k) AS (SELECT 0 UNION ALL SELECT k+1 FROM c WHERE k<99) "
              "INSERT INTO minutes SELECT 'receiver '||k,1800000+k*280000,'FT8'," +
              std::to_string(launcher::minuteOf(kNow)) + "-i,15,zeroblob(64) FROM m,c");
  }

 private:
  TempDir dir_;

 public:
  const std::string path = dir_.path("history.sqlite3");
};

// Made once for each number of days.
const std::string& historyOf(std::int64_t days) {
  static std::map<std::int64_t, LongHistory> made;
  return made.try_emplace(days, days).first->second.path;
}

void BM_FirstDay(benchmark::State& state) {
  const std::string& path = historyOf(state.range(0));
  for (auto _ : state) {
    SpotData data;
    data.history_path = path;
    readHistoryWindow(data, kNow - launcher::kRetention, kNow);
    benchmark::DoNotOptimize(data.intervals.size());
  }
}
BENCHMARK(BM_FirstDay)->Arg(2)->Arg(30)->Unit(benchmark::kMillisecond);

void BM_LastFiveMinutes(benchmark::State& state) {
  SpotData data;
  data.history_path = historyOf(state.range(0));
  readHistoryWindow(data, kNow - launcher::kRetention, kNow);
  for (auto _ : state) readHistoryWindow(data, kNow - 300, kNow);
  state.counters["held"] = static_cast<double>(data.intervals.size());
}
BENCHMARK(BM_LastFiveMinutes)->Arg(2)->Arg(10)->Arg(30)->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace spotserver
