// The queue of routes hit in software against a plain model: a key has a value, is fresh or waits, and since when.
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <tuple>

#include "RouteCache/hw/HitQueue.h"

namespace {

using RouteCache::HitQueue;
using Key = HitQueue::Key;

Key keyOf(unsigned number) {
  return {Prefix(IpAddr(0x0A000000U + number), 32), 101};
}

struct Model {
  struct Place {
    std::uint32_t value = 0;
    bool fresh = false;
    std::uint64_t since = 0;   // it took the value, or came to wait
    std::uint64_t queued = 0;  // it entered the queue
  };
  void keyIs(const Key& key, std::uint32_t given) {
    const std::uint32_t value = std::min(given, 255U);
    const auto [place, isNew] = keys.try_emplace(key);
    if (isNew) place->second = {value, true, ++clock, clock};
    if (place->second.value != value) place->second = {value, place->second.fresh, ++clock, place->second.queued};
  }
  void waitingKeyIs(const Key& key, std::uint32_t given) {
    const std::uint32_t value = std::min(given, 255U);
    const auto [place, isNew] = keys.try_emplace(key);
    place->second = {value, false, ++clock, isNew ? clock : place->second.queued};
  }
  // The highest value, those that wait before the others, then by time.
  std::optional<Key> first(bool freshOnly) const {
    const auto rank = [](const Place& place) {
      return std::tuple(-static_cast<int>(place.value), place.fresh, place.since);
    };
    const std::pair<const Key, Place>* best = nullptr;
    for (const auto& entry : keys) {
      if (freshOnly && !entry.second.fresh) continue;
      if (best == nullptr || rank(entry.second) < rank(best->second)) best = &entry;
    }
    return best == nullptr ? std::nullopt : std::optional(best->first);
  }
  std::optional<Key> oldest() const {
    const auto found = std::ranges::min_element(keys, {}, [](const auto& entry) { return entry.second.queued; });
    return found == keys.end() ? std::nullopt : std::optional(found->first);
  }
  std::map<Key, Place> keys;
  std::uint64_t clock = 0;
};

TEST(HitQueueTest, TheHighestValueComesFirstAndEverySoOftenWhoeverWasQueuedFirst) {
  for (unsigned seed = 1; seed <= 10; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    const auto pick = [&](unsigned below) { return static_cast<unsigned>(random() % below); };
    HitQueue queue;
    Model model;
    unsigned turns = 0;
    for (int step = 0; step < 3000; ++step) {
      const Key key = keyOf(pick(30));
      const std::uint32_t value = pick(3) == 0 ? pick(400) : 60 + 10 * pick(3);
      const unsigned what = pick(100);
      if (what < 40) {
        queue.keyIs(key, value);
        model.keyIs(key, value);
      } else if (what < 60) {
        queue.waitingKeyIs(key, value);
        model.waitingKeyIs(key, value);
      } else if (what < 75) {
        queue.keyDel(key);
        model.keys.erase(key);
      } else if (what < 99) {
        const auto next = queue.nextKey();
        ASSERT_EQ(next, ++turns % HitQueue::turnsPerOldest == 0 ? model.oldest() : model.first(false));
        if (next) queue.keyDel(*next);
        if (next) model.keys.erase(*next);
      } else {
        queue.keyDelAll();
        model.keys.clear();
      }
      queue.checkInvariants();
      const auto fresh = model.first(true);
      ASSERT_EQ(queue.freshKey(), fresh);
      ASSERT_EQ(queue.hasFresh(), fresh.has_value());
      ASSERT_EQ(queue.hasWaiting(), std::ranges::any_of(model.keys, [](auto& entry) { return !entry.second.fresh; }));
      ASSERT_EQ(queue.bookmark(), fresh ? *fresh : model.oldest().value_or(Key()));
      ASSERT_EQ(queue.has(key), model.keys.contains(key));
      ASSERT_EQ(queue.size(), model.keys.size());
    }
  }
}

}  // namespace
