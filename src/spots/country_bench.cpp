// The country of every callsign in a million lines of the sample station, some 14,000, by the
// country file that comes along; and by asking it for every prefix.
#include <fstream>
#include <iterator>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "allocations.hpp"
#include "sample_log.hpp"
#include "spots/all_txt.hpp"
#include "spots/country.hpp"
#include "spots/country_reference.hpp"

namespace {

using namespace spotserver;

const cty::Database& countries() {
  static const cty::Database database = [] {
    std::ifstream file(SPOT_SOURCE_DIR "/data/cty.dat");
    if (!file) throw std::runtime_error("No data/cty.dat");
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    return cty::Database(cty::parseCountries(text));
  }();
  return database;
}

// Each once, portable ones among them.
const std::vector<std::string>& callsigns() {
  static const std::vector<std::string> all = [] {
    const std::string log = sampleLog(1'000'000);
    std::set<std::string> found;
    for (const std::string_view line : linesOf(log)) {
      const auto record = parseAllTxtLine(line);
      if (record && !record->callsign.empty()) found.insert(record->callsign);
    }
    return std::vector<std::string>(found.begin(), found.end());
  }();
  return all;
}

void resolveAll(benchmark::State& state) {
  const std::size_t all = callsigns().size();
  const auto before = allocations();
  std::size_t known = 0;
  for (auto _ : state) {
    known = 0;
    for (const std::string& callsign : callsigns()) {
      known += resolveCountry(countries(), callsign) ? 1U : 0U;
    }
  }
  const auto asked = state.iterations() * static_cast<std::int64_t>(all);
  state.SetItemsProcessed(asked);
  state.counters["known"] = static_cast<double>(known);
  state.counters["allocations"] =
      static_cast<double>(allocations() - before) / static_cast<double>(asked);
}
BENCHMARK(resolveAll)->Unit(benchmark::kMillisecond);

// A hundredth of them, since every one is held to every prefix.
void resolvePlainly(benchmark::State& state) {
  const std::size_t some = callsigns().size() / 100;
  for (auto _ : state) {
    for (std::size_t i = 0; i < some; ++i) {
      benchmark::DoNotOptimize(reference::resolve(*countries().countries(), callsigns()[i]));
    }
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(some));
}
BENCHMARK(resolvePlainly)->Unit(benchmark::kMillisecond);

}  // namespace
