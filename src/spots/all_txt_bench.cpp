// One line of the log, by the parser and by stream extraction.
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "allocations.hpp"
#include "sample_log.hpp"
#include "spots/all_txt.hpp"
#include "spots/all_txt_reference.hpp"

namespace {

using namespace spotserver;

const std::vector<std::string>& sampleLines() {
  static const std::vector<std::string> lines = [] {
    const std::string log = sampleLog(300'000);
    const auto views = linesOf(log);
    return std::vector<std::string>(views.begin(), views.end());
  }();
  return lines;
}

// Calls `parse` for every line; counts lines a second and allocations a line.
template <typename Parse>
void forEveryLine(benchmark::State& state, Parse parse) {
  const auto& lines = sampleLines();
  const auto before = allocations();
  for (auto _ : state) {
    for (const auto& line : lines) benchmark::DoNotOptimize(parse(line));
  }
  const auto count = state.iterations() * static_cast<std::int64_t>(lines.size());
  state.SetItemsProcessed(count);
  state.counters["allocations"] =
      static_cast<double>(allocations() - before) / static_cast<double>(count);
}

void parseLine(benchmark::State& state) {
  forEveryLine(state, [](const std::string& line) { return parseAllTxtLine(line); });
}
BENCHMARK(parseLine)->Unit(benchmark::kMillisecond);

void parseLineAfterLine(benchmark::State& state) {
  LineHead last;
  forEveryLine(state, [&last](const std::string& line) { return parseAllTxtLine(line, last); });
}
BENCHMARK(parseLineAfterLine)->Unit(benchmark::kMillisecond);

void parseLineAsStream(benchmark::State& state) {
  forEveryLine(state, [](const std::string& line) { return reference::parseAllTxtLine(line); });
}
BENCHMARK(parseLineAsStream)->Unit(benchmark::kMillisecond);

// The seven fields alone: the message, which begins there in a line of a mode of three letters, is
// cut off.
std::string_view fieldsOf(std::string_view line) { return line.substr(0, 48); }

void parseFields(benchmark::State& state) {
  forEveryLine(state, [](const std::string& line) { return parseAllTxtLine(fieldsOf(line)); });
}
BENCHMARK(parseFields)->Unit(benchmark::kMillisecond);

void parseFieldsAsStream(benchmark::State& state) {
  forEveryLine(state, [](const std::string& line) {
    return reference::parseAllTxtLine(std::string(fieldsOf(line)));
  });
}
BENCHMARK(parseFieldsAsStream)->Unit(benchmark::kMillisecond);

void parseTime(benchmark::State& state) {
  forEveryLine(state, [](const std::string& line) {
    return parseAllTxtTime(std::string_view(line).substr(0, 13));
  });
}
BENCHMARK(parseTime)->Unit(benchmark::kMillisecond);

void parseTimeByCLibrary(benchmark::State& state) {
  forEveryLine(state, [](const std::string& line) {
    return reference::parseAllTxtTime(line.substr(0, 13));
  });
}
BENCHMARK(parseTimeByCLibrary)->Unit(benchmark::kMillisecond);

}  // namespace
