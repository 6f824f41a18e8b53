// The numbers and times of a log line: which forms are read, and as what.
#include <cmath>
#include <limits>
#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "spots/all_txt.hpp"
#include "spots/all_txt_reference.hpp"
#include "stems/all_txt_alike.hpp"

namespace {

using namespace spotserver;
using namespace std::string_literals;
using testing::PrintToString;

// Numbers
// ------------------------------------------------------------------------------------------

TEST(AllTxtNumber, DecimalFormsOfAStream) {
  const struct {
    std::string text;
    double mhz;
  } cases[] = {
      {"14.074", 14.074},
      {"+14.074", 14.074},
      {".5", 0.5},
      {"5.", 5.0},
      {"+.5", 0.5},
      {"-5.", -5.0},
      {"1e3", 1000.0},
      {"1E3", 1000.0},
      {"1e+3", 1000.0},
      {"1.e-3", 0.001},
      {".5e1", 5.0},
      {"0014.074", 14.074},
      {"00", 0.0},
      {"1e0000000000000000003", 1000.0},
      {"0e999999999999", 0.0},
  };
  for (const auto& c : cases) {
    const auto record = parseAlike(withFrequency(c.text));
    ASSERT_TRUE(record) << c.text;
    EXPECT_EQ(record->frequency, c.mhz * 1e6) << c.text;
  }
}

TEST(AllTxtNumber, WhatAStreamRefuses) {
  for (const auto* text :
       {"1e",    "1e+",    "1e-",   "5e Rx", "5e+x",     "+",        "-",    ".",   "+.",
        ".e5",   "e5",     "+-5",   "-+5",   "--5",      "++5",      "+ 5",  "- 5", "nan",
        "NaN",   "-nan",   "inf",   "-inf",  "infinity", "abc",      "0x1F", "0x",  "0x1p3",
        "12abc", "14,074", "1.2.3", "1e5.3", "1e5e3",    "\xD9\xA1", "$5"}) {
    EXPECT_FALSE(parseAlike(withFrequency(text))) << text;
    EXPECT_FALSE(parseAlike(withTimeOffset(text))) << text;
  }
  EXPECT_FALSE(parseAlike(withFrequency("\0"s + "5")));
  EXPECT_FALSE(parseAlike(withFrequency("5\0"s)));
}

TEST(AllTxtNumber, EndsWhereItCannotGoOn) {
  // What ends a number begins the next field.
  EXPECT_TRUE(parseAlike("250314_101530 14.074Rx FT8 -12 0.2 1234 CQ N0CALL FN42"));
  EXPECT_TRUE(parseAlike("250314_101530 1e1Rx FT8 -12 0.2 1234 CQ N0CALL FN42"));
  EXPECT_FALSE(parseAlike("250314_101530 14.074 RxFT8 -12 0.2 1234 CQ N0CALL FN42"));
  EXPECT_TRUE(parseAlike("250314_101530 14.074 Rx FT8 -12.2 1234 CQ N0CALL FN42"));
  EXPECT_TRUE(parseAlike("250314_101530 14.074 Rx FT8 -12+0.2+1234 CQ N0CALL FN42"));
  EXPECT_TRUE(parseAlike("250314_101530 14.074 Rx FT8 -12-.2-1234 CQ N0CALL FN42"));
  EXPECT_FALSE(parseAlike("250314_101530 14.074 Rx FT8 0x1F 0.2 1234 CQ N0CALL FN42"));
  EXPECT_TRUE(parseAlike("250314_101530 14.074 Rx FT8 -12 0.2 0x1F CQ N0CALL FN42"));
}

TEST(AllTxtNumber, DecimalOverflowFailsAndUnderflowIsZero) {
  for (const auto* text : {"1e400", "-1e400", "1.7976931348623159e308", "1e99999999999999999999"}) {
    EXPECT_FALSE(parseAlike(withFrequency(text))) << text;
    EXPECT_FALSE(parseAlike(withTimeOffset(text))) << text;
  }
  EXPECT_TRUE(parseAlike(withFrequency("1.7976931348623157e308")));
  EXPECT_TRUE(std::isinf(parseAlike(withFrequency("1e308")).value().frequency));

  for (const auto* text : {"1e-400", "1e-99999999999999999999", "2.4703282292062327e-324"}) {
    EXPECT_EQ(parseAlike(withFrequency(text)).value().frequency, 0.0) << text;
  }
  const double smallest = std::numeric_limits<double>::denorm_min();
  EXPECT_EQ(parseAlike(withFrequency("4.9e-324")).value().frequency, smallest * 1e6);
  EXPECT_EQ(parseAlike(withFrequency("2.4703282292062328e-324")).value().frequency, smallest * 1e6);
  EXPECT_TRUE(std::signbit(parseAlike(withFrequency("-1e-400")).value().frequency));
}

TEST(AllTxtNumber, IntegersFitThirtyTwoBits) {
  const struct {
    std::string text;
    bool accepted;
  } cases[] = {
      {"2147483647", true},
      {"2147483648", false},
      {"-2147483648", true},
      {"-2147483649", false},
      {"+2147483647", true},
      {"+2147483648", false},
      {"4294967296", false},
      {"9223372036854775807", false},
      {"9223372036854775808", false},
      {"18446744073709551617", false},
      {"-99999999999999999999999999", false},
      {"0000000000000000000000000005", true},
      {"-0", true},
      {"+0", true},
      {"0012", true},
      {"+", false},
      {"-", false},
      {"--5", false},
      {"+-5", false},
      {"- 5", false},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(parseAlike(withSnr(c.text)).has_value(), c.accepted) << c.text;
    EXPECT_EQ(parseAlike(withAudioOffset(c.text)).has_value(), c.accepted) << c.text;
  }
}

TEST(AllTxtNumber, VeryLongNumbersAreExact) {
  const auto digits = [](char digit, std::size_t count) { return std::string(count, digit); };
  const std::string numbers[] = {
      digits('0', 5000) + "14.074",
      "14.074" + digits('0', 5000),
      "14.074" + digits('0', 5000) + "1",
      "0." + digits('0', 5000) + "14074e5002",
      "14074" + digits('0', 5000) + "e-5003",
      // So long that an exponent of as many digits is needed to undo it.
      "0." + digits('0', 700'000) + "1e700001",
      "1" + digits('0', 700'000) + "e-700000",
      // The exponent goes further than the digits can undo.
      "0." + digits('0', 70'000) + "1e700000",
      "1" + digits('0', 70'000) + "e-700000",
      "1" + digits('0', 400),
      "0." + digits('0', 400) + "1",
      digits('9', 5000),
      "1e" + digits('9', 5000),
      "1e-" + digits('9', 5000),
      "1e" + digits('0', 5000) + "1",
      // Halfway between two neighbours, decided by the last digit.
      "9007199254740993" + digits('0', 800),
      "9007199254740993." + digits('0', 800) + "1",
      "9007199254740992." + digits('9', 800),
      "2.47032822920623272088284396434110686182" + digits('0', 800) + "e-324",
  };
  for (const auto& number : numbers) {
    for (const auto* sign : {"", "+", "-"}) {
      parseAlike(withFrequency(sign + number));
      parseAlike(withTimeOffset(sign + number));
      parseAlike(withSnr(sign + number));
    }
  }
  EXPECT_EQ(parseAlike(withFrequency(numbers[0])).value().frequency, 14'074'000.0);
  EXPECT_EQ(parseAlike(withFrequency(numbers[5])).value().frequency, 1'000'000.0);
}

TEST(AllTxtNumber, EveryLengthReadsAlike) {
  for (std::size_t length = 1; length <= 52; ++length) {
    const auto number = "14.07412345678901234567890123456789012345678901234567"s.substr(0, length);
    parseAlike(withFrequency(number));
    parseAlike(withFrequency("-" + number + "e-9"));
  }
}

// Timestamps
// ---------------------------------------------------------------------------------------

TEST(AllTxtTime, IsUtcOfTheTwentyFirstCentury) {
  const struct {
    std::string token;
    double time;
  } cases[] = {{"250314_101530", kTime},
               {"000101_000000", 946'684'800},
               {"991231_235959", 4'102'444'799},
               {"251231_235959", 1'767'225'599},
               {"240229_120000", 1'709'208'000}};
  for (const auto& c : cases) {
    EXPECT_EQ(parseAllTxtTime(c.token), std::optional(c.time)) << c.token;
    EXPECT_EQ(parseAlike(withTime(c.token)).value().time, c.time) << c.token;
  }
}

TEST(AllTxtTime, OutOfTheCalendarIsNone) {
  for (const auto* token :
       {"250230_101530", "250229_101530", "250431_101530", "250132_101530", "250100_101530",
        "250001_101530", "251301_101530", "250314_240000", "250314_236000", "250314_235960"}) {
    EXPECT_FALSE(parseAllTxtTime(token)) << token;
    EXPECT_FALSE(parseAlike(withTime(token))) << token;
  }
}

TEST(AllTxtTime, HasOneFormOnly) {
  for (const auto& token :
       {""s, "250314_10153"s, "250314_1015300"s, "250314-101530"s, "2503141_01530"s,
        "25031_1101530"s, "20250314_1015"s, "250314_10153 "s, "250314_ 01530"s, "+50314_101530"s,
        "250314_-01530"s, "25O314_101530"s, "2:0314_101530"s, "25031:_101530"s, "25031/_101530"s,
        "250314_10153\0"s, "250314_1015\xD9\xA1"s}) {
    EXPECT_FALSE(parseAllTxtTime(token)) << PrintToString(token);
  }
}

TEST(AllTxtTime, AgreesWithTheCLibraryOnEveryDayAndSecond) {
  const auto twoDigits = [](int n) {
    return std::string{static_cast<char>('0' + n / 10), static_cast<char>('0' + n % 10)};
  };
  const auto expectAlikeTime = [](const std::string& token) {
    ASSERT_EQ(parseAllTxtTime(token), reference::parseAllTxtTime(token)) << token;
  };
  for (int year = 0; year < 100; ++year) {
    for (int month = 0; month < 14; ++month) {
      for (int day = 0; day < 33; ++day) {
        expectAlikeTime(twoDigits(year) + twoDigits(month) + twoDigits(day) + "_235959");
      }
    }
  }
  for (int a = 0; a < 100; ++a) {
    for (int b = 0; b < 100; ++b) {
      expectAlikeTime("250314_" + twoDigits(a) + twoDigits(b) + "00");
      expectAlikeTime("250314_00" + twoDigits(a) + twoDigits(b));
      expectAlikeTime("25" + twoDigits(a) + twoDigits(b) + "_000000");
    }
  }
}

}  // namespace
