// Giving an answer of 24 hours and 13 bands once more, as it is and compressed. Beside them what
// compressing its text every time would cost.
#include <cstdint>
#include <string>

#include <benchmark/benchmark.h>

#include "allocations.hpp"
#include "api/activity_answer.hpp"
#include "api/activity_document.hpp"
#include "day_snapshot.hpp"
#include "server/gzip.hpp"

namespace {

using namespace spotserver;

constexpr double kLater = kDaySnapshotEnd + 15;

template <typename Give>
void giveAgain(benchmark::State& state, Give give) {
  const ActivityAnswer answer(daySnapshot());
  std::size_t size = give(answer).size();
  std::uint64_t taken = 0;
  for (auto _ : state) {
    const auto before = allocations();
    const std::string text = give(answer);
    taken = allocations() - before;
    size = text.size();
  }
  state.counters["bytes"] = static_cast<double>(size);
  state.counters["allocations"] = static_cast<double>(taken);
}

void givePlain(benchmark::State& state) {
  giveAgain(state, [](const ActivityAnswer& answer) { return answer.document(kLater); });
}
BENCHMARK(givePlain)->Unit(benchmark::kMicrosecond);

void giveCompressed(benchmark::State& state) {
  giveAgain(state, [](const ActivityAnswer& answer) { return *answer.gzippedDocument(kLater); });
}
BENCHMARK(giveCompressed)->Unit(benchmark::kMicrosecond);

void compressAnew(benchmark::State& state) {
  const std::string tail = documentTail(daySnapshot());
  for (auto _ : state) benchmark::DoNotOptimize(deflate_tail(tail));
}
BENCHMARK(compressAnew)->Unit(benchmark::kMicrosecond);

}  // namespace
