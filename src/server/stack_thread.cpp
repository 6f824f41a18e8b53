#include "server/stack_thread.hpp"

#include <cstdint>

#include <sys/mman.h>
#include <unistd.h>

namespace spotserver {
namespace {

constexpr std::uintptr_t kKept = std::uintptr_t{64} << 10;

// The lowest address of the calling thread's stack; 0 when it cannot be told.
std::uintptr_t lowest_of_stack() {
  pthread_attr_t attributes;
  if (pthread_getattr_np(pthread_self(), &attributes) != 0) return 0;
  void* lowest = nullptr;
  std::size_t size = 0;
  pthread_attr_getstack(&attributes, &lowest, &size);
  pthread_attr_destroy(&attributes);
  return reinterpret_cast<std::uintptr_t>(lowest);
}

}  // namespace

bool start_thread(pthread_t& thread, std::size_t stack, void* (*entry)(void*), void* argument) {
  pthread_attr_t attributes;
  if (pthread_attr_init(&attributes) != 0) return false;
  pthread_attr_setstacksize(&attributes, stack);
  const bool started = pthread_create(&thread, &attributes, entry, argument) == 0;
  pthread_attr_destroy(&attributes);
  return started;
}

void trim_stack() {
  static thread_local const std::uintptr_t lowest = lowest_of_stack();
  static const auto page = static_cast<std::uintptr_t>(::sysconf(_SC_PAGESIZE));
  const auto here = reinterpret_cast<std::uintptr_t>(__builtin_frame_address(0));
  const std::uintptr_t end = (here - kKept) & ~(page - 1);
  if (lowest == 0 || end <= lowest) return;
  // The kernel counts the pages below as untouched again; the next deep call gets fresh ones.
  ::madvise(reinterpret_cast<void*>(lowest), end - lowest, MADV_DONTNEED);
}

}  // namespace spotserver
