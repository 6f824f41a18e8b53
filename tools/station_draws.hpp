// Random draws that come out the same on every machine. The engine's output is fixed by the C++
// standard, the distributions of <random> are not, so none of them is used.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <random>

namespace station {

class Draws {
 public:
  explicit Draws(std::uint64_t seed) : engine_(seed) {}

  // A whole number 0..n-1, n at least 1. Small n come out even enough: the bias is n / 2^64.
  std::uint64_t below(std::uint64_t n) { return engine_() % n; }

  // A whole number low..high, both inclusive.
  int between(int low, int high) {
    return low + static_cast<int>(below(static_cast<std::uint64_t>(high - low) + 1));
  }

  // True once in n times on average.
  bool oneIn(std::uint64_t n) { return below(n) == 0; }

  char letter(char first, char last) { return static_cast<char>(between(first, last)); }

  // One of the items of an array, string or span.
  const auto& pick(const auto& items) {
    return items[static_cast<std::size_t>(below(std::size(items)))];
  }

 private:
  std::mt19937_64 engine_;
};

}  // namespace station
