// Waiting for what cannot announce itself.
#pragma once

#include <chrono>
#include <functional>
#include <stdexcept>
#include <thread>

#include "e2e/server_process.hpp"

namespace spotserver::hostile {

// Asks until `holds` does; throws when that takes longer than a healthy server may need.
inline void awaitThat(const std::function<bool()>& holds) {
  const auto deadline = e2e::Clock::now() + e2e::kPatience;
  while (!holds()) {
    if (e2e::Clock::now() > deadline) throw std::runtime_error("it never came to hold");
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

}  // namespace spotserver::hostile
