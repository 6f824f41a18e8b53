// Production and plain form on every short text, on numbers of any length and on random lines.
#include <array>
#include <cstdint>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "sanitizers.hpp"
#include "spots/message_reference.hpp"
#include "stems/all_txt_alike.hpp"

namespace {

using namespace spotserver;
using namespace std::string_literals;

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
