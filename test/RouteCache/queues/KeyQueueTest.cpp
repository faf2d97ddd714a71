// The work queue against a plain model: a key is fresh or waiting since some moment.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>

#include "RouteCache/model/Values.h"
#include "RouteCache/queues/KeyQueue.h"

namespace {

using Key = RouteCache::Ipv4RouteVrfKey;

struct Model {
  struct Place {
    bool fresh = false;
    std::uint64_t since = 0;
  };
  std::optional<Key> oldest(bool fresh) const {
    const std::pair<const Key, Place>* first = nullptr;
    for (const auto& entry : keys) {
      if (entry.second.fresh == fresh && (first == nullptr || entry.second.since < first->second.since)) first = &entry;
    }
    return first == nullptr ? std::nullopt : std::optional(first->first);
  }
  std::map<Key, Place> keys;
  std::uint64_t clock = 0;
};

TEST(KeyQueueTest, FreshKeysKeepTheirPlaceAndWaitingOnesStandApart) {
  for (unsigned seed = 1; seed <= 20; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    const auto pick = [&](unsigned below) { return static_cast<unsigned>(random() % below); };
    RouteCache::KeyQueue<Key> queue;
    Model model;
    for (int step = 0; step < 3000; ++step) {
      const Key key(Prefix(IpAddr(0x0A000000U + pick(30)), 32), 101);
      const unsigned what = pick(100);
      if (what < 45) {
        queue.keyIs(key);
        if (!model.keys[key].fresh) model.keys[key] = {true, ++model.clock};
      } else if (what < 70) {
        queue.waitingKeyIs(key);
        model.keys[key] = {false, ++model.clock};
      } else if (what < 99) {
        queue.keyDel(key);
        model.keys.erase(key);
      } else {
        queue.keyDelAll();
        model.keys.clear();
      }
      const auto fresh = model.oldest(true);
      const auto waiting = model.oldest(false);
      ASSERT_EQ(queue.freshKey(), fresh);
      ASSERT_EQ(queue.waitingKey(), waiting);
      const auto isFresh = [](const auto& entry) { return entry.second.fresh; };
      ASSERT_EQ(queue.freshCount(), static_cast<std::size_t>(std::ranges::count_if(model.keys, isFresh)));
      ASSERT_EQ(queue.hasFresh(), fresh.has_value());
      ASSERT_EQ(queue.hasWaiting(), waiting.has_value());
      ASSERT_EQ(queue.bookmark(), fresh ? *fresh : waiting.value_or(Key()));
      ASSERT_EQ(queue.has(key), model.keys.contains(key));
      ASSERT_EQ(queue.size(), model.keys.size());
    }
  }
}

}  // namespace
