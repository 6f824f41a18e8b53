// The sender of a message, by the matcher and by regular expressions.
#include <sstream>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "allocations.hpp"
#include "sample_log.hpp"
#include "spots/message.hpp"
#include "spots/message_reference.hpp"
#include "spots/mode.hpp"

namespace {

using namespace spotserver;

struct Received {
  int mode = 0;
  std::string message;
};

// The messages of the sample station's decodes, in the mix in which it hears the modes.
const std::vector<Received>& sampleMessages() {
  static const std::vector<Received> messages = [] {
    std::vector<Received> found;
    std::istringstream log(sampleLog(300'000));
    for (std::string line; std::getline(log, line);) {
      std::istringstream in(line);
      std::string word[7];
      for (std::string& w : word) in >> w;
      const auto mode = modeFromName(word[3]);
      std::string message;
      if (word[2] != "Rx" || !mode || !std::getline(in >> std::ws, message)) continue;
      found.push_back({*mode, message});
    }
    return found;
  }();
  return messages;
}

template <typename Match>
void forEveryMessage(benchmark::State& state, Match match) {
  const auto& messages = sampleMessages();
  const auto before = allocations();
  for (auto _ : state) {
    for (const Received& r : messages) benchmark::DoNotOptimize(match(r.mode, r.message));
  }
  const auto count = state.iterations() * static_cast<std::int64_t>(messages.size());
  state.SetItemsProcessed(count);
  state.counters["allocations"] =
      static_cast<double>(allocations() - before) / static_cast<double>(count);
}

constexpr double kDial = 14'074'000;
constexpr double kTime = 1'741'947'330;

void findCallsign(benchmark::State& state) {
  forEveryMessage(state, [](int mode, const std::string& message) {
    return senderCallsign(mode, message, kDial, 1234, kTime);
  });
}
BENCHMARK(findCallsign)->Unit(benchmark::kMillisecond);

void findSender(benchmark::State& state) {
  forEveryMessage(state, [](int mode, const std::string& message) {
    return extractSender(mode, message, kDial, 1234, kTime, -12);
  });
}
BENCHMARK(findSender)->Unit(benchmark::kMillisecond);

void findSenderByRegex(benchmark::State& state) {
  forEveryMessage(state, [](int mode, const std::string& message) {
    return reference::extractSender(mode, message, kDial, 1234, kTime, -12);
  });
}
BENCHMARK(findSenderByRegex)->Unit(benchmark::kMillisecond);

}  // namespace
