// The invented radio amateurs that the sample station hears.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "station_draws.hpp"

namespace station {

struct Person {
  std::string callsign;  // "DL4QX"
  std::string compound;  // the same on the move: "DL4QX/P" or "EA8/DL4QX"
  std::string locator;   // eight characters, "JO62QM34"; shorter forms are its beginning
  int power_dbm = 0;     // a value that WSPR can send
};

// `count` people. Prefixes and locators are those of real countries, in about the mix that is heard
// on the air; what follows the prefix is invented. One in 300 calls from a prefix of no country.
std::vector<Person> makePeople(std::size_t count, Draws& draws);

}  // namespace station
