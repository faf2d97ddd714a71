#include <gtest/gtest.h>

#include <map>
#include <random>
#include <string>

#include "RouteCache/queues/FlatTable.h"

namespace {

// A key whose hash is as bad as a test wants it: many share a home, and homes lie about the end of the array.
struct Key {
  std::uint32_t number = 0;
  std::uint32_t homes = 1;
  std::uint64_t hash() const { return ~std::uint64_t{0} - homes / 2 + number % homes; }
  bool operator==(const Key& other) const { return number == other.number; }
};
struct Entry {
  Key key;
  unsigned value = 0;
};
struct KeyOf {
  const Key& operator()(const Entry& entry) const { return entry.key; }
};

TEST(FlatTableTest, BehavesLikeAMap) {
  // Erasing closes gaps in runs of entries, which may go over the end of the array: long runs, and erasing half the
  // time.
  for (const std::uint32_t homes : {1u, 3u, 8u, 40u, 1000u}) {
    SCOPED_TRACE("homes " + std::to_string(homes));
    std::mt19937 random(homes);
    RouteCache::FlatTable<Entry, Key, KeyOf> table;
    std::map<std::uint32_t, unsigned> model;
    for (unsigned step = 0; step < 6000; ++step) {
      // Grows to some fifty entries, shrinks to none, and so on.
      const bool growing = step / 300 % 2 == 0;
      const Key key{static_cast<std::uint32_t>(random() % 60), homes};
      if (random() % 10 < (growing ? 7u : 2u)) {
        const auto [entry, isNew] = table.insert({key, step});
        EXPECT_EQ(isNew, model.try_emplace(key.number, step).second);
        EXPECT_EQ(entry->value, model.at(key.number));
      } else {
        EXPECT_EQ(table.erase(key), model.erase(key.number) == 1);
      }
      ASSERT_EQ(table.size(), model.size());
      ASSERT_EQ(table.empty(), model.empty());
      for (std::uint32_t number = 0; number < 60; ++number) {
        const Entry* const found = table.find({number, homes});
        ASSERT_EQ(found != nullptr, model.contains(number)) << number;
        ASSERT_EQ(found == nullptr ? 0 : found->value, found == nullptr ? 0 : model.at(number));
      }
    }
    std::map<std::uint32_t, unsigned> visited;
    table.forEach([&](const Entry& entry) { EXPECT_TRUE(visited.emplace(entry.key.number, entry.value).second); });
    EXPECT_EQ(visited, model);
    table.clear();
    EXPECT_FALSE(table.has({1, homes}) || table.erase({1, homes}));
  }
}

}  // namespace
