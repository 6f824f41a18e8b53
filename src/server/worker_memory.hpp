// What keeps the memory of many worker threads small.
#pragma once

#include <cstddef>

namespace spotserver {

// The C library gives most threads a memory pool of their own, which keeps what one large request
// has taken. Two pools for all threads started from here on keep that to a few requests' worth.
void share_memory_pools();

// 64 MiB of address space, while it lives: what is left for the requests when meanwhile as many
// threads as possible have taken theirs.
class SpareMemory {
 public:
  SpareMemory();
  ~SpareMemory();
  SpareMemory(const SpareMemory&) = delete;
  SpareMemory& operator=(const SpareMemory&) = delete;

 private:
  static constexpr std::size_t kSize = std::size_t{64} << 20;
  void* const begin_;
};

}  // namespace spotserver
