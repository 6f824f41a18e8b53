// Detaching into the background, confirmed over a pipe.
#pragma once

#include <functional>
#include <optional>
#include <string>

namespace spotserver {

// Opens /dev/null for each of descriptors 0 to 2 that is closed, so that nothing opened later takes
// the place of standard input, output or error. The first thing a process should do.
void fill_standard_descriptors();

// Splits the process in two. The detached one leads no session, has umask 077, works in "/", reads
// nothing and writes to `log_file` (appended, 0600 when created). It runs `prepare`, confirms to
// the other over a pipe and returns empty: the caller goes on serving. If `prepare` throws, its
// message is printed and the detached process ends with status 1, without any clean-up.
//
// In the calling process it returns the exit status once the detached one has confirmed (0) or
// ended (1). Nothing is printed there.
//
// Throws std::runtime_error "Cannot open daemon log: " + log_file, "pipe failed" or "fork failed".
// No other thread may exist yet.
std::optional<int> detach(const std::string& log_file, const std::function<void()>& prepare);

}  // namespace spotserver
