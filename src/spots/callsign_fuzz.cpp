// The validators of callsigns and locators against their regular expressions. Input: one word.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "spots/callsign.hpp"
#include "spots/message_reference.hpp"

namespace {

void expectAlike(const char* what, bool found, bool plain) {
  if (found == plain) return;
  std::fprintf(stderr, "%s: found %d, plain form says %d\n", what, found, plain);
  std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace spotserver;
  const std::vector<char> input(data, data + size);  // exactly its size: overruns show
  const std::string_view word(input.data(), input.size());
  const std::string copy(word);
  expectAlike("callsign", isValidCallsign(word), reference::isValidCallsign(copy));
  expectAlike("locator", isValidGrid(word), reference::isValidGrid(copy));
  const std::string upper = reference::upper(copy);
  expectAlike("callsign in any case", isCallsignInAnyCase(word), reference::isValidCallsign(upper));
  expectAlike("locator in any case", isGridInAnyCase(word), reference::isValidGrid(upper));
  return 0;
}
