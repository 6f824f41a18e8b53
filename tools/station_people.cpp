#include "station_people.hpp"

#include <cstdint>
#include <string_view>

namespace station {
namespace {

// Callsigns of a country: prefix, one of the digits, then a suffix of two or three letters.
struct Country {
  int weight = 0;  // share of what is heard
  std::string_view prefix;
  std::string_view digits;
  std::string_view fields;  // locator fields it lies in, two letters each
};

constexpr Country kCountries[] = {
    {14, "K", "0123456789", "FNEMELDMCN"},
    {12, "W", "0123456789", "FNEMENDMCM"},
    {8, "N", "0123456789", "FNEMELDNCN"},
    {6, "KD", "0123456789", "FNENEMDM"},
    {4, "AA", "0123456789", "FNEMDM"},
    {5, "VE", "12345679", "FNENDOCN"},
    {8, "G", "034678", "IOJO"},
    {3, "M", "013567", "IOJO"},
    {2, "2E", "01", "IOJO"},
    {1, "GM", "034", "IO"},
    {12, "DL", "123456789", "JOJN"},
    {4, "DK", "123456789", "JOJN"},
    {3, "DO", "123456789", "JOJN"},
    {8, "F", "145678", "JNIN"},
    {12, "I", "012345678", "JNJM"},
    {4, "IK", "012345678", "JNJM"},
    {10, "EA", "1234567", "INIM"},
    {1, "EA", "8", "IL"},
    {2, "CT", "12", "INIM"},
    {4, "PA", "0123", "JO"},
    {3, "ON", "34567", "JO"},
    {2, "HB", "9", "JN"},
    {3, "OE", "123456789", "JN"},
    {5, "OK", "12", "JNJO"},
    {2, "OM", "12358", "JNKN"},
    {9, "SP", "123456789", "JOKO"},
    {3, "HA", "0123456789", "JNKN"},
    {2, "S5", "012345679", "JN"},
    {2, "9A", "12345", "JN"},
    {3, "YU", "1237", "KNJN"},
    {3, "YO", "2345678", "KN"},
    {2, "LZ", "12345", "KN"},
    {3, "SV", "123578", "KMKN"},
    {4, "SM", "01234567", "JOJPKP"},
    {3, "OH", "123456789", "KPKO"},
    {2, "LA", "123456789", "JOJP"},
    {2, "OZ", "12345678", "JO"},
    {1, "EI", "2345678", "IO"},
    {1, "ES", "123456", "KO"},
    {1, "YL", "23", "KO"},
    {2, "LY", "123", "KO"},
    {9, "UA", "134", "KOKPLOLN"},
    {4, "UA", "90", "MONOPO"},
    {5, "UR", "34578", "KNKO"},
    {1, "TA", "1234", "KNKM"},
    {1, "4X", "146", "KM"},
    {1, "5B", "4", "KM"},
    {1, "A6", "1", "LL"},
    {14, "JA", "123456789", "PMQMQN"},
    {6, "JH", "123456789", "PMQM"},
    {3, "JR", "123456789", "PMQN"},
    {2, "HL", "12345", "PM"},
    {4, "BG", "1245678", "OMONOL"},
    {2, "VU", "23", "MKNK"},
    {3, "YB", "0123", "OIPI"},
    {1, "HS", "0", "OKNK"},
    {4, "VK", "234567", "QFQGPFOF"},
    {2, "ZL", "1234", "RFRE"},
    {1, "ZS", "1256", "KGKF"},
    {5, "PY", "12345678", "GGGHGF"},
    {3, "LU", "123456789", "GFFF"},
    {1, "CE", "123456", "FFFG"},
    {2, "XE", "123", "DLEK"},
    {1, "HK", "1346", "FJ"},
};

// No country uses the letter Q.
constexpr Country kNowhere = {0, "QZ", "0123456789", "JJ"};

constexpr int kPowers[] = {7, 10, 13, 17, 20, 23, 27, 30, 33, 37, 40, 43};
constexpr std::string_view kGuestPrefixes[] = {"EA8", "VE3", "OE", "F", "SV5", "9A", "LX", "PJ4"};

const Country& drawCountry(Draws& draws) {
  if (draws.oneIn(300)) return kNowhere;
  std::uint64_t total = 0;
  for (const Country& country : kCountries) total += static_cast<std::uint64_t>(country.weight);
  auto left = static_cast<std::int64_t>(draws.below(total));
  for (const Country& country : kCountries) {
    left -= country.weight;
    if (left < 0) return country;
  }
  return kNowhere;
}

std::string drawCallsign(const Country& country, Draws& draws) {
  std::string callsign(country.prefix);
  callsign += draws.pick(country.digits);
  for (int letters = draws.between(2, 3); letters > 0; --letters) {
    callsign += draws.letter('A', 'Z');
  }
  return callsign;
}

std::string drawLocator(const Country& country, Draws& draws) {
  const std::size_t field = static_cast<std::size_t>(draws.below(country.fields.size() / 2));
  std::string locator(country.fields.substr(field * 2, 2));
  for (const char* range : {"09", "09", "AX", "AX", "09", "09"}) {
    locator += draws.letter(range[0], range[1]);
  }
  return locator;
}

std::string drawCompound(const std::string& callsign, Draws& draws) {
  if (draws.oneIn(2)) return callsign + "/P";
  return std::string(draws.pick(kGuestPrefixes)) + "/" + callsign;
}

}  // namespace

std::vector<Person> makePeople(std::size_t count, Draws& draws) {
  std::vector<Person> people;
  people.reserve(count);
  while (people.size() < count) {
    const Country& country = drawCountry(draws);
    Person person;
    person.callsign = drawCallsign(country, draws);
    person.compound = drawCompound(person.callsign, draws);
    person.locator = drawLocator(country, draws);
    person.power_dbm = draws.pick(kPowers);
    people.push_back(std::move(person));
  }
  return people;
}

}  // namespace station
