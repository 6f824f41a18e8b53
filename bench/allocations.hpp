// Counts what a benchmark allocates. Replaces the program's operator new: include it in the one
// source file of a benchmark.
//
//   const std::uint64_t before = allocations();
//   for (auto _ : state) work();
//   state.counters["allocations"] = static_cast<double>(allocations() - before);
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <new>

namespace spotserver {

inline thread_local std::uint64_t allocation_count = 0;

// How often this thread has allocated so far.
inline std::uint64_t allocations() { return allocation_count; }

}  // namespace spotserver

// Not inlined: GCC would take the pair of malloc and operator delete for a mistake.
[[gnu::noinline]] void* operator new(std::size_t size) {
  ++spotserver::allocation_count;
  if (void* memory = std::malloc(size == 0 ? 1 : size)) return memory;
  throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
