// Reads the input as a decode log and aborts where its answer is not that of plain counting.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "api/activity_reference.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::vector<std::uint8_t> script(data, data + size);  // exactly its size: overruns show
  const std::string difference = spotserver::ActivityScript(script).run();
  if (!difference.empty()) {
    std::fprintf(stderr, "Activity and plain counting disagree: %s\n", difference.c_str());
    std::abort();
  }
  return 0;
}
