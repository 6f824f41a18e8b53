// The line grammar. Numbers, times and the comparison with the plain form stand in
// tests/stems/all_txt_*_test.cpp.
#include "spots/all_txt.hpp"

#include <optional>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "edge_of_memory.hpp"
#include "failing_memory.hpp"
#include "spots/mode.hpp"
#include "stems/all_txt_alike.hpp"

namespace {

using namespace spotserver;
using namespace std::string_literals;
using testing::PrintToString;

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

}  // namespace
