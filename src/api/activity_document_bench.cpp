// Writing the document of 24 hours and 13 bands, and writing it the plain way.
#include <cstdint>
#include <string>

#include <benchmark/benchmark.h>

#include "allocations.hpp"
#include "api/activity_document.hpp"
#include "api/activity_document_reference.hpp"
#include "day_snapshot.hpp"

namespace {

using namespace spotserver;

template <typename Write>
void writeDay(benchmark::State& state, Write write) {
  const ActivitySnapshot day = daySnapshot();
  std::uint64_t taken = 0;
  std::size_t size = 0;
  for (auto _ : state) {
    const auto before = allocations();
    const std::string text = write(day);
    taken = allocations() - before;
    size = text.size();
  }
  state.counters["bytes"] = static_cast<double>(size);
  state.counters["allocations"] = static_cast<double>(taken);
}

void writeDocument(benchmark::State& state) { writeDay(state, activityDocument); }
BENCHMARK(writeDocument)->Unit(benchmark::kMicrosecond);

void writeDocumentPlainly(benchmark::State& state) { writeDay(state, plainDocument); }
BENCHMARK(writeDocumentPlainly)->Unit(benchmark::kMicrosecond);

}  // namespace
