// Bytes read as a script: fuzz targets and seeded tests draw their choices from it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <random>
#include <span>
#include <vector>

namespace spotserver {

//   ByteScript script(bytes);
//   while (!script.done()) switch (script.below(3)) { ... }
class ByteScript {
 public:
  explicit ByteScript(std::span<const std::uint8_t> bytes) : bytes_(bytes) {}

  bool done() const { return bytes_.empty(); }
  // The next byte; 0 once the script has ended.
  std::uint8_t byte() {
    if (done()) return 0;
    const std::uint8_t first = bytes_.front();
    bytes_ = bytes_.subspan(1);
    return first;
  }
  // 0 to n - 1; takes one byte for n up to 256, else two.
  std::size_t below(std::size_t n) {
    std::size_t drawn = byte();
    if (n > 256) drawn = drawn * 256 + byte();
    return drawn % n;
  }

 private:
  std::span<const std::uint8_t> bytes_;
};

// A script of `size` random bytes.
inline std::vector<std::uint8_t> randomScript(std::mt19937& random, std::size_t size) {
  std::vector<std::uint8_t> bytes(size);
  for (auto& byte : bytes) byte = static_cast<std::uint8_t>(random());
  return bytes;
}

}  // namespace spotserver
