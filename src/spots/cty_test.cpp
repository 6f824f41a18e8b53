// The text of a country file. Looking callsigns up and following a file that changes stand in
// tests/stems/cty_*_test.cpp.
#include "spots/cty.hpp"

#include <random>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "spots/cty_reference.hpp"
#include "stems/cty_texts.hpp"

namespace cty {
namespace {

using ::testing::IsEmpty;
using ::testing::SizeIs;

// The error that `text` gives, or "" when it parses.
std::string errorOf(std::string_view text) {
  try {
    parseCountries(text);
    return "";
  } catch (const std::runtime_error& error) {
    return error.what();
  }
}

// The record as text, or "" without one.
std::string describe(const RecordMap& records, const std::string& key) {
  const auto found = records.find(key);
  if (found == records.end()) return "";
  const Record& record = found->second;
  return std::to_string(record.cq_zone) + " " + std::to_string(record.itu_zone) + " " +
         record.continent;
}

TEST(ParseCountries, ReadsEntities) {
  const Countries countries = parseCountries(
      std::string(kHawaii) + "    AH6,AH7,\n    KH6,=K6VVN;\n" +
      "Vienna Intl Ctr:  15: 28: EU: 48.20: -16.30: -1.0:  *4U1V:\r\n    =4U1A;\r\n");
  ASSERT_THAT(countries.entities, SizeIs(2));
  const Entity& hawaii = countries.entities[0];
  EXPECT_EQ(hawaii.name, "Hawaii");
  EXPECT_EQ(hawaii.primary_prefix, "KH6");
  EXPECT_EQ(hawaii.continent, "OC");
  EXPECT_EQ(hawaii.cq_zone, 31);
  EXPECT_EQ(hawaii.itu_zone, 61);
  EXPECT_TRUE(hawaii.dxcc);
  const Entity& vienna = countries.entities[1];
  EXPECT_EQ(vienna.name, "Vienna Intl Ctr");
  EXPECT_EQ(vienna.primary_prefix, "4U1V");
  EXPECT_FALSE(vienna.dxcc);

  EXPECT_THAT(countries.prefixes, SizeIs(3));
  EXPECT_THAT(countries.exact, SizeIs(2));
  EXPECT_EQ(countries.longest_prefix, 3U);
  EXPECT_EQ(countries.prefixes.at("AH7").entity, 0U);
  EXPECT_EQ(countries.exact.at("K6VVN").entity, 0U);
  EXPECT_EQ(countries.exact.at("4U1A").entity, 1U);
}

TEST(ParseCountries, PrimaryPrefixIsNoAliasByItself) {
  EXPECT_THAT(parseCountries(states("W;")).prefixes, SizeIs(1));
}

TEST(ParseCountries, RefusesWhatIsNoHeader) {
  const struct {
    const char* text;
    const char* error;
  } cases[] = {
      {"Hawaii:31:61:OC:21:157:10:KH6\nK;", "line 1: not a cty.dat entity header"},  // 7 colons
      {"Hawaii\nK;", "line 1: not a cty.dat entity header"},
      {"Hawaii", "line 1: not a cty.dat entity header"},
      {":31:61:OC:21:157:10:KH6:\nK;", "line 1: not a cty.dat entity header"},
      {" \t:31:61:OC:21:157:10:KH6:\nK;", "line 1: not a cty.dat entity header"},
      {"Hawaii:31:61:OC:21:157:10::\nK;", "line 1: not a cty.dat entity header"},
      {"Hawaii:31:61:OC:21:157:10: \t:\nK;", "line 1: not a cty.dat entity header"},
      {"Hawaii:31:61:OC:21:157:10:KH6: x\nK;", "line 1: not a cty.dat entity header"},
      {"Hawaii:31:61:OC:21:157:10:KH6::\nK;", "line 1: not a cty.dat entity header"},
      {"Hawaii:31:61:OC:21:157:10:KH6: K;", "line 1: not a cty.dat entity header"},
      {"\n \r\n\v\f\nHawaii\nK;", "line 4: not a cty.dat entity header"},
      {"Hawaii:31:61:OC:::\n:KH6:\nK;", "line 1: not a cty.dat entity header"},
      // What stands in the header comes before what it holds.
      {"Hawaii:0:0:O:21:157:10:KH6: x\nK;", "line 1: not a cty.dat entity header"},
      // Behind a ';' a new header begins, on the same line or a later one.
      {"Hawaii:31:61:OC::::KH6:\n\nK,\nL; M\n", "line 4: not a cty.dat entity header"},
      {"Hawaii:31:61:OC::::KH6:\n\nK,\nL;\n\n;\n", "line 6: not a cty.dat entity header"},
  };
  for (const auto& c : cases) EXPECT_EQ(errorOf(c.text), c.error) << c.text;
}

TEST(ParseCountries, UnusedHeaderFieldsMayHoldAnything) {
  EXPECT_EQ(errorOf("Hawaii:31:61:OC::x y;,:(:KH6:\nK;"), "");
  EXPECT_EQ(errorOf("Hawaii:31:61:OC::::KH6: \t\v\f\r\nK;"), "");
}

TEST(ParseCountries, ChecksZonesAndContinent) {
  const struct {
    const char* cq;
    const char* itu;
    const char* continent;
    bool good;
  } cases[] = {
      {"1", "1", "NA", true},
      {"40", "90", "NA", true},
      {"0", "1", "NA", false},
      {"41", "1", "NA", false},
      {"1", "0", "NA", false},
      {"1", "91", "NA", false},
      {"-1", "1", "NA", false},
      {"1", "1", "N", false},
      {"1", "1", "NAM", false},
      {"1", "1", "", false},
      {"", "1", "NA", false},
      {"1", "", "NA", false},
      {"x14", "1", "NA", false},
      {"1", "x14", "NA", false},
      {"14x", "27x", "NA", true},
      {"14.9", "27 28", "NA", true},
      {"007", "+8", "NA", true},
      {"+-8", "8", "NA", false},
      {"++8", "8", "NA", false},
      {"+ 8", "8", "NA", false},
      {"0x8", "8", "NA", false},
      {"2147483648", "1", "NA", false},
      {"4294967297", "1", "NA", false},  // 1, if it wrapped at 32 bits
      {"1", "18446744073709551617", "NA", false},
      {"-99999999999999999999", "1", "NA", false},
  };
  for (const auto& c : cases) {
    const std::string text =
        "\nOnce Upon:" + std::string(c.cq) + ":" + c.itu + ":" + c.continent + ":0:0:0:K:\nK;";
    EXPECT_EQ(errorOf(text), c.good ? "" : "line 2: bad zones or continent for Once Upon") << text;
  }
}

TEST(ParseCountries, NeedsASemicolonBehindTheAliases) {
  const struct {
    const char* aliases;
    const char* error;
  } cases[] = {
      {"", "line 2: alias list for United States has no ';'"},
      {"K", "line 2: alias list for United States has no ';'"},
      {"K,W", "line 2: alias list for United States has no ';'"},
      {"K,\nW,\n", "line 4: alias list for United States has no ';'"},
      // Nothing in a list is looked at before its end is known.
      {"K-1,\nW(4", "line 3: alias list for United States has no ';'"},
      {"K;\nHawaii:31:61:OC:::10:KH6:\nAH6,\nAH7", "line 5: alias list for Hawaii has no ';'"},
      {"K;\nHawaii:31:61:OC:::10:KH6:", "line 3: alias list for Hawaii has no ';'"},
  };
  for (const auto& c : cases) EXPECT_EQ(errorOf(states(c.aliases)), c.error) << c.aliases;
  EXPECT_EQ(errorOf(kStates.substr(0, kStates.size() - 1)),  // the header ends the file
            "line 1: alias list for United States has no ';'");
}

TEST(ParseCountries, RefusesABadPrefixAtTheLineWhereItEnds) {
  const struct {
    const char* aliases;
    const char* error;
  } cases[] = {
      {"K-1;", "line 2: bad prefix K-1"},
      {"K,\n  N-1  ,W;", "line 3: bad prefix N-1"},
      {"K,\nN-1\n\n,W;", "line 3: bad prefix N-1"},  // the entry ended before
      {"\n\nK,\n\nN-1;", "line 6: bad prefix N-1"},
      {"K\nW;", "line 3: bad prefix K\nW"},  // a forgotten comma
      {"K W;", "line 2: bad prefix K W"},
      {"=N-1;", "line 2: bad prefix N-1"},  // the sign is off already
      {"= N-1;", "line 2: bad prefix  N-1"},
      {"==N1;", "line 2: bad prefix =N1"},
      {"n-1x(4)[8];", "line 2: bad prefix n-1x(4)[8]"},
      {"N-1(4;", "line 2: bad prefix N-1(4"},  // before its modifiers are looked at
      {"K);", "line 2: bad prefix K)"},
      {"K:;", "line 2: bad prefix K:"},
      {"\xC3\x84;", "line 2: bad prefix \xC3\x84"},
      // The first fault counts.
      {"K,\nK-1,\nK-2,K(;", "line 3: bad prefix K-1"},
  };
  for (const auto& c : cases) EXPECT_EQ(errorOf(states(c.aliases)), c.error) << c.aliases;
  EXPECT_EQ(errorOf(states(std::string_view("K\0;", 3))), std::string("line 2: bad prefix K"))
      << "a NUL byte is no prefix character";
}

TEST(ParseCountries, RefusesAnUnterminatedModifierAtTheLineWhereItsEntryEnds) {
  const struct {
    const char* aliases;
    const char* error;
  } cases[] = {
      {"K(4)[8;", "line 2: unterminated modifier in K(4)[8"},
      {"K,\nN(4,W;", "line 3: unterminated modifier in N(4"},
      {"K(4\n[8]\n;", "line 3: unterminated modifier in K(4\n[8]"},
      {"K(;", "line 2: unterminated modifier in K("},
      {"K[;", "line 2: unterminated modifier in K["},
      {"K<;", "line 2: unterminated modifier in K<"},
      {"K{;", "line 2: unterminated modifier in K{"},
      {"K~;", "line 2: unterminated modifier in K~"},
      {"K(4];", "line 2: unterminated modifier in K(4]"},
      {"K~-5~~;", "line 2: unterminated modifier in K~-5~~"},
      {"=N1(4;", "line 2: unterminated modifier in N1(4"},
      {"(4;", "line 2: unterminated modifier in (4"},
      {"K<1,2>;", "line 2: unterminated modifier in K<1"},  // a comma ends an entry anywhere
      {"K(4)x[8;", "line 2: unterminated modifier in K(4)x[8"},
  };
  for (const auto& c : cases) EXPECT_EQ(errorOf(states(c.aliases)), c.error) << c.aliases;
}

TEST(ParseCountries, NeedsAnEntity) {
  for (const char* text : {"", " ", "\n\n", " \t\n\v\f\r"}) {
    EXPECT_EQ(errorOf(text), "only 0 entities (expected at least 1)") << '"' << text << '"';
  }
}

TEST(ParseCountries, ModifiersChangeTheRecordAlone) {
  const struct {
    const char* entry;
    const char* record;
  } cases[] = {
      {"N1", "5 8 NA"},
      {"N1(4)", "4 8 NA"},
      {"N1[7]", "5 7 NA"},
      {"N1{OC}", "5 8 OC"},
      {"N1<30.5/90.25>", "5 8 NA"},
      {"N1~-10.0~", "5 8 NA"},
      {"N1(4)[7]<1/2>{OC}~6~", "4 7 OC"},
      {"N1~6~{OC}<1/2>[7](4)", "4 7 OC"},
      {"N1 (4) [7]", "4 7 NA"},
      {"N1(4)and[7]then", "4 7 NA"},
      {"N1(4)(3)", "3 8 NA"},
      {"N1<(4)[7]{OC}>", "5 8 NA"},
      {"N1~(4)~", "5 8 NA"},
      {"N1(4[7)", "4 8 NA"},
      {"N1( 4x )", "4 8 NA"},
      {"N1(+4)", "4 8 NA"},
      // No number, or none that fits: the entity's zone stays. Any other number is taken.
      {"N1()[]", "5 8 NA"},
      {"N1(x)[y7]", "5 8 NA"},
      {"N1(+-4)[- 7]", "5 8 NA"},
      {"N1(2147483648)[-2147483649]", "5 8 NA"},
      {"N1(2147483647)[0]", "2147483647 0 NA"},
      {"N1(-4)", "-4 8 NA"},
      {"N1{}", "5 8 "},
      {"N1{ Oceania }", "5 8  Oceania "},
  };
  for (const auto& c : cases) {
    const Countries prefixes = parseCountries(states(std::string(c.entry) + ";"));
    EXPECT_EQ(describe(prefixes.prefixes, "N1"), c.record) << c.entry;
    EXPECT_THAT(prefixes.exact, IsEmpty()) << c.entry;
    const Countries exact = parseCountries(states(std::string("=") + c.entry + ";"));
    EXPECT_EQ(describe(exact.exact, "N1"), c.record) << c.entry;
    EXPECT_THAT(exact.prefixes, IsEmpty()) << c.entry;
    EXPECT_EQ(exact.entities[0].cq_zone, 5) << c.entry;
    EXPECT_EQ(exact.entities[0].continent, "NA") << c.entry;
  }
}

TEST(ParseCountries, StoresEntriesUpperCase) {
  const Countries countries = parseCountries(states("kh6/a,=n0call/p(4);"));
  EXPECT_EQ(describe(countries.prefixes, "KH6/A"), "5 8 NA");
  EXPECT_EQ(describe(countries.exact, "N0CALL/P"), "4 8 NA");
  EXPECT_THAT(countries.prefixes, SizeIs(1));
}

TEST(ParseCountries, TakesEveryLetterDigitAndSlash) {
  const std::string all = "ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789/";
  for (const std::string written : {"abcdefghijklmnopqrstuvwxyz0123456789/", all.c_str()}) {
    const Countries countries = parseCountries(states(written + ";"));
    EXPECT_EQ(describe(countries.prefixes, all), "5 8 NA") << written;
    EXPECT_EQ(countries.longest_prefix, 37U) << written;
  }
}

TEST(ParseCountries, TakesNoOtherCharacter) {
  const std::string good = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789/";
  const std::string meaningful = ",;([<{~=";
  for (int byte = 0; byte < 256; ++byte) {
    const char c = static_cast<char>(byte);
    if (reference::isSpace(c) || meaningful.find(c) != std::string::npos) continue;
    const bool refused = !errorOf(states(std::string("K") + c + ";")).empty();
    EXPECT_EQ(refused, good.find(c) == std::string::npos) << byte;
  }
}

TEST(ParseCountries, WhiteSpaceAroundEntriesDoesNotMatter) {
  const Countries countries = parseCountries(states(" \t\n\v\f\rK \t\n\v\f\r,\r\n= W1 \n;\n\n"));
  EXPECT_EQ(describe(countries.prefixes, "K"), "5 8 NA");
  EXPECT_EQ(describe(countries.exact, "W1"), "5 8 NA");
}

TEST(ParseCountries, AnEntryWithoutABaseAddsNothing) {
  for (const char* aliases :
       {";", " ;", ",;", "\n,,\n,;", "=;", "= ;", "(4);", "=(4)[8];", "~~;"}) {
    const Countries countries = parseCountries(states(aliases));
    EXPECT_THAT(countries.entities, SizeIs(1)) << aliases;
    EXPECT_THAT(countries.prefixes, IsEmpty()) << aliases;
    EXPECT_THAT(countries.exact, IsEmpty()) << aliases;
    EXPECT_EQ(countries.longest_prefix, 0U) << aliases;
  }
}

TEST(ParseCountries, OfEntriesWrittenTwiceTheLaterOneStands) {
  const Countries countries =
      parseCountries(states("K(1),=W1(2),K(3),=W1(4),N;\n") + std::string(kHawaii) + "N,=W1;");
  EXPECT_EQ(describe(countries.prefixes, "K"), "3 8 NA");
  EXPECT_EQ(describe(countries.prefixes, "N"), "31 61 OC");
  EXPECT_EQ(countries.prefixes.at("N").entity, 1U);
  EXPECT_EQ(describe(countries.exact, "W1"), "31 61 OC");
}

TEST(ParseCountries, APrefixAndAnExactCallsignOfOneNameStandSideBySide) {
  const Countries countries = parseCountries(states("W1(1),=W1(2);"));
  EXPECT_EQ(describe(countries.prefixes, "W1"), "1 8 NA");
  EXPECT_EQ(describe(countries.exact, "W1"), "2 8 NA");
}

TEST(ParseCountries, OnlyPrefixesCountForTheLongestPrefix) {
  EXPECT_EQ(parseCountries(states("K,KH6,=N0CALL/P,N1;")).longest_prefix, 3U);
}

TEST(ParseCountries, AStarAloneIsAPrimaryPrefix) {
  const Countries countries = parseCountries("Nowhere:1:1:EU::::*:\nK;");
  EXPECT_EQ(countries.entities[0].primary_prefix, "");
  EXPECT_FALSE(countries.entities[0].dxcc);
}

// Each of these would take hours if any step looked at the rest of the text over and over.
TEST(ParseCountries, TakesLinearTimeForAnyText) {
  constexpr std::size_t kSize = 8 * 1024 * 1024;
  const std::string header(kStates);
  for (const char* piece :
       {";", ",", "(", "()", "~", "=", " ", "\n", ":", "K", "K\n", "K,\n", "(\n", "(4)x", "\n ,"}) {
    std::string text;
    text.reserve(header.size() + kSize + 8);
    text = header;
    while (text.size() < kSize) text += piece;
    errorOf(text);
    errorOf(text + ";");
    errorOf(std::string_view(text).substr(header.size()));
  }
}

TEST(ParseCountries, TakesLinearTimeForManyEntities) {
  std::string text;
  while (text.size() < 4 * 1024 * 1024) text += "A:1:1:EU::::A:\n;";
  const std::size_t count = text.size() / 16;
  EXPECT_THAT(parseCountries(text).entities, SizeIs(count));
  EXPECT_EQ(errorOf(text + "x"),
            "line " + std::to_string(count + 1) + ": not a cty.dat entity header");
}

// A text of cty.dat pieces, right often enough to get far.
std::string randomText(std::mt19937& random) {
  static const std::vector<std::string> kHeaders = {
      "A:1:1:EU::::A:\n", "Bee : 40:90 :AS:1:2:3: *B2 :\r\n", "C:14x:+9:NA::::c:\n"};
  static const std::vector<std::string> kUsual = {
      "K", "KH6", "n0call", "/", "=", ",", ",", ",\n", "(4)", " ", "[8]", "{OC}", "<1>", "2", "()"};
  static const std::vector<std::string> kOdd = {
      "~", "(", "]", "x", "\n", "(99999999999)", "-", ":", "\v", ";", "A:0:1:EU::::A:\n"};
  const auto any = [&random](const std::vector<std::string>& of) {
    return of[random() % of.size()];
  };
  std::string text;
  for (auto entities = 1 + random() % 3; entities > 0; --entities) {
    text += any(kHeaders);
    for (auto pieces = random() % 12; pieces > 0; --pieces) {
      text += any(random() % 20 == 0 ? kOdd : kUsual);
    }
    text += random() % 20 == 0 ? "" : random() % 2 == 0 ? ";" : ";\n";
  }
  return text;
}

TEST(ParseCountries, AgreesWithThePlainFormOnRandomTexts) {
  std::mt19937 random(20'230'502);
  int good = 0;
  for (int i = 0; i < 50'000; ++i) {
    const std::string text = randomText(random);
    const std::string found = reference::outcome(parseCountries, text);
    ASSERT_EQ(found, reference::outcome(reference::parse, text)) << text;
    if (!found.starts_with("error: ")) ++good;
  }
  EXPECT_GT(good, 10'000) << "hardly a text is well formed: the comparison says little";
}

}  // namespace
}  // namespace cty
