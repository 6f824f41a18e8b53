#include "api/health_document.hpp"

#include <gtest/gtest.h>

namespace spotserver {
namespace {

std::string documentOf(const std::string& mode, const std::string& time,
                       const std::string& fingerprint) {
  return R"({"service":"corvane-spot-server","version":"0.3.0","mode":")" + mode +
         R"(","server_time":)" + time + R"(,"fingerprint_sha256":")" + fingerprint + R"("})";
}

TEST(HealthDocument, ByteForByteInBothModes) {
  EXPECT_EQ(HealthDocument(false, "AB:CD").at(1'763'175'600),
            documentOf("live", "1763175600", "AB:CD"));
  EXPECT_EQ(HealthDocument(true, "AB:CD").at(1'763'175'600),
            documentOf("demo", "1763175600", "AB:CD"));
}

TEST(HealthDocument, OnlyTheTimeChangesFromAnswerToAnswer) {
  const HealthDocument health(false, "AB:CD");
  const struct {
    double now;
    const char* text;
  } cases[] = {{0, "0"},
               {1'763'175'600, "1763175600"},
               {1'763'175'600.75, "1763175601"},
               {-86'400, "-86400"},
               {99'999'999'999, "99999999999"}};
  for (const auto& c : cases) {
    EXPECT_EQ(health.at(c.now), documentOf("live", c.text, "AB:CD")) << c.text;
  }
}

TEST(HealthDocument, TheFingerprintIsQuoted) {
  EXPECT_EQ(HealthDocument(false, "A\"B\\\n\x01/\xC3\xA4").at(5),
            documentOf("live", "5", "A\\\"B\\\\\\n\\u0001/\xC3\xA4"));
}

}  // namespace
}  // namespace spotserver
