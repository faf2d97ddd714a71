// The walk that several VRFs may be owed, over a real table that changes under it.
#include <gtest/gtest.h>

#include <deque>
#include <random>
#include <set>

#include "RouteCache/model/StatusTables.h"
#include "RouteCache/queues/RouteStatusWalk.h"
#include "linux/tables/SharedTableService.h"
#include "test/support/SimulatedSwitch.h"

namespace {

using RouteCache::Ipv4RouteStatus;
using Key = RouteCache::Ipv4RouteVrfKey;
using Walk = RouteCache::RouteStatusWalk<Ipv4RouteStatus>;

constexpr std::uint32_t vrfs = 3;

class RouteStatusWalkTest : public testing::Test {
 protected:
  RouteStatusWalkTest() {
    RouteCache::addTableTypes(types_);
    service_ = std::make_unique<LinuxPlatform::SharedTableService>(directory_.path(), types_);
    service_->mount("routes", Ipv4RouteStatus::typeName, Pondra::MountKind::writer,
                    Pondra::CollectionInfo{Ipv4RouteStatus::collectionName, 4000});
    table = service_->get<Ipv4RouteStatus>("routes");
  }
  // Host routes, and of each VRF the default route: the last keys that there are.
  static Key keyOf(unsigned number) {
    const std::uint32_t vrfId = number % vrfs;
    return number < vrfs ? Key(Prefix(), vrfId) : Key(Prefix(IpAddr(0x0A000000U + number / vrfs), 32), vrfId);
  }
  void add(const Key& key) { table->routeIs({key, RouteCache::AdjId(++adjacencies_), false}); }

  std::shared_ptr<Ipv4RouteStatus> table;

 private:
  std::uint32_t adjacencies_ = 0;
  TemporaryDirectory directory_;
  Platform::TableTypes types_;
  std::unique_ptr<LinuxPlatform::SharedTableService> service_;
};

TEST_F(RouteStatusWalkTest, EveryOwedKeyThatWasThereIsHandedOutAndTheWalkEnds) {
  for (unsigned seed = 1; seed <= 60; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    const auto pick = [&](unsigned below) { return static_cast<unsigned>(random() % below); };
    table->routeDelAll();
    Walk walk(*table);
    std::set<Key> owed;
    std::set<std::uint32_t> asked;  // VRFs, since the walk began
    const auto ask = [&](std::optional<std::uint32_t> vrfId) {
      for (std::uint32_t id = 0; id < vrfs; ++id) {
        if (!vrfId || *vrfId == id) asked.insert(id);
      }
      for (const auto& route : *table) {
        if (!vrfId || route.key().vrfId() == *vrfId) owed.insert(route.key());
      }
      vrfId ? walk.vrfIs(*vrfId) : walk.allIs();
    };
    const auto step = [&] {
      if (!walk.pending()) return;
      // One by one, or in groups: then each key that comes has been told of before, in this order.
      std::deque<Key> told;
      const bool inGroups = pick(2) == 0;
      for (unsigned steps = inGroups ? pick(8) : 1; steps > 0 && walk.pending(); --steps) {
        const auto note = [&](const auto& route) {
          ASSERT_EQ(table->route(route.key()), route);
          told.push_back(route.key());
        };
        const auto key = inGroups ? walk.step(note) : walk.step();
        if (!key) continue;
        ASSERT_TRUE(asked.contains(key->vrfId())) << key->shortText();
        owed.erase(*key);
        if (!inGroups) continue;
        ASSERT_FALSE(told.empty());
        ASSERT_EQ(told.front(), *key);
        told.pop_front();
      }
      walk.rest();
      if (!walk.pending()) asked.clear();
    };
    for (int i = 0; i < 600; ++i) {
      const Key key = keyOf(pick(8 * vrfs));
      const unsigned what = pick(100);
      if (what < 20) {
        add(key);
      } else if (what < 35) {
        table->routeDel(key);
        owed.erase(key);
      } else if (what < 40) {
        ask(pick(vrfs));
      } else if (what == 40) {
        ask(std::nullopt);
      } else {
        ASSERT_NO_FATAL_FAILURE(step());
      }
      for (const Key& key2 : owed) ASSERT_TRUE(walk.willMeet(key2)) << key2.shortText();
    }
    // Nobody asks any more, while routes still go: what is left is two laps at most.
    table->routeDel(keyOf(0));
    table->routeDel(keyOf(1));
    table->routeDel(keyOf(2));
    for (unsigned number : {0U, 1U, 2U}) owed.erase(keyOf(number));
    for (std::size_t left = 2 * (table->size() + 2); walk.pending(); --left) {
      ASSERT_GT(left, 0u) << "the walk does not end";
      ASSERT_NO_FATAL_FAILURE(step());
    }
    ASSERT_EQ(owed.size(), 0u) << owed.begin()->shortText() << " was forgotten";
  }
}

TEST_F(RouteStatusWalkTest, AHundredThousandRequestsDuringALapMakeTwoLaps) {
  constexpr unsigned routes = 1500;
  for (unsigned number = 0; number < routes; ++number) add(keyOf(number));
  const auto walk = std::make_unique<Walk>(*table);
  walk->vrfIs(1);
  std::map<Key, int> handedOut;
  std::size_t steps = 0;
  for (unsigned request = 0; request < 100'000; ++request) {
    walk->vrfIs(1);
    if (request % 100 != 0) continue;
    if (const auto key = walk->step()) ++handedOut[*key];
    ++steps;
  }
  for (; walk->pending(); ++steps) {
    if (const auto key = walk->step()) ++handedOut[*key];
  }
  EXPECT_LE(steps, 2 * (routes + 1));
  EXPECT_EQ(handedOut.size(), routes / vrfs);
  for (const auto& [key, times] : handedOut) EXPECT_LE(times, 2) << key.shortText();
}

}  // namespace
