// Reads the input as a precision and doubles, bit by bit, and aborts where a number's text is not
// that of the C library.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "server/json_text.hpp"
#include "server/json_text_reference.hpp"

namespace {

void compare(int precision, double value, const std::string& text) {
  const std::string plain = spotserver::plainJsonNumber(precision, value);
  if (text == plain) return;
  std::fprintf(stderr, "%d decimals of %a: %s instead of %s\n", precision, value, text.c_str(),
               plain.c_str());
  std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const int precision = data[0] % 10;
  for (std::size_t at = 1; at + sizeof(double) <= size; at += sizeof(double)) {
    double value = 0;
    std::memcpy(&value, data + at, sizeof value);
    compare(precision, value, spotserver::json_number(precision, value));
    if (precision > 3) continue;
    std::string written(spotserver::kLongestJsonNumber, '\0');  // its exact size: overruns show
    const char* const end = spotserver::write_json_number(written.data(), precision, value);
    written.resize(static_cast<std::size_t>(end - written.data()));
    compare(precision, value, written);
  }
  return 0;
}
