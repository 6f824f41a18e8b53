// Which entity a callsign belongs to, and what the country file of the sources holds.
#include <random>
#include <stdexcept>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "spots/cty.hpp"
#include "spots/cty_reference.hpp"
#include "spots/regular_file.hpp"
#include "stems/cty_texts.hpp"

namespace cty {
namespace {

using ::testing::SizeIs;

// The country file that comes with the sources.
std::string shippedFile() {
  const auto file = spotserver::openRegularFile(SPOT_SOURCE_DIR "/data/cty.dat");
  if (!file) throw std::runtime_error("No data/cty.dat");
  return spotserver::readWhole(*file, 16 * 1024 * 1024).value();
}

TEST(ShippedFile, HoldsTheKnownCounts) {
  const Countries countries = parseCountries(shippedFile());
  EXPECT_THAT(countries.entities, SizeIs(346));
  EXPECT_THAT(countries.prefixes, SizeIs(7'738));
  // 19,707 entries: 56 stand under two entities, one of which is no DXCC entity.
  EXPECT_THAT(countries.exact, SizeIs(19'651));
  EXPECT_EQ(countries.longest_prefix, 5U);
}

TEST(ShippedFile, AgreesWithThePlainForm) {
  const std::string text = shippedFile();
  EXPECT_TRUE(reference::describe(parseCountries(text)) ==
              reference::describe(reference::parse(text)));
}

TEST(ShippedFile, ResolvesKnownCallsigns) {
  const Database database{parseCountries(shippedFile())};
  const struct {
    const char* callsign;
    const char* entity;
    int cq_zone;
  } cases[] = {
      {"1A0KM", "Sov Mil Order of Malta", 15},
      {"KH6XYZ", "Hawaii", 31},
      {"KA1XYZ", "United States of America", 5},
      {"W6ABC", "United States of America", 3},
      {"VE3ABC", "Canada", 4},
      {"DL1ABC", "Fed. Rep. of Germany", 14},
      {"JA1ABC", "Japan", 25},
      {"ZL1ABC", "New Zealand", 32},
      {"Q0ABC", "", 0},
  };
  for (const auto& c : cases) {
    const auto found = database.findPrefix(c.callsign);
    EXPECT_EQ(nameOf(found), c.entity) << c.callsign;
    EXPECT_EQ(found ? found->cq_zone : 0, c.cq_zone) << c.callsign;
  }
  EXPECT_EQ(nameOf(database.findExact("4U1A")), "Austria") << "written twice: the later one stands";
}

TEST(FindPrefix, TheLongestPrefixWins) {
  const Database database{parseCountries(states("K;\n") + std::string(kHawaii) + "KH6(1)[2]{EU};")};
  const struct {
    const char* text;
    const char* entity;
  } cases[] = {
      {"KH6XYZ", "Hawaii"},
      {"KH6", "Hawaii"},
      {"KA1XYZ", "United States"},
      {"KH7XYZ", "United States"},
      {"KH", "United States"},
      {"K", "United States"},
      {"", ""},
      {"W1AW", ""},
      {"kh6xyz", ""},
      {"AKH6", ""},
  };
  for (const auto& c : cases) EXPECT_EQ(nameOf(database.findPrefix(c.text)), c.entity) << c.text;

  const auto hawaii = database.findPrefix("KH6XYZ");
  ASSERT_TRUE(hawaii);
  EXPECT_EQ(hawaii->cq_zone, 1);
  EXPECT_EQ(hawaii->itu_zone, 2);
  EXPECT_EQ(hawaii->continent, "EU");
  EXPECT_FALSE(hawaii->mobile);
}

TEST(FindPrefix, ExactCallsignsAreNoPrefixes) {
  const Database database{parseCountries(states("=K1ABC;"))};
  EXPECT_FALSE(database.findPrefix("K1ABC"));
}

TEST(FindPrefix, AgreesWithASearchOfEveryPrefix) {
  std::mt19937 random(7'738);
  const auto word = [&random](std::size_t longest) {
    std::string text;
    for (auto size = random() % (longest + 1); size > 0; --size) text += "AB1/"[random() % 4];
    return text;
  };
  for (int file = 0; file < 300; ++file) {
    std::string aliases;
    for (int i = 1; i <= 20; ++i) aliases += word(5) + "(" + std::to_string(i) + "),";
    const Database database{parseCountries(states(aliases + ";"))};
    for (int i = 0; i < 50; ++i) {
      const std::string text = word(8);
      const auto found = database.findPrefix(text);
      const Record* plain = reference::findPrefix(*database.countries(), text);
      ASSERT_EQ(found ? found->cq_zone : 0, plain ? plain->cq_zone : 0) << aliases << " " << text;
    }
  }
}

TEST(FindExact, FindsTheWholeCallsignOnly) {
  const Database database{parseCountries(states("K,=N0CALL/P(3)[4]{AS};"))};
  const auto found = database.findExact("N0CALL/P");
  ASSERT_TRUE(found);
  EXPECT_EQ(found->entity->name, "United States");
  EXPECT_EQ(found->cq_zone, 3);
  EXPECT_EQ(found->itu_zone, 4);
  EXPECT_EQ(found->continent, "AS");
  EXPECT_FALSE(found->mobile);
  for (const char* other : {"N0CALL", "N0CALL/PP", "n0call/p", "K", ""}) {
    EXPECT_FALSE(database.findExact(other)) << other;
  }
}

}  // namespace
}  // namespace cty
