// The connections that wait for a worker, first come first served. Not thread-safe.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <utility>
#include <vector>

namespace spotserver {

// The room is taken once: a connection must not be lost because memory ran out while it was put in
// line. The server holds at most 1024 descriptors, so the line is never full.
class WaitingLine {
 public:
  using Job = std::function<void()>;
  using Time = std::chrono::steady_clock::time_point;
  static constexpr std::size_t kRoom = 1024;

  std::size_t size() const { return count_; }
  bool empty() const { return count_ == 0; }
  bool full() const { return count_ == kRoom; }

  // Only when not full; times never go back.
  void push(Job job, Time now) { at(count_++) = {std::move(job), now}; }
  // Only when not empty.
  Job pop() {
    Job job = std::exchange(jobs_[first_].job, nullptr);
    first_ = (first_ + 1) % kRoom;
    --count_;
    return job;
  }

  // How many came before `then`. Cost: their number.
  std::size_t waiting_since(Time then) {
    std::size_t longer = 0;
    while (longer < count_ && at(longer).since < then) ++longer;
    return longer;
  }

 private:
  struct Waiting {
    Job job;
    Time since{};
  };
  Waiting& at(std::size_t i) { return jobs_[(first_ + i) % kRoom]; }

  std::vector<Waiting> jobs_ = std::vector<Waiting>(kRoom);
  std::size_t first_ = 0;
  std::size_t count_ = 0;
};

}  // namespace spotserver
