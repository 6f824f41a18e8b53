// A fresh directory for one test, gone with everything in it when the test ends.
#pragma once

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <string_view>

#include <stdlib.h>

namespace spotserver {

//   TempDir dir;
//   const std::string log = dir.write("ALL.TXT", "first line\n");
//   dir.append("ALL.TXT", "half a li");
class TempDir {
 public:
  TempDir() {
    std::string name = (std::filesystem::temp_directory_path() / "spot-test-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) throw std::runtime_error("Cannot make " + name);
    path_ = name;
  }
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  // The directory itself, absolute.
  const std::string& path() const { return path_; }
  // The absolute path of `name` inside it, whether or not that exists.
  std::string path(std::string_view name) const { return path_ + "/" + std::string(name); }

  // Makes `name` hold exactly `text`, writing into the file that is there (the inode stays).
  // Returns its path.
  std::string write(std::string_view name, std::string_view text) const {
    return put(name, text, std::ios::trunc);
  }
  // Adds `text` at the end of `name`, creating it when missing. Returns its path.
  std::string append(std::string_view name, std::string_view text) const {
    return put(name, text, std::ios::app);
  }

 private:
  std::string put(std::string_view name, std::string_view text, std::ios::openmode how) const {
    std::string file = path(name);
    std::ofstream out(file, std::ios::binary | std::ios::out | how);
    out.write(text.data(), static_cast<std::streamsize>(text.size()));
    out.close();
    if (!out) throw std::runtime_error("Cannot write " + file);
    return file;
  }

  std::string path_;
};

}  // namespace spotserver
