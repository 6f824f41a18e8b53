// Reads the input as windows of a history and aborts where the store and the plain lists hold
// something else after a merge.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "history/history_window_reference.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::vector<std::uint8_t> script(data, data + size);  // exactly its size: overruns show
  const std::string difference = spotserver::HistoryScript(script).run();
  if (!difference.empty()) {
    std::fprintf(stderr, "History and plain lists disagree: %s\n", difference.c_str());
    std::abort();
  }
  return 0;
}
