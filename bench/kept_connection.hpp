// A client of the whole-process tools: one that keeps its connection.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/ssl.h>
#include <sys/socket.h>

#include "server/owned.hpp"

namespace spotserver {

// The library closes a connection after so many.
inline constexpr int kAnswersOfAConnection = 5;

inline auto clientContext() {
  return std::unique_ptr<SSL_CTX, With<SSL_CTX_free>>(SSL_CTX_new(TLS_client_method()));
}

inline Fd connectTo(int port) {
  Fd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    throw std::runtime_error("Cannot connect to port " + std::to_string(port));
  }
  const int yes = 1;
  setsockopt(fd.get(), IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
  return fd;
}

// Speaks HTTP over one TLS connection to 127.0.0.1, as a phone does that keeps it. Throws
// std::runtime_error where an answer is not 200 or not whole.
//   KeptConnection connection(context.get(), 7373);
//   connection.ask("GET /api/v1/health HTTP/1.1\r\nHost: s\r\n\r\n")
class KeptConnection {
 public:
  KeptConnection(SSL_CTX* context, int port) : socket_(connectTo(port)), tls_(SSL_new(context)) {
    SSL_set_fd(tls_.get(), socket_.get());
    if (SSL_connect(tls_.get()) != 1) throw std::runtime_error("No TLS handshake");
  }

  // One question and its whole answer; returns the answer's size.
  std::size_t ask(const std::string& request) {
    SSL_write(tls_.get(), request.data(), static_cast<int>(request.size()));
    std::size_t got = read(0);
    std::size_t body = std::string_view::npos;
    while ((body = std::string_view(buffer_.data(), got).find("\r\n\r\n")) ==
           std::string_view::npos) {
      got += read(got);
    }
    const std::string head(buffer_.data(), body + 2);
    if (head.rfind("HTTP/1.1 200 ", 0) != 0) throw std::runtime_error("Answered: " + head);
    const std::size_t length = head.find("Content-Length: ");
    const std::size_t whole = body + 4 + std::stoul(head.substr(length + 16));
    while (got < whole) got += read(0);
    return whole;
  }

 private:
  std::size_t read(std::size_t at) {
    const int space = static_cast<int>(buffer_.size() - at);
    const int got = SSL_read(tls_.get(), buffer_.data() + at, space);
    if (got <= 0) throw std::runtime_error("Closed inside an answer");
    return static_cast<std::size_t>(got);
  }

  Fd socket_;
  std::unique_ptr<SSL, With<SSL_free>> tls_;
  std::array<char, 65536> buffer_;
};

// What a clock shows.
inline double microseconds(clockid_t clock) {
  timespec time{};
  clock_gettime(clock, &time);
  return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_nsec) / 1e3;
}

}  // namespace spotserver
