#include "server/access_token.hpp"

#include <array>
#include <bit>
#include <stdexcept>

#include <openssl/rand.h>

namespace spotserver {
namespace {

constexpr std::uint32_t kTokens = 100'000'000;
constexpr std::uint32_t kLargestUnbiased = 3'999'999'999;  // 40 * kTokens - 1

std::uint32_t draw_random32() {
  std::array<unsigned char, 4> bytes{};
  if (::RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) != 1) {
    throw std::runtime_error(
        "Fatal: OpenSSL RAND_bytes failed; refusing to start with a weak token.");
  }
  return std::bit_cast<std::uint32_t>(bytes);
}

}  // namespace

std::string make_token(const std::function<std::uint32_t()>& draw32) {
  std::uint32_t number = draw32();
  while (number > kLargestUnbiased) number = draw32();
  const std::string digits = std::to_string(number % kTokens);
  return std::string(8 - digits.size(), '0') + digits;
}

std::string generate_token() { return make_token(draw_random32); }

}  // namespace spotserver
