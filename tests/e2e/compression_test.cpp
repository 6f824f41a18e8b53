// What a client gets that offers to unpack compressed answers.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "e2e/activity_model.hpp"
#include "e2e/station.hpp"
#include "gunzip.hpp"

namespace spotserver::e2e {
namespace {

constexpr const char* kDayPath = "/api/v1/activity?hours=24";

// A phone that asks for the activity.
class Phone {
 public:
  explicit Phone(const Station& station) : station_(station) {}

  // Inlined, GCC 12 takes the added header for an overrun when the thread sanitizer is on.
  [[gnu::noinline]] Response ask(Headers headers = {}) const {
    headers.emplace_back("X-Spot-Token", kToken);
    return station_.get(kDayPath, headers);
  }
  Response asks(const std::string& accept_encoding) const {
    return ask({{"Accept-Encoding", accept_encoding}});
  }

 private:
  const Station& station_;
};

// A station whose answer is worth compressing.
struct BusyStation : Station {
  BusyStation() { writeLog(logText({{wallClock() - 600, "14.074", "FT8", "K1ABC"}})); }
};

std::string withoutTime(const std::string& document) {
  return document.substr(document.find(",\"mode\""));
}

void expectPlain(const Response& answer, const std::string& offer) {
  EXPECT_EQ(answer.header("Content-Encoding"), "") << offer;
  EXPECT_EQ(answer.header("Vary"), "") << offer;
  EXPECT_EQ(answer.header("Content-Type"), "application/json") << offer;
  EXPECT_EQ(answer.body.substr(0, 13), "{\"generated\":") << offer;
}

TEST(Compression, GzipUnpacksToThePlainAnswer) {
  const BusyStation station;
  ServerProcess server = station.serve({"--reload", "3600", "--history-db", "off"});
  const Phone phone(station);
  for (int tries = 0; tries < 5; ++tries) {
    const Response before = phone.ask();
    const Response packed = phone.asks("gzip, deflate, br");
    const Response after = phone.ask();
    EXPECT_EQ(packed.status_line, "HTTP/1.1 200 OK");
    EXPECT_EQ(packed.header("Content-Encoding"), "gzip");
    EXPECT_EQ(packed.header("Vary"), "Accept-Encoding");
    EXPECT_EQ(packed.header("Content-Type"), "application/json");
    EXPECT_EQ(packed.header("Content-Length"), std::to_string(packed.body.size()));
    EXPECT_LT(packed.body.size() * 5, before.body.size());
    const std::string document = gunzip(packed.body);
    EXPECT_GE(generatedAt(document), generatedAt(before.body));
    EXPECT_LE(generatedAt(document), generatedAt(after.body));
    if (withoutTime(before.body) != withoutTime(after.body)) continue;  // the minute changed
    EXPECT_EQ(withoutTime(document), withoutTime(before.body));
    return;
  }
  FAIL() << "no two answers in a row were the same";
}

TEST(Compression, OnlyForWhoPrefersGzip) {
  const BusyStation station;
  ServerProcess server = station.serve();
  const Phone phone(station);
  expectPlain(phone.ask(), "no header");
  for (const char* offer : {"", "br", "deflate", "identity", "gzip;q=0", "br;q=1, gzip;q=0, *",
                            "gzip;q=0.1, identity", "nogzip", "zstd, br"}) {
    expectPlain(phone.asks(offer), offer);
  }
  for (const char* offer : {"gzip", "x-gzip", "*", "br;q=1.0, gzip;q=0.8", "GZIP;q=0.001"}) {
    EXPECT_EQ(phone.asks(offer).header("Content-Encoding"), "gzip") << offer;
  }
  const Response two_lines = phone.ask({{"Accept-Encoding", "br"}, {"Accept-Encoding", "gzip"}});
  EXPECT_EQ(two_lines.header("Content-Encoding"), "gzip");
}

TEST(Compression, TheConnectionGoesOnBehindEveryKind) {
  const BusyStation station;
  ServerProcess server = station.serve({"--reload", "3600"});
  TlsClient client(station.port());
  const Headers plain{{"X-Spot-Token", kToken}};
  const Headers packed{{"X-Spot-Token", kToken}, {"Accept-Encoding", "gzip"}};
  const Response get = client.request("GET", kDayPath, packed);
  EXPECT_EQ(gunzip(get.body).substr(0, 13), "{\"generated\":");
  expectPlain(client.request("GET", kDayPath, plain), "behind gzip");
  const Response head = client.request("HEAD", kDayPath, packed);
  EXPECT_EQ(head.status, 200);
  EXPECT_EQ(head.header("Content-Encoding"), "gzip");
  const Response again = client.request("GET", kDayPath, packed);
  EXPECT_EQ(again.header("Content-Encoding"), "gzip");
  // Of the one minute or, where a new one began in between, of the other.
  EXPECT_THAT(head.header("Content-Length"),
              testing::AnyOf(std::to_string(get.body.size()), std::to_string(again.body.size())));
}

TEST(Compression, ARangeIsOneOfThePlainDocument) {
  const BusyStation station;
  ServerProcess server = station.serve();
  const Phone phone(station);
  for (const char* offer : {"identity", "gzip", "gzip, deflate, br"}) {
    const Response part = phone.ask({{"Range", "bytes=1-11"}, {"Accept-Encoding", offer}});
    EXPECT_EQ(part.status_line, "HTTP/1.1 206 Partial Content") << offer;
    EXPECT_EQ(part.header("Content-Encoding"), "") << offer;
    EXPECT_EQ(part.header("Content-Type"), "application/json") << offer;
    EXPECT_EQ(part.body, "\"generated\"") << offer;

    const Response parts = phone.ask({{"Range", "bytes=0-0,1-11"}, {"Accept-Encoding", offer}});
    EXPECT_EQ(parts.status, 206) << offer;
    EXPECT_THAT(parts.header("Content-Type"), testing::StartsWith("multipart/byteranges;"));
    EXPECT_THAT(parts.body, testing::HasSubstr("Content-Type: application/json\r\n")) << offer;
    EXPECT_THAT(parts.body, testing::HasSubstr("\r\n\r\n\"generated\"\r\n")) << offer;

    const Response none = phone.ask({{"Range", "bytes=99999999-"}, {"Accept-Encoding", offer}});
    EXPECT_EQ(none.status, 416) << offer;
  }
}

TEST(Compression, ShortAnswersArePlain) {
  const Station station;
  ServerProcess server = station.serve();
  const Phone phone(station);
  expectPlain(phone.asks("gzip, deflate, br"), "an empty station");
  const Response health = station.get(kHealthPath, {{"Accept-Encoding", "gzip, deflate, br"}});
  EXPECT_EQ(health.header("Content-Encoding"), "");
  EXPECT_EQ(health.header("Content-Type"), "application/json");
  EXPECT_EQ(health.body.substr(0, 11), "{\"service\":");
  const Response refused = station.get(kActivityPath, {{"Accept-Encoding", "gzip, br"}});
  EXPECT_EQ(refused.status, 401);
  EXPECT_EQ(refused.header("Content-Type"), "application/json");
  EXPECT_EQ(refused.body, "{\"error\":\"unauthorized\"}");
}

}  // namespace
}  // namespace spotserver::e2e
