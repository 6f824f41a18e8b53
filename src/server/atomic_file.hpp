// Files that are never seen half-written: the text goes to a temporary file beside the target,
// which then takes the target's name in one step. A crash at any instant leaves the old file, none,
// or the whole new one, and at worst the temporary, which the next write removes.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include <sys/stat.h>

namespace spotserver {

struct AtomicWrite {
  std::string_view suffix = ".tmp";  // the temporary is path + suffix
  mode_t mode = 0600;                // of the new file, less the umask
  // Take permission bits and, where allowed, owner and group from here instead.
  const struct stat* like = nullptr;
  bool replace = true;  // false: whatever bears the name already stays, and the write fails
};

struct WriteFailure {
  enum class Step { kCreate, kWrite, kPlace };
  Step step;  // making the temporary, filling it (close included), giving it the name
  int error;  // errno
};

// Makes `path` a regular file that holds exactly `text`, on the disk before it has the name.
//   if (const auto failed = write_atomically(path, "42\n")) report(failed->error);
// Empty when done. On a failure the target is untouched and the temporary is gone. What lies at the
// temporary's name beforehand is unlinked, never followed or written to. A symbolic link at `path`
// is replaced, its target is left alone; a device, FIFO or socket there is never replaced.
std::optional<WriteFailure> write_atomically(const std::string& path, std::string_view text,
                                             const AtomicWrite& how = {});

// Makes what `path` names hold `text`, through a link and into a device as well, without another
// file beside it: for a place where write_atomically cannot make one. A new file gets `mode` less
// the umask. Never waits for the reader of a FIFO. On a failure part of the text may be there.
std::optional<WriteFailure> write_in_place(const std::string& path, std::string_view text,
                                           mode_t mode);

}  // namespace spotserver
