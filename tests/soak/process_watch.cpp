#include "soak/process_watch.hpp"

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

namespace spotserver::soak {

Holdings holdingsOf(pid_t pid) {
  const std::string process = "/proc/" + std::to_string(pid);
  std::ifstream status(process + "/status");
  if (!status) throw std::runtime_error("the server is gone");
  Holdings held;
  std::string word;
  while (status >> word) {
    if (word == "VmRSS:") status >> held.memory_kb;
    if (word == "Threads:") status >> held.threads;
  }
  for ([[maybe_unused]] const auto& each : std::filesystem::directory_iterator(process + "/fd")) {
    ++held.descriptors;
  }
  return held;
}

double kilobytesPerHour(const std::vector<Holdings>& samples, double warm_up) {
  double n = 0, sum_t = 0, sum_m = 0, sum_tt = 0, sum_tm = 0;
  for (const Holdings& sample : samples) {
    if (sample.seconds < warm_up) continue;
    const double t = sample.seconds / 3600;
    const auto m = static_cast<double>(sample.memory_kb);
    n += 1, sum_t += t, sum_m += m, sum_tt += t * t, sum_tm += t * m;
  }
  const double spread = n * sum_tt - sum_t * sum_t;
  return spread > 0 ? (n * sum_tm - sum_t * sum_m) / spread : 0;
}

}  // namespace spotserver::soak
