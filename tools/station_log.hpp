// The decode log as a file that grows.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "server/owned.hpp"

namespace station {

// Appends in large pieces; nothing is sure to be in the file before flush(). Holds a lock on the
// file while it lives, so that two stations never write into one log.
// Throws std::runtime_error.
class LogFile {
 public:
  // Begins the log anew; what `path` held is dropped.
  explicit LogFile(const std::string& path);

  void append(std::string_view lines);
  void flush();
  std::uint64_t lines() const { return lines_; }

 private:
  std::string path_;
  spotserver::Fd file_;
  std::string pending_;
  std::uint64_t lines_ = 0;
};

}  // namespace station
