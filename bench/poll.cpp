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
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "kept_connection.hpp"
#include "statistics.hpp"
#include "tool.hpp"

namespace {

using spotserver::clientContext;
using spotserver::KeptConnection;
using spotserver::microseconds;

constexpr int kMeasured = spotserver::kAnswersOfAConnection - 1;  // behind the first

struct Server {
  int port = 0;
  clockid_t processor_time = {};
  std::string request = {};
  std::string log = {};                // a line goes there before every question; empty: none
  std::size_t answer_size = 0;         // of the last answer, head included
  std::vector<double> processor = {};  // microseconds an answer
  std::vector<double> elapsed = {};
};

void appendDecode(const std::string& log) {
  const std::time_t now = std::time(nullptr);
  std::tm date{};
  gmtime_r(&now, &date);
  char line[96];
  const std::size_t size = std::strftime(
      line, sizeof line, "%y%m%d_%H%M%S    14.074 Rx FT8    -12  0.2 1234 CQ N0CALL FN42\n", &date);
  std::ofstream(log, std::ios::app).write(line, static_cast<std::streamsize>(size));
}

void ask(KeptConnection& connection, Server& server) {
  if (!server.log.empty()) appendDecode(server.log);
  server.answer_size = connection.ask(server.request);
}

void measure(SSL_CTX* context, Server& server) {
  KeptConnection connection(context, server.port);
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
  const auto context = clientContext();
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
