// Reads the input as a script of senders heard, clock steps and new country files, and aborts where
// the flat arrays and the plain maps of the reference count differently.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "spots/heard_callsigns_reference.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::vector<std::uint8_t> script(data, data + size);  // exactly its size: overruns show
  const std::string difference = spotserver::HeardScript(script).run();
  if (!difference.empty()) {
    std::fprintf(stderr, "Last-heard times and reference disagree: %s\n", difference.c_str());
    std::abort();
  }
  return 0;
}
