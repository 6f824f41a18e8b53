// Reads the input as the value of a header Accept-Encoding and aborts where it means something else
// than its grammar says.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "api/accept_encoding.hpp"
#include "api/accept_encoding_reference.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string value(data, data + size);
  if (spotserver::prefersGzip(value) != spotserver::reference::prefersGzip(value)) {
    std::fprintf(stderr, "Read otherwise: %s\n", value.c_str());
    std::abort();
  }
  return 0;
}
