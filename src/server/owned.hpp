// What opens, closes itself: owners for C handles and file descriptors.
#pragma once

#include <memory>
#include <utility>

#include <unistd.h>

namespace spotserver {

// Deleter for std::unique_ptr that calls one C release function:
//   using X509Ptr = std::unique_ptr<X509, With<X509_free>>;
template <auto Release>
struct With {
  void operator()(auto* p) const noexcept { Release(p); }
};

// Owns one file descriptor. An empty Fd holds -1. Move-only.
class Fd {
 public:
  Fd() = default;
  explicit Fd(int fd) noexcept : fd_(fd) {}
  Fd(Fd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Fd& operator=(Fd&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  ~Fd() { close(); }

  explicit operator bool() const noexcept { return fd_ >= 0; }
  int get() const noexcept { return fd_; }
  // Gives the descriptor up without closing it.
  int release() noexcept { return std::exchange(fd_, -1); }
  // Closes now. Returns what close(2) returned, 0 when empty: on a full disk only the close fails.
  int close() noexcept { return fd_ >= 0 ? ::close(std::exchange(fd_, -1)) : 0; }

 private:
  int fd_ = -1;
};

}  // namespace spotserver
