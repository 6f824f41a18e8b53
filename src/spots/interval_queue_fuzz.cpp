// Reads the input as a script of windows, single intervals and prunings, and aborts where the queue
// and the plain list hold something else.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "spots/interval_queue_reference.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::vector<std::uint8_t> script(data, data + size);  // exactly its size: overruns show
  const std::string difference = spotserver::IntervalScript(script).run();
  if (!difference.empty()) {
    std::fprintf(stderr, "Interval queue and list disagree: %s\n", difference.c_str());
    std::abort();
  }
  return 0;
}
