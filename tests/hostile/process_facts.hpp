// What the kernel tells about another process.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <system_error>

#include <sys/types.h>
#include <unistd.h>

namespace spotserver::hostile {

// The number behind `key` in a file of /proc/<pid>:
//   factOf(pid, "status", "VmHWM:")
inline long long factOf(pid_t pid, const std::string& file, const std::string& key) {
  std::ifstream lines("/proc/" + std::to_string(pid) + "/" + file);
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with(key)) return std::stoll(line.substr(key.size()));
  }
  throw std::runtime_error("no " + key + " in " + file);
}

// The largest amount of memory that the process ever held at a time, in KiB.
inline long long peakMemory(pid_t pid) { return factOf(pid, "status", "VmHWM:"); }

// How many descriptors it has open.
inline std::size_t openDescriptors(pid_t pid) {
  const std::filesystem::directory_iterator all("/proc/" + std::to_string(pid) + "/fd");
  return static_cast<std::size_t>(std::distance(begin(all), end(all)));
}

// Whether the file at `path` is one of them.
inline bool hasOpen(pid_t pid, const std::string& path) {
  const std::filesystem::directory_iterator all("/proc/" + std::to_string(pid) + "/fd");
  return std::any_of(begin(all), end(all), [&](const auto& descriptor) {
    std::error_code closed_meanwhile;
    return read_symlink(descriptor.path(), closed_meanwhile) == path;
  });
}

// Processor time that the process has used so far.
inline std::chrono::milliseconds processorTime(pid_t pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
  std::string text;
  std::getline(file, text);
  // Behind the name in brackets: state, ten numbers, then user and system time.
  std::size_t at = text.rfind(')') + 2;
  for (int field = 0; field < 11; ++field) at = text.find(' ', at) + 1;
  std::size_t used = 0;
  const long long user = std::stoll(text.substr(at), &used);
  const long long system = std::stoll(text.substr(at + used));
  return std::chrono::milliseconds((user + system) * 1000 / sysconf(_SC_CLK_TCK));
}

}  // namespace spotserver::hostile
