#include "spots/callsign.hpp"

#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "sanitizers.hpp"
#include "spots/message_reference.hpp"

namespace {

using namespace spotserver;
using namespace std::string_view_literals;
using testing::PrintToString;

struct Case {
  std::string_view text;
  bool valid;
};

TEST(Callsign, AcceptsPrefixDigitSuffix) {
  const Case cases[] = {
      {"N0CALL", true}, {"2E0XYZ", true}, {"A1B", true},    {"123ABC", false},
      {"N0", false},    {"0CALL", false}, {"NCALL", false}, {"N0CALL1", false},
      {"12", false},    {"", false},      {"...", false},   {"1A2", false},
  };
  for (const auto& c : cases) EXPECT_EQ(isValidCallsign(c.text), c.valid) << c.text;
}

TEST(Callsign, OnePartBetweenSlashesIsEnough) {
  const Case cases[] = {
      {"N0CALL/P", true},  {"PA/N0CALL", true}, {"PA/N0CALL/QRP", true},   {"123ABC/N0CALL", true},
      {"123ABC/P", false}, {"PA/QRP", false},   {"F/N0CALL/7/MM/P", true},
  };
  for (const auto& c : cases) EXPECT_EQ(isValidCallsign(c.text), c.valid) << c.text;
}

TEST(Callsign, SlashesStandAloneAndInside) {
  const Case cases[] = {
      {"N0CALL//P", false}, {"/N0CALL", false},   {"N0CALL/", false},
      {"///", false},       {"N0CALL/P/", false}, {"N0CALL/P//M", false},
  };
  for (const auto& c : cases) EXPECT_EQ(isValidCallsign(c.text), c.valid) << c.text;
}

TEST(Callsign, PrefixAndSuffixHaveAtMostSixCharacters) {
  const Case cases[] = {
      {"ABCDEF1A", true}, {"ABCDEFG1A", false}, {"A1ABCDEF", true},      {"A1ABCDEFG", false},
      {"12345A6B", true}, {"123456A7B", false}, {"A123456BCDEFG", true}, {"123A45B", true},
  };
  for (const auto& c : cases) EXPECT_EQ(isValidCallsign(c.text), c.valid) << c.text;
}

TEST(Callsign, HasThreeToThirtyTwoCharacters) {
  const Case cases[] = {
      {"A1", false},
      {"A1B", true},
      {"N0CAL/ABCDEFGHIJKLMNOPQRSTUVWXYZ", true},
      {"N0CALL/ABCDEFGHIJKLMNOPQRSTUVWXYZ", false},
  };
  ASSERT_EQ(cases[2].text.size(), 32U);
  ASSERT_EQ(cases[3].text.size(), 33U);
  for (const auto& c : cases) EXPECT_EQ(isValidCallsign(c.text), c.valid) << c.text;
}

TEST(Callsign, KnowsUpperCaseAsciiOnly) {
  const Case cases[] = {
      {"n0call", false},    {"N0cALL", false},     {"N0CALL/p", false},   {"N0CALL ", false},
      {" N0CALL", false},   {"N0CALL\n", false},   {"N0CALL-1", false},   {"<N0CALL>", false},
      {"N0C\xC4LL", false}, {"N0CALL\0"sv, false}, {"\0N0CALL"sv, false},
  };
  for (const auto& c : cases) EXPECT_EQ(isValidCallsign(c.text), c.valid) << PrintToString(c.text);
}

TEST(Callsign, AnyCaseWillDoWhereItMay) {
  const Case cases[] = {
      {"n0call", true},     {"N0cALL", true},      {"pa/N0CALL/p", true}, {"123abc", false},
      {"n0call@", false},   {"n0call`", false},    {"n0call{", false},    {"<n0call>", false},
      {"n0c\xE4ll", false}, {"n0call\0"sv, false},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(isCallsignInAnyCase(c.text), c.valid) << PrintToString(c.text);
  }
}

TEST(Grid, AnyCaseWillDoWhereItMay) {
  const Case cases[] = {
      {"fn42", true},  {"Fn42aB12", true}, {"fs42", false}, {"fn42ay", false},
      {"`n42", false}, {"f{42", false},    {"FN4a", false}, {"FN42a", false},
  };
  for (const auto& c : cases) EXPECT_EQ(isGridInAnyCase(c.text), c.valid) << c.text;
}

TEST(Grid, HasFourSixOrEightCharacters) {
  const Case cases[] = {
      {"FN42", true},       {"FN42AB", true},      {"FN42AB12", true}, {"", false},
      {"FN4", false},       {"FN", false},         {"FN42A", false},   {"FN42AB1", false},
      {"FN42AB123", false}, {"FN42AB12CD", false},
  };
  for (const auto& c : cases) EXPECT_EQ(isValidGrid(c.text), c.valid) << c.text;
}

TEST(Grid, EveryPairHasItsRange) {
  const Case cases[] = {
      {"AA00", true},     {"RR99", true},     {"SA00", false},     {"AS00", false},
      {"0A00", false},    {"AAA0", false},    {"AA0A", false},     {"AA00AA", true},
      {"AA00XX", true},   {"AA00YA", false},  {"AA00AY", false},   {"AA0011", false},
      {"AA00AA00", true}, {"RR99XX99", true}, {"AA00AAA0", false}, {"AA00AA0A", false},
      {"fn42", false},    {"FN42ab", false},  {"FN4\0"sv, false},  {"FN42A\xC4", false},
      {"RR73", true},
  };
  for (const auto& c : cases) EXPECT_EQ(isValidGrid(c.text), c.valid) << PrintToString(c.text);
}

TEST(Characters, AreAsciiOnly) {
  const auto within = [](int c, std::string_view set) {
    return set.find(static_cast<char>(c)) != std::string_view::npos;
  };
  for (int code = -128; code < 128; ++code) {
    const char c = static_cast<char>(code);
    EXPECT_EQ(isDigit(c), within(code, "0123456789")) << code;
    EXPECT_EQ(isUpper(c), within(code, "ABCDEFGHIJKLMNOPQRSTUVWXYZ")) << code;
    EXPECT_EQ(isBlank(c), within(code, " \t\n\v\f\r")) << code;
    const bool lower = within(code, "abcdefghijklmnopqrstuvwxyz");
    EXPECT_EQ(toUpper(c), lower ? "ABCDEFGHIJKLMNOPQRSTUVWXYZ"[code - 'a'] : c) << code;
  }
}

void expectSameCallsign(const std::string& text) {
  if (testing::Test::HasFailure()) return;
  ASSERT_EQ(isValidCallsign(text), reference::isValidCallsign(text)) << PrintToString(text);
  ASSERT_EQ(isCallsignInAnyCase(text), reference::isValidCallsign(reference::upper(text)))
      << PrintToString(text);
}

void expectSameGrid(const std::string& text) {
  if (testing::Test::HasFailure()) return;
  ASSERT_EQ(isValidGrid(text), reference::isValidGrid(text)) << PrintToString(text);
  ASSERT_EQ(isGridInAnyCase(text), reference::isValidGrid(reference::upper(text)))
      << PrintToString(text);
}

TEST(CallsignReference, AgreesOnEveryShortText) {
  reference::forEachText("AZ09/a-", kSanitized ? 5 : 7, expectSameCallsign);
  reference::forEachText("A7/", 10, expectSameCallsign);
}

TEST(CallsignReference, AgreesOnEveryPartOfLettersAndDigits) {
  reference::forEachText("A7", 15, expectSameCallsign);
}

TEST(CallsignReference, AgreesAroundTheLengthLimits) {
  for (std::size_t length = 1; length <= 40; ++length) {
    expectSameCallsign(std::string(length, 'A'));
    expectSameCallsign("A1A/" + std::string(length, 'A'));
    expectSameCallsign(std::string(length, '7') + "/A1A");
    expectSameCallsign(std::string(length, 'A') + "1A");
    expectSameCallsign("A1" + std::string(length, 'A'));
  }
}

TEST(CallsignReference, AgreesOnDamagedCallsigns) {
  const std::string callsigns[] = {"N0CALL",        "2E0XYZ",
                                   "PA/N0CALL/P",   "A123456BCDEFG",
                                   "123ABC/N0CALL", "N0CALL/ABCDEFGHIJKLMNOPQRSTUVWX"};
  reference::Mutator mutator(20250314);
  const int rounds = kSanitized ? 50'000 : 300'000;
  for (int i = 0; i < rounds; ++i) expectSameCallsign(mutator.damage(mutator.pick(callsigns)));
}

TEST(GridReference, AgreesOnEveryShortText) {
  reference::forEachText("ARSXY09a/", 5, expectSameGrid);
  reference::forEachText("ARSX09", 6, expectSameGrid);
  reference::forEachText("RX9", 9, expectSameGrid);
}

}  // namespace
