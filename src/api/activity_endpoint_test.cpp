#include "api/activity_endpoint.hpp"

#include <gtest/gtest.h>

#include "api/json_answer.hpp"
#include "temp_dir.hpp"

namespace spotserver {
namespace {

TEST(ViewParameter, AllowedValuesAreTakenAndOthersFallBack) {
  const struct {
    const char* text;
    int hours;
    int smoothing;
  } cases[] = {
      {"", 6, 3},
      {"1", 1, 1},
      {"6", 6, 3},
      {"24", 24, 3},
      {"3", 6, 3},
      {"5", 6, 5},
      {"2", 6, 3},
      {"12", 6, 3},
      {"40", 6, 3},
      {"0", 6, 3},
      {"-1", 6, 3},
      {"abc", 6, 3},
      {" 1", 1, 1},
      {"\t\n\v\f\r1", 1, 1},
      {"+1", 1, 1},
      {"+ 1", 6, 3},
      {"+-1", 6, 3},
      {"-+1", 6, 3},
      {"--1", 6, 3},
      {"-", 6, 3},
      {"1h", 1, 1},
      {"24.9", 24, 3},
      {"1e3", 1, 1},
      {"01", 1, 1},
      {"0x18", 6, 3},
      {"   ", 6, 3},
      {"5 minutes", 6, 5},
      {"4294967297", 6, 3},            // 1 modulo 2^32
      {"18446744073709551617", 6, 3},  // 1 modulo 2^64
      {"-4294967295", 6, 3},           // 1 modulo 2^32
      {"99999999999999999999999999", 6, 3},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(viewParameter(c.text, kHours, kDefaultHours), c.hours) << '"' << c.text << '"';
    EXPECT_EQ(viewParameter(c.text, kSmoothings, kDefaultSmoothing), c.smoothing)
        << '"' << c.text << '"';
  }
}

httplib::Request requestFrom(const char* address) {
  httplib::Request request;
  request.remote_addr = address;
  return request;
}

std::string finishedType(httplib::Response response) {
  finishJson(response);
  return response.get_header_value("Content-Type");
}

TEST(Authorize, WrongTokenIsAnswered401AndTheAddressLockedOutAfterFive) {
  TokenThrottle throttle;
  auto request = requestFrom("192.0.2.7");
  request.headers.emplace("Authorization", "Bearer 00000000");
  for (int i = 1; i <= 5; ++i) {
    httplib::Response response;
    EXPECT_FALSE(authorize(request, response, throttle, "12345678")) << i;
    EXPECT_EQ(response.status, 401) << i;
    EXPECT_EQ(response.get_header_value("WWW-Authenticate"), "Bearer") << i;
    EXPECT_EQ(response.body, "{\"error\":\"unauthorized\"}") << i;
    EXPECT_EQ(finishedType(response), "application/json") << i;
  }
  auto right = requestFrom("192.0.2.7");
  right.headers.emplace("Authorization", "Bearer 12345678");
  httplib::Response response;
  EXPECT_FALSE(authorize(right, response, throttle, "12345678"));
  EXPECT_EQ(response.status, 429);
  EXPECT_EQ(response.get_header_value("Retry-After"), "60");
  EXPECT_EQ(response.body, "{\"error\":\"too many wrong tokens, try again in a minute\"}");
  EXPECT_EQ(finishedType(response), "application/json");
}

TEST(Authorize, AForgedAddressHeaderDoesNotMoveTheCount) {
  TokenThrottle throttle;
  for (int i = 1; i <= 5; ++i) {
    auto request = requestFrom("192.0.2.8");
    request.headers.emplace("REMOTE_ADDR", "198.51.100." + std::to_string(i));
    httplib::Response response;
    EXPECT_FALSE(authorize(request, response, throttle, "t"));
  }
  httplib::Response response;
  EXPECT_FALSE(authorize(requestFrom("192.0.2.8"), response, throttle, "t"));
  EXPECT_EQ(response.status, 429);
}

TEST(Authorize, RightTokenPassesWithoutTouchingTheResponse) {
  TokenThrottle throttle;
  auto request = requestFrom("192.0.2.9");
  request.headers.emplace("X-Spot-Token", "right");
  httplib::Response response;
  EXPECT_TRUE(authorize(request, response, throttle, "right"));
  EXPECT_EQ(response.status, -1);
  EXPECT_TRUE(response.headers.empty());
}

TEST(Authorize, ATokenDoesNotEndAtANul) {
  const std::string token("right\0x", 7);
  for (const char* name : {"Authorization", "X-Spot-Token"}) {
    const std::string prefix = name == std::string("Authorization") ? "Bearer " : "";
    httplib::Request request = requestFrom("192.0.2.7");
    request.headers.emplace(name, prefix + token);
    TokenThrottle throttle;
    httplib::Response response;
    EXPECT_TRUE(authorize(request, response, throttle, token)) << name;
    EXPECT_FALSE(authorize(request, response, throttle, "right")) << name;
  }
}

TEST(Authorize, OnlyTheFirstAuthorizationHeaderCounts) {
  TokenThrottle throttle;
  auto request = requestFrom("192.0.2.10");
  request.headers.emplace("Authorization", "Bearer wrong");
  request.headers.emplace("Authorization", "Bearer right");
  httplib::Response response;
  EXPECT_FALSE(authorize(request, response, throttle, "right"));
}

TEST(HandleActivity, DuringALockOutTheStoreIsNotTouched) {
  TempDir dir;
  SpotStore store;
  store.lock()->all_txt_path = dir.write("ALL.TXT", "");
  TokenThrottle throttle;
  const std::string token = "right";
  const ActivityEndpoint endpoint{throttle, token, store, 0};
  httplib::Request request = requestFrom("192.0.2.7");
  request.headers.emplace("X-Spot-Token", "wrong");
  for (int i = 0; i < 5; ++i) {
    httplib::Response response;
    handleActivity(endpoint, request, response);
    EXPECT_EQ(response.status, 401);
  }
  request.headers.find("X-Spot-Token")->second = token;
  httplib::Response locked_out;
  handleActivity(endpoint, request, locked_out);
  EXPECT_EQ(locked_out.status, 429);
  EXPECT_EQ(store.lock()->last_refresh, 0);

  request.remote_addr = "192.0.2.8";
  httplib::Response answer;
  handleActivity(endpoint, request, answer);
  EXPECT_GT(store.lock()->last_refresh, 0);
}

}  // namespace
}  // namespace spotserver
