// Reads the input as a script of additions, prunings, clock steps and questions, and aborts where
// the index and the flat list of its reference answer differently.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "api/rate_series_reference.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::vector<std::uint8_t> script(data, data + size);  // exactly its size: overruns show
  const std::string difference = launcher::RateScript(script).run();
  if (!difference.empty()) {
    std::fprintf(stderr, "Rate index and reference disagree: %s\n", difference.c_str());
    std::abort();
  }
  return 0;
}
