#include "api/accept_encoding.hpp"

#include <string>

#include <gtest/gtest.h>

namespace spotserver {
namespace {

TEST(PrefersGzip, WhereItIsNamedOrMeant) {
  for (const char* value : {"gzip",
                            "GZIP",
                            "gZip",
                            "x-gzip",
                            "X-GZIP",
                            "gzip, deflate, br",
                            "br,gzip",
                            "*",
                            "deflate;q=1, gzip;q=0.001",
                            "gzip;q=1",
                            "gzip;q=1.",
                            "gzip;q=1.000",
                            "gzip;q=0.5",
                            "gzip;Q=0.5",
                            "gzip ; q=0.5",
                            "gzip\t;\tq=0.5\t",
                            " gzip ",
                            ",,gzip,,",
                            "br;q=1.0, *;q=0.1",
                            "gzip;q=0, x-gzip",
                            "*;q=0, gzip",
                            "gzip;q=0.5, *;q=0.1",
                            "gzip, identity",
                            "gzip;q=0.5, identity;q=0.5",
                            "gzip;q=0.5, identity;q=0.499",
                            "identity;q=0, gzip",
                            "identity;q=0, *"}) {
    EXPECT_TRUE(prefersGzip(value)) << value;
  }
}

TEST(PrefersGzip, NotWhereItIsRefusedOrNotNamed) {
  for (const char* value : {"",
                            " ",
                            ",",
                            "identity",
                            "br",
                            "deflate, br",
                            "gzip;q=0",
                            "gzip;q=0.",
                            "gzip;q=0.000",
                            "GZIP;Q=0",
                            "*;q=0",
                            "gzip;q=0, *",
                            "*, gzip;q=0",
                            "x-gzip;q=0, *;q=1",
                            "identity;q=0",
                            "br, identity;q=0",
                            "gzip;q=0.5, identity",
                            "gzip;q=0.5, identity;q=0.501",
                            "gzip;q=0.5, *",
                            "gzipped",
                            "notgzip",
                            "gzip2",
                            "g zip",
                            "x gzip",
                            "*gzip",
                            "**"}) {
    EXPECT_FALSE(prefersGzip(value)) << value;
  }
}

TEST(PrefersGzip, MembersThatBreakTheGrammarArePassedOver) {
  for (const char* member :
       {"gzip;",         "gzip;q",     "gzip;q=",     "gzip;q=2",   "gzip;q=1.001",
        "gzip;q=0.1234", "gzip;q=.5",  "gzip;q=00.5", "gzip;q=-1",  "gzip;q=+1",
        "gzip;q=1e0",    "gzip;q=0,5", "gzip;q= 1",   "gzip;q =1",  "gzip;level=9",
        "gzip;q=1;q=1",  "gzip;q=1;x", ";q=1",        "gzip;q=0x1", "gzip;q=1 1",
        "gzip;q=\xb2",   "\"gzip\""}) {
    const std::string text = member;
    EXPECT_FALSE(prefersGzip(text)) << text;
    EXPECT_TRUE(prefersGzip(text + ", gzip")) << text;
    EXPECT_TRUE(prefersGzip("gzip," + text)) << text;
  }
}

TEST(PrefersGzip, LongValuesAreOneWalk) {
  std::string value;
  for (int i = 0; i < 100'000; ++i) value += "br;q=0.1,";
  EXPECT_FALSE(prefersGzip(value));
  EXPECT_TRUE(prefersGzip(value + "gzip"));
}

}  // namespace
}  // namespace spotserver
