// Memory that runs out on demand: replaces operator new of the whole test program. Include it in
// the one source file of the program.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>

namespace spotserver {

// Lets `allowed` more allocations of any thread succeed; then one fails, or with `for_good` all do.
// Ends with the object.
//   bool enough = false;
//   for (long n = 0; !enough; ++n) {
//     const ScarceMemory scarce(n, false);
//     work();  // the n-th allocation fails
//     enough = !scarce.ranOut();
//   }
class ScarceMemory {
 public:
  ScarceMemory(long allowed, bool for_good) {
    fails_for_good_ = for_good;
    ran_out_ = false;
    left_ = allowed;
  }
  ~ScarceMemory() { left_ = kPlenty; }
  ScarceMemory(const ScarceMemory&) = delete;
  ScarceMemory& operator=(const ScarceMemory&) = delete;

  bool ranOut() const { return ran_out_; }

  // What operator new does. Null: refused.
  static void* allocate(std::size_t size) {
    if (left_ != kPlenty && left_-- <= 0) {
      ran_out_ = true;
      left_ = fails_for_good_ ? 0 : kPlenty;
      return nullptr;
    }
    return std::malloc(size == 0 ? 1 : size);
  }

 private:
  static constexpr long kPlenty = -1;
  static inline std::atomic<long> left_ = kPlenty;
  static inline std::atomic<bool> fails_for_good_ = false;
  static inline std::atomic<bool> ran_out_ = false;
};

}  // namespace spotserver

// Not inlined: GCC would take the pair of malloc and operator delete for a mistake.
[[gnu::noinline]] void* operator new(std::size_t size) {
  if (void* memory = spotserver::ScarceMemory::allocate(size)) return memory;
  throw std::bad_alloc();
}
[[gnu::noinline]] void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return spotserver::ScarceMemory::allocate(size);
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, const std::nothrow_t&) noexcept {
  std::free(memory);
}
