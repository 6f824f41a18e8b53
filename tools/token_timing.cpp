// Whether the time of a token comparison tells where the first difference lies: Welch's t-test
// between tokens that are wrong in their first byte and tokens that are wrong in their last one.
//
//   token_timing [SAMPLES]     100,000 of each kind without a number
//
// Beyond 4.5 the two can be told apart; the exit status is then 1. As a check of the method the
// same is measured for a comparison that stops at the first difference.
#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "api/token_gate.hpp"

namespace {

constexpr double kTellingApart = 4.5;
constexpr std::size_t kTokenSize = 64;  // long, so that stopping early would show
constexpr int kComparisons = 20;        // in one sample: the clock is coarser than one of them

using Compare = bool (*)(std::string_view, std::string_view);

bool stopsEarly(std::string_view presented, std::string_view expected) {
  if (presented.size() != expected.size()) return false;
  for (std::size_t i = 0; i < presented.size(); ++i) {
    if (presented[i] != expected[i]) return false;
  }
  return true;
}

// Nanoseconds of each kind: wrong in the first byte, wrong in the last one.
using Samples = std::array<std::vector<double>, 2>;

double nanosecondsOf(Compare compare, const std::string& presented, const std::string& expected) {
  // Once before: the bytes just written have then arrived, and the caches are warm.
  volatile bool equal = compare(presented, expected);
  const auto begin = std::chrono::steady_clock::now();
  for (int i = 0; i < kComparisons; ++i) equal = compare(presented, expected);
  const auto end = std::chrono::steady_clock::now();
  static_cast<void>(equal);
  return std::chrono::duration<double, std::nano>(end - begin).count();
}

// In random order, so that whatever else the machine does falls on both kinds alike. Both are
// presented from the same bytes of memory, and no branch on the way depends on the kind: the
// processor would remember it.
Samples measure(Compare compare, std::size_t count) {
  const std::string expected(kTokenSize, '7');
  std::array<std::string, 2> wrong{expected, expected};
  wrong[0].front() = wrong[1].back() = '8';
  std::string presented = expected;
  std::mt19937 random(1);
  Samples samples;
  for (auto& kind : samples) kind.reserve(2 * count);
  while (std::min(samples[0].size(), samples[1].size()) < count) {
    const std::size_t kind = random() % 2;
    std::memcpy(presented.data(), wrong[kind].data(), kTokenSize);
    samples[kind].push_back(nanosecondsOf(compare, presented, expected));
  }
  return samples;
}

// Without what an interruption made long: the slowest twentieth of both together.
void dropInterrupted(Samples& samples) {
  std::vector<double> all = samples[0];
  all.insert(all.end(), samples[1].begin(), samples[1].end());
  const auto limit = all.begin() + static_cast<std::ptrdiff_t>(all.size() * 19 / 20);
  std::nth_element(all.begin(), limit, all.end());
  const double longest = *limit;
  for (auto& kind : samples) std::erase_if(kind, [&](double one) { return one > longest; });
}

struct Moments {
  double mean = 0;
  double variance_of_mean = 0;
};

Moments momentsOf(const std::vector<double>& samples) {
  const auto count = static_cast<double>(samples.size());
  double sum = 0;
  for (const double sample : samples) sum += sample;
  const double mean = sum / count;
  double squares = 0;
  for (const double sample : samples) squares += (sample - mean) * (sample - mean);
  return {mean, squares / (count - 1) / count};
}

double report(const char* name, Compare compare, std::size_t count) {
  Samples samples = measure(compare, count);
  dropInterrupted(samples);
  const Moments early = momentsOf(samples[0]);
  const Moments late = momentsOf(samples[1]);
  const double t =
      (early.mean - late.mean) / std::sqrt(early.variance_of_mean + late.variance_of_mean);
  std::printf("%-22s wrong in the first byte %7.3f ns, in the last %7.3f ns; t = %+.2f\n", name,
              early.mean / kComparisons, late.mean / kComparisons, t);
  return std::abs(t);
}

}  // namespace

int main(int argc, char** argv) {
  const long count = argc > 1 ? std::atol(argv[1]) : 100'000;
  if (count < 1000) {
    std::fprintf(stderr, "Usage: token_timing [SAMPLES], 1000 at least\n");
    return 2;
  }
  const auto samples = static_cast<std::size_t>(count);
  const double ours = report("tokensEqual", spotserver::tokensEqual, samples);
  const double naive = report("stops at a difference", stopsEarly, samples);
  if (naive < kTellingApart) std::printf("This machine is too noisy to tell anything.\n");
  return ours < kTellingApart && naive >= kTellingApart ? 0 : 1;
}
