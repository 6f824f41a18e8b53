// Text between pages that nobody may touch: reading one byte before or behind it ends the test.
#pragma once

#include <cstddef>
#include <cstring>
#include <new>
#include <string_view>

#include <sys/mman.h>

namespace spotserver {

// Room for texts of up to kRoom bytes, one at a time.
//   const EdgeOfMemory memory;
//   parse(memory.atEnd("N0CALL"));  // sees no byte behind the last L
class EdgeOfMemory {
 public:
  static constexpr std::size_t kRoom = std::size_t{1} << 20;

  EdgeOfMemory() {
    void* const pages = ::mmap(nullptr, kRoom + 2 * kPage, PROT_NONE,
                               MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (pages == MAP_FAILED) throw std::bad_alloc();
    begin_ = static_cast<char*>(pages) + kPage;
    if (::mprotect(begin_, kRoom, PROT_READ | PROT_WRITE) != 0) throw std::bad_alloc();
  }
  ~EdgeOfMemory() { ::munmap(begin_ - kPage, kRoom + 2 * kPage); }
  EdgeOfMemory(const EdgeOfMemory&) = delete;
  EdgeOfMemory& operator=(const EdgeOfMemory&) = delete;

  // `text` with nothing behind it, or nothing before it. Valid until the next call.
  std::string_view atEnd(std::string_view text) const { return put(kRoom - text.size(), text); }
  std::string_view atBegin(std::string_view text) const { return put(0, text); }

 private:
  static constexpr std::size_t kPage = std::size_t{1} << 16;  // of any size up to this

  std::string_view put(std::size_t at, std::string_view text) const {
    if (text.size() > kRoom) throw std::bad_alloc();
    return {static_cast<char*>(std::memcpy(begin_ + at, text.data(), text.size())), text.size()};
  }

  char* begin_ = nullptr;
};

}  // namespace spotserver
