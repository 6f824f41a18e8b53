// Private directories on the way to a file.
#pragma once

#include <string>

namespace spotserver {

// Creates `path` and every directory above it that is missing, each with mode 0700 less the umask.
// Errors are ignored: whoever uses the directory next reports them. What exists stays as it is.
void make_dirs(const std::string& path);

}  // namespace spotserver
