// The library that is preloaded into tests and server. Now and then a thread that locks, reads,
// writes, waits or accepts stands still before it or behind it, as threads do on a machine that has
// others to serve.
#include <cstdint>
#include <ctime>

#include <dlfcn.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

// One in so many.
constexpr std::uint64_t kTransfers = 60;
constexpr std::uint64_t kLocks = 2000;

// Milliseconds at most. Three in four are short.
constexpr std::uint64_t kShort = 20;
constexpr std::uint64_t kLong = 400;

constexpr std::uint64_t kMillisecond = 1'000'000;  // ns
constexpr std::uint64_t kSecond = 1000 * kMillisecond;

// SplitMix64, with a state for each thread that begins with its number and the time.
std::uint64_t draw() {
  thread_local std::uint64_t state = 0;
  if (state == 0) {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    state = static_cast<std::uint64_t>(now.tv_nsec) << 32 ^ static_cast<std::uint64_t>(gettid());
  }
  std::uint64_t mixed = state += 0x9E3779B97F4A7C15;
  mixed = (mixed ^ mixed >> 30) * 0xBF58476D1CE4E5B9;
  mixed = (mixed ^ mixed >> 27) * 0x94D049BB133111EB;
  return mixed ^ mixed >> 31;
}

void stall(std::uint64_t one_in) {
  if (draw() % one_in != 0) return;
  const std::uint64_t longest = draw() % 4 == 0 ? kLong : kShort;
  const std::uint64_t time = draw() % (longest * kMillisecond);
  const timespec pause{static_cast<time_t>(time / kSecond), static_cast<long>(time % kSecond)};
  clock_nanosleep(CLOCK_MONOTONIC, 0, &pause, nullptr);
}

// The function that would have been called without us.
template <typename Function>
Function* real(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

template <typename Call>
auto betweenStalls(std::uint64_t one_in, Call call) {
  stall(one_in);
  const auto result = call();
  stall(one_in);
  return result;
}

}  // namespace

extern "C" {

int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept {
  static auto* const next = real<int(pthread_mutex_t*)>("pthread_mutex_lock");
  return betweenStalls(kLocks, [&] { return next(mutex); });
}

int pthread_mutex_unlock(pthread_mutex_t* mutex) noexcept {
  static auto* const next = real<int(pthread_mutex_t*)>("pthread_mutex_unlock");
  return betweenStalls(kLocks, [&] { return next(mutex); });
}

int poll(pollfd* files, nfds_t count, int timeout) {
  static auto* const next = real<int(pollfd*, nfds_t, int)>("poll");
  return betweenStalls(kTransfers, [&] { return next(files, count, timeout); });
}

ssize_t recv(int socket, void* data, size_t size, int flags) {
  static auto* const next = real<ssize_t(int, void*, size_t, int)>("recv");
  return betweenStalls(kTransfers, [&] { return next(socket, data, size, flags); });
}

ssize_t send(int socket, const void* data, size_t size, int flags) {
  static auto* const next = real<ssize_t(int, const void*, size_t, int)>("send");
  return betweenStalls(kTransfers, [&] { return next(socket, data, size, flags); });
}

ssize_t read(int file, void* data, size_t size) {
  static auto* const next = real<ssize_t(int, void*, size_t)>("read");
  return betweenStalls(kTransfers, [&] { return next(file, data, size); });
}

ssize_t write(int file, const void* data, size_t size) {
  static auto* const next = real<ssize_t(int, const void*, size_t)>("write");
  return betweenStalls(kTransfers, [&] { return next(file, data, size); });
}

int accept4(int socket, sockaddr* address, socklen_t* length, int flags) {
  static auto* const next = real<int(int, sockaddr*, socklen_t*, int)>("accept4");
  return betweenStalls(kTransfers, [&] { return next(socket, address, length, flags); });
}

int accept(int socket, sockaddr* address, socklen_t* length) {
  static auto* const next = real<int(int, sockaddr*, socklen_t*)>("accept");
  return betweenStalls(kTransfers, [&] { return next(socket, address, length); });
}

}  // extern "C"
