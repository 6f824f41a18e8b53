#include "spots/all_txt.hpp"

#include <array>
#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "edge_of_memory.hpp"
#include "failing_memory.hpp"
#include "sanitizers.hpp"
#include "spots/all_txt_reference.hpp"
#include "spots/message_reference.hpp"
#include "spots/mode.hpp"

namespace {

using namespace spotserver;
using namespace std::string_literals;
using testing::PrintToString;

constexpr double kTime = 1'741'947'330;  // 250314_101530

// Production and plain form read the line alike; returns what they read. A blank in front changes
// nothing but takes the line out of its usual shape: so both readers of the production form see it.
// Nor does it matter which lines were read before. No byte beyond the line is looked at.
std::optional<AllTxtRecord> parseAlike(const std::string& line) {
  static LineHead last;
  static const EdgeOfMemory memory;
  const auto end = memory.atEnd(line);
  auto record = parseAllTxtLine(end);
  for (const auto& other : {parseAllTxtLine(" " + line), parseAllTxtLine(end, last)}) {
    EXPECT_TRUE(reference::same(record, other)) << PrintToString(line);
  }
  const auto plain = reference::parseAllTxtLine(line);
  EXPECT_TRUE(reference::same(record, plain))
      << PrintToString(line) << "\n  found " << reference::describe(record) << "\n  plain "
      << reference::describe(plain);
  return record;
}

void expectAlike(const std::string& line) {
  if (!testing::Test::HasFailure()) parseAlike(line);
}

std::string withFrequency(const std::string& text) {
  return "250314_101530 " + text + " Rx FT8 -12 0.2 1234 CQ N0CALL FN42";
}
std::string withSnr(const std::string& text) {
  return "250314_101530 14.074 Rx FT8 " + text + " 0.2 1234 CQ N0CALL FN42";
}
std::string withTimeOffset(const std::string& text) {
  return "250314_101530 14.074 Rx FT8 -12 " + text + " 1234 CQ N0CALL FN42";
}
std::string withAudioOffset(const std::string& text) {
  return "250314_101530 14.074 Rx FT8 -12 0.2 " + text + " CQ N0CALL FN42";
}
std::string withMessage(const std::string& text) {
  return "250314_101530 14.074 Rx FT8 -12 0.2 1234" + text;
}
std::string withTime(const std::string& text) {
  return text + " 14.074 Rx FT8 -12 0.2 1234 CQ N0CALL FN42";
}

// The line grammar
// ---------------------------------------------------------------------------------

TEST(AllTxtLine, YieldsTimeFrequencyModeAndSender) {
  const auto record = parseAlike("250314_101530    14.074 Rx FT8    -12  0.2 1234 CQ N0CALL FN42");
  ASSERT_TRUE(record);
  EXPECT_EQ(record->time, kTime);
  EXPECT_EQ(record->frequency, 14.074 * 1e6);
  EXPECT_EQ(record->mode, kFt8);
  EXPECT_EQ(record->callsign, "N0CALL");
}

TEST(AllTxtLine, EachFieldOfTheHeadMayChange) {
  const std::string lines[] = {
      "250314_101530    14.074 Rx FT8    -12  0.2 1234 CQ N0CALL FN42",
      "250314_101530    14.074 Rx FT8      3 -0.2   34 N1CALL N0CALL RR73",
      "250314_101545    14.074 Rx FT8    -12  0.2 1234 CQ N0CALL FN42",
      "250314_101545     7.074 Rx FT8    -12  0.2 1234 CQ N0CALL FN42",
      "250314_101545     7.074 Tx FT8    -12  0.2 1234 CQ N0CALL FN42",
      "250314_101545     7.074 Rx FT4    -12  0.2 1234 CQ N0CALL FN42",
      "250314_101545     7.074 Rx JS8    -12  0.2 1234 X [frame= flags= sender=N0CALL grid=]",
      "250314_101545     7.074 Rx JS8-SLOW    -12  0.2 1234 X",
      "250314_101545     7.074 Rx JS8    -12  0.2 1234 X",
      "250314_101545     7.074 Rx JS80    -12  0.2 1234 X",
      "250314_101545     7.074 Rx JS8",
      "250314_101545     7.074 Rx JS8 ",
      "250314_101545     7.074 Rx JS8\t-12 0.2 1234 X",
      "250314_101545                                      7.074 Rx JS8    -12  0.2 1234 X",
      "250314_101545                                      7.074 Rx FT8    -12  0.2 1234 X",
  };
  for (const auto& line : lines) {
    for (const auto& other : lines) {
      parseAlike(line);
      parseAlike(other);
    }
  }
}

// What the reader of usual lines takes: how many passes a line needs is the only difference.
TEST(AllTxtLine, AUsualOneTakesOnePass) {
  const std::string lines[] = {
      "250314_101530    14.074 Rx FT8    -12  0.2 1234 CQ N0CALL FN42",
      "250314_101530     7.074 Rx FT4      3 -0.2   34 N1CALL N0CALL RR73",
      "250314_101530     7.078 Rx JS8      0 12.5 1234 X",
      "250314_101530   144.178 Rx JS8-FAST    -12  0.2 1234 X",
      "250314_101530     7.078 Rx JS8-TURBO    -12  0.2 1234 X",
      "250314_101530 7.078 Rx JS8-SLOW -12 0.2 1234 X",
      "250314_101530    14.0956 Rx WSPR    -25  0.2 1501 <EA8/N0CALL> FN42AB 30",
      withFrequency("1.12345678901234"),
      withFrequency("12345678901234.5"),
      withFrequency("000000000000.000"),
      withTimeOffset("-1234567.89012345"),
      withSnr("123456789"),
      withSnr("-123456789"),
      withAudioOffset("-123456789"),
      withMessage(""),
      withMessage("\tHELLO"),
      withMessage("x"),
  };
  for (const auto& line : lines) {
    LineHead last;
    parseAllTxtLine(line, last);
    parseAllTxtLine(line, last);
    EXPECT_EQ(last.second_passes, 0u) << line;
  }
}

TEST(AllTxtLine, AnyOtherTakesTwo) {
  const std::string lines[] = {
      "",
      " 250314_101530 14.074 Rx FT8 -12 0.2 1234 CQ N0CALL FN42",
      "250314_101530 14.074 Rx FT8",
      withTime("250314_10153"),
      withTime("250314_1015300"),
      withTime("250230_101530"),
      withFrequency("+14.074"),
      withFrequency("-14.074"),
      withFrequency("14."),
      withFrequency(".074"),
      withFrequency("14"),
      withFrequency("14,074"),
      withFrequency("1.123456789012345"),
      withFrequency("123456789012345.6"),
      withFrequency("\t14.074"),
      "250314_101530 14.074 Tx FT8 -12 0.2 1234 CQ N0CALL FN42",
      "250314_101530 14.074 RX FT8 -12 0.2 1234 CQ N0CALL FN42",
      "250314_101530 14.074 Rx FT9 -12 0.2 1234 CQ N0CALL FN42",
      withSnr("+12"),
      withSnr("-"),
      withSnr("1234567890"),
      withSnr("5\t"),
      withTimeOffset("0"),
      withTimeOffset("--0.2"),
      withTimeOffset("-1234567.890123456"),
      withAudioOffset("+1234"),
      withAudioOffset("-1234567890"),
      withAudioOffset("x"),
  };
  for (const auto& line : lines) {
    LineHead last;
    parseAllTxtLine(line, last);
    EXPECT_EQ(last.second_passes, 1u) << line;
    parseAllTxtLine(withSnr("-12"), last);
    parseAllTxtLine(line, last);
    EXPECT_EQ(last.second_passes, 2u) << line;
  }
}

TEST(AllTxtLine, HeadsOfUpTo48CharactersAreRemembered) {
  const auto lineAfter = [](std::size_t size) {
    return "250314_101530" + std::string(size - 26, ' ') + "14.074 Rx FT8 -12 0.2 1234";
  };
  LineHead last;
  for (const std::size_t size : {29u, 47u, 48u}) {
    const auto line = lineAfter(size);
    parseAllTxtLine(line, last);
    EXPECT_EQ(std::string_view(last.text.data(), last.size), line.substr(0, size));
    EXPECT_EQ(last.time, kTime);
    EXPECT_EQ(last.dial_mhz, 14.074);
    EXPECT_EQ(last.mode, kFt8);
  }
  parseAllTxtLine(lineAfter(49), last);
  EXPECT_EQ(last.size, 48u);
}

// Shown by a head that claims what its text does not say.
TEST(AllTxtLine, WhatIsKnownOfAHeadIsNotReadAgain) {
  LineHead last;
  const auto head = "250314_101530 14.074 Rx FT8"s;
  parseAllTxtLine(head + " -12 0.2 1234", last);
  last.time = 60;
  last.dial_mhz = 7;
  last.mode = kWspr;
  const auto record = parseAllTxtLine(head + "  5 1.5 700 PA/N0CALL 37", last);
  ASSERT_TRUE(record);
  EXPECT_EQ(record->time, 60);
  EXPECT_EQ(record->frequency, 7e6);
  EXPECT_EQ(record->mode, kWspr);
  EXPECT_EQ(record->callsign, "PA/N0CALL");
  EXPECT_EQ(last.second_passes, 0u);
}

TEST(AllTxtLine, WithoutItsHeadIsNone) {
  EXPECT_FALSE(parseAlike(" -12 0.2 1234 CQ N0CALL FN42"));
  EXPECT_FALSE(parseAlike("2 -12 0.2 1234 CQ N0CALL FN42"));
}

TEST(AllTxtLine, MayEndWithTheHeadOfTheLast) {
  const EdgeOfMemory memory;
  const auto line = "250314_101530 14.074 Rx FT8 -12 0.2 1234"s;
  LineHead last;
  parseAllTxtLine(line, last);
  for (std::size_t size = 0; size < 32; ++size) {
    EXPECT_FALSE(parseAllTxtLine(memory.atEnd(line.substr(0, size)), last)) << size;
  }
}

TEST(AllTxtLine, AllocatesNothing) {
  const std::string lines[] = {
      "250314_101530    14.074 Rx FT8    -12  0.2 1234 CQ N0CALL FN42",
      "250314_101530    14.074 Rx FT4      3 -0.2 1234 <PA/N0CALL> EA8/N0CALL RR73",
      "250314_101530    14.078 Rx JS8-TURBO    -12  0.2 1234 HB [frame=1 flags=0 sender=n0call "
      "grid=-]",
      "250314_101530    14.0956 Rx WSPR    -25  0.2 1501 <EA8/N0CALL> FN42AB 30 [drift=-1]",
      "250314_101530\t+14.074 Rx FT8 +1.5 1e-1234 CQ N0CALL FN42",
      "250230_101530    14.074 Rx FT8    -12  0.2 1234 CQ N0CALL FN42",
  };
  for (const auto& line : lines) {
    const FailingMemory none(0);
    parseAllTxtLine(line);
    EXPECT_FALSE(none.failed()) << line;
  }
}

TEST(AllTxtLine, OnlyReceivedLinesCount) {
  for (const auto* direction : {"Tx", "rx", "RX", "R", "Rxx", "Rx,"}) {
    const auto line = "250314_101530 14.074 "s + direction + " FT8 -12 0.2 1234 CQ N0CALL FN42";
    EXPECT_FALSE(parseAlike(line)) << line;
  }
}

TEST(AllTxtLine, ModeIsOneOfSevenNames) {
  const struct {
    std::string name;
    std::optional<int> mode;
  } cases[] = {
      {"FT8", kFt8},
      {"FT4", kFt4},
      {"JS8", kJs8},
      {"JS8-FAST", kJs8Fast},
      {"JS8-TURBO", kJs8Turbo},
      {"JS8-SLOW", kJs8Slow},
      {"WSPR", kWspr},
      {"ft8", std::nullopt},
      {"MSK144", std::nullopt},
      {"FT80", std::nullopt},
      {"FT", std::nullopt},
      {"JS8-", std::nullopt},
      {"FT8\0"s, std::nullopt},
      {"unknown", std::nullopt},
  };
  for (const auto& c : cases) {
    const auto record = parseAlike("250314_101530 14.074 Rx " + c.name + " -12 0.2 1234 X");
    EXPECT_EQ(record ? std::optional(record->mode) : std::nullopt, c.mode) << c.name;
  }
}

TEST(AllTxtLine, JS8TurboKeepsItsCodeAndHearsTheSender) {
  const auto record = parseAlike(
      "250314_101530 14.078 Rx JS8-TURBO -12 0.2 1234 HB [frame=1 flags=0 sender=N0CALL grid=-]");
  ASSERT_TRUE(record);
  EXPECT_EQ(record->mode, 4);
  EXPECT_EQ(record->callsign, "N0CALL");
}

TEST(AllTxtLine, FrequencyIsNotRounded) {
  EXPECT_EQ(parseAlike(withFrequency("7.0740")).value().frequency, 7'074'000.0);
  EXPECT_EQ(parseAlike(withFrequency("7.07400025")).value().frequency, 7.07400025 * 1e6);
  EXPECT_NE(parseAlike(withFrequency("7.07400025")).value().frequency, 7'074'000.0);
}

TEST(AllTxtLine, MessageMayBeMissing) {
  for (const auto* message : {"", " ", "   ", "\t", "\r"}) {
    const auto record = parseAlike(withMessage(message));
    ASSERT_TRUE(record) << PrintToString(message);
    EXPECT_EQ(record->callsign, "") << PrintToString(message);
  }
}

TEST(AllTxtLine, UnreadableMessageIsStillADecode) {
  const auto record = parseAlike(withMessage(" N0CALL N1CALL HELLO"));
  ASSERT_TRUE(record);
  EXPECT_EQ(record->callsign, "");
  EXPECT_EQ(record->frequency, 14'074'000.0);
}

TEST(AllTxtLine, SpotBelowOneHertzHasNoSender) {
  const struct {
    std::string frequency;
    std::string callsign;
  } cases[] = {{"-14.074", ""}, {"-0.001234", ""},         {"-0.001233", "N0CALL"},
               {"0", "N0CALL"}, {"4294.966061", "N0CALL"}, {"4294.966062", ""},
               {"1e308", ""}};
  for (const auto& c : cases) {
    const auto record = parseAlike(withFrequency(c.frequency));
    ASSERT_TRUE(record) << c.frequency;
    EXPECT_EQ(record->callsign, c.callsign) << c.frequency;
  }
  EXPECT_EQ(parseAlike("250314_101530 0.001 Rx FT8 -12 0.2 -999 CQ N0CALL")->callsign, "N0CALL");
  EXPECT_EQ(parseAlike("250314_101530 0.001 Rx FT8 -12 0.2 -1000 CQ N0CALL")->callsign, "");
}

TEST(AllTxtLine, EveryFieldIsNeeded) {
  const std::string line = "250314_101530 14.074 Rx FT8 -12 0.2 1234";
  EXPECT_TRUE(parseAlike(line));
  for (auto space = line.rfind(' '); space != std::string::npos;
       space = line.rfind(' ', space - 1)) {
    EXPECT_FALSE(parseAlike(line.substr(0, space))) << line.substr(0, space);
    EXPECT_FALSE(parseAlike(line.substr(0, space + 1))) << line.substr(0, space + 1);
  }
  EXPECT_FALSE(parseAlike(""));
  EXPECT_FALSE(parseAlike("   \t "));
}

TEST(AllTxtLine, AnyWhitespaceSeparatesFields) {
  const auto record =
      parseAlike("\v 250314_101530\t14.074\vRx\fFT8\r-12 \t\n0.2  1234 CQ N0CALL FN42");
  ASSERT_TRUE(record);
  EXPECT_EQ(record->callsign, "N0CALL");
}

TEST(AllTxtLine, OtherBytesAreNoWhitespace) {
  for (const auto& byte : {"\0"s, "\x85"s, "\xA0"s, "\x1F"s, "\x7F"s, "_"s}) {
    const auto line = "250314_101530" + byte + "14.074 Rx FT8 -12 0.2 1234 CQ N0CALL FN42";
    EXPECT_FALSE(parseAlike(line)) << PrintToString(byte);
  }
}

TEST(AllTxtLine, OnlySpacesLeaveTheFrontOfTheMessage) {
  // A combined message shows where the message begins: it must begin with "TU; ".
  const struct {
    std::string message;
    std::string callsign;
  } cases[] = {{" TU; N1CALL N0CALL R+02", "N0CALL"}, {"    TU; N1CALL N0CALL R+02", "N0CALL"},
               {"TU; N1CALL N0CALL R+02", "N0CALL"},  {" \tTU; N1CALL N0CALL R+02", ""},
               {"\tTU; N1CALL N0CALL R+02", ""},      {"\vTU; N1CALL N0CALL R+02", ""}};
  for (const auto& c : cases) {
    const auto record = parseAlike(withMessage(c.message));
    ASSERT_TRUE(record) << PrintToString(c.message);
    EXPECT_EQ(record->callsign, c.callsign) << PrintToString(c.message);
  }
}

TEST(AllTxtLine, MessageBeginsWhereTheAudioOffsetEnds) {
  EXPECT_EQ(parseAlike(withMessage("CQ N0CALL")).value().callsign, "N0CALL");
  EXPECT_EQ(parseAlike(withMessage(".5 CQ N0CALL")).value().callsign, "");
  EXPECT_EQ(parseAlike(withMessage("-CQ N0CALL")).value().callsign, "");
}

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

// Against the plain form
// ---------------------------------------------------------------------------

TEST(AllTxtReference, AgreesOnEveryShortDecimal) {
  reference::forEachText("+-.09ex ", kSanitized ? 5 : 6,
                         [](const std::string& text) { expectAlike(withFrequency(text)); });
  reference::forEachText("-.5e", kSanitized ? 7 : 9,
                         [](const std::string& text) { expectAlike(withFrequency(text)); });
  reference::forEachText("+.0E", kSanitized ? 6 : 8,
                         [](const std::string& text) { expectAlike(withTimeOffset(text)); });
}

TEST(AllTxtReference, AgreesOnEveryShortInteger) {
  reference::forEachText("+-09x. ", kSanitized ? 5 : 6,
                         [](const std::string& text) { expectAlike(withSnr(text)); });
  reference::forEachText("+-09x. ", kSanitized ? 5 : 6,
                         [](const std::string& text) { expectAlike(withAudioOffset(text)); });
}

TEST(AllTxtReference, AgreesOnEveryShortRunOfOddBytes) {
  using namespace std::string_view_literals;
  constexpr auto kOdd =
      " \t\v\0\xFF"
      "5-"sv;
  reference::forEachText(kOdd, 5,
                         [](const std::string& text) { expectAlike(withFrequency(text)); });
  reference::forEachText(kOdd, 5, [](const std::string& text) { expectAlike(withMessage(text)); });
  reference::forEachText(
      kOdd, 5, [](const std::string& text) { expectAlike(text + withTime("250314_101530")); });
}

TEST(AllTxtReference, AgreesAroundTheIntegerLimits) {
  for (const std::int64_t limit : {INT64_C(2147483647), INT64_C(-2147483648), INT64_C(0)}) {
    for (std::int64_t step = -1000; step <= 1000; ++step) {
      expectAlike(withSnr(std::to_string(limit + step)));
      expectAlike(withAudioOffset(std::to_string(limit + step)));
    }
  }
}

// Doubles of any size, written with 1 to 40 digits.
TEST(AllTxtReference, AgreesOnRandomDecimals) {
  reference::Mutator random(14);
  const auto digits = [&random](std::size_t most) {
    std::string text;
    for (auto count = random.below(most + 1); count > 0; --count)
      text += random.pick("0123456789"s);
    return text;
  };
  const std::array<std::string, 4> signs = {"", "", "+", "-"};
  const int rounds = kSanitized ? 50'000 : 300'000;
  for (int i = 0; i < rounds; ++i) {
    auto number = random.pick(signs) + digits(22) + "." + digits(22);
    if (random.below(2) == 0) number += "e" + random.pick(signs) + digits(3);
    expectAlike(withFrequency(number));
  }
}

// Around the number of digits that are read as one whole number.
TEST(AllTxtReference, AgreesOnDecimalsOfEveryLength) {
  reference::Mutator random(15);
  const int rounds = kSanitized ? 50'000 : 300'000;
  for (int i = 0; i < rounds; ++i) {
    std::string number;
    for (auto count = 1 + random.below(18); count > 0; --count)
      number += random.pick("0123456789"s);
    number.insert(random.below(number.size() + 1), ".");
    expectAlike(withFrequency(number));
    expectAlike(withTimeOffset(random.pick(std::array<std::string, 2>{"", "-"}) + number));
  }
}

TEST(AllTxtReference, AgreesOnEveryShortGap) {
  const std::array<std::string, 8> fields = {"250314_101530", "14.074", "Rx",   "FT8",
                                             "-12",           "0.2",    "1234", "CQ N0CALL FN42"};
  for (std::size_t gap = 1; gap < fields.size(); ++gap) {
    reference::forEachText(" \t\r.-5R", 4, [&fields, gap](const std::string& text) {
      std::string line = fields[0];
      for (std::size_t i = 1; i < fields.size(); ++i) line += (i == gap ? text : " ") + fields[i];
      expectAlike(line);
    });
  }
}

TEST(AllTxtReference, AgreesOnEveryUnfinishedLine) {
  const auto line = "250314_101530    14.074 Rx JS8-TURBO    -12 -0.2 1234 CQ N0CALL FN42"s;
  for (std::size_t size = 0; size <= line.size(); ++size) {
    parseAlike(line.substr(0, size));
    parseAlike(line.substr(0, size) + line);
  }
}

// A line whose fields are mostly right and sometimes hostile.
std::string randomLine(reference::Mutator& random) {
  using Choices = std::array<std::string, 12>;
  static const std::array<Choices, 8> kFields = {{
      {"250314_101530", "251231_235959", "000101_000000", "240229_120000", "250230_101530",
       "250314_101530", "250314_240000", "250314_10153", "250314_1015300", "250314-101530",
       "250314_101530", "260630_235960"},
      {"14.074", "7.0740", "+14.074", ".5", "5.", "1e3", "0x1F", "nan", "1e400", "1e-400", "14.074",
       "14.07412345678901234567890123456789012345"},
      {"Rx", "Rx", "Rx", "Rx", "Rx", "Rx", "Rx", "Rx", "Rx", "Rx", "Tx", "rx"},
      {"FT8", "FT4", "JS8", "JS8-FAST", "JS8-TURBO", "JS8-SLOW", "WSPR", "FT8", "FT8", "WSPR",
       "JS8", "MSK144"},
      {"-12", "+5", "0", "-24", "12abc", "2147483647", "2147483648", "-2147483648", "-1", "7", "-3",
       "-.5"},
      {"0.2", "-0.1", "1e-3", ".", "inf", "0.0", "1.5", "-.5", "5e+", "0.3", "0.1", "2"},
      {"1234", "0", "-1", "3000", "+200", "99999999999", "12.5", "0x10", "1500", "700", "2500",
       "1000"},
      {"CQ N0CALL FN42", "CQ DX PA/N0CALL FN42", "N1CALL N0CALL R -12", "<...> N0CALL/P RR73",
       "TU; N1CALL N0CALL R+02", "N2CALL RR73; N1CALL <N0CALL> -08",
       "N0CALL: HB [frame=1 flags=0 sender=n0call grid=fn42]", "N0CALL FN42 37 [drift=-1]",
       "<PA/N0CALL> FN42AB 30", "PA/N0CALL 37", "HELLO WORLD", ""},
  }};
  static const std::array<std::string, 6> kGaps = {" ", " ", "  ", "    ", "\t", ""};
  std::string line;
  for (const auto& choices : kFields) {
    if (!line.empty()) line += random.below(8) == 0 ? random.pick(kGaps) : " ";
    // Mostly the first choices, so that many lines are accepted.
    line += random.below(4) == 0 ? random.pick(choices) : choices[random.below(3)];
  }
  return line;
}

TEST(AllTxtReference, AgreesOnRandomLines) {
  reference::Mutator random(250314);
  const int rounds = kSanitized ? 200'000 : 1'000'000;
  int accepted = 0;
  for (int i = 0; i < rounds && !HasFailure(); ++i)
    accepted += parseAlike(randomLine(random)) ? 1 : 0;
  EXPECT_GT(accepted, rounds / 10);  // else the comparison says little
}

TEST(AllTxtReference, AgreesOnLinesThatBeginNearlyAsTheLast) {
  reference::Mutator random(101545);
  const int rounds = kSanitized ? 20'000 : 200'000;
  for (int i = 0; i < rounds; ++i) {
    const auto line = randomLine(random);
    expectAlike(line);
    expectAlike(random.damage(line));
  }
}

TEST(AllTxtReference, AgreesOnDamagedLines) {
  reference::Mutator random(101530);
  const int rounds = kSanitized ? 200'000 : 1'000'000;
  for (int i = 0; i < rounds; ++i) expectAlike(random.damage(randomLine(random)));
}

}  // namespace
