#include "e2e/tls_client.hpp"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <stdexcept>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/x509.h>
#include <poll.h>
#include <strings.h>
#include <sys/socket.h>

namespace spotserver::e2e {
namespace {

sockaddr_in addressOf(const std::string& host, int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  if (inet_pton(AF_INET, host.c_str(), &address.sin_addr) != 1) {
    throw std::runtime_error("not an address: " + host);
  }
  return address;
}

// True when `fd` is ready; false when time is up.
bool awaitReady(int fd, short events, Clock::time_point deadline) {
  pollfd ready{fd, events, 0};
  while (poll(&ready, 1, millisecondsUntil(deadline)) <= 0) {
    if (Clock::now() >= deadline) return false;
  }
  return true;
}

Response headFrom(const std::string& head) {
  Response response;
  std::size_t at = head.find("\r\n");
  response.status_line = head.substr(0, at);
  if (response.status_line.size() < 12) {
    throw std::runtime_error("bad status line: " + response.status_line);
  }
  response.status = std::stoi(response.status_line.substr(9, 3));
  for (at += 2; at < head.size() - 2;) {
    const std::size_t end = head.find("\r\n", at);
    const std::string line = head.substr(at, end - at);
    const std::size_t colon = line.find(": ");
    if (colon == std::string::npos) throw std::runtime_error("bad header: " + line);
    response.headers.emplace_back(line.substr(0, colon), line.substr(colon + 2));
    at = end + 2;
  }
  return response;
}

}  // namespace

std::string Response::header(std::string_view name) const {
  for (const auto& [key, value] : headers) {
    if (strcasecmp(key.c_str(), std::string(name).c_str()) == 0) return value;
  }
  return {};
}

std::string requestText(std::string_view method, std::string_view path, const Headers& headers) {
  std::string text = std::string(method) + " " + std::string(path) + " HTTP/1.1\r\n";
  text += "Host: localhost\r\n";
  for (const auto& [name, value] : headers) text += name + ": " + value + "\r\n";
  return text + "\r\n";
}

Fd connectTcp(int port, const std::string& source) {
  // Writing to a connection that the server has closed must fail, not end the test.
  static const auto previous = std::signal(SIGPIPE, SIG_IGN);
  static_cast<void>(previous);
  Fd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const sockaddr_in from = addressOf(source, 0);
  const sockaddr_in to = addressOf("127.0.0.1", port);
  if (bind(fd.get(), reinterpret_cast<const sockaddr*>(&from), sizeof from) != 0 ||
      connect(fd.get(), reinterpret_cast<const sockaddr*>(&to), sizeof to) != 0) {
    throw std::runtime_error(std::string("Cannot connect: ") + std::strerror(errno));
  }
  return fd;
}

void sendAll(const Fd& socket, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t sent = ::send(socket.get(), bytes.data(), bytes.size(), 0);
    if (sent < 0) throw std::runtime_error(std::string("send: ") + std::strerror(errno));
    bytes.remove_prefix(static_cast<std::size_t>(sent));
  }
}

TlsClient::TlsClient(int port, const std::string& source, int newest)
    : socket_(connectTcp(port, source)), context_(SSL_CTX_new(TLS_client_method())) {
  SSL_CTX_set_max_proto_version(context_.get(), newest);
  tls_.reset(SSL_new(context_.get()));
  fcntl(socket_.get(), F_SETFL, O_NONBLOCK);
  SSL_set_fd(tls_.get(), socket_.get());
  if (!drive([&] { return SSL_connect(tls_.get()); })) {
    throw std::runtime_error("the server closed during the TLS handshake");
  }
}

template <typename Call>
bool TlsClient::drive(Call call) {
  const auto deadline = Clock::now() + kPatience;
  for (;;) {
    ERR_clear_error();
    const int result = call();
    if (result > 0) return true;
    const int error = SSL_get_error(tls_.get(), result);
    // A server that closes without a farewell shows as a broken stream: closed all the same.
    if (error != SSL_ERROR_WANT_READ && error != SSL_ERROR_WANT_WRITE) return false;
    const short events = error == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT;
    if (!awaitReady(socket_.get(), events, deadline)) {
      throw std::runtime_error("the server is silent; so far: " + unread_);
    }
  }
}

void TlsClient::send(std::string_view bytes) {
  if (bytes.empty()) return;
  const int size = static_cast<int>(bytes.size());
  if (!drive([&] { return SSL_write(tls_.get(), bytes.data(), size); })) {
    throw std::runtime_error("the server closed while we were sending");
  }
}

bool TlsClient::readMore() {
  char buffer[16384];
  int got = 0;
  if (!drive([&] { return got = SSL_read(tls_.get(), buffer, sizeof buffer); })) return false;
  unread_.append(buffer, static_cast<std::size_t>(got));
  return true;
}

std::string TlsClient::takeThrough(std::string_view end) {
  std::size_t found;
  while ((found = unread_.find(end)) == std::string::npos) {
    if (!readMore()) throw std::runtime_error("closed inside a response: " + unread_);
  }
  return takeBytes(found + end.size());
}

void TlsClient::readUntil(std::size_t count) {
  while (unread_.size() < count) {
    if (!readMore()) throw std::runtime_error("closed inside a response: " + unread_);
  }
}

std::string TlsClient::peek(std::size_t count) {
  readUntil(count);
  return unread_.substr(0, count);
}

std::string TlsClient::takeBytes(std::size_t count) {
  readUntil(count);
  std::string taken = unread_.substr(0, count);
  unread_.erase(0, count);
  return taken;
}

Response TlsClient::receive(bool to_head) {
  Response response = headFrom(takeThrough("\r\n\r\n"));
  const std::string length = response.header("Content-Length");
  if (!to_head && !length.empty()) response.body = takeBytes(std::stoul(length));
  return response;
}

Response TlsClient::request(std::string_view method, std::string_view path,
                            const Headers& headers) {
  send(requestText(method, path, headers));
  return receive(method == "HEAD");
}

void TlsClient::reset() {
  const linger at_once{1, 0};
  setsockopt(socket_.get(), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
  socket_.close();
}

void TlsClient::awaitClose() {
  if (!unread_.empty() || readMore()) {
    throw std::runtime_error("more came instead of the end: " + unread_);
  }
}

std::string TlsClient::fingerprint() const {
  const std::unique_ptr<X509, With<X509_free>> certificate(SSL_get1_peer_certificate(tls_.get()));
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned size = 0;
  if (!certificate || X509_digest(certificate.get(), EVP_sha256(), digest, &size) != 1) {
    throw std::runtime_error("no certificate");
  }
  std::string text;
  for (unsigned i = 0; i < size; ++i) {
    char pair[4];
    std::snprintf(pair, sizeof pair, "%s%02X", i == 0 ? "" : ":", digest[i]);
    text += pair;
  }
  return text;
}

}  // namespace spotserver::e2e
