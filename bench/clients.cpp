// Asks one server the same question from 1, 2, 4 and 8 clients at a time, each on connections that
// it keeps: answers a second, processor time of the server for each, and how long an answer takes.
//   clients 5 '/api/v1/activity?hours=24' 7373 $PID 'X-Spot-Token: t'
// Each number of clients for so many seconds. Handshakes are left out of the time of an answer, but
// not of the processor time.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "kept_connection.hpp"
#include "statistics.hpp"
#include "tool.hpp"

namespace {

using namespace spotserver;

struct Question {
  int port = 0;
  std::string text = {};
};

// Asks until the clock shows `end`; the time of every answer, microseconds.
std::vector<double> askUntil(double end, SSL_CTX* context, const Question& question) {
  std::vector<double> times;
  while (microseconds(CLOCK_MONOTONIC) < end) {
    KeptConnection connection(context, question.port);
    for (int i = 0; i < kAnswersOfAConnection; ++i) {
      const double begin = microseconds(CLOCK_MONOTONIC);
      connection.ask(question.text);
      times.push_back(microseconds(CLOCK_MONOTONIC) - begin);
    }
  }
  return times;
}

// The times of all answers that so many clients get.
std::vector<double> askTogether(std::size_t clients, double seconds, SSL_CTX* context,
                                const Question& question) {
  const double end = microseconds(CLOCK_MONOTONIC) + seconds * 1e6;
  std::vector<std::vector<double>> times(clients);
  std::vector<std::jthread> threads;
  for (std::vector<double>& own : times) {
    threads.emplace_back([&, end] { own = askUntil(end, context, question); });
  }
  threads.clear();
  std::vector<double> all;
  for (const auto& own : times) all.insert(all.end(), own.begin(), own.end());
  return all;
}

void run(int argc, char** argv) {
  const double seconds = std::atof(argv[1]);
  Question question{.port = std::atoi(argv[3])};
  clockid_t processor_time{};
  if (clock_getcpuclockid(std::atoi(argv[4]), &processor_time) != 0) {
    throw std::runtime_error(std::string("No such process: ") + argv[4]);
  }
  question.text = std::string("GET ") + argv[2] + " HTTP/1.1\r\nHost: s\r\n";
  for (int i = 5; i < argc; ++i) question.text += std::string(argv[i]) + "\r\n";
  question.text += "\r\n";
  const auto context = clientContext();
  for (const std::size_t clients : {1U, 2U, 4U, 8U}) {
    const double processor = microseconds(processor_time);
    const double begin = microseconds(CLOCK_MONOTONIC);
    const auto times = askTogether(clients, seconds, context.get(), question);
    const double elapsed = microseconds(CLOCK_MONOTONIC) - begin;
    const auto answers = static_cast<double>(times.size());
    std::printf(
        "%zu clients %8.0f answers a second, processor %6.0f us each, "
        "median %6.0f us, 99 in 100 within %6.0f us\n",
        clients, answers * 1e6 / elapsed, (microseconds(processor_time) - processor) / answers,
        quantile(times, 0.5), quantile(times, 0.99));
  }
}

}  // namespace

int main(int argc, char** argv) {
  return runTool(argc >= 5, "Usage: clients SECONDS PATH PORT PID [HEADER]...\n",
                 [&] { run(argc, argv); });
}
