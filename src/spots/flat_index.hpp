// Finding the numbers of records by the hashes of their keys. The records lie with the owner, in an
// array of its own; the index knows their numbers only, so it works for whatever has a hash.
//
//   FlatIndex index;
//   index.reserve(names.size() + 1);
//   index.insert(hashText("N0CALL"), 7);
//   index.find(hashText("N0CALL"), [&](std::uint32_t n) { return names[n] == "N0CALL"; })  // 7
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace spotserver {

// Spreads a key of 64 bits over 32.
constexpr std::uint32_t hashBits(std::uint64_t bits) {
  // The last steps of MurmurHash3: every bit of the key changes every bit of the hash.
  bits = (bits ^ (bits >> 33)) * 0xff51afd7ed558ccd;
  bits = (bits ^ (bits >> 33)) * 0xc4ceb9fe1a85ec53;
  return static_cast<std::uint32_t>(bits ^ (bits >> 33));
}

std::uint32_t hashText(std::string_view text);

// Open addressing with linear probing; eight bytes a slot, at most three of four slots taken. A
// plain value. Numbers are below kNone.
class FlatIndex {
 public:
  static constexpr std::uint32_t kNone = 0xffffffff;

  // The number under `hash` of which same(number) is true, or kNone. Cost: the few slots that share
  // the hash's neighbourhood; `same` is only asked where all 32 bits agree.
  template <typename Same>
  std::uint32_t find(std::uint32_t hash, Same&& same) const {
    if (slots_.empty()) return kNone;
    for (std::size_t at = home(hash);; at = next(at)) {
      const Slot& slot = slots_[at];
      if (slot.number == kNone) return kNone;
      if (slot.hash == hash && same(slot.number)) return slot.number;
    }
  }
  // Makes room for `count` numbers in all. Throws std::bad_alloc, and then nothing has changed.
  void reserve(std::size_t count) {
    if (count * 4 > slots_.size() * 3) grow(count);
  }
  // Adds a number that is not there yet. There must be room for it.
  void insert(std::uint32_t hash, std::uint32_t number) noexcept;
  // Takes out a number that is there.
  void erase(std::uint32_t hash, std::uint32_t number) noexcept;
  // Gives the record that is there as `number` the number `renamed`.
  void renumber(std::uint32_t hash, std::uint32_t number, std::uint32_t renamed) noexcept;

 private:
  struct Slot {
    std::uint32_t hash = 0;
    std::uint32_t number = kNone;
  };

  std::size_t home(std::uint32_t hash) const { return hash & (slots_.size() - 1); }
  std::size_t next(std::size_t at) const { return (at + 1) & (slots_.size() - 1); }
  std::size_t place(std::uint32_t hash, std::uint32_t number) const;
  void grow(std::size_t count);

  std::vector<Slot> slots_;  // a power of two of them, or none
};

}  // namespace spotserver
