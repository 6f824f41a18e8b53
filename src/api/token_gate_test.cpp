#include "api/token_gate.hpp"

#include <atomic>
#include <latch>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace spotserver {
namespace {

using namespace std::chrono_literals;
using enum TokenVerdict;

constexpr SteadyTime kNow{1'000'000s};
const std::string kToken = "12345678";

// Sends `times` wrong tokens and expects each to be answered as merely wrong.
void sendWrong(TokenThrottle& throttle, const std::string& address, int times, SteadyTime now) {
  for (int i = 1; i <= times; ++i) {
    EXPECT_EQ(throttle.check(address, "wrong", kToken, now), kUnauthorized) << address << " " << i;
  }
}

TEST(PresentedToken, BearerWinsThenTheOwnHeaderThenNothing) {
  using Header = std::optional<std::string>;
  const struct {
    const char* name;
    Header authorization;
    Header spot_token;
    const char* token;
  } cases[] = {
      {"no header at all", {}, {}, ""},
      {"bearer alone", "Bearer 12345678", {}, "12345678"},
      {"bearer wins over the own header", "Bearer 12345678", "other", "12345678"},
      {"own header alone", {}, "12345678", "12345678"},
      {"own header with an empty value", {}, "", ""},
      {"own header is taken as it stands", {}, " 12345678 ", " 12345678 "},
      {"another scheme is ignored", "Basic eDp5", "12345678", "12345678"},
      {"another scheme alone", "Basic eDp5", {}, ""},
      {"lower-case scheme is another scheme", "bearer 12345678", {}, ""},
      {"lower-case scheme leaves the own header", "bearer 12345678", "other", "other"},
      {"upper-case scheme is another scheme", "BEARER 12345678", {}, ""},
      {"no blank behind the scheme", "Bearer", "other", "other"},
      {"no blank behind the scheme, alone", "Bearer", {}, ""},
      {"a tab is no blank", "Bearer\t12345678", {}, ""},
      {"a blank before the scheme", " Bearer 12345678", {}, ""},
      {"nothing behind the blank", "Bearer ", {}, ""},
      {"nothing behind the blank still wins", "Bearer ", "12345678", ""},
      {"a second blank belongs to the token", "Bearer  12345678", {}, " 12345678"},
      {"a trailing blank belongs to the token", "Bearer 12345678 ", {}, "12345678 "},
      {"an empty Authorization", "", "12345678", "12345678"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(presentedToken(c.authorization, c.spot_token), c.token) << c.name;
  }
}

TEST(TokensEqual, EveryByteAndTheLengthCount) {
  const struct {
    std::string_view presented;
    std::string_view expected;
    bool equal;
  } cases[] = {
      {"12345678", "12345678", true},
      {"", "", true},
      {std::string_view(), "", true},
      {"", "12345678", false},
      {"12345678", "", false},
      {"1234567", "12345678", false},
      {"123456789", "12345678", false},
      {"02345678", "12345678", false},
      {"12345679", "12345678", false},
      {"12305678", "12345678", false},
      {"87654321", "12345678", false},
      {{"1\0 2", 4}, {"1\0 2", 4}, true},
      {{"1\0 2", 4}, {"1\0 3", 4}, false},
      {"\xff", "\x7f", false},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(tokensEqual(c.presented, c.expected), c.equal) << c.presented << " " << c.expected;
  }
}

TEST(TokensEqual, ADifferenceInAnySingleBitCounts) {
  for (std::size_t position = 0; position < kToken.size(); ++position) {
    for (int bit = 0; bit < 8; ++bit) {
      std::string other = kToken;
      other[position] = static_cast<char>(other[position] ^ (1 << bit));
      EXPECT_FALSE(tokensEqual(other, kToken)) << position << " " << bit;
    }
  }
}

TEST(TokenThrottle, TheFifthWrongTokenLocksOutForAMinute) {
  TokenThrottle throttle;
  sendWrong(throttle, "a", 5, kNow);
  EXPECT_EQ(throttle.check("a", kToken, kToken, kNow), kLockedOut);
  EXPECT_EQ(throttle.check("a", "wrong", kToken, kNow + 30s), kLockedOut);
  EXPECT_EQ(throttle.check("a", kToken, kToken, kNow + 60s - 1ns), kLockedOut);
  EXPECT_EQ(throttle.check("a", kToken, kToken, kNow + 60s), kAllowed);
  EXPECT_EQ(throttle.size(), 0u);
  sendWrong(throttle, "a", 5, kNow + 60s);
}

TEST(TokenThrottle, TheMinuteRunsFromTheFifthWrongToken) {
  TokenThrottle throttle;
  sendWrong(throttle, "a", 4, kNow);
  sendWrong(throttle, "a", 1, kNow + 3600s);
  EXPECT_EQ(throttle.check("a", kToken, kToken, kNow + 3660s - 1ns), kLockedOut);
  EXPECT_EQ(throttle.check("a", kToken, kToken, kNow + 3660s), kAllowed);
}

TEST(TokenThrottle, ARightTokenResetsTheCount) {
  TokenThrottle throttle;
  for (int round = 0; round < 3; ++round) {
    sendWrong(throttle, "a", 4, kNow);
    EXPECT_EQ(throttle.check("a", kToken, kToken, kNow), kAllowed) << round;
  }
}

TEST(TokenThrottle, RequestsDuringALockOutNeitherCountNorExtendIt) {
  TokenThrottle throttle;
  sendWrong(throttle, "a", 5, kNow);
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ(throttle.check("a", "wrong", kToken, kNow + 59s), kLockedOut) << i;
  }
  sendWrong(throttle, "a", 5, kNow + 60s);
  EXPECT_EQ(throttle.check("a", "wrong", kToken, kNow + 60s), kLockedOut);
}

TEST(TokenThrottle, AfterALockOutFiveMoreAreNeeded) {
  TokenThrottle throttle;
  sendWrong(throttle, "a", 5, kNow);
  sendWrong(throttle, "a", 4, kNow + 60s);
  EXPECT_EQ(throttle.check("a", kToken, kToken, kNow + 60s), kAllowed);
  sendWrong(throttle, "a", 5, kNow + 61s);
  EXPECT_EQ(throttle.check("a", kToken, kToken, kNow + 61s), kLockedOut);
}

TEST(TokenThrottle, AddressesAreCountedApart) {
  TokenThrottle throttle;
  sendWrong(throttle, "192.0.2.1", 5, kNow);
  sendWrong(throttle, "192.0.2.2", 4, kNow);
  EXPECT_EQ(throttle.check("192.0.2.1", kToken, kToken, kNow), kLockedOut);
  EXPECT_EQ(throttle.check("192.0.2.2", kToken, kToken, kNow), kAllowed);
  EXPECT_EQ(throttle.check("192.0.2.11", kToken, kToken, kNow), kAllowed);
}

TEST(TokenThrottle, NoTokenIsAWrongTokenUnlessNoneIsExpected) {
  TokenThrottle throttle;
  for (int i = 0; i < 5; ++i) EXPECT_EQ(throttle.check("a", "", kToken, kNow), kUnauthorized) << i;
  EXPECT_EQ(throttle.check("a", "", kToken, kNow), kLockedOut);
  EXPECT_EQ(throttle.check("b", "", "", kNow), kAllowed);
  EXPECT_EQ(throttle.check("b", "x", "", kNow), kUnauthorized);
}

TEST(TokenThrottle, OnlyWrongTokensLeaveARecord) {
  TokenThrottle throttle;
  EXPECT_EQ(throttle.check("a", kToken, kToken, kNow), kAllowed);
  EXPECT_EQ(throttle.size(), 0u);
  sendWrong(throttle, "a", 1, kNow);
  sendWrong(throttle, "b", 5, kNow);
  EXPECT_EQ(throttle.size(), 2u);
  EXPECT_EQ(throttle.check("a", kToken, kToken, kNow), kAllowed);
  EXPECT_EQ(throttle.size(), 1u);
}

TEST(TokenThrottle, ForgetsTheLongestUnusedAddressWhenFull) {
  TokenThrottle throttle;
  const auto address = [](std::size_t i) { return "2001:db8::" + std::to_string(i); };
  sendWrong(throttle, "locked out", 5, kNow);
  sendWrong(throttle, "four wrong", 4, kNow);
  for (std::size_t i = 2; i < kMaxThrottleEntries; ++i) sendWrong(throttle, address(i), 1, kNow);
  EXPECT_EQ(throttle.size(), kMaxThrottleEntries);

  // A request counts as use, though a lock-out changes nothing on record.
  EXPECT_EQ(throttle.check("locked out", kToken, kToken, kNow), kLockedOut);
  sendWrong(throttle, "one more", 1, kNow);
  EXPECT_EQ(throttle.size(), kMaxThrottleEntries);
  EXPECT_EQ(throttle.check("locked out", kToken, kToken, kNow), kLockedOut);

  // "four wrong" had to go, so its count begins anew; its return drives out the next in line.
  sendWrong(throttle, "four wrong", 4, kNow);
  EXPECT_EQ(throttle.size(), kMaxThrottleEntries);
  EXPECT_EQ(throttle.check("four wrong", kToken, kToken, kNow), kAllowed);
  EXPECT_EQ(throttle.size(), kMaxThrottleEntries - 1);

  // address(2) went for it, address(3) is still on record with its one wrong token.
  sendWrong(throttle, address(3), 4, kNow);
  EXPECT_EQ(throttle.check(address(3), kToken, kToken, kNow), kLockedOut);
  sendWrong(throttle, address(2), 4, kNow);
  EXPECT_EQ(throttle.check(address(2), kToken, kToken, kNow), kAllowed);
}

TEST(TokenThrottle, StaysBoundedUnderAFloodOfAddresses) {
  TokenThrottle throttle;
  for (std::size_t i = 0; i < 3 * kMaxThrottleEntries; ++i) {
    throttle.check(std::to_string(i), "wrong", kToken, kNow);
  }
  EXPECT_EQ(throttle.size(), kMaxThrottleEntries);
}

// Sixty-four threads send 10,000 wrong tokens from one address, spread evenly over three minutes.
TEST(TokenThrottle, ManyThreadsFromOneAddressGetExactlyFiveTriesAMinute) {
  constexpr int kThreads = 64;
  constexpr int kRequests = 10'000;
  TokenThrottle throttle;
  std::atomic<int> next = 0;
  std::atomic<int> unauthorized = 0;
  std::atomic<int> locked_out = 0;
  std::latch everyone_is_there(kThreads);
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&] {
      everyone_is_there.arrive_and_wait();
      for (int request; (request = next++) < kRequests;) {
        const SteadyTime now = kNow + request * 18ms;
        const TokenVerdict verdict = throttle.check("a", "wrong", kToken, now);
        ++(verdict == kUnauthorized ? unauthorized : locked_out);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(unauthorized, 3 * 5);
  EXPECT_EQ(locked_out, kRequests - 3 * 5);
}

// All at one instant: not one more than five.
TEST(TokenThrottle, ManyThreadsAtOneInstantGetExactlyFiveTries) {
  TokenThrottle throttle;
  std::atomic<int> unauthorized = 0;
  std::latch everyone_is_there(64);
  std::vector<std::thread> threads;
  threads.reserve(64);
  for (int i = 0; i < 64; ++i) {
    threads.emplace_back([&] {
      everyone_is_there.arrive_and_wait();
      for (int request = 0; request < 157; ++request) {
        if (throttle.check("a", "wrong", kToken, kNow) == kUnauthorized) ++unauthorized;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(unauthorized, 5);
}

}  // namespace
}  // namespace spotserver
