// What the tests of history/history_reader share: a history in a folder of its own, the outcome of
// a read, and a read in a thread.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <fstream>
#include <limits>
#include <stdexcept>
#include <stop_token>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <unistd.h>

#include "history/history_reader.hpp"
#include "temp_dir.hpp"

namespace spotserver {

inline constexpr std::int64_t kMinute = 29'333'333;  // some minute in 2025
inline constexpr double kBase = kMinute * 60.0;
inline constexpr double kInfinity = std::numeric_limits<double>::infinity();
inline constexpr double kNoNumber = std::numeric_limits<double>::quiet_NaN();

// The message readHistory fails with, or "read" when it does not.
inline std::string failureOf(const std::string& path, double from, double to,
                             std::stop_token stop = {}, const HistoryLimits& limits = {}) {
  try {
    readHistory(path, from, to, std::move(stop), limits);
    return "read";
  } catch (const std::runtime_error& error) {
    return error.what();
  }
}

// When each of them began, and how much each decoded.
inline std::vector<double> starts(const std::vector<HistoryObservation>& observations) {
  std::vector<double> result(observations.size());
  std::ranges::transform(observations, result.begin(), &HistoryObservation::start);
  return result;
}

inline std::vector<std::uint64_t> countsOf(const std::vector<HistoryObservation>& observations) {
  std::vector<std::uint64_t> result(observations.size());
  std::ranges::transform(observations, result.begin(), &HistoryObservation::count);
  return result;
}

// A folder, and the path of a history in it that is not there yet.
class HistoryReading : public testing::Test {
 protected:
  TempDir dir_;
  const std::string path_ = dir_.path("history.sqlite3");
};

// A read in a thread of its own.
class RunningRead {
 public:
  RunningRead(const std::string& path, const HistoryLimits& limits)
      : thread_([this, path, limits](std::stop_token stop) {
          id_ = ::gettid();
          outcome_ = failureOf(path, 0, kBase + 60, std::move(stop), limits);
          ended_ = true;
        }) {}

  // Returns when SQLite holds a megabyte for the rows of this read.
  void waitUntilItWorks() const {
    waitFor([] { return sqlite3_memory_used() >= 1 << 20; });
  }
  // Returns when it has gone to sleep a few times: it waits for a lock.
  void waitUntilItWaits() const {
    waitFor([this] { return id_ != 0 && sleepsOf(id_) >= 10; });
  }
  void stop() { thread_.request_stop(); }
  std::string outcome() {
    thread_.join();
    return outcome_;
  }

 private:
  template <typename Event>
  void waitFor(Event&& event) const {
    while (!ended_ && !event()) std::this_thread::yield();
  }

  static long sleepsOf(pid_t thread) {
    std::ifstream status("/proc/self/task/" + std::to_string(thread) + "/status");
    for (std::string line; std::getline(status, line);) {
      if (line.starts_with("voluntary_ctxt_switches:")) return std::stol(line.substr(24));
    }
    return 0;
  }

  std::atomic<pid_t> id_ = 0;
  std::atomic<bool> ended_ = false;
  std::string outcome_;
  std::jthread thread_;
};

}  // namespace spotserver
