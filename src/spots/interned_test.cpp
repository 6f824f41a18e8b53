#include "spots/interned.hpp"

#include <map>
#include <random>
#include <string>

#include <gtest/gtest.h>

namespace spotserver {
namespace {

using Names = Interned<TextTraits>;

TEST(Interned, OneValueHasOneIdWhoeverHoldsIt) {
  Names names;
  const auto first = names.acquire("N0CALL");
  const auto other = names.acquire("DL1ABC");
  EXPECT_EQ(names.acquire(std::string("N0CALL")), first);
  EXPECT_NE(first, other);
  EXPECT_EQ(names[first], "N0CALL");
  EXPECT_EQ(names[other], "DL1ABC");
  EXPECT_EQ(names.find("N0CALL"), first);
  EXPECT_EQ(names.find("N0CAL"), Names::kNone);
  EXPECT_EQ(names.size(), 2u);
}

TEST(Interned, ValueLeavesWithItsLastHolderAndItsIdIsUsedAgain) {
  Names names;
  const auto id = names.acquire("N0CALL");
  names.acquire("N0CALL");
  names.release(id);
  EXPECT_EQ(names.find("N0CALL"), id);
  names.release(id);
  EXPECT_EQ(names.find("N0CALL"), Names::kNone);
  EXPECT_EQ(names.size(), 0u);
  EXPECT_EQ(names.acquire("DL1ABC"), id);
  EXPECT_EQ(names.idEnd(), 1u);
}

TEST(Interned, AgreesWithAMapOverRandomHolders) {
  std::mt19937 random(3);
  for (int round = 0; round < 50; ++round) {
    Names names;
    std::map<std::string, int> holders;
    for (int step = 0; step < 2000; ++step) {
      const std::string name = std::to_string(random() % (1u + 20u * static_cast<unsigned>(round)));
      const auto id = names.find(name);
      ASSERT_EQ(id != Names::kNone, holders.contains(name)) << name;
      if (id != Names::kNone && random() % 2 == 0) {
        ASSERT_EQ(names[id], name);
        names.release(id);
        if (--holders[name] == 0) holders.erase(name);
      } else {
        names.acquire(name);
        ++holders[name];
      }
      ASSERT_EQ(names.size(), holders.size());
    }
    EXPECT_LE(names.idEnd(), 1u + 20u * static_cast<unsigned>(round));
  }
}

}  // namespace
}  // namespace spotserver
