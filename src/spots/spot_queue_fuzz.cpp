// Reads the input as a script of additions, prunings and questions, and aborts where the queue and
// the flat list of its reference answer differently.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "spots/spot_queue_reference.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::vector<std::uint8_t> script(data, data + size);  // exactly its size: overruns show
  const std::string difference = spotserver::SpotQueueScript(script).run();
  if (!difference.empty()) {
    std::fprintf(stderr, "Spot queue and reference disagree: %s\n", difference.c_str());
    std::abort();
  }
  return 0;
}
