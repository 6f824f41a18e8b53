// The HTTP face: health, unknown paths, methods, ranges, connections kept and shared.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "e2e/activity_model.hpp"
#include "e2e/station.hpp"

namespace spotserver::e2e {
namespace {

using testing::StartsWith;

void expectNotFound(const Response& answer) {
  EXPECT_EQ(answer.status_line, "HTTP/1.1 404 Not Found");
  EXPECT_EQ(answer.header("Content-Type"), "application/json");
  EXPECT_EQ(answer.body, "{\"error\":\"not found\"}");
}

std::string healthText(const std::string& mode, std::int64_t time, const std::string& fingerprint) {
  return "{\"service\":\"corvane-spot-server\",\"version\":\"0.3.0\",\"mode\":\"" + mode +
         "\",\"server_time\":" + std::to_string(time) + ",\"fingerprint_sha256\":\"" + fingerprint +
         "\"}";
}

TEST(Health, LetterByLetterWithoutAToken) {
  const Station station;
  ServerProcess server = station.serve();
  TlsClient client(station.port());
  const std::int64_t before = wallClock();
  const Response answer = client.request("GET", kHealthPath);
  const std::int64_t time = numberOf(answer.body, "server_time");
  EXPECT_GE(time, before);
  EXPECT_LE(time, wallClock());
  EXPECT_EQ(answer.status_line, "HTTP/1.1 200 OK");
  EXPECT_EQ(answer.header("Content-Type"), "application/json");
  EXPECT_EQ(answer.header("Content-Length"), std::to_string(answer.body.size()));
  EXPECT_EQ(answer.body, healthText("live", time, client.fingerprint()));
}

TEST(Health, QueryAndHeadersChangeNothing) {
  const Station station;
  ServerProcess server = station.serve();
  const Response answers[] = {
      station.get(std::string(kHealthPath) + "?hours=1&mode=demo"),
      station.get(kHealthPath, bearer("wrong")),
      station.get(kHealthPath, {{"Accept", "text/html"}, {"X-Spot-Token", "wrong"}})};
  for (const Response& answer : answers) {
    EXPECT_EQ(answer.status, 200);
    EXPECT_THAT(answer.body,
                StartsWith("{\"service\":\"corvane-spot-server\",\"version\":\"0.3.0\","
                           "\"mode\":\"live\","));
  }
}

TEST(Http, UnknownPaths) {
  const Station station;
  ServerProcess server = station.serve();
  for (const char* path : {"/", "/api", "/api/v1", "/api/v1/health/", "/api/v1/healthy",
                           "/API/V1/HEALTH", "/api/v1/activity/", "/api/v2/activity", "/%00",
                           "/../etc/passwd", "//api/v1/health", "/?x=/api/v1/health"}) {
    SCOPED_TRACE(path);
    expectNotFound(station.get(path));
  }
}

TEST(Http, OtherMethodsOnKnownPathsFindNothing) {
  const Station station;
  ServerProcess server = station.serve();
  for (const char* path : {kHealthPath, kActivityPath}) {
    for (const char* method : {"POST", "PUT", "PATCH"}) {
      SCOPED_TRACE(std::string(method) + " " + path);
      expectNotFound(TlsClient(station.port()).request(method, path, {{"Content-Length", "0"}}));
    }
    for (const char* method : {"DELETE", "OPTIONS"}) {
      SCOPED_TRACE(std::string(method) + " " + path);
      expectNotFound(TlsClient(station.port()).request(method, path));
    }
  }
}

TEST(Http, OtherErrorsKeepTheLibrarysAnswer) {
  const Station station;
  ServerProcess server = station.serve();
  for (const char* method : {"TRACE", "CONNECT", "FOO"}) {
    const Response answer = TlsClient(station.port()).request(method, kHealthPath);
    EXPECT_EQ(answer.status, 400) << method;
    EXPECT_EQ(answer.body, "") << method;
    EXPECT_NE(answer.header("Content-Type"), "application/json") << method;
  }
}

TEST(Http, HeadGivesTheHeadersOfGet) {
  const Station station;
  ServerProcess server = station.serve();
  TlsClient client(station.port());
  const Response head = client.request("HEAD", kHealthPath);
  const Response get = client.request("GET", kHealthPath);  // nothing of a body came in between
  EXPECT_EQ(head.status, 200);
  EXPECT_EQ(head.header("Content-Length"), get.header("Content-Length"));
  EXPECT_EQ(get.status, 200);
}

TEST(Http, MalformedRequestsDoNotDisturbTheOthers) {
  const Station station;
  ServerProcess server = station.serve();
  for (const std::string& bytes :
       {std::string("\r\n\r\n"), std::string("GET\r\n\r\n"), std::string("BREW / HTTP/1.1\r\n\r\n"),
        std::string("GET / HTTP/9.9\r\n\r\n"), std::string("\0\1\2\3\r\n\r\n", 8),
        "GET /" + std::string(9000, 'a') + " HTTP/1.1\r\nHost: x\r\n\r\n",
        "GET / HTTP/1.1\r\nX: " + std::string(9000, 'a') + "\r\n\r\n"}) {
    TlsClient client(station.port());
    client.send(bytes);
    EXPECT_EQ(station.get(kHealthPath).status, 200) << bytes.substr(0, 20);
  }
}

TEST(Http, RequestInSingleBytes) {
  const Station station;
  ServerProcess server = station.serve();
  TlsClient client(station.port());
  for (const char byte : requestText("GET", kHealthPath)) client.send(std::string_view(&byte, 1));
  EXPECT_EQ(client.receive().status, 200);
}

TEST(Http, ConnectionsAreKeptForAMinute) {
  const Station station;
  ServerProcess server = station.serve();
  TlsClient client(station.port());
  for (int n = 0; n < 3; ++n) {
    const Response answer = client.request("GET", kHealthPath);
    EXPECT_EQ(answer.status, 200);
    EXPECT_THAT(answer.header("Keep-Alive"), StartsWith("timeout=60")) << n;
  }
}

TEST(Http, OlderPhoneWithTls12) {
  const Station station;
  ServerProcess server = station.serve();
  TlsClient client(station.port(), "127.0.0.1", TLS1_2_VERSION);
  EXPECT_EQ(client.request("GET", kHealthPath).status, 200);
}

TEST(Http, SecondRequestNeedNotWaitForTheFirstAnswer) {
  const Station station;
  ServerProcess server = station.serve();
  TlsClient client(station.port());
  client.send(requestText("GET", kHealthPath));
  client.send(requestText("GET", "/nothing"));
  EXPECT_EQ(client.receive().status, 200);
  expectNotFound(client.receive());
}

TEST(Http, ConnectionCloseIsHonoured) {
  const Station station;
  ServerProcess server = station.serve();
  TlsClient client(station.port());
  EXPECT_EQ(client.request("GET", kHealthPath, {{"Connection", "close"}}).status, 200);
  client.awaitClose();
}

TEST(Http, RangesAreTheLibrarysAffair) {
  const Station station;
  ServerProcess server = station.serve();
  const std::string whole = station.get(kHealthPath).body;
  const Response part = station.get(kHealthPath, {{"Range", "bytes=0-9"}});
  EXPECT_EQ(part.status_line, "HTTP/1.1 206 Partial Content");
  EXPECT_EQ(part.body, whole.substr(0, 10));
  EXPECT_EQ(part.header("Content-Range"), "bytes 0-9/" + std::to_string(whole.size()));

  Headers headers = bearer(kToken);
  headers.push_back({"Range", "bytes=1-11"});
  const Response activity = station.get(kActivityPath, headers);
  EXPECT_EQ(activity.status, 206);
  EXPECT_EQ(activity.body, "\"generated\"");
}

TEST(Http, ErrorsComeWholeWhateverTheRange) {
  const Station station;
  ServerProcess server = station.serve();
  int last = 0;
  for (const char* range : {"bytes=0-3", "bytes=1000-", "bytes=0-0,3-4", "bytes=-5"}) {
    SCOPED_TRACE(range);
    const Headers headers = {{"Range", range}};
    const std::string peer = "127.0.2." + std::to_string(++last);
    const auto expectError = [&](const std::string& path, int status, const std::string& body) {
      const Response answer = station.get(path, headers, peer);
      EXPECT_EQ(answer.status, status);
      EXPECT_EQ(answer.body, body);
      EXPECT_EQ(answer.header("Content-Type"), "application/json");
      EXPECT_EQ(answer.header("Content-Range"), "");
    };
    expectError("/nope", 404, "{\"error\":\"not found\"}");
    for (int n = 0; n < 5; ++n) {
      expectError(kActivityPath, 401, "{\"error\":\"unauthorized\"}");
    }
    expectError(kActivityPath, 429, "{\"error\":\"too many wrong tokens, try again in a minute\"}");
  }
}

TEST(Http, AFewRangesComeAsParts) {
  const Station station;
  ServerProcess server = station.serve();
  for (const char* range : {"bytes=0-0,2-3", "bytes=2-3,0-0", "bytes=0-9,5-", "bytes=-,-",
                            "bytes=0-1,4-5,8-9,12-13,-5"}) {
    const Response answer = station.get(kHealthPath, {{"Range", range}});
    EXPECT_EQ(answer.status, 206) << range;
    EXPECT_TRUE(answer.header("Content-Type").starts_with("multipart/byteranges")) << range;
  }
}

TEST(Http, RangesThatAreMoreThanTheDocumentGetTheDocument) {
  const Station station;
  ServerProcess server = station.serve();
  std::string wholes = "bytes=-";
  std::string apart = "bytes=0-0";
  for (int n = 1; n < 200; ++n) {
    wholes += ",-";
    apart += "," + std::to_string(2 * n) + "-" + std::to_string(2 * n);
  }
  for (const std::string& range : {wholes, apart, std::string("bytes=0-,0-,0-")}) {
    SCOPED_TRACE(range.substr(0, 20));
    const Response health = station.get(kHealthPath, {{"Range", range}});
    EXPECT_EQ(health.status_line, "HTTP/1.1 200 OK");
    EXPECT_EQ(health.header("Content-Type"), "application/json");
    EXPECT_TRUE(health.body.starts_with("{\"service\":") && health.body.ends_with("\"}"));
    EXPECT_EQ(station.get("/nothing", {{"Range", range}}).body, "{\"error\":\"not found\"}");
    Headers headers = bearer(kToken);
    headers.push_back({"Range", range});
    EXPECT_EQ(station.get(kActivityPath, headers).status, 200);
  }
}

TEST(Http, AbsurdRangesHarmNobody) {
  const Station station;
  ServerProcess server = station.serve();
  for (const char* range :
       {"bytes=99999999999999999999-", "bytes=0-99999999999999999999", "bytes=5-1", "bytes=-",
        "bytes=100000-200000", "bytes=-99999", "bytes=9223372036854775807-", "nonsense",
        "bytes=", "bytes=0-0,1-1,2-2,3-3,4-4,5-5,6-6,7-7,8-8,9-9,10-10"}) {
    // Whatever the answer: none of it may come from the program's inside.
    const Response answer = station.get(kHealthPath, {{"Range", range}});
    EXPECT_EQ(answer.header("EXCEPTION_WHAT"), "") << range;
    EXPECT_EQ(station.get(kHealthPath).status, 200) << range;
  }
  EXPECT_EQ(server.errors(), "");
}

TEST(Http, ManyIdlePhonesDoNotShutOutTheNext) {
  const Station station;
  ServerProcess server = station.serve();
  std::vector<TlsClient> idle;
  for (int phone = 0; phone < 40; ++phone) {
    idle.emplace_back(station.port());
    EXPECT_EQ(idle.back().request("GET", kHealthPath).status, 200) << phone;
  }
  EXPECT_EQ(station.activity().status, 200);
  EXPECT_EQ(idle.front().request("GET", kHealthPath).status, 200) << "still connected";
}

TEST(Http, SilentConnectionsDoNotShutOutAPhone) {
  const Station station;
  ServerProcess server = station.serve();
  std::vector<Fd> silent;
  silent.reserve(20);
  for (int n = 0; n < 20; ++n) silent.push_back(connectTcp(station.port()));
  sendAll(silent.back(), "this is no TLS handshake at all, not even a little\r\n\r\n");
  EXPECT_EQ(station.get(kHealthPath).status, 200);
}

TEST(Http, ClientsAtOnceWhileTheLogGrows) {
  const Station station;
  const std::int64_t time = wallClock() - 600;
  ServerProcess server = station.serve({"--history-db", "off"});
  std::vector<TlsClient> clients;
  clients.reserve(8);
  for (int n = 0; n < 8; ++n)
    clients.emplace_back(station.port(), "127.0.0." + std::to_string(n + 1));
  for (int round = 1; round <= 4; ++round) {
    station.writeLog(logText(
        std::vector<Heard>(static_cast<std::size_t>(round), {time, "14.074", "FT8", "K1ABC"})));
    for (TlsClient& client : clients)
      client.send(requestText("GET", kActivityPath, bearer(kToken)));
    for (TlsClient& client : clients) {
      const Response answer = client.receive();
      EXPECT_EQ(answer.status, 200);
      EXPECT_EQ(numberOf(answer.body, "window_spots"), round);
    }
  }
}

}  // namespace
}  // namespace spotserver::e2e
