// Pieces of country files, for the tests of spots/cty.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "spots/cty.hpp"

namespace cty {

inline constexpr std::string_view kStates =
    "United States:  5:  8:  NA:  37.53:  91.67:  5.0:  K:\n";
inline constexpr std::string_view kHawaii =
    "Hawaii:  31:  61:  OC:  21.12:  157.48:  10.0:  KH6:\n";

// One entity with these aliases.
//   states("K,W;")
inline std::string states(std::string_view aliases) {
  return std::string(kStates) + std::string(aliases);
}

// The name of the entity found, or "" without one.
inline std::string nameOf(const std::optional<Lookup>& found) {
  return found ? found->entity->name : "";
}

}  // namespace cty
