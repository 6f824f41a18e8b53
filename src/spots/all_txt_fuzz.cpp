// The line parser against stream extraction. Input: one line; it is tried with a blank in front,
// which sends it to the reader for odd lines, and as a timestamp as well.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "spots/all_txt.hpp"
#include "spots/all_txt_reference.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace spotserver;
  const std::vector<char> input(data, data + size);  // exactly its size: overruns show
  const std::string_view line(input.data(), input.size());
  const std::string copy(line);
  const auto found = parseAllTxtLine(line);
  const auto plain = reference::parseAllTxtLine(copy);
  if (!reference::same(found, plain)) {
    std::fprintf(stderr, "line: found %s, plain form %s\n", reference::describe(found).c_str(),
                 reference::describe(plain).c_str());
    std::abort();
  }
  if (!reference::same(parseAllTxtLine(" " + copy), plain)) {
    std::fprintf(stderr, "a blank in front of the line changes what it says\n");
    std::abort();
  }
  if (parseAllTxtTime(line) != reference::parseAllTxtTime(copy)) {
    std::fprintf(stderr, "timestamp: found and plain form differ\n");
    std::abort();
  }
  return 0;
}
