// Reads the input as a head and a tail and aborts where the file made of them does not unpack to
// both of them, as zlib's own reader does it.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "byte_script.hpp"
#include "gunzip.hpp"
#include "server/gzip.hpp"

namespace {

// Bytes that cannot be compressed, so that the file is longer than a chunk of it.
void appendNoise(std::string& text, std::size_t size) {
  std::minstd_rand random(static_cast<unsigned>(size));
  for (std::size_t i = 0; i < size; ++i) text += static_cast<char>(random() >> 8);
}

// The rest of the script, behind a part of it over and over: there is something to compress, and
// the text is longer than a window at times.
std::string textOf(spotserver::ByteScript& script) {
  const std::size_t repeated = script.below(64);
  const std::size_t times = script.below(4096);
  const std::size_t noise = script.below(8) == 7 ? 2 * script.below(65'536) : 0;
  std::string again;
  for (std::size_t i = 0; i < repeated; ++i) again += static_cast<char>(script.byte());
  std::string text;
  for (std::size_t i = 0; i < times; ++i) text += again;
  appendNoise(text, noise);
  while (!script.done()) text += static_cast<char>(script.byte());
  return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::vector<std::uint8_t> bytes(data, data + size);
  spotserver::ByteScript script(bytes);
  const std::size_t cut = script.below(spotserver::kLongestHead + 1);
  const std::string text = textOf(script);
  const std::string head = text.substr(0, cut);
  const std::string tail = text.substr(head.size());
  if (spotserver::gunzip(spotserver::gzip_file(head, spotserver::deflate_tail(tail))) != text) {
    std::fprintf(stderr, "%zu and %zu bytes unpack to something else\n", head.size(), tail.size());
    std::abort();
  }
  return 0;
}
