#include "spots/flat_index.hpp"

#include <algorithm>
#include <bit>
#include <cstring>

namespace spotserver {
namespace {

constexpr std::size_t kFewestSlots = 8;

template <typename Word>
std::uint64_t load(const char* from) {
  Word word;
  std::memcpy(&word, from, sizeof word);
  return word;
}

// One to seven characters as a number. Some are read twice: that is cheaper than a loop.
std::uint64_t loadTail(std::string_view text) {
  if (text.size() >= 4) {
    return load<std::uint32_t>(text.data()) | load<std::uint32_t>(text.data() + text.size() - 4)
                                                  << 32;
  }
  return load<std::uint8_t>(text.data()) | load<std::uint8_t>(&text[text.size() / 2]) << 8 |
         load<std::uint8_t>(&text.back()) << 16;
}

}  // namespace

std::uint32_t hashText(std::string_view text) {
  std::uint64_t bits = std::uint64_t{text.size()} << 56;
  for (; text.size() >= 8; text.remove_prefix(8)) {
    bits = std::rotl((bits ^ load<std::uint64_t>(text.data())) * 0x9e3779b97f4a7c15, 32);
  }
  if (!text.empty()) bits ^= loadTail(text);
  return hashBits(bits);
}

void FlatIndex::insert(std::uint32_t hash, std::uint32_t number) noexcept {
  std::size_t at = home(hash);
  while (slots_[at].number != kNone) at = next(at);
  slots_[at] = {hash, number};
}

// The gap is filled from behind with what would no longer be found across it.
void FlatIndex::erase(std::uint32_t hash, std::uint32_t number) noexcept {
  std::size_t gap = place(hash, number);
  for (std::size_t at = next(gap); slots_[at].number != kNone; at = next(at)) {
    const std::size_t mask = slots_.size() - 1;
    const std::size_t from_home = (at - home(slots_[at].hash)) & mask;
    if (from_home < ((at - gap) & mask)) continue;
    slots_[gap] = slots_[at];
    gap = at;
  }
  slots_[gap] = {};
}

void FlatIndex::renumber(std::uint32_t hash, std::uint32_t number, std::uint32_t renamed) noexcept {
  slots_[place(hash, number)].number = renamed;
}

std::size_t FlatIndex::place(std::uint32_t hash, std::uint32_t number) const {
  std::size_t at = home(hash);
  while (slots_[at].number != number) at = next(at);
  return at;
}

void FlatIndex::grow(std::size_t count) {
  FlatIndex larger;
  larger.slots_.resize(std::max(kFewestSlots, std::bit_ceil(count * 4 / 3 + 1)));
  for (const Slot& slot : slots_) {
    if (slot.number != kNone) larger.insert(slot.hash, slot.number);
  }
  slots_.swap(larger.slots_);
}

}  // namespace spotserver
