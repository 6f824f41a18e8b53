// The text the server greets with: how to reach it and what to enter in the phone app.
#pragma once

#include <cstdint>
#include <string>

#include "server/settings.hpp"

namespace spotserver {

// What the banner says besides the settings.
struct BannerFacts {
  std::string token;
  std::string fingerprint;
  bool history_readable = false;
  std::uint64_t held = 0;  // history intervals when those are in use, otherwise spots
};

// The whole banner, line feeds included.
std::string banner_text(const ServerSettings& settings, const BannerFacts& facts);

}  // namespace spotserver
