// Asks two servers the same question in turn, as a phone does that keeps its connection, and
// compares what an answer costs them: processor time of the server process, and time until the last
// byte is here.
//
// The library closes a connection after five answers. The first of them warms up, the other four
// are measured, so no handshake is in the numbers. Medians over all rounds, and the ratio of the
// first server's to the second's.
//   poll 200 '/api/v1/activity?hours=24' 7373 $PID 7374 $OTHER_PID 'X-Spot-Token: t'
// Headers behind the servers go to both; one that begins with "1:" goes to the first only. The word
// "append:LOG" is no header: a decode of this moment is appended to the decode log before every
// question, so that a server that looks at once has to compute its answer anew.
#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/ssl.h>
#include <sys/socket.h>

#include "server/owned.hpp"
#include "statistics.hpp"
#include "tool.hpp"

namespace {

using spotserver::Fd;
using spotserver::With;

constexpr int kMeasured = 4;  // answers of a connection, behind the first

struct Server {
  int port = 0;
  clockid_t processor_time = {};
  std::string request = {};
  std::string log = {};                // a line goes there before every question; empty: none
  std::size_t answer_size = 0;         // of the last answer, head included
  std::vector<double> processor = {};  // microseconds an answer
  std::vector<double> elapsed = {};
};

Fd connectTo(int port) {
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

class Connection {
 public:
  Connection(SSL_CTX* context, int port) : socket_(connectTo(port)), tls_(SSL_new(context)) {
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

double microseconds(clockid_t clock) {
  timespec time{};
  clock_gettime(clock, &time);
  return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_nsec) / 1e3;
}

void appendDecode(const std::string& log) {
  const std::time_t now = std::time(nullptr);
  std::tm date{};
  gmtime_r(&now, &date);
  char line[96];
  const std::size_t size = std::strftime(
      line, sizeof line, "%y%m%d_%H%M%S    14.074 Rx FT8    -12  0.2 1234 CQ N0CALL FN42\n", &date);
  std::ofstream(log, std::ios::app).write(line, static_cast<std::streamsize>(size));
}

void ask(Connection& connection, Server& server) {
  if (!server.log.empty()) appendDecode(server.log);
  server.answer_size = connection.ask(server.request);
}

void measure(SSL_CTX* context, Server& server) {
  Connection connection(context, server.port);
  ask(connection, server);
  const double processor = microseconds(server.processor_time);
  const double begin = microseconds(CLOCK_MONOTONIC);
  for (int i = 0; i < kMeasured; ++i) ask(connection, server);
  server.elapsed.push_back((microseconds(CLOCK_MONOTONIC) - begin) / kMeasured);
  server.processor.push_back((microseconds(server.processor_time) - processor) / kMeasured);
}

Server serverFrom(char** arguments) {
  Server server{.port = std::atoi(arguments[0])};
  if (clock_getcpuclockid(std::atoi(arguments[1]), &server.processor_time) != 0) {
    throw std::runtime_error(std::string("No such process: ") + arguments[1]);
  }
  return server;
}

void run(int argc, char** argv) {
  const int rounds = std::atoi(argv[1]);
  Server first = serverFrom(argv + 3);
  Server second = serverFrom(argv + 5);
  first.request = second.request = std::string("GET ") + argv[2] + " HTTP/1.1\r\nHost: s\r\n";
  for (int i = 7; i < argc; ++i) {
    const std::string_view header = argv[i];
    if (header.starts_with("append:")) {
      first.log = second.log = header.substr(7);
      continue;
    }
    const bool first_only = header.starts_with("1:");
    first.request += std::string(header.substr(first_only ? 2 : 0)) + "\r\n";
    if (!first_only) second.request += std::string(header) + "\r\n";
  }
  first.request += "\r\n";
  second.request += "\r\n";
  const std::unique_ptr<SSL_CTX, With<SSL_CTX_free>> context(SSL_CTX_new(TLS_client_method()));
  for (int round = 0; round < rounds; ++round) {
    measure(context.get(), round % 2 == 0 ? first : second);
    measure(context.get(), round % 2 == 0 ? second : first);
  }
  std::printf("bytes     %11zu %11zu\n", first.answer_size, second.answer_size);
  spotserver::reportPairs("processor", first.processor, second.processor, "us");
  spotserver::reportPairs("time", first.elapsed, second.elapsed, "us");
}

}  // namespace

int main(int argc, char** argv) {
  return spotserver::runTool(argc >= 7,
                             "Usage: poll ROUNDS PATH PORT PID OTHER_PORT OTHER_PID [HEADER]...\n",
                             [&] { run(argc, argv); });
}
