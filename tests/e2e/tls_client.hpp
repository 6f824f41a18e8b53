// A TLS client of the tests' own: it can send any bytes in any pieces, come from any loopback
// address, keep a connection or drop it, and it never waits longer than kPatience for an answer.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <openssl/ssl.h>

#include "e2e/server_process.hpp"
#include "server/owned.hpp"

namespace spotserver::e2e {

using Headers = std::vector<std::pair<std::string, std::string>>;

struct Response {
  std::string status_line;
  int status = 0;
  Headers headers;  // as they came
  std::string body;

  // Value of the first header of that name (case ignored); empty when there is none.
  std::string header(std::string_view name) const;
};

// The text of a request without a body: "GET <path> HTTP/1.1", a Host header, then `headers`.
std::string requestText(std::string_view method, std::string_view path,
                        const Headers& headers = {});

// Connects to 127.0.0.1:`port` from the address `source`. Throws when refused.
Fd connectTcp(int port, const std::string& source = "127.0.0.1");

// Sends bytes as they are, without TLS.
void sendAll(const Fd& socket, std::string_view bytes);

class TlsClient {
 public:
  // Connects and shakes hands; throws when either fails. The certificate is taken as it comes.
  // `newest`: the highest TLS version to offer, 0 for all that OpenSSL knows.
  explicit TlsClient(int port, const std::string& source = "127.0.0.1", int newest = 0);

  void send(std::string_view bytes);
  // The next response. Throws when it is not there in time or the connection ends before it is
  // complete. A response to HEAD has no body, whatever its headers say.
  Response receive(bool to_head = false);
  Response request(std::string_view method, std::string_view path, const Headers& headers = {});

  // The next `count` bytes of whatever comes, which stay to be received. Reads little beyond them.
  std::string peek(std::size_t count);

  // Drops the connection at once, as a phone does that leaves the network: the server's next write
  // meets a reset.
  void reset();

  // Returns when the server has closed the connection. Throws when it sends more or time runs out.
  void awaitClose();

  // SHA-256 of the server's certificate: 32 upper-case hex pairs joined by ':'.
  std::string fingerprint() const;

 private:
  using Context = std::unique_ptr<SSL_CTX, With<SSL_CTX_free>>;
  using Connection = std::unique_ptr<SSL, With<SSL_free>>;

  // Runs one OpenSSL call until it is through; false when the peer closed.
  template <typename Call>
  bool drive(Call call);
  // Reads more into unread_; false when the server closed.
  bool readMore();
  void readUntil(std::size_t count);
  // Takes the bytes up to and including `end` from the stream.
  std::string takeThrough(std::string_view end);
  std::string takeBytes(std::size_t count);

  Fd socket_;
  Context context_;
  Connection tls_;
  std::string unread_;
};

}  // namespace spotserver::e2e
