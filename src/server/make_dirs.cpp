#include "server/make_dirs.hpp"

#include <sys/stat.h>

namespace spotserver {

void make_dirs(const std::string& path) {
  for (std::size_t slash = path.find('/', 1); slash != std::string::npos;
       slash = path.find('/', slash + 1)) {
    ::mkdir(path.substr(0, slash + 1).c_str(), 0700);
  }
  ::mkdir(path.c_str(), 0700);
}

}  // namespace spotserver
