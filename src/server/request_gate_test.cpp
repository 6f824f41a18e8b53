#include "server/request_gate.hpp"

#include <gtest/gtest.h>

namespace spotserver {
namespace {

httplib::Request requestWith(const char* method,
                             std::initializer_list<std::pair<const char*, const char*>> headers) {
  httplib::Request request;
  request.method = method;
  for (const auto& [name, value] : headers) request.headers.emplace(name, value);
  return request;
}

TEST(RequestGate, RequestsWithoutABodyAreRouted) {
  for (const char* method : {"GET", "HEAD", "OPTIONS", "TRACE", "CONNECT"}) {
    EXPECT_EQ(judge_body(requestWith(method, {})), BodyVerdict::kRoute) << method;
    EXPECT_EQ(judge_body(requestWith(method, {{"Content-Length", "0"}})), BodyVerdict::kRoute)
        << method;
  }
  EXPECT_EQ(judge_body(requestWith("DELETE", {})), BodyVerdict::kRoute);
}

TEST(RequestGate, SmallPlainBodiesAreLeftToTheLibrary) {
  for (const char* method : {"POST", "PUT", "PATCH", "PRI", "DELETE"}) {
    for (const char* length : {"0", "1", "65536"}) {
      EXPECT_EQ(judge_body(requestWith(method, {{"content-length", length}})), BodyVerdict::kRead)
          << method << ' ' << length;
    }
    EXPECT_EQ(judge_body(requestWith(method, {{"Content-Length", "65537"}})), BodyVerdict::kRefuse)
        << method;
  }
}

TEST(RequestGate, BodiesThatCostMoreThanTheyAnnounceAreRefused) {
  const struct {
    const char* name;
    const char* value;
  } extras[] = {
      {"Transfer-Encoding", "chunked"},    {"Content-Encoding", "br"},
      {"Content-Encoding", "gzip"},        {"Content-Type", "multipart/form-data; boundary=x"},
      {"content-type", "Multipart/Mixed"}, {"Content-Length", "10"}};  // a second length
  for (const auto& extra : extras) {
    for (const char* method : {"POST", "PUT", "PATCH", "PRI", "DELETE"}) {
      const auto request =
          requestWith(method, {{"Content-Length", "9"}, {extra.name, extra.value}});
      EXPECT_EQ(judge_body(request), BodyVerdict::kRefuse) << method << ' ' << extra.name;
    }
  }
}

TEST(RequestGate, LengthlessBodiesAreRefusedWhereALengthIsDue) {
  for (const char* method : {"POST", "PUT", "PATCH", "PRI"}) {
    EXPECT_EQ(judge_body(requestWith(method, {})), BodyVerdict::kRefuse) << method;
  }
  EXPECT_EQ(judge_body(requestWith("DELETE", {{"Transfer-Encoding", "chunked"}})),
            BodyVerdict::kRefuse);
}

TEST(RequestGate, OddLengthsAreRefused) {
  for (const char* length : {"", "-1", "+5", "5x", " 5", "0x10", "1e3", "5,5",
                             "18446744073709551616", "99999999999999999999999"}) {
    EXPECT_EQ(judge_body(requestWith("POST", {{"Content-Length", length}})), BodyVerdict::kRefuse)
        << length;
  }
}

TEST(RequestGate, AnUnreadBodyNeverPassesForTheNextRequest) {
  const std::pair<const char*, const char*> announcements[] = {
      {"Content-Length", "1"}, {"Content-Length", "odd"}, {"Transfer-Encoding", "chunked"}};
  for (const char* method : {"GET", "HEAD", "OPTIONS", "TRACE", "CONNECT"}) {
    for (const auto& announcement : announcements) {
      EXPECT_EQ(judge_body(requestWith(method, {announcement})), BodyVerdict::kRouteThenClose)
          << method << ' ' << announcement.first << ": " << announcement.second;
    }
  }
}

TEST(RequestGate, OneOrTwoRangesMayBeAnything) {
  for (const httplib::Ranges& ranges :
       {httplib::Ranges{}, {{0, 9}}, {{-1, -1}}, {{-1, -1}, {-1, -1}}, {{5, 9}, {0, 7}}}) {
    EXPECT_TRUE(are_modest(ranges)) << ranges.size();
  }
}

TEST(RequestGate, MoreRangesMustBeInOrderAndApart) {
  EXPECT_TRUE(are_modest({{0, 0}, {1, 1}, {5, 9}}));
  EXPECT_TRUE(are_modest({{0, 0}, {1, 1}, {5, -1}}));
  EXPECT_TRUE(are_modest({{0, 0}, {1, 1}, {-1, 5}}));
  EXPECT_FALSE(are_modest({{0, 0}, {1, 5}, {5, 9}}));
  EXPECT_FALSE(are_modest({{5, 9}, {0, 0}, {1, 1}}));
  EXPECT_FALSE(are_modest({{0, 0}, {5, -1}, {7, 9}}));
  EXPECT_FALSE(are_modest({{0, 0}, {5, -1}, {-1, 9}}));
  EXPECT_FALSE(are_modest({{-1, 1}, {5, 6}, {7, 9}}));
  EXPECT_FALSE(are_modest({{-1, -1}, {-1, -1}, {-1, -1}}));
}

TEST(RequestGate, RangesHaveTheirNumber) {
  httplib::Ranges ranges;
  while (ranges.size() < kMaxRanges) ranges.emplace_back(2 * ranges.size(), 2 * ranges.size());
  EXPECT_TRUE(are_modest(ranges));
  ranges.emplace_back(1000, 1000);
  EXPECT_FALSE(are_modest(ranges));
}

}  // namespace
}  // namespace spotserver
