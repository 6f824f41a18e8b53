// What the whole-process tools print of two programs measured in turn.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <vector>

namespace spotserver {

// The value below which this part of the values lies; 0.5: the median. There must be one at least.
inline double quantile(std::vector<double> values, double part) {
  std::sort(values.begin(), values.end());
  return values[static_cast<std::size_t>(part * static_cast<double>(values.size() - 1))];
}

// Prints one line: both medians, and the median and the quartiles of the ratios of the pairs.
//   reportPairs("processor", {3, 4, 5}, {2, 2, 2}, "us")
//   // processor        4.0 us        2.0 us  ratio 2.000  quartiles 1.500 2.000
// As many values of the one as of the other, in the order in which they were measured.
inline void reportPairs(const char* what, const std::vector<double>& first,
                        const std::vector<double>& second, const char* unit) {
  std::vector<double> ratios;
  for (std::size_t i = 0; i < first.size(); ++i) ratios.push_back(first[i] / second[i]);
  std::printf("%-10s %10.1f %s %10.1f %s  ratio %.3f  quartiles %.3f %.3f\n", what,
              quantile(first, 0.5), unit, quantile(second, 0.5), unit, quantile(ratios, 0.5),
              quantile(ratios, 0.25), quantile(ratios, 0.75));
}

}  // namespace spotserver
