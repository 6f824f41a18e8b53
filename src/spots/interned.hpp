// Values that many records share, kept once: a record holds the short id of its value.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "spots/flat_index.hpp"

namespace spotserver {

// Counts the holders of each value; the value leaves with the last of them and its id is given to
// another one, so ids stay as dense as the values that were ever held at once. A plain value.
//
//   Interned<TextTraits> names;
//   const auto id = names.acquire("N0CALL");
//   names[id]          // "N0CALL", while somebody holds it
//   names.release(id);
//
// Traits: types Key (what a value is asked for by) and Value; hash(key); same(value, key);
// make(key), the value.
template <typename Traits>
class Interned {
 public:
  using Key = typename Traits::Key;
  using Value = typename Traits::Value;
  static constexpr std::uint32_t kNone = FlatIndex::kNone;

  // The id of a value that is held, or kNone.
  std::uint32_t find(const Key& key) const { return find(Traits::hash(key), key); }

  // The id of the value, which has one holder more from now on. A value that is held already costs
  // one look-up and no memory. Throws std::bad_alloc, and then nothing has changed.
  std::uint32_t acquire(const Key& key) {
    const std::uint32_t hash = Traits::hash(key);
    std::uint32_t id = find(hash, key);
    if (id == kNone) id = add(hash, key);
    ++entries_[id].holders;
    return id;
  }

  // One holder more of a value that is held.
  void hold(std::uint32_t id) noexcept { ++entries_[id].holders; }

  // Takes one holder away.
  void release(std::uint32_t id) noexcept {
    Entry& entry = entries_[id];
    if (--entry.holders > 0) return;
    index_.erase(entry.hash, id);
    entry.value = {};
    entry.hash = free_;
    free_ = id;
    --size_;
  }

  // Valid until the last holder releases it or another value is acquired.
  const Value& operator[](std::uint32_t id) const { return entries_[id].value; }

  // Values held.
  std::size_t size() const { return size_; }
  // Above every id in use.
  std::size_t idEnd() const { return entries_.size(); }

 private:
  struct Entry {
    Value value;
    std::uint32_t hash = 0;  // of a free entry: the next free one
    std::uint32_t holders = 0;
  };

  std::uint32_t find(std::uint32_t hash, const Key& key) const {
    return index_.find(hash,
                       [&](std::uint32_t id) { return Traits::same(entries_[id].value, key); });
  }

  std::uint32_t add(std::uint32_t hash, const Key& key) {
    index_.reserve(size_ + 1);
    Entry fresh{Traits::make(key), hash, 0};
    std::uint32_t id = free_;
    if (id == kNone) {
      id = static_cast<std::uint32_t>(entries_.size());
      entries_.push_back(std::move(fresh));
    } else {
      free_ = entries_[id].hash;
      entries_[id] = std::move(fresh);
    }
    index_.insert(hash, id);
    ++size_;
    return id;
  }

  std::vector<Entry> entries_;
  std::uint32_t free_ = kNone;  // the first of the chain of free entries
  std::size_t size_ = 0;
  FlatIndex index_;
};

struct TextTraits {
  using Key = std::string_view;
  using Value = std::string;
  static std::uint32_t hash(std::string_view text) { return hashText(text); }
  static bool same(const std::string& value, std::string_view text) { return value == text; }
  static std::string make(std::string_view text) { return std::string(text); }
};

}  // namespace spotserver
