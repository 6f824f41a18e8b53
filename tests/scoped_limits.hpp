// Conditions that a test puts its own process under for the length of a scope.
#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace spotserver {

// An ordinary user's rights for a process that runs as root, since root ignores permission bits.
// Nothing changes for anybody else. Make the TempDir inside the scope, so that the user owns it:
//   AsOrdinaryUser user;
//   TempDir dir;
class AsOrdinaryUser {
 public:
  AsOrdinaryUser() {
    if (was_root_ && ::seteuid(kNobody) != 0) throw std::runtime_error("Cannot leave root");
  }
  ~AsOrdinaryUser() {
    if (!was_root_) return;
    [[maybe_unused]] const int back = ::seteuid(0);
    ::prctl(PR_SET_DUMPABLE, 1);  // a leak checker needs it at exit; seteuid takes it away
  }
  AsOrdinaryUser(const AsOrdinaryUser&) = delete;
  AsOrdinaryUser& operator=(const AsOrdinaryUser&) = delete;

 private:
  static constexpr uid_t kNobody = 65534;
  const bool was_root_ = ::geteuid() == 0;
};

class ScopedUmask {
 public:
  explicit ScopedUmask(mode_t mask) : before_(::umask(mask)) {}
  ~ScopedUmask() { ::umask(before_); }
  ScopedUmask(const ScopedUmask&) = delete;
  ScopedUmask& operator=(const ScopedUmask&) = delete;

 private:
  const mode_t before_;
};

class ScopedVariable {
 public:
  ScopedVariable(std::string name, const std::string& value) : name_(std::move(name)) {
    if (const char* before = ::getenv(name_.c_str())) before_ = before;
    ::setenv(name_.c_str(), value.c_str(), 1);
  }
  ~ScopedVariable() {
    if (before_) {
      ::setenv(name_.c_str(), before_->c_str(), 1);
    } else {
      ::unsetenv(name_.c_str());
    }
  }
  ScopedVariable(const ScopedVariable&) = delete;
  ScopedVariable& operator=(const ScopedVariable&) = delete;

 private:
  const std::string name_;
  std::optional<std::string> before_;
};

// No file grows beyond `bytes`: the write that would do it fails with EFBIG. Expect nothing inside
// the scope, as the test's own output may go to a file.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t bytes) : signal_before_(::signal(SIGXFSZ, SIG_IGN)) {
    ::getrlimit(RLIMIT_FSIZE, &before_);
    const rlimit limit{bytes, before_.rlim_max};
    ::setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~FileSizeLimit() {
    ::setrlimit(RLIMIT_FSIZE, &before_);
    ::signal(SIGXFSZ, signal_before_);
  }
  FileSizeLimit(const FileSizeLimit&) = delete;
  FileSizeLimit& operator=(const FileSizeLimit&) = delete;

 private:
  rlimit before_{};
  void (*const signal_before_)(int);
};

// No more than `most` descriptors; those that are open already count, and stay.
class DescriptorLimit {
 public:
  explicit DescriptorLimit(rlim_t most) {
    ::getrlimit(RLIMIT_NOFILE, &before_);
    const rlimit limit{most, before_.rlim_max};
    ::setrlimit(RLIMIT_NOFILE, &limit);
  }
  ~DescriptorLimit() { ::setrlimit(RLIMIT_NOFILE, &before_); }
  DescriptorLimit(const DescriptorLimit&) = delete;
  DescriptorLimit& operator=(const DescriptorLimit&) = delete;

 private:
  rlimit before_{};
};

}  // namespace spotserver
