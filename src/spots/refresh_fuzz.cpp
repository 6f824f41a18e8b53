// Reads the input as what happens to a log between refreshes, and aborts where the store holds
// other spots than the whole log read anew.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "spots/refresh_reference.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::vector<std::uint8_t> script(data, data + size);  // exactly its size: overruns show
  const std::string difference = spotserver::RefreshScript(script).run();
  if (!difference.empty()) {
    std::fprintf(stderr, "Refresh and whole log disagree: %s\n", difference.c_str());
    std::abort();
  }
  return 0;
}
