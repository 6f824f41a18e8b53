// Taking in a day of three million spots: packed as they arrive, and as records in a list with the
// intervals grouped by a map whenever somebody asks. What the queue then gives to an answer, and
// the bytes it holds.
#include <cstdint>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include <benchmark/benchmark.h>
#include <malloc.h>

#include "allocations.hpp"
#include "sample_log.hpp"
#include "spots/all_txt.hpp"
#include "spots/spot_queue.hpp"

namespace {

using namespace spotserver;

constexpr std::uint64_t kLines = 3'000'000;
constexpr double kEver = 1e12;

// The spots of the sample station's day, in the order of its log.
const std::vector<AllTxtRecord>& day() {
  static const std::vector<AllTxtRecord> records = [] {
    std::vector<AllTxtRecord> all;
    const std::string log = sampleLog(kLines);
    for (const std::string_view line : linesOf(log)) {
      if (auto record = parseAllTxtLine(line)) all.push_back(std::move(*record));
    }
    return all;
  }();
  return records;
}

SpotQueue queueOfDay() {
  SpotQueue queue;
  for (const auto& one : day()) {
    queue.append(one.time, one.frequency, one.mode, "20m", one.callsign);
  }
  return queue;
}

void appendDay(benchmark::State& state) {
  day();
  for (auto _ : state) {
    const std::size_t bytes = mallinfo2().uordblks + mallinfo2().hblkhd;
    const auto before = allocations();
    const SpotQueue queue = queueOfDay();
    const auto spots = static_cast<double>(queue.size());
    state.counters["allocations"] = static_cast<double>(allocations() - before) / spots;
    state.counters["bytes"] =
        static_cast<double>(mallinfo2().uordblks + mallinfo2().hblkhd - bytes) / spots;
  }
}
BENCHMARK(appendDay)->Unit(benchmark::kMillisecond);

void groupDay(benchmark::State& state) {
  static const SpotQueue queue = queueOfDay();
  for (auto _ : state) {
    std::uint64_t intervals = 0;
    std::uint64_t spots = 0;
    queue.forEachInterval(-kEver, kEver, [&](double, std::uint32_t, std::uint64_t count) {
      ++intervals;
      spots += count;
    });
    benchmark::DoNotOptimize(spots);
    state.counters["intervals"] = static_cast<double>(intervals);
  }
}
BENCHMARK(groupDay)->Unit(benchmark::kMillisecond);

void groupDayByMap(benchmark::State& state) {
  for (auto _ : state) {
    std::map<std::tuple<double, double, int>, std::uint64_t> intervals;
    for (const auto& one : day()) ++intervals[{one.time, one.frequency, one.mode}];
    state.counters["intervals"] = static_cast<double>(intervals.size());
  }
}
BENCHMARK(groupDayByMap)->Unit(benchmark::kMillisecond);

// What leaves in fifteen seconds of a full day.
void pruneSlot(benchmark::State& state) {
  SpotQueue queue = queueOfDay();
  double cutoff = day().front().time;
  for (auto _ : state) queue.pruneBefore(cutoff += 15);
  state.counters["left"] = static_cast<double>(queue.size());
}
BENCHMARK(pruneSlot)->Unit(benchmark::kMicrosecond)->Iterations(1'000);

}  // namespace
