// What tests ask about files.
#pragma once

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

#include <sys/stat.h>

namespace spotserver {

// The bytes of a file; throws when it cannot be opened.
inline std::string contentOf(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("Cannot open " + path);
  return {std::istreambuf_iterator<char>(in), {}};
}

// Permission bits, of the file a link leads to; -1 when there is none.
inline int modeOf(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 ? static_cast<int>(status.st_mode & 07777) : -1;
}

// The names in a directory, sorted.
inline std::vector<std::string> namesIn(const std::string& directory) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(directory)) {
    names.push_back(entry.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

// What `act` throws; "no error" when it does not.
template <typename Act>
std::string errorOf(Act act) {
  try {
    act();
  } catch (const std::exception& error) {
    return error.what();
  }
  return "no error";
}

}  // namespace spotserver
