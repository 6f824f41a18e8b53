#include "spots/mode.hpp"

#include <limits>

#include <gtest/gtest.h>

namespace spotserver {
namespace {

TEST(Mode, NamesAndSlotLengthsInCodeOrder) {
  const struct {
    int code;
    const char* name;
    double slot;
  } cases[] = {
      {0, "FT8", 15},      {1, "FT4", 7.5},     {2, "JS8", 15},   {3, "JS8-FAST", 10},
      {4, "JS8-TURBO", 6}, {5, "JS8-SLOW", 30}, {6, "WSPR", 120},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(modeName(c.code), c.name) << c.code;
    EXPECT_EQ(slotSeconds(c.code), c.slot) << c.name;
    EXPECT_EQ(modeFromName(c.name), c.code) << c.name;
  }
}

TEST(Mode, CodesAreFixed) {
  EXPECT_EQ(modeName(kFt8), "FT8");
  EXPECT_EQ(modeName(kFt4), "FT4");
  EXPECT_EQ(modeName(kJs8), "JS8");
  EXPECT_EQ(modeName(kJs8Fast), "JS8-FAST");
  EXPECT_EQ(modeName(kJs8Turbo), "JS8-TURBO");
  EXPECT_EQ(modeName(kJs8Slow), "JS8-SLOW");
  EXPECT_EQ(modeName(kWspr), "WSPR");
}

TEST(Mode, AnyOtherCodeIsUnknownWithFifteenSeconds) {
  for (const int code :
       {-1, 7, 8, 1000, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()}) {
    EXPECT_EQ(modeName(code), "unknown") << code;
    EXPECT_EQ(slotSeconds(code), 15) << code;
  }
}

TEST(Mode, NamesMatchExactlyOrNotAtAll) {
  for (const char* name :
       {"", "ft8", "FT8 ", " FT8", "FT", "FT88", "JS8-", "JS8-fast", "unknown"}) {
    EXPECT_EQ(modeFromName(name), std::nullopt) << name;
  }
}

}  // namespace
}  // namespace spotserver
