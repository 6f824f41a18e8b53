// What a process holds, seen from outside.
#pragma once

#include <cstddef>
#include <vector>

#include <sys/types.h>

namespace spotserver::soak {

struct Holdings {
  double seconds = 0;         // since the first look
  std::size_t memory_kb = 0;  // resident
  std::size_t threads = 0;
  std::size_t descriptors = 0;
};

// Throws when the process is gone.
Holdings holdingsOf(pid_t pid);

// Growth of the memory, by least squares over the samples taken after `warm_up` seconds; 0 with
// fewer than two.
double kilobytesPerHour(const std::vector<Holdings>& samples, double warm_up);

}  // namespace spotserver::soak
