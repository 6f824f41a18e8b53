// Counts what a test program takes from memory, in pieces and bytes. Replaces the program's
// operator new: include it in the one source file of a test only.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <new>

#include <malloc.h>

namespace spotserver {

// Of this thread, since it began.
//   const CountedMemory before = CountedMemory::now();
//   work();
//   EXPECT_EQ(CountedMemory::now().pieces, before.pieces);  // it took nothing
struct CountedMemory {
  long pieces = 0;  // taken, given back or not
  long held = 0;    // bytes taken and not given back, as the allocator rounds them up

  static CountedMemory now() noexcept { return counted_; }

  static void* take(std::size_t size) noexcept {
    void* const memory = std::malloc(size == 0 ? 1 : size);
    ++counted_.pieces;
    counted_.held += bytesOf(memory);
    return memory;
  }
  static void giveBack(void* memory) noexcept {
    counted_.held -= bytesOf(memory);
    std::free(memory);
  }

 private:
  static long bytesOf(void* memory) noexcept {
    return static_cast<long>(malloc_usable_size(memory));
  }

  static thread_local CountedMemory counted_;
};

inline thread_local CountedMemory CountedMemory::counted_;

}  // namespace spotserver

// Not inlined: GCC would take the pair of malloc and operator delete for a mistake.
[[gnu::noinline]] void* operator new(std::size_t size) {
  if (void* memory = spotserver::CountedMemory::take(size)) return memory;
  throw std::bad_alloc();
}
[[gnu::noinline]] void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return spotserver::CountedMemory::take(size);
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
  spotserver::CountedMemory::giveBack(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept {
  spotserver::CountedMemory::giveBack(memory);
}
[[gnu::noinline]] void operator delete(void* memory, const std::nothrow_t&) noexcept {
  spotserver::CountedMemory::giveBack(memory);
}
