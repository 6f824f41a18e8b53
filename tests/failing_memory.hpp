// Counts the allocations of a test program and lets them fail. Replaces the program's operator new:
// include it in the one source file of a test only. What a server does without memory is for
// faults/fault_preload.cpp.
#pragma once

#include <cstdlib>
#include <new>

namespace spotserver {

// While one lives, the thread's n-th allocation from now on (counted from 0) throws std::bad_alloc,
// and so do all later ones, unless it is to fail `once`.
//   { const FailingMemory memory(n); refreshSpots(data, now, 0); failed = memory.failed(); }
class FailingMemory {
 public:
  explicit FailingMemory(long n, bool once = false) {
    left_ = n;
    once_ = once;
    failed_ = false;
  }
  ~FailingMemory() { left_ = kUnlimited; }
  FailingMemory(const FailingMemory&) = delete;
  FailingMemory& operator=(const FailingMemory&) = delete;

  // Whether an allocation has failed.
  bool failed() const { return failed_; }

  // Allocations of this thread so far, with or without one of these.
  static long taken() { return taken_; }

  // Takes note of an allocation; false when it is to fail.
  static bool allow() noexcept {
    ++taken_;
    if (left_ == kUnlimited) return true;
    if (left_ > 0) {
      --left_;
      return true;
    }
    failed_ = true;
    if (once_) left_ = kUnlimited;
    return false;
  }

 private:
  static constexpr long kUnlimited = -1;
  static inline thread_local long left_ = kUnlimited;
  static inline thread_local bool once_ = false;
  static inline thread_local bool failed_ = false;
  static inline thread_local long taken_ = 0;
};

}  // namespace spotserver

#ifndef __clang_analyzer__  // which sees leaks in every matcher otherwise
// Not inlined: GCC would take the pair of malloc and operator delete for a mistake.
[[gnu::noinline]] void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return spotserver::FailingMemory::allow() ? std::malloc(size == 0 ? 1 : size) : nullptr;
}
[[gnu::noinline]] void* operator new(std::size_t size) {
  if (void* memory = operator new(size, std::nothrow)) return memory;
  throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, const std::nothrow_t&) noexcept {
  std::free(memory);
}
#endif
