#include "spots/flat_index.hpp"

#include <algorithm>
#include <map>
#include <new>
#include <random>
#include <set>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "edge_of_memory.hpp"
#include "failing_memory.hpp"

namespace spotserver {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

// The numbers that are asked for under `hash`, when none of them is the right one.
std::vector<std::uint32_t> numbersUnder(const FlatIndex& index, std::uint32_t hash) {
  std::vector<std::uint32_t> asked;
  const auto found = index.find(hash, [&](std::uint32_t number) {
    asked.push_back(number);
    return false;
  });
  EXPECT_EQ(found, FlatIndex::kNone) << hash;
  return asked;
}

// `number` when it is found under `hash`, otherwise kNone.
std::uint32_t findNumber(const FlatIndex& index, std::uint32_t hash, std::uint32_t number) {
  return index.find(hash, [&](std::uint32_t asked) { return asked == number; });
}

// With room for so few numbers there are no more than 16 slots: hashes that differ by kHome have
// their home in the same one, and kLastHome has its home in the last.
constexpr std::size_t kFew = 6;
constexpr std::uint32_t kHome = 16;
constexpr std::uint32_t kLastHome = 0xffffffff;

FlatIndex roomForAFew() {
  FlatIndex index;
  index.reserve(kFew);
  return index;
}

TEST(FlatIndex, WithoutRoomHoldsNothing) {
  EXPECT_THAT(numbersUnder(FlatIndex(), 0), IsEmpty());
  EXPECT_THAT(numbersUnder(roomForAFew(), 0), IsEmpty());
}

TEST(FlatIndex, NumberIsAskedForUnderItsWholeHashOnly) {
  FlatIndex index = roomForAFew();
  index.insert(3, 7);
  index.insert(3 + kHome, 8);
  index.insert(4, 9);
  EXPECT_THAT(numbersUnder(index, 3), ElementsAre(7));
  EXPECT_THAT(numbersUnder(index, 3 + kHome), ElementsAre(8));
  EXPECT_THAT(numbersUnder(index, 4), ElementsAre(9));
  EXPECT_THAT(numbersUnder(index, 3 + 2 * kHome), IsEmpty());
  EXPECT_THAT(numbersUnder(index, 5), IsEmpty());
}

TEST(FlatIndex, NumbersOfOneHashAreToldApartByTheCaller) {
  FlatIndex index = roomForAFew();
  for (const std::uint32_t number : {0u, 5u, FlatIndex::kNone - 1}) index.insert(3, number);
  EXPECT_THAT(numbersUnder(index, 3), UnorderedElementsAre(0, 5, FlatIndex::kNone - 1));
  EXPECT_EQ(findNumber(index, 3, 0), 0u);
  EXPECT_EQ(findNumber(index, 3, FlatIndex::kNone - 1), FlatIndex::kNone - 1);
  EXPECT_EQ(findNumber(index, 3, 6), FlatIndex::kNone);
}

TEST(FlatIndex, SlotsGoOnFromTheLastToTheFirst) {
  FlatIndex index = roomForAFew();
  index.insert(kLastHome, 1);
  index.insert(kLastHome - kHome, 2);
  index.insert(0, 3);
  EXPECT_THAT(numbersUnder(index, kLastHome), ElementsAre(1));
  EXPECT_THAT(numbersUnder(index, kLastHome - kHome), ElementsAre(2));
  EXPECT_THAT(numbersUnder(index, 0), ElementsAre(3));
  index.erase(kLastHome, 1);
  EXPECT_THAT(numbersUnder(index, kLastHome), IsEmpty());
  EXPECT_THAT(numbersUnder(index, kLastHome - kHome), ElementsAre(2));
  EXPECT_THAT(numbersUnder(index, 0), ElementsAre(3));
}

// Behind an erased number lie some that were pushed on by it, and some that are at home.
TEST(FlatIndex, WhicheverNumberIsErasedTheOthersAreFound) {
  const std::vector<std::uint32_t> hashes = {14, 14 + kHome, 0, 14 + 2 * kHome, 3, 1};
  for (std::uint32_t erased = 0; erased < hashes.size(); ++erased) {
    FlatIndex index = roomForAFew();
    for (std::uint32_t number = 0; number < hashes.size(); ++number) {
      index.insert(hashes[number], number);
    }
    index.erase(hashes[erased], erased);
    for (std::uint32_t number = 0; number < hashes.size(); ++number) {
      EXPECT_EQ(findNumber(index, hashes[number], number),
                number == erased ? FlatIndex::kNone : number)
          << "without " << erased;
    }
  }
}

TEST(FlatIndex, RenumberedRecordIsFoundByItsNewNumberAlone) {
  FlatIndex index = roomForAFew();
  index.insert(3, 1);
  index.insert(3, 2);
  index.insert(3 + kHome, 3);
  index.renumber(3, 2, 20);
  EXPECT_THAT(numbersUnder(index, 3), UnorderedElementsAre(1, 20));
  EXPECT_THAT(numbersUnder(index, 3 + kHome), ElementsAre(3));
}

// Were every slot taken, a look for what is not there would go round for ever.
TEST(FlatIndex, LookForWhatIsNotThereEndsHoweverMuchRoomIsUsed) {
  for (std::uint32_t count = 0; count <= 300; ++count) {
    FlatIndex index;
    index.reserve(count);
    for (std::uint32_t number = 0; number < count; ++number) index.insert(number, number);
    EXPECT_THAT(numbersUnder(index, 1000), IsEmpty()) << count;
  }
}

TEST(FlatIndex, WithoutMemoryForMoreRoomNothingChanges) {
  FlatIndex index = roomForAFew();
  for (std::uint32_t number = 0; number < kFew; ++number) index.insert(number * kHome, number);
  {
    const FailingMemory memory(0);
    EXPECT_THROW(index.reserve(1000), std::bad_alloc);
  }
  for (std::uint32_t number = 0; number < kFew; ++number) {
    EXPECT_THAT(numbersUnder(index, number * kHome), ElementsAre(number));
  }
}

// An index under random commands, beside the plain form of it.
class RandomUse {
 public:
  explicit RandomUse(std::uint32_t seed) : random_(seed), hashes_(1 + random_() % 20) {
    // Homes that are few and about the seam, where the last slot is followed by the first.
    for (auto& hash : hashes_) {
      hash = static_cast<std::uint32_t>(random_() % 4 << 16);
      hash += static_cast<std::uint32_t>(random_() % 8) - 4;
    }
  }

  void step() {
    const auto what = random_() % 8;
    if (plain_.size() < most_ && (plain_.empty() || what < 4)) {
      insert();
    } else if (what < 7) {
      erase();
    } else {
      renumber();
    }
  }

  // Whether under every hash the numbers are those of the plain form.
  bool agrees() const {
    return std::all_of(hashes_.begin(), hashes_.end(), [&](std::uint32_t hash) {
      auto asked = numbersUnder(index_, hash);
      std::sort(asked.begin(), asked.end());
      std::vector<std::uint32_t> expected;
      const auto [first, last] = plain_.equal_range(hash);
      for (auto it = first; it != last; ++it) expected.push_back(it->second);
      std::sort(expected.begin(), expected.end());
      return asked == expected;
    });
  }

 private:
  using Plain = std::multimap<std::uint32_t, std::uint32_t>;  // hash to number

  void insert() {
    const auto hash = hashes_[random_() % hashes_.size()];
    const auto number = unusedNumber();
    index_.reserve(plain_.size() + 1);
    index_.insert(hash, number);
    plain_.emplace(hash, number);
    used_.insert(number);
  }
  void erase() {
    const auto record = anyRecord();
    index_.erase(record->first, record->second);
    used_.erase(record->second);
    plain_.erase(record);
  }
  void renumber() {
    const auto record = anyRecord();
    const auto renamed = unusedNumber();
    index_.renumber(record->first, record->second, renamed);
    used_.erase(record->second);
    used_.insert(renamed);
    record->second = renamed;
  }

  Plain::iterator anyRecord() {
    return std::next(plain_.begin(), static_cast<std::ptrdiff_t>(random_() % plain_.size()));
  }
  // Soon one that was in use before.
  std::uint32_t unusedNumber() {
    for (;;) {
      const auto number = static_cast<std::uint32_t>(random_() % (2 * most_));
      if (!used_.contains(number)) return number;
    }
  }

  std::mt19937 random_;
  std::vector<std::uint32_t> hashes_;
  const std::size_t most_ = 1 + random_() % 50;  // numbers at a time
  FlatIndex index_;
  Plain plain_;
  std::set<std::uint32_t> used_;
};

TEST(FlatIndex, AgreesWithAMultimapUnderRandomUseOfFewHashes) {
  for (std::uint32_t seed = 0; seed < 300; ++seed) {
    RandomUse use(seed);
    for (int step = 0; step < 300; ++step) {
      use.step();
      ASSERT_TRUE(use.agrees()) << "seed " << seed << ", step " << step;
    }
  }
}

TEST(HashBits, EveryBitOfTheKeyMayChangeEveryBitOfTheHash) {
  std::mt19937_64 random(1);
  for (int bit = 0; bit < 64; ++bit) {
    std::uint32_t changed = 0;
    for (int i = 0; i < 64; ++i) {
      const std::uint64_t key = random();
      changed |= hashBits(key) ^ hashBits(key ^ std::uint64_t{1} << bit);
    }
    EXPECT_EQ(changed, 0xffffffff) << bit;
  }
}

TEST(HashText, EveryCharacterAndTheLengthCount) {
  for (std::size_t size = 0; size <= 40; ++size) {
    const std::string text(size, 'A');
    EXPECT_NE(hashText(text), hashText(text + 'A')) << size;
    for (std::size_t at = 0; at < size; ++at) {
      std::string other = text;
      other[at] = 'B';
      EXPECT_NE(hashText(text), hashText(other)) << size << ", " << at;
    }
  }
}

TEST(HashText, NoByteBeyondTheTextIsRead) {
  const EdgeOfMemory memory;
  for (std::size_t size = 0; size <= 40; ++size) {
    const std::string text(size, 'A');
    EXPECT_EQ(hashText(memory.atBegin(text)), hashText(text)) << size;
    EXPECT_EQ(hashText(memory.atEnd(text)), hashText(text)) << size;
  }
}

}  // namespace
}  // namespace spotserver
