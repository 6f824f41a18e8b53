#include "server/gzip.hpp"

#include <random>
#include <stdexcept>

#include <gtest/gtest.h>

#include "gunzip.hpp"

namespace spotserver {
namespace {

std::string there_and_back(std::string_view head, std::string_view tail) {
  return gunzip(gzip_file(head, deflate_tail(tail)));
}

TEST(Gzip, HeadAndTailComeBackAsOneText) {
  const std::string points = [] {
    std::string text;
    for (int i = 0; i < 20'000; ++i) text += "{\"t\":" + std::to_string(1'763'175'600 + i) + "},";
    return text;
  }();
  const std::string_view heads[] = {"", "x", "{\"generated\":1763175600"};
  for (const std::string_view head : heads) {
    for (const std::string& tail : {std::string(), std::string("y"), points}) {
      EXPECT_EQ(there_and_back(head, tail), std::string(head) + tail) << head << tail.size();
    }
  }
  EXPECT_LT(deflate_tail(points).bytes.size(), points.size() / 5);
}

TEST(Gzip, BytesThatDoNotShrinkComeBackToo) {
  std::mt19937 random(4);
  for (const std::size_t size : {1u, 100u, 32'767u, 32'768u, 32'769u, 300'000u}) {
    std::string noise(size, '\0');
    for (char& c : noise) c = static_cast<char>(random());
    EXPECT_EQ(there_and_back("head", noise), "head" + noise) << size;
  }
}

TEST(Gzip, OneTailServesManyHeads) {
  const DeflatedTail tail = deflate_tail(",\"mode\":\"live\"}");
  for (int second = 0; second < 60; ++second) {
    const std::string head = "{\"generated\":" + std::to_string(1'763'175'600 + second);
    EXPECT_EQ(gunzip(gzip_file(head, tail)), head + ",\"mode\":\"live\"}");
  }
}

TEST(Gzip, AHeadIsAtMostOneStoredBlock) {
  const std::string longest(kLongestHead, 'h');
  EXPECT_EQ(there_and_back(longest, "t"), longest + "t");
  try {
    gzip_file(longest + "h", deflate_tail("t"));
    FAIL() << "was taken";
  } catch (const std::length_error& error) {
    EXPECT_STREQ(error.what(), "Head too long");
  }
}

TEST(Gzip, SaysNothingOfTimeOrSystem) {
  const std::string file = gzip_file("h", deflate_tail("t"));
  EXPECT_EQ(file.substr(0, 10), std::string("\x1f\x8b\x08\0\0\0\0\0\0\xff", 10));
}

}  // namespace
}  // namespace spotserver
