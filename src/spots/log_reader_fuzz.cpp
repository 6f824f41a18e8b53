// Reads the input as the way a log grows and is looked at, or as a log to search for a date, and
// aborts where the reader and getline differ.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "spots/log_reader_reference.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::vector<std::uint8_t> script(data + 1, data + size);  // exactly its size
  const std::string difference = data[0] % 8 == 0 ? spotserver::LogStartScript(script).run()
                                                  : spotserver::LogLinesScript(script).run();
  if (!difference.empty()) {
    std::fprintf(stderr, "Log reader and reference disagree: %s\n", difference.c_str());
    std::abort();
  }
  return 0;
}
