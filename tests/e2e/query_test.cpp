// The two query parameters: what is honoured and what falls back in silence.
#include <gtest/gtest.h>

#include "e2e/activity_model.hpp"
#include "e2e/station.hpp"

namespace spotserver::e2e {
namespace {

TEST(Query, AllowedValuesAreHonouredAndOthersFallBack) {
  const Station station;
  ServerProcess server = station.serve();
  const struct {
    const char* query;
    int hours;
    int smoothing;
  } cases[] = {
      {"", 6, 3},
      {"?", 6, 3},
      {"?hours=1", 1, 3},
      {"?hours=24&smoothing=5", 24, 5},
      {"?smoothing=1&hours=6", 6, 1},
      {"?hours=2", 6, 3},
      {"?hours=12&smoothing=5", 6, 5},
      {"?hours=0&smoothing=0", 6, 3},
      {"?hours=-1", 6, 3},
      {"?smoothing=abc", 6, 3},
      {"?smoothing=40", 6, 3},
      {"?hours=&smoothing=", 6, 3},
      {"?hours", 6, 3},
      {"?hours=%2024&smoothing=%2B1", 24, 1},
      {"?hours=+24", 24, 3},
      {"?hours=24h&smoothing=5.9", 24, 5},
      {"?hours=024", 24, 3},
      {"?hours=0x18", 6, 3},
      {"?Hours=24", 6, 3},
      {"?hours=24&hours=1", 24, 3},
      {"?hours=2&hours=24", 6, 3},
      {"?hours=4294967297", 6, 3},
      {"?hours=18446744073709551617", 6, 3},
      {"?hours=99999999999999999999999999", 6, 3},
      {"?smoothing=-99999999999999999999999999", 6, 3},
      {"?colour=red&hours=1", 1, 3},
  };
  for (const auto& c : cases) {
    const Response answer = station.activity(c.query);
    EXPECT_EQ(answer.status, 200) << c.query;
    EXPECT_EQ(numberOf(answer.body, "hours"), c.hours) << c.query;
    EXPECT_EQ(numberOf(answer.body, "smoothing"), c.smoothing) << c.query;
  }
}

}  // namespace
}  // namespace spotserver::e2e
