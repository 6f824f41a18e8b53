// Splitting a log into lines: by the reader, by getline, and by nothing but read and memchr, which
// is what it costs to look at every byte once.
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "allocations.hpp"
#include "sample_log.hpp"
#include "spots/log_reader.hpp"
#include "spots/log_reader_reference.hpp"

namespace {

using namespace spotserver;

const MemoryLog& log() {
  static const MemoryLog sample = [] {
    MemoryLog memory;
    memory.append(sampleLog(300'000));
    return memory;
  }();
  return sample;
}

template <typename Split>
void splitLog(benchmark::State& state, Split split) {
  const RegularFile file = log().open();
  const auto before = allocations();
  for (auto _ : state) {
    if (split(file) != 300'000) state.SkipWithError("lines are missing");
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(file.size));
  state.counters["allocations"] =
      static_cast<double>(allocations() - before) / static_cast<double>(state.iterations());
}

void readLines(benchmark::State& state) {
  splitLog(state, [](const RegularFile& file) {
    std::uint64_t lines = 0;
    LogPosition position = startOfLog(file, 0);
    readLogLines(file, position, [&lines](std::string_view) { ++lines; });
    return lines;
  });
}
BENCHMARK(readLines)->Unit(benchmark::kMillisecond);

void readLinesByGetline(benchmark::State& state) {
  splitLog(state, [](const RegularFile& file) {
    std::ifstream in("/proc/self/fd/" + std::to_string(file.fd.get()), std::ios::binary);
    std::uint64_t lines = 0;
    for (std::string line; std::getline(in, line);) ++lines;
    return lines;
  });
}
BENCHMARK(readLinesByGetline)->Unit(benchmark::kMillisecond);

void readAndMemchr(benchmark::State& state) {
  splitLog(state, [](const RegularFile& file) {
    std::vector<char> chunk(64 * 1024);
    std::uint64_t lines = 0;
    for (std::uint64_t offset = 0; offset < file.size;) {
      const std::size_t got = readAt(file.fd.get(), offset, chunk.data(), chunk.size()).value();
      const char* const end = chunk.data() + got;
      for (const char* at = chunk.data(); at != end; ++at, ++lines) {
        at = static_cast<const char*>(std::memchr(at, '\n', static_cast<std::size_t>(end - at)));
        if (at == nullptr) break;
      }
      offset += got;
    }
    return lines;
  });
}
BENCHMARK(readAndMemchr)->Unit(benchmark::kMillisecond);

// Looking for the last hour in a log of a day.
void findStart(benchmark::State& state) {
  const RegularFile file = log().open();
  for (auto _ : state) benchmark::DoNotOptimize(findLogStart(file, 1'742'000'000 - 3'600));
}
BENCHMARK(findStart)->Unit(benchmark::kMicrosecond);

}  // namespace
