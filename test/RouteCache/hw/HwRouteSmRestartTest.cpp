// Stories of hardware routes: agents that come back, with caching turned on or off meanwhile, and one that is never
// left in peace.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "test/RouteCache/hw/CachingSwitch.h"

namespace {

using testing::IsEmpty;
using testing::UnorderedElementsAre;

using HwRestartTest = HwRouteStory;
INSTANTIATE_TEST_SUITE_P(Yields, HwRestartTest, howTasksYield, yieldName);

TEST_P(HwRestartTest, ARestartLosesNoHardwareRouteAndDropsWhatIsStale) {
  for (const bool inMidScan : {false, true}) {
    for (const bool changes : {false, true}) {
      SCOPED_TRACE(std::string(inMidScan ? "in mid-scan" : "at rest") + (changes ? ", with changes" : ""));
      CachingSwitch sw(GetParam(), 40);
      sw.startUp();
      sw.addMany(cached, 0, 30);
      sw.addMany(plain, 0, 4);  // 85 %, the last of them not confirmed
      for (int i = 0; i < 30; ++i) sw.hwHit(cached(i), red, 250 - i);
      sw.add(cached(30));  // turned away
      sw.scan();
      for (int i = 0; inMidScan && i < 9; ++i) sw.hwSm().handleHwhitbitScan();
      const auto before = sw.hardware();
      ASSERT_EQ(before.size(), 34u);
      std::set<std::string> changed;
      sw.hardware();
      const auto watcher = sw.outside->entity("routecache/route/hw/ipv4")->watchText([&](const std::string& key) {
        changed.insert(key);
      });
      sw.stop();
      EXPECT_TRUE(sw.config()->cachingEnabled()) << "others go on reading what the agent left";
      if (changes) {
        sw.gone(cached(3));
        sw.add(plain(100));
      }
      sw.startUp();
      EXPECT_EQ(sw.hwSm().ipv4PrefixHwSpaceLeft() + sw.hardware().size(), 40u);
      for (int i = 0; i < 4; ++i) sw.scan();
      sw.outside->pendingChanges();
      sw.outside->deliverChanges([] { return false; });
      auto expected = before;
      if (changes) {
        expected.erase(inRed(cached(3)));
        expected[inRed(plain(100))] = sw.hardware()[inRed(plain(100))];
        EXPECT_THAT(changed,
                    UnorderedElementsAre(Platform::toText(keyOf(cached(3))), Platform::toText(keyOf(plain(100)))));
      } else {
        EXPECT_THAT(changed, IsEmpty());
      }
      EXPECT_EQ(sw.hardware(), expected);
    }
  }
}

TEST_P(HwRestartTest, HardwareCachingMayBeTurnedOnAndOffBetweenTwoLives) {
  using RouteCache::Ipv4RouteStatus;
  constexpr auto path = "routecache/route/sfe/ipv4";
  CachingSwitch sw(GetParam(), 40);
  sw.hwRouteCaching(false);
  sw.startUp();
  sw.addMany(cached, 0, 40);
  ASSERT_EQ(sw.hardware().size(), 40u);
  sw.stop();
  {  // A life that turned caching on was cut short while it filled the SFE's table.
    LinuxPlatform::SharedTableService tables(sw.directory.path(), sw.tableTypes);
    tables.mount(path, Ipv4RouteStatus::typeName, Pondra::MountKind::writer, Pondra::CollectionInfo{"route", 10000});
    const auto inHardware = sw.reader<Ipv4RouteStatus>("routecache/route/hw/ipv4");
    for (int i = 0; i < 5; ++i) tables.get<Ipv4RouteStatus>(path)->routeIs(*inHardware->route(keyOf(cached(i))));
  }
  sw.hwRouteCaching(true);
  sw.startUp();
  sw.advance(30);
  EXPECT_EQ(sw.published().size(), 40u);
  EXPECT_EQ(sw.hwSm().admissions(), 0u) << "none has left hardware and come back";
  const auto hardware = sw.hardware();
  EXPECT_EQ(hardware.size(), 40u);
  EXPECT_EQ(sw.config()->ipv4PrefixHwSpaceLeft(), 1024u);
  for (const auto& route : *sw.agent().ipv4SfeRouteStatus()) {
    const auto found = hardware.find(route.key().shortText());
    EXPECT_EQ(route.inHw(), found != hardware.end() && found->second) << route.key().shortText();
  }
  sw.stop();
  sw.hwRouteCaching(false);
  sw.startUp();
  sw.advance(400);
  EXPECT_EQ(sw.hardware().size(), 40u);
  EXPECT_EQ(sw.reader<Ipv4RouteStatus>(path)->size(), 0u);
  sw.stop();
  sw.hwRouteCaching(true);
  sw.capability(40, 30, 1000);  // the SFE's table holds less than hardware has
  sw.startUp();
  sw.advance(30);
  EXPECT_EQ(sw.published().size(), 30u);
  EXPECT_EQ(sw.hardware().size(), 30u);
}

TEST_P(HwRestartTest, ARestartKnowsTheCachedPrefixesBeforeItDecides) {
  CachingSwitch sw(GetParam(), 100);
  sw.cachedPrefixGone("10.0.0.0/8", "red");
  for (int i = 0; i < 200; ++i) sw.cachedPrefix("9.1." + std::to_string(i) + ".0/24", "red");
  sw.cachedPrefix("10.0.0.0/8", "red");
  sw.startUp();
  sw.addMany(cached, 0, 150);
  ASSERT_EQ(sw.hardware().size(), 85u);
  sw.stop();
  sw.startUp();
  EXPECT_EQ(sw.hardware().size(), 85u) << "a route that is not known to be cached yet gets in at any level";
}

TEST_P(HwRestartTest, NobodyDecidesOnHalfOfWhatTurningCachingOnTakesOverAndNothingWithdrawnComesBack) {
  constexpr auto path = "routecache/route/sfe/ipv4";
  CachingSwitch sw(GetParam(), 40);
  sw.hwRouteCaching(false);
  sw.startUp();
  sw.addMany(cached, 0, 40);
  sw.stop();
  for (int i = 30; i < 40; ++i) sw.gone(cached(i));
  sw.add(cached(29), 6);  // over a via that is missing: taken over, and then parked
  sw.reader<RouteCache::Ipv4RouteStatus>(path);
  std::set<std::string> changed;
  const auto watcher = sw.outside->entity(path)->watchText([&](const std::string& key) { changed.insert(key); });
  sw.hwRouteCaching(true);
  bool whole = false, begunOnHalf = false;
  sw.scheduler.afterRunIs([&] {
    sw.afterRun();
    if (!sw.agent().hwRouteSm()) return;
    whole = whole || sw.agent().ipv4SfeRouteStatus()->size() == 30;
    if (!whole && (sw.hwSm().initialized() || sw.sm().initialized())) begunOnHalf = true;
  });
  sw.start();
  sw.advance(0.01);
  EXPECT_TRUE(whole && !begunOnHalf);
  const auto tasks = sw.scheduler.statistics();
  const auto fill = std::ranges::find(tasks, "sfeFillTask", &Platform::TaskStatistics::name);
  ASSERT_NE(fill, tasks.end());
  EXPECT_GE(fill->runs, GetParam() == 0 ? 1u : 35u);
  sw.advance(30);
  sw.outside->pendingChanges();
  sw.outside->deliverChanges([] { return false; });
  EXPECT_EQ(sw.hardware().size(), 29u);
  EXPECT_EQ(sw.hwSm().admissions(), 0u);
  EXPECT_TRUE(changed.contains(Platform::toText(keyOf(cached(28)))));
  for (int i = 30; i < 40; ++i) EXPECT_FALSE(changed.contains(Platform::toText(keyOf(cached(i))))) << cached(i);
}

TEST_P(HwRestartTest, ARestartDoesNotTakeWhatTheSfeHasProgrammedForReleased) {
  CachingSwitch sw(GetParam(), 100);
  sw.config()->ageingKeepsRouteIs(true);
  sw.startUp();
  sw.addMany(cached, 0, 85);
  for (int i = 85; i < 95; ++i) sw.sfeHit(cached(i), red, 255);
  sw.addMany(cached, 85, 95);  // at the level: in hardware, not confirmed, and forwarded by the SFE until they are
  for (int i = 85; i < 95; ++i) {
    sw.sfeProgrammed(cached(i), red, true);
    sw.sfeHit(cached(i), red, -1);
  }
  sw.settle();
  ASSERT_EQ(sw.hardware().size(), 95u);
  sw.stop();
  sw.startUp();
  EXPECT_EQ(sw.hardware().size(), 95u);
}

// Changes without end, a route and a cached prefix at a time: the queues never empty, and a walk over all routes is
// always owed. An entry takes 4 ms here, a slice 40.
TEST(HwRouteSmLoadTest, NothingPutsTheScanOffForTwiceItsInterval) {
  CachingSwitch sw(10, 1000);
  sw.checkEveryRunIs(false);
  sw.startUp();
  sw.addMany(cached, 0, 500);
  sw.scheduler.entryCostIs(0.004);
  int change = 0;
  std::unique_ptr<Platform::Task> changes;
  changes = sw.scheduler.taskIs("changes", Platform::TaskPriority::delivery, [&] {
    do {
      ++change;
      sw.add(plain(change % 200), change % 3 == 0 ? overIpv4 : overIpv4Too);
      const std::string other = "77.1." + std::to_string(change % 250) + ".0/24";
      change / 250 % 2 == 0 ? sw.cachedPrefix(other, "red") : sw.cachedPrefixGone(other, "red");
    } while (!changes->shouldYield());
    changes->scheduleWithin(0);
  });
  changes->scheduleWithin(0);
  for (const int hitbit : {255, 80, 200}) {
    for (int i = 0; i < 500; ++i) sw.hwHit(cached(i), red, hitbit);
    sw.advance(2 * sw.hwSm().hwHitbitScanInterval());
    EXPECT_EQ(sw.hwSm().hwHitbitColl(static_cast<std::uint16_t>(hitbit))->size(), 500u);
  }
  EXPECT_LE(sw.longestBackgroundWait(), 0.4) << "seven slices, and one that was under way";
  EXPECT_GT(change, 3 * 80 / 0.004 * 7 / 8 - 500) << "and all the other time is theirs";
  changes.reset();
  sw.scheduler.entryCostIs(0);
  sw.settle();
  EXPECT_EQ(sw.hardware().size(), 700u);
}

}  // namespace
