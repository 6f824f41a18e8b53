// The line parser against stream extraction. Input: one line; it is tried with a blank in front,
// which sends it to the reader for odd lines, and as a timestamp as well. Where it holds newlines,
// it is also read as several lines, one after the other.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "spots/all_txt.hpp"
#include "spots/all_txt_reference.hpp"

namespace {

using namespace spotserver;

void expectSame(const std::optional<AllTxtRecord>& found, const std::string& line) {
  const auto plain = reference::parseAllTxtLine(line);
  if (reference::same(found, plain)) return;
  std::fprintf(stderr, "line: found %s, plain form %s\n", reference::describe(found).c_str(),
               reference::describe(plain).c_str());
  std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::vector<char> input(data, data + size);  // exactly its size: overruns show
  const std::string_view line(input.data(), input.size());
  const std::string copy(line);
  expectSame(parseAllTxtLine(line), copy);
  expectSame(parseAllTxtLine(" " + copy), copy);

  LineHead last;
  std::istringstream lines(copy);
  for (std::string one; std::getline(lines, one);) {
    const std::vector<char> exact(one.begin(), one.end());
    expectSame(parseAllTxtLine({exact.data(), exact.size()}, last), one);
  }

  if (parseAllTxtTime(line) != reference::parseAllTxtTime(copy)) {
    std::fprintf(stderr, "timestamp: found and plain form differ\n");
    std::abort();
  }
  return 0;
}
