// Asks for the health of a server over and over while something else happens to it.
#pragma once

#include <algorithm>
#include <atomic>
#include <exception>
#include <stdexcept>
#include <thread>
#include <vector>

#include "hostile/hostile_clients.hpp"

namespace spotserver::hostile {

//   HealthWatch health(station.port());
//   ... something slow ...
//   EXPECT_LT(longestOf(health.end()), limit);
// It asks one after the other: a trouble that held health up for its whole length would be one
// sample among thousands, so what counts is the longest.
class HealthWatch {
 public:
  explicit HealthWatch(int port)
      : thread_([this, port](const std::stop_token& stop) {
          try {
            // Each before it is asked whether there is another: one sample at least.
            do times_.push_back(timeOfHealth(port));
            while (!stop.stop_requested());
          } catch (...) {
            failure_ = std::current_exception();
          }
        }) {}

  // Stops asking; returns what each answer took. Throws when one failed.
  std::vector<Milliseconds> end() {
    thread_.request_stop();
    thread_.join();
    if (failure_) std::rethrow_exception(failure_);
    return times_;
  }

 private:
  std::vector<Milliseconds> times_;
  std::exception_ptr failure_;
  std::jthread thread_;  // last: it uses the others
};

inline Milliseconds longestOf(const std::vector<Milliseconds>& samples) {
  return *std::max_element(samples.begin(), samples.end());
}

}  // namespace spotserver::hostile
