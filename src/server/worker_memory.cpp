#include "server/worker_memory.hpp"

#include <malloc.h>
#include <sys/mman.h>

namespace spotserver {

void share_memory_pools() {
#ifdef M_ARENA_MAX
  ::mallopt(M_ARENA_MAX, 2);
#endif
}

SpareMemory::SpareMemory()
    : begin_(
          ::mmap(nullptr, kSize, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0)) {}

SpareMemory::~SpareMemory() {
  if (begin_ != MAP_FAILED) ::munmap(begin_, kSize);
}

}  // namespace spotserver
