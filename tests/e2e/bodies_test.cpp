// Requests with a body. No endpoint takes one: what the server would have to read at length it
// refuses unread, and a connection whose next bytes are a body is not used for another request.
#include <gtest/gtest.h>

#include "e2e/station.hpp"

namespace spotserver::e2e {
namespace {

void expectNotFound(const Response& answer) {
  EXPECT_EQ(answer.status_line, "HTTP/1.1 404 Not Found");
  EXPECT_EQ(answer.header("Content-Type"), "application/json");
  EXPECT_EQ(answer.body, "{\"error\":\"not found\"}");
}

TEST(Bodies, LargeOnesAreRefusedUnread) {
  const Station station;
  ServerProcess server = station.serve();
  for (const char* method : {"POST", "PUT", "PATCH", "DELETE", "PRI"}) {
    for (const char* path : {kHealthPath, "/nothing"}) {
      for (const char* length : {"65537", "100000000", "99999999999999999999999999"}) {
        SCOPED_TRACE(std::string(method) + " " + path + " " + length);
        TlsClient client(station.port());
        client.send(requestText(method, path, {{"Content-Length", length}}));
        expectNotFound(client.receive());  // although not one byte of the body was sent
        client.awaitClose();
      }
    }
  }
}

TEST(Bodies, ClientThatAsksFirstIsToldAtOnce) {
  const Station station;
  ServerProcess server = station.serve();
  TlsClient refused(station.port());
  refused.send(
      requestText("POST", kHealthPath, {{"Content-Length", "100000"}, {"Expect", "100-continue"}}));
  expectNotFound(refused.receive());
  refused.awaitClose();

  TlsClient invited(station.port());
  invited.send(requestText(
      "POST", kHealthPath,
      {{"Content-Length", "5"}, {"Content-Type", "text/plain"}, {"Expect", "100-continue"}}));
  EXPECT_EQ(invited.receive().status_line, "HTTP/1.1 100 Continue");
  invited.send("hello");
  expectNotFound(invited.receive());
}

TEST(Bodies, SixtyFourKibibytesAreStillRead) {
  const Station station;
  ServerProcess server = station.serve();
  TlsClient client(station.port());
  client.send(requestText("POST", kHealthPath,
                          {{"Content-Length", "65536"}, {"Content-Type", "text/plain"}}) +
              std::string(65'536, 'x'));
  expectNotFound(client.receive());
  EXPECT_EQ(client.request("GET", kHealthPath).status, 200);
}

TEST(Bodies, SmallPlainOnesLeaveTheConnectionUsable) {
  const Station station;
  ServerProcess server = station.serve();
  for (const char* method : {"POST", "PUT", "PATCH", "DELETE"}) {
    SCOPED_TRACE(method);
    TlsClient client(station.port());
    client.send(requestText(method, kHealthPath,
                            {{"Content-Length", "5"}, {"Content-Type", "text/plain"}}) +
                "hello");
    expectNotFound(client.receive());
    EXPECT_EQ(client.request("GET", kHealthPath).status, 200);
  }
}

TEST(Bodies, OddFormsAreRefusedUnread) {
  const Station station;
  ServerProcess server = station.serve();
  const Headers cases[] = {
      {{"Transfer-Encoding", "chunked"}},
      {{"Transfer-Encoding", "CHUNKED"}},
      {{"Transfer-Encoding", "gzip, chunked"}},
      {{"Content-Length", "5"}, {"Transfer-Encoding", "chunked"}},
      {{"Content-Length", "5"}, {"Content-Encoding", "gzip"}},
      {{"Content-Length", "5"}, {"Content-Encoding", "br"}},
      {{"Content-Length", "5"}, {"Content-Type", "multipart/form-data; boundary=x"}},
      {},  // a POST must say how long its body is
  };
  for (const char* method : {"POST", "PUT", "PATCH"}) {
    for (const Headers& headers : cases) {
      SCOPED_TRACE(method + (headers.empty()
                                 ? " without a length"
                                 : " " + headers.back().first + " " + headers.back().second));
      TlsClient client(station.port());
      client.send(requestText(method, kHealthPath, headers));
      expectNotFound(client.receive());
      client.awaitClose();
    }
  }
}

TEST(Bodies, GetThatAnnouncesOneIsAnsweredAndThenClosed) {
  const Station station;
  ServerProcess server = station.serve();
  const Headers cases[] = {{{"Content-Length", "5"}},
                           {{"Content-Length", "100000000"}},
                           {{"Transfer-Encoding", "chunked"}}};
  for (const Headers& body : cases) {
    SCOPED_TRACE(body[0].first + " " + body[0].second);
    TlsClient health(station.port());
    health.send(requestText("GET", kHealthPath, body));
    EXPECT_EQ(health.receive().status, 200);
    health.awaitClose();

    TlsClient activity(station.port());
    Headers headers = bearer(kToken);
    headers.insert(headers.end(), body.begin(), body.end());
    activity.send(requestText("GET", kActivityPath, headers));
    EXPECT_EQ(activity.receive().status, 200);
    activity.awaitClose();
  }
}

TEST(Bodies, BodyOfAGetIsNeverTakenForARequest) {
  const Station station;
  ServerProcess server = station.serve();
  const std::string smuggled = requestText("GET", "/nothing");
  TlsClient client(station.port());
  client.send(
      requestText("GET", kHealthPath, {{"Content-Length", std::to_string(smuggled.size())}}) +
      smuggled);
  EXPECT_EQ(client.receive().status, 200);
  client.awaitClose();
}

// The library answers these by itself, before it has looked at any body.
TEST(Bodies, BodyOfARequestThatIsNotRoutedIsNeverTakenForARequest) {
  const Station station;
  ServerProcess server = station.serve();
  const std::string smuggled = requestText("GET", kHealthPath);
  const std::string size = std::to_string(smuggled.size());
  const Headers bodies[] = {{{"Content-Length", size}, {"Content-Type", "text/plain"}},
                            {{"Transfer-Encoding", "chunked"}}};
  for (const char* method : {"GET", "POST"}) {
    for (Headers headers : bodies) {
      SCOPED_TRACE(std::string(method) + " " + headers[0].first);
      headers.push_back({"Range", "nonsense"});
      TlsClient client(station.port());
      client.send(requestText(method, kHealthPath, headers) + smuggled);
      const Response answer = client.receive();
      EXPECT_EQ(answer.status, 416);
      EXPECT_EQ(answer.header("Connection"), "close");
      client.awaitClose();
    }
  }
}

TEST(Bodies, RestOfAHeadThatIsNotUnderstoodIsNeverTakenForARequest) {
  const Station station;
  ServerProcess server = station.serve();
  const struct {
    std::string head;
    int status;
  } cases[] = {{"GET /\r\n", 400},
               {"NONSENSE / HTTP/1.1\r\n\r\n", 400},
               {"GET / HTTP/1.1\r\nX: " + std::string(8200, 'x') + "\r\n\r\n", 400},
               {"GET /" + std::string(8200, 'u') + " HTTP/1.1\r\n\r\n", 414}};
  for (const auto& [head, status] : cases) {
    SCOPED_TRACE(head.substr(0, 20));
    TlsClient client(station.port());
    client.send(head + requestText("GET", kHealthPath));
    const Response answer = client.receive();
    EXPECT_EQ(answer.status, status);
    EXPECT_EQ(answer.header("Connection"), "close");
    client.awaitClose();
  }
}

TEST(Bodies, ARangeThatIsNotUnderstoodKeepsItsConnection) {
  const Station station;
  ServerProcess server = station.serve();
  TlsClient client(station.port());
  EXPECT_EQ(client.request("GET", kHealthPath, {{"Range", "nonsense"}}).status, 416);
  EXPECT_EQ(client.request("GET", kHealthPath).status, 200);
}

TEST(Bodies, GetThatAnnouncesAnEmptyOneKeepsItsConnection) {
  const Station station;
  ServerProcess server = station.serve();
  TlsClient client(station.port());
  EXPECT_EQ(client.request("GET", kHealthPath, {{"Content-Length", "0"}}).status, 200);
  EXPECT_EQ(client.request("GET", kHealthPath).status, 200);
}

TEST(Bodies, RefusedBodiesCountNoWrongTokens) {
  const Station station;
  ServerProcess server = station.serve();
  for (int n = 0; n < 6; ++n) {
    TlsClient client(station.port());
    client.send(requestText("POST", kActivityPath, {{"Content-Length", "100000"}}));
    expectNotFound(client.receive());
  }
  EXPECT_EQ(station.activity().status, 200);
}

}  // namespace
}  // namespace spotserver::e2e
