// The access token made when the user sets none: eight decimal digits, all equally likely.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace spotserver {

// A token from 00000000 to 99999999, leading zeros kept. `draw32` yields uniform 32-bit numbers and
// is asked again while it yields more than 3,999,999,999, since 2^32 is no multiple of 10^8.
//   make_token([] { return 5u; })  // "00000005"
std::string make_token(const std::function<std::uint32_t()>& draw32);

// A token from OpenSSL's random generator; there is no weaker source to fall back on.
// Throws std::runtime_error with the whole line for the user when the generator fails:
// "Fatal: OpenSSL RAND_bytes failed; refusing to start with a weak token."
std::string generate_token();

}  // namespace spotserver
