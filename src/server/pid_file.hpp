// The PID file: the decimal process ID and a line feed, nothing else.
#pragma once

#include <string>

namespace spotserver {

// Writes this process's ID to `path` (mode 0600 less the umask) by way of path + ".tmp", so that a
// reader finds no file, the old one or the whole new one.
// Throws std::runtime_error "Cannot write PID file: " + path; the ".tmp" file is gone then.
void write_pid_file(const std::string& path);

// Removes the file if it still holds this process's ID: one that a later instance wrote stays.
// Silent when it is missing or cannot be removed.
void remove_pid_file(const std::string& path);

}  // namespace spotserver
