// The sender of a message against the plain form of the rules. Input: a character whose code modulo
// 8 is the mode code ("0" is FT8, "6" WSPR, "7" no mode), then the message.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "spots/message.hpp"
#include "spots/message_reference.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace spotserver;
  if (size == 0) return 0;
  const int mode = data[0] % 8;
  const std::vector<char> input(data + 1, data + size);  // exactly its size: overruns show
  const std::string_view message(input.data(), input.size());
  const auto found = extractSender(mode, message, 14'074'000, 1234, 1'741'947'330, -12);
  const auto plain =
      reference::extractSender(mode, std::string(message), 14'074'000, 1234, 1'741'947'330, -12);
  if (!reference::same(found, plain)) {
    std::fprintf(stderr, "mode %d: found %s, plain form %s\n", mode,
                 reference::describe(found).c_str(), reference::describe(plain).c_str());
    std::abort();
  }
  const auto callsign = senderCallsign(mode, message, 14'074'000, 1234, 1'741'947'330);
  if (callsign != (plain ? plain->callsign : "")) {
    std::fprintf(stderr, "mode %d: callsign %s, plain form %s\n", mode, callsign.c_str(),
                 reference::describe(plain).c_str());
    std::abort();
  }
  return 0;
}
