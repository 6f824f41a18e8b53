#include "server/stack_thread.hpp"

#include <cstdint>

#include <sys/mman.h>
#include <unistd.h>

namespace spotserver {
namespace {

constexpr std::uintptr_t kKept = std::uintptr_t{64} << 10;

// The lowest address of the calling thread's stack; null when it cannot be told.
void* lowest_of_stack() {
  pthread_attr_t attributes;
  if (pthread_getattr_np(pthread_self(), &attributes) != 0) return nullptr;
  void* lowest = nullptr;
  std::size_t size = 0;
  pthread_attr_getstack(&attributes, &lowest, &size);
  pthread_attr_destroy(&attributes);
  return lowest;
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
  static thread_local void* const lowest = lowest_of_stack();
  static const auto page = static_cast<std::uintptr_t>(::sysconf(_SC_PAGESIZE));
  const auto here = reinterpret_cast<std::uintptr_t>(__builtin_frame_address(0));
  const auto begin = reinterpret_cast<std::uintptr_t>(lowest);
  const std::uintptr_t end = (here - kKept) & ~(page - 1);
  if (lowest == nullptr || end <= begin) return;
  // The kernel counts the pages below as untouched again; the next deep call gets fresh ones.
  ::madvise(lowest, end - begin, MADV_DONTNEED);
}

}  // namespace spotserver
