// Who is let in: tokens, the places they may stand, and the lock-out after five wrong ones.
#include <gtest/gtest.h>

#include "e2e/station.hpp"

namespace spotserver::e2e {
namespace {

Response ask(const Station& station, const Headers& headers,
             const std::string& source = "127.0.0.1") {
  return station.get(kActivityPath, headers, source);
}

void expectUnauthorized(const Response& answer) {
  EXPECT_EQ(answer.status_line, "HTTP/1.1 401 Unauthorized");
  EXPECT_EQ(answer.header("WWW-Authenticate"), "Bearer");
  EXPECT_EQ(answer.header("Content-Type"), "application/json");
  EXPECT_EQ(answer.body, "{\"error\":\"unauthorized\"}");
}

void expectLockedOut(const Response& answer) {
  EXPECT_EQ(answer.status_line, "HTTP/1.1 429 Too Many Requests");
  EXPECT_EQ(answer.header("Retry-After"), "60");
  EXPECT_EQ(answer.header("Content-Type"), "application/json");
  EXPECT_EQ(answer.header("WWW-Authenticate"), "");
  EXPECT_EQ(answer.body, "{\"error\":\"too many wrong tokens, try again in a minute\"}");
}

TEST(Access, RightTokensInAllTheirPlaces) {
  const Station station;
  ServerProcess server = station.serve();
  const Headers cases[] = {
      {{"Authorization", std::string("Bearer ") + kToken}},
      {{"AUTHORIZATION", std::string("Bearer ") + kToken}},
      {{"X-Spot-Token", kToken}},
      {{"x-spot-token", kToken}},
      {{"Authorization", "Basic c3BvdDpzcG90"}, {"X-Spot-Token", kToken}},
      {{"Authorization", "Bearer"}, {"X-Spot-Token", kToken}},
      {{"Authorization", std::string("Bearer ") + kToken}, {"X-Spot-Token", "wrong"}},
  };
  for (const Headers& headers : cases) {
    EXPECT_EQ(ask(station, headers).status, 200) << headers[0].first << ": " << headers[0].second;
  }
}

TEST(Access, ATokenWithPercentSignsIsTakenAsItStands) {
  for (const std::string token : {"a%41b", "p+q%", "100%25", "a%00b"}) {
    const Station station;
    ServerProcess server = station.serve({"--token", token});
    EXPECT_EQ(ask(station, bearer(token)).status, 200) << token;
    EXPECT_EQ(ask(station, {{"X-Spot-Token", token}}).status, 200) << token;
    expectUnauthorized(ask(station, bearer(token + "%")));
  }
}

TEST(Access, WrongTokens) {
  const Station station;
  ServerProcess server = station.serve();
  const std::string token = kToken;
  const Headers cases[] = {
      {},
      {{"Authorization", "Bearer wrong"}},
      {{"Authorization", "bearer " + token}},
      {{"Authorization", "Bearer"}},
      {{"Authorization", "Bearer "}},
      {{"Authorization", "Bearer  " + token}},
      {{"Authorization", token}},
      {{"Authorization", "Bearer " + token.substr(0, token.size() - 1)}},
      {{"Authorization", "Bearer " + token + "x"}},
      {{"Authorization", "Bearer " + token + "%00"}},
      {{"X-Spot-Token", token + "%00garbage"}},
      {{"X-Spot-Token", token + std::string("\0x", 2)}},
      {{"Authorization", "Bearer wrong"}, {"X-Spot-Token", token}},
      {{"X-Spot-Token", ""}},
      {{"X-Spot-Token", "Bearer " + token}},
  };
  int number = 0;
  for (const Headers& headers : cases) {
    SCOPED_TRACE(number);
    // Each from an address of its own, so that none is locked out.
    expectUnauthorized(ask(station, headers, "127.0.1." + std::to_string(++number)));
  }
}

TEST(Access, FifthWrongTokenLocksTheAddressOutAndNoOther) {
  const Station station;
  ServerProcess server = station.serve();
  for (int attempt = 1; attempt <= 5; ++attempt) {
    SCOPED_TRACE(attempt);
    expectUnauthorized(ask(station, bearer("wrong")));
  }
  expectLockedOut(ask(station, bearer("wrong")));
  expectLockedOut(ask(station, bearer(kToken)));
  expectLockedOut(ask(station, {}));
  EXPECT_EQ(station.get(kHealthPath).status, 200) << "health stays open";
  EXPECT_EQ(ask(station, bearer(kToken), "127.0.0.2").status, 200);
  expectLockedOut(ask(station, bearer(kToken)));
}

TEST(Access, RightTokenWipesEarlierWrongOnes) {
  const Station station;
  ServerProcess server = station.serve();
  for (int round = 0; round < 2; ++round) {
    for (int attempt = 0; attempt < 4; ++attempt) expectUnauthorized(ask(station, bearer("no")));
    EXPECT_EQ(ask(station, bearer(kToken)).status, 200) << round;
  }
}

TEST(Access, AddressesAreCountedSeparately) {
  const Station station;
  ServerProcess server = station.serve();
  for (int attempt = 0; attempt < 4; ++attempt) {
    expectUnauthorized(ask(station, {}, "127.0.0.1"));
    expectUnauthorized(ask(station, {}, "127.0.0.2"));
  }
  EXPECT_EQ(ask(station, bearer(kToken), "127.0.0.1").status, 200);
  expectUnauthorized(ask(station, {}, "127.0.0.2"));
  expectLockedOut(ask(station, bearer(kToken), "127.0.0.2"));
}

TEST(Access, AddressIsThatOfTheConnectionWhateverTheHeadersSay) {
  const Station station;
  ServerProcess server = station.serve();
  const auto claiming = [](int n, const char* token) {
    const std::string address = "10.0.0." + std::to_string(n);
    Headers headers = bearer(token);
    headers.insert(headers.begin(), {{"REMOTE_ADDR", address}, {"X-Forwarded-For", address}});
    return headers;
  };
  for (int n = 1; n <= 5; ++n) expectUnauthorized(ask(station, claiming(n, "wrong")));
  expectLockedOut(ask(station, claiming(6, kToken)));
  expectLockedOut(ask(station, bearer(kToken)));
}

TEST(Access, LockOutHoldsOnAConnectionThatStaysOpen) {
  const Station station;
  ServerProcess server = station.serve();
  TlsClient kept(station.port());
  EXPECT_EQ(kept.request("GET", kActivityPath, bearer(kToken)).status, 200);
  for (int attempt = 0; attempt < 5; ++attempt) expectUnauthorized(ask(station, {}));
  expectLockedOut(kept.request("GET", kActivityPath, bearer(kToken)));
}

TEST(Access, HeadRequestsNeedTheTokenToo) {
  const Station station;
  ServerProcess server = station.serve();
  EXPECT_EQ(TlsClient(station.port()).request("HEAD", kActivityPath).status, 401);
  EXPECT_EQ(TlsClient(station.port()).request("HEAD", kActivityPath, bearer(kToken)).status, 200);
}

}  // namespace
}  // namespace spotserver::e2e
