// Which country a callsign belongs to, portable and mobile forms included.
#pragma once

#include <optional>
#include <string_view>

#include "spots/cty.hpp"

namespace spotserver {

// Looks up an upper-case callsign, in this order:
//  - the whole callsign as an exact entry of the country file;
//  - without its operating suffixes (/P, /M, /QRP ...), by the prefix of the part that names the
//    location. MM and AM among those suffixes set the mobile mark.
//
//   K1ABC          by prefix
//   K1ABC/P/QRP    as K1ABC
//   K1ABC/MM       as K1ABC, with the mobile mark
//   K1ABC/4        as K4ABC: a move to another call area
//   VE/K1ABC       as VE, and so K1ABC/VE
//   A/B/C          as it is written: three parts or more name no location
//
// Empty: no entity covers it, or no country file is loaded. Valid until the database reloads.
// Cost: one exact and at most longest_prefix look-ups.
std::optional<cty::Lookup> resolveCountry(const cty::Database& database, std::string_view callsign);

}  // namespace spotserver
