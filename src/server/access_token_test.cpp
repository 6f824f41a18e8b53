#include "server/access_token.hpp"

#include <algorithm>
#include <set>
#include <vector>

#include <gtest/gtest.h>

#include "failing_random.hpp"
#include "file_facts.hpp"

namespace spotserver {
namespace {

TEST(MakeToken, FormatsTheDrawAndRejectsTheBiasedEnd) {
  const struct {
    std::vector<std::uint32_t> draws;
    const char* token;
  } cases[] = {
      {{0}, "00000000"},
      {{5}, "00000005"},
      {{99'999'999}, "99999999"},
      {{100'000'000}, "00000000"},
      {{1'234'567'890}, "34567890"},
      {{3'999'999'999}, "99999999"},
      {{4'000'000'000, 5}, "00000005"},
      {{4'294'967'295, 4'000'000'000, 3'900'000'001}, "00000001"},
  };
  for (const auto& c : cases) {
    std::size_t drawn = 0;
    EXPECT_EQ(make_token([&] { return c.draws.at(drawn++); }), c.token);
    EXPECT_EQ(drawn, c.draws.size()) << c.token;
  }
}

TEST(GenerateToken, IsEightDigitsAndFreshEveryTime) {
  std::set<std::string> seen;
  for (int i = 0; i < 100; ++i) {
    const std::string token = generate_token();
    EXPECT_EQ(token.size(), 8u);
    EXPECT_TRUE(std::all_of(token.begin(), token.end(), [](char c) {
      return c >= '0' && c <= '9';
    })) << token;
    seen.insert(token);
  }
  EXPECT_GT(seen.size(), 95u);  // 100 draws out of 10^8: even two alike are rare
}

TEST(GenerateToken, HasNoWeakerSourceToFallBackOn) {
  const FailingRandom random;
  EXPECT_EQ(errorOf([] { generate_token(); }),
            "Fatal: OpenSSL RAND_bytes failed; refusing to start with a weak token.");
}

}  // namespace
}  // namespace spotserver
