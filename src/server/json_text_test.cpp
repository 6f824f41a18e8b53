#include "server/json_text.hpp"

#include <bit>
#include <cmath>
#include <cstdio>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "failing_memory.hpp"
#include "server/json_text_reference.hpp"

namespace spotserver {
namespace {

using namespace std::string_literals;

std::string literalOf(std::string_view value) {
  std::string out;
  json_quote(out, value);
  return out;
}

TEST(JsonQuote, EmptyStringIsTwoQuotes) { EXPECT_EQ(literalOf(""), "\"\""); }

TEST(JsonQuote, AppendsBehindWhatIsThere) {
  std::string out = "{\"mode\":";
  json_quote(out, "live");
  EXPECT_EQ(out, "{\"mode\":\"live\"");
}

TEST(JsonQuote, EscapesAsTheTableSays) {
  const struct {
    const char* name;
    std::string value;
    std::string literal;
  } cases[] = {
      {"double quote", "a\"b", R"("a\"b")"},
      {"backslash", "a\\b", R"("a\\b")"},
      {"tab", "a\tb", R"("a\tb")"},
      {"line feed", "a\nb", R"("a\nb")"},
      {"carriage return", "a\rb", R"("a\rb")"},
      {"NUL in the middle", "a\0b"s, R"("a\u0000b")"},
      {"control byte 1", "\x01", R"("\u0001")"},
      {"backspace takes no short escape", "\b", R"("\u0008")"},
      {"form feed takes no short escape", "\f", R"("\u000c")"},
      {"last control byte", "\x1f", R"("\u001f")"},
      {"blank is the first byte copied", " ", R"(" ")"},
      {"solidus is not escaped", "a/b", R"("a/b")"},
      {"DEL is not escaped", "\x7f", "\"\x7f\""},
      {"UTF-8 passes through", "\xc3\xa9", "\"\xc3\xa9\""},
      {"broken UTF-8 passes through", "\xc3", "\"\xc3\""},
      {"0xFF passes through", "\xff", "\"\xff\""},
      {"only what needs it", "14.074000 MHz", "\"14.074000 MHz\""},
  };
  for (const auto& c : cases) EXPECT_EQ(literalOf(c.value), c.literal) << c.name;
}

TEST(JsonQuote, EveryOtherControlByteIsFourLowerCaseHexDigits) {
  for (int byte = 0; byte < 0x20; ++byte) {
    if (byte == '\t' || byte == '\n' || byte == '\r') continue;
    char expected[16];
    std::snprintf(expected, sizeof expected, "\"\\u%04x\"", static_cast<unsigned>(byte));
    EXPECT_EQ(literalOf(std::string(1, static_cast<char>(byte))), expected) << byte;
  }
}

TEST(JsonQuote, EveryByteFromBlankUpIsCopiedButTwo) {
  for (int byte = 0x20; byte <= 0xff; ++byte) {
    if (byte == '"' || byte == '\\') continue;
    const std::string value(1, static_cast<char>(byte));
    EXPECT_EQ(literalOf(value), "\"" + value + "\"") << byte;
  }
}

TEST(JsonNumber, TrimsDecimalsButNeverDigits) {
  const struct {
    int precision;
    double value;
    const char* text;
  } cases[] = {
      {6, 14.074, "14.074"},
      {6, 14.0, "14"},
      {6, 7.074125, "7.074125"},
      {3, 2.5, "2.5"},
      {3, 12.5, "12.5"},
      {3, 3.0, "3"},
      {3, 2880, "2880"},
      {3, 100, "100"},
      {3, 1.0 / 3, "0.333"},
      {3, 2.0 / 3, "0.667"},
      {3, 0.0004, "0"},
      {3, 0.0005001, "0.001"},
      {3, -0.0004, "-0"},
      {3, 0.0, "0"},
      {3, -2.5, "-2.5"},
      {0, 100, "100"},
      {0, 1763175600, "1763175600"},
      {0, 0, "0"},
      {0, 0.5, "0"},
      {0, 1.5, "2"},
      {0, 2.5, "2"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(json_number(c.precision, c.value), c.text) << c.precision << " " << c.value;
  }
}

TEST(JsonNumber, NegativeZeroKeepsItsSign) {
  EXPECT_EQ(json_number(3, -0.0), "-0");
  EXPECT_EQ(json_number(0, -0.0), "-0");
}

TEST(JsonNumber, NotFiniteIsNull) {
  const double infinity = std::numeric_limits<double>::infinity();
  for (const int precision : {0, 3, 6}) {
    EXPECT_EQ(json_number(precision, std::nan("")), "null") << precision;
    EXPECT_EQ(json_number(precision, -std::nan("")), "null") << precision;
    EXPECT_EQ(json_number(precision, infinity), "null") << precision;
    EXPECT_EQ(json_number(precision, -infinity), "null") << precision;
  }
}

TEST(JsonNumber, HugeValuesAreWrittenOutInFull) {
  const std::string text = json_number(0, 1e300);
  EXPECT_EQ(text.size(), 301u);
  EXPECT_EQ(text.substr(0, 16), "1000000000000000");
  EXPECT_EQ(text.find_first_not_of("0123456789"), std::string::npos);
  EXPECT_EQ(std::stod(text), 1e300);

  const std::string largest = json_number(3, -std::numeric_limits<double>::max());
  EXPECT_EQ(largest.size(), 1u + 309u);
  EXPECT_EQ(std::stod(largest), -std::numeric_limits<double>::max());
}

TEST(JsonNumber, TextOfAnyLengthIsWhole) {
  // 1.5 * 10^n has n + 1 digits: walks across every size a fixed buffer might have.
  for (int n = 1; n <= 300; ++n) {
    const double value = 1.5 * std::pow(10.0, n);
    EXPECT_EQ(json_number(0, value).size(), static_cast<std::size_t>(n) + 1) << n;
    EXPECT_EQ(std::stod(json_number(0, value)), value) << n;
  }
  EXPECT_EQ(json_number(80, 0.5), "0.5");
  EXPECT_EQ(json_number(200, std::ldexp(1.0, -100)).size(), 2u + 100u);
}

TEST(JsonNumber, ReadsBackWithinHalfOfTheLastDecimal) {
  std::mt19937_64 random(1);
  std::uniform_real_distribution<double> draw(-1e6, 1e6);
  for (int i = 0; i < 20'000; ++i) {
    const double value = draw(random);
    const std::string text = json_number(3, value);
    EXPECT_NEAR(std::stod(text), value, 0.0005 + 1e-9) << text;
    EXPECT_TRUE(text.find('.') == std::string::npos || (text.back() != '0' && text.back() != '.'))
        << text;
  }
}

// Any bits, and the numbers around what the fast way finds hard: ties, powers of two and ten.
std::vector<double> oddDoubles() {
  std::vector<double> values{0.0, 5e-324, 2.2250738585072014e-308, std::nan(""), HUGE_VAL};
  std::mt19937_64 random(2);
  for (int i = 0; i < 10'000; ++i) values.push_back(std::bit_cast<double>(random()));
  for (int i = 0; i < 10'000; ++i) {
    const auto sixteenths = static_cast<double>(random() >> (random() % 64)) / 16;
    for (const double value : {sixteenths / 1000, sixteenths}) values.push_back(value);
  }
  for (int power = -70; power <= 70; ++power) {
    const double value = std::ldexp(1.0, power);
    for (const double near : {value, std::nextafter(value, 0), std::nextafter(value, HUGE_VAL)}) {
      for (const double scale : {1.0, 0.001, 0.0005, 1.5}) values.push_back(near * scale);
    }
  }
  return values;
}

TEST(JsonNumber, IsTheTextOfThePlainFormatter) {
  for (const double value : oddDoubles()) {
    for (const int precision : {0, 1, 2, 3, 4, 6}) {
      ASSERT_EQ(json_number(precision, value), plainJsonNumber(precision, value))
          << precision << " " << value;
      ASSERT_EQ(json_number(precision, -value), plainJsonNumber(precision, -value))
          << precision << " " << -value;
    }
  }
}

TEST(JsonNumber, OfUpToThreeDecimalsTakesNoMemory) {
  for (int precision = 0; precision <= 3; ++precision) {
    const FailingMemory none(0);
    EXPECT_NO_THROW(json_number(precision, -1234.5678)) << precision;
  }
}

TEST(WriteJsonNumber, TakesNoMoreRoomThanItAsksFor) {
  const double largest = -std::numeric_limits<double>::max();
  std::string room(kLongestJsonNumber + 1, '#');
  EXPECT_EQ(write_json_number(room.data(), 3, largest), room.data() + 1 + 309);
  EXPECT_EQ(room.substr(310), std::string(kLongestJsonNumber + 1 - 310, '#'));
  EXPECT_EQ(write_json_number(room.data(), 3, 2.5), room.data() + 3);
  EXPECT_EQ(room.substr(0, 4), "2.59") << "and nothing behind the text";
}

}  // namespace
}  // namespace spotserver
