// What a test tells the preloaded library inside the server, through a small file that both map.
//
// The library counts the calls of one kind while it is armed and fails the one that is due. It can
// be armed and disarmed while the server runs, so a fault can be put into one request.
#pragma once

#include <atomic>

namespace spotserver::faults {

// The environment variable that names the file.
inline constexpr const char* kControlVariable = "SPOT_FAULT_CONTROL";

// Kinds of calls. Descriptors of sockets are left out.
enum class Call : int {
  kNone,      // disarmed
  kAllocate,  // malloc and its family, operator new with it
  kOpen,      // open, fopen, pipe, opendir
  kRead,      // read, pread, fread, fgets, readdir
  kWrite,     // write, pwrite, writev, fsync, fchmod, fchown, ftruncate
  kClose,     // which closes all the same, as the kernel does
  kStat,      // stat, lstat, fstat, access, readlink
  kName,      // rename, link, unlink, mkdir, rmdir, symlink
  kSpawn,     // fork, pthread_create
  kAccept,    // accept, accept4
};

// In place of an errno: half of what was asked for is read or written, at least one byte.
inline constexpr int kShort = -1;

// All zero: disarmed.
struct Control {
  std::atomic<Call> call;
  std::atomic<int> error;      // errno or kShort; 0: none fails
  std::atomic<bool> for_good;  // the call that is due and all later ones fail, not it alone
  std::atomic<long> due;       // number of the call that fails, the first is 0
  std::atomic<long> seen;      // calls of the kind so far
  std::atomic<long> failed;    // of these
};
static_assert(std::atomic<Call>::is_always_lock_free && std::atomic<long>::is_always_lock_free);

}  // namespace spotserver::faults
