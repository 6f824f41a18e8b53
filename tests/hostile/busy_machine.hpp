// A machine that has more to do than it has processors for.
#pragma once

#include <stop_token>
#include <thread>
#include <vector>

namespace spotserver::hostile {

// As long as it lives, so many threads for each processor do nothing but spin.
class BusyMachine {
 public:
  explicit BusyMachine(unsigned threads_for_each) {
    for (unsigned i = 0; i < threads_for_each * std::thread::hardware_concurrency(); ++i) {
      spinning_.emplace_back([](const std::stop_token& stop) {
        while (!stop.stop_requested()) {
        }
      });
    }
  }

 private:
  std::vector<std::jthread> spinning_;
};

}  // namespace spotserver::hostile
