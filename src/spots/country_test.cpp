#include "spots/country.hpp"

#include <initializer_list>
#include <iterator>
#include <random>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "spots/country_reference.hpp"

namespace spotserver {
namespace {

// One entity for each alias list, named as its first entry.
cty::Countries countriesOf(std::initializer_list<std::string> alias_lists) {
  std::string text;
  for (const std::string& aliases : alias_lists) {
    text += aliases.substr(0, aliases.find(',')) + ":1:1:EU::::X:\n" + aliases + ";\n";
  }
  return cty::parseCountries(text);
}

const cty::Database& world() {
  static const cty::Database database{
      countriesOf({"N", "N4", "K", "KH6", "VE", "F", "W1/W", "A/B", "P", "3D2",
                   "=N0CALL/P,=G/N0CALL,=F/N0CALL/MM", "G", "5", "M", "MM"})};
  return database;
}

struct Case {
  const char* callsign;
  const char* entity;  // "": no country
  bool mobile = false;
};

void check(const cty::Database& database, const Case& c) {
  const auto found = resolveCountry(database, c.callsign);
  EXPECT_EQ(found ? found->entity->name : "", c.entity) << c.callsign;
  EXPECT_EQ(found && found->mobile, c.mobile) << c.callsign;
}

template <std::size_t N>
void check(const Case (&cases)[N]) {
  for (const Case& c : cases) check(world(), c);
}

TEST(ResolveCountry, APlainCallsignResolvesByPrefix) {
  check({{"N0CALL", "N"}, {"N4CALL", "N4"}, {"KH6XYZ", "KH6"}, {"KA1XYZ", "K"}, {"ZL1ABC", ""}});
}

TEST(ResolveCountry, AnExactCallsignComesFirst) {
  check({
      {"N0CALL/P", "=N0CALL/P"},
      {"G/N0CALL", "=N0CALL/P"},
      {"F/N0CALL/MM", "=N0CALL/P"},  // found as a whole: no suffix, no mark
      {"N0CALL/M", "N"},
      {"F/N0CALL/AM", "F", true},
  });
}

TEST(ResolveCountry, ExactEntriesAreAskedForTheWholeCallsignOnly) {
  const cty::Database database{countriesOf({"N", "=N0CALL,=N4CALL"})};
  check(database, {"N0CALL", "=N0CALL"});
  check(database, {"N0CALL/P", "N"});
  check(database, {"N0CALL/4", "N"});
}

TEST(ResolveCountry, OperatingSuffixesAreDropped) {
  check({
      {"K1ABC/P", "K"},
      {"K1ABC/M", "K"},
      {"K1ABC/A", "K"},
      {"K1ABC/B", "K"},
      {"K1ABC/QRP", "K"},
      {"K1ABC/QRPP", "K"},
      {"K1ABC/LH", "K"},
      {"K1ABC/LGT", "K"},
      {"K1ABC/P/QRP", "K"},
      {"VE/K1ABC/P", "VE"},
      {"K1ABC/4/P", "K"},
      {"K1ABC/P/M/A/B/LH/LGT/QRP/QRPP", "K"},
      {"N0CALL/4/QRP", "N4"},
      {"K1ABC/VE/M", "VE"},
  });
}

TEST(ResolveCountry, WhatIsNoSuffixStays) {
  // Each is the shorter part without an inner digit, so it would name the location.
  for (const char* part : {"R", "PP", "PM", "QR", "QRPPP", "L", "LG", "MA", "p", "mm"}) {
    check(world(), {("K1ABC/" + std::string(part)).c_str(), part[0] == 'P'   ? "P"
                                                            : part[0] == 'M' ? "M"
                                                                             : ""});
  }
}

TEST(ResolveCountry, MaritimeAndAeronauticalMobilesAreMarked) {
  check({
      {"N0CALL/MM", "N", true},
      {"N0CALL/AM", "N", true},
      {"N0CALL/MM/P", "N", true},
      {"N0CALL/QRP/AM", "N", true},
      {"N0CALL/MM/AM", "N", true},
      {"N0CALL/4/MM", "N4", true},
      {"VE/N0CALL/MM", "VE", true},
      {"N0CALL/M", "N", false},
      {"MM/N0CALL", "MM", false},  // in front it names a place
      {"ZL1ABC/MM", "", false},
  });
}

TEST(ResolveCountry, TheLastPartLeftIsNeverDropped) {
  check({
      {"P", "P"},
      {"MM", "MM", false},
      {"P/M", "P"},
      {"M/P", "M"},
      {"MM/P", "MM", false},
      {"P/MM", "P", true},
      {"/P", "P"},
      {"//MM//AM//", "MM", true},
  });
}

TEST(ResolveCountry, EmptyPartsDoNotCount) {
  check({
      {"/N0CALL", "N"},
      {"N0CALL/", "N"},
      {"N0CALL//P", "N"},
      {"N0CALL/P/", "N"},
      {"N0CALL//MM//", "N", true},
      {"//VE//N0CALL//", "VE"},
      {"N0CALL///4", "N4"},
      {"", ""},
      {"/", ""},
      {"////", ""},
  });
}

TEST(ResolveCountry, ADigitMovesTheCallToAnotherArea) {
  check({
      {"N0CALL/4", "N4"},
      {"N4CALL/0", "N"},
      {"KH0XYZ/6", "KH6"},
      {"K2H0XYZ/6", "K"},  // the last digit is replaced, not the first
      {"3A2AB/5", ""},     // 3A5AB
      {"3D4AB/2", "3D2"},
      {"0/5", "5"},
      {"VE/5", "VE"},       // no digit to replace
      {"N0CALL/44", ""},    // two digits are no call area: 44 has no inner digit
      {"5/N0CALL", "5"},    // a digit in front is a place
      {"N0CALL/4/4", "N"},  // three parts
  });
}

TEST(ResolveCountry, ThePartWithoutAnInnerDigitNamesTheLocation) {
  check({
      {"VE/N0CALL", "VE"},
      {"N0CALL/VE", "VE"},
      {"KH6/N0CALL", "KH6"},  // its last digit is its last character
      {"N0CALL/KH6", "KH6"},
      {"N0CALL/5VE", "5"},  // its only digit is its first character
      {"5VE/N0CALL", "5"},
      {"VEVEVEVE/N0A", "VE"},  // the longer one, all the same
      {"N0A/VEVEVEVE", "VE"},
      {"K1AB4/N0CALL", "K"},  // of several digits the last one counts
      {"N0CALL/ZZ", ""},      // no second try with the other part
  });
}

TEST(ResolveCountry, OtherwiseTheShorterPartDoes) {
  check({
      {"VE1A/N0CALL", "VE"},  // both have an inner digit
      {"N0CALL/VE1A", "VE"},
      {"VE1ABC/N0CALL", "VE"},  // equal length: the first
      {"N0CALL/VE1ABC", "N"},
      {"VE/KKK", "VE"},  // neither has one
      {"KKK/VE", "VE"},
      {"VE/KK", "VE"},
      {"KK/VE", "K"},
      {"K1/VE33", "K"},
  });
}

TEST(ResolveCountry, ThreePartsAreLookedUpAsTheyAreWritten) {
  check({
      {"VE/N0CALL/F", "VE"},
      {"N4CALL/VE/F", "N4"},
      {"W1/W1AW/X", "W1/W"},
      {"A/B/C", "A/B"},
      {"A/B/C/MM", "A/B", true},  // the suffix is dropped, but looked up with the rest
      {"/VE/N0CALL/F", ""},       // no entry begins with a slash
      {"A//B/C", ""},
      {"N0CALL/X/MM/Y", "N", false},
  });
  const cty::Database database{countriesOf({"A/B/C/MM", "A"})};
  check(database, {"A/B/C/MM", "A/B/C/MM", true});
  check(database, {"A/B/C", "A", false});
}

TEST(ResolveCountry, TwoPartsAreNotLookedUpAsTheyAreWritten) {
  check({{"W1/W1AW", ""}, {"A/B", ""}, {"A/BC", ""}});
}

TEST(ResolveCountry, WithoutACountryFileNothingIsFound) {
  for (const char* callsign : {"N0CALL", "N0CALL/MM", "/", ""}) {
    EXPECT_FALSE(resolveCountry(cty::Database{}, callsign)) << callsign;
  }
}

TEST(ResolveCountry, CarriesTheRecordsZonesAndContinent) {
  const cty::Database database{cty::parseCountries("Canada:5:9:NA::::VE:\nVE,VE7(3)[2]{AS};")};
  const auto found = resolveCountry(database, "VE7/N0CALL");
  ASSERT_TRUE(found);
  EXPECT_EQ(found->entity->name, "Canada");
  EXPECT_EQ(found->cq_zone, 3);
  EXPECT_EQ(found->itu_zone, 2);
  EXPECT_EQ(found->continent, "AS");
}

TEST(ResolveCountry, TakesLinearTimeForAnyCallsign) {
  for (const char* piece : {"/", "/P", "//P", "P/", "A", "1", "A/", "/M/", "1/"}) {
    std::string callsign;
    while (callsign.size() < 4'000'000) callsign += piece;
    const auto found = resolveCountry(world(), callsign);
    const auto plain = reference::resolve(*world().countries(), callsign);
    EXPECT_TRUE(reference::same(*world().countries(), found, plain)) << piece;
  }
}

TEST(ResolveCountry, AgreesWithThePlainWayOnRandomCallsigns) {
  static const char* const kPieces[] = {"N0CALL", "VE", "F", "K1",  "4",  "0",  "/P",
                                        "/MM",    "/",  "/", "//",  "/4", "AM", "QRP",
                                        "/LGT",   "A",  "1", "3D2", "B",  "W",  "Z"};
  std::mt19937 random(32);
  for (int i = 0; i < 300'000; ++i) {
    std::string callsign;
    for (auto pieces = random() % 7; pieces > 0; --pieces) {
      callsign += kPieces[random() % std::size(kPieces)];
    }
    const auto found = resolveCountry(world(), callsign);
    const auto plain = reference::resolve(*world().countries(), callsign);
    ASSERT_TRUE(reference::same(*world().countries(), found, plain)) << callsign;
  }
}

}  // namespace
}  // namespace spotserver
