// Stories of hardware routes: what the scan files, who has to leave, and what becomes of it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <random>

#include "test/RouteCache/hw/CachingSwitch.h"

namespace {

using RouteCache::AdjId;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::UnorderedElementsAre;

using HwAgeingTest = HwRouteStory;
INSTANTIATE_TEST_SUITE_P(Yields, HwAgeingTest, howTasksYield, yieldName);

// --- The scan --------------------------------------------------------------------------------------------------------

TEST_P(HwAgeingTest, TheScanFilesByWhatHardwareReportsAndConfirmsWhatItHit) {
  CachingSwitch sw(GetParam(), 20, 8);
  sw.startUp();
  sw.addMany(plain, 0, 16);
  sw.addMany(cached, 0, 1);  // the 17th: at the level, so not confirmed
  const struct {
    const char* what;
    std::uint8_t low;  // level; 85 % are in use
    int hit;
    int slice;  // -1: confirming changes the SFE's route, which is filed as new again until the next scan
    bool inHw;
    int moves;  // as traced; -1: the same reason
  } steps[] = {{"below the level a new addition may stay unreported", 90, -1, 256, false, 0},
               {"at the level it is to leave", 85, -1, 257, false, 0},
               {"but not while the level is not reached", 90, -1, 257, false, 0},
               {"a report saves and confirms it", 85, 200, -1, true, -1},
               {"it is filed as reported", 85, 200, 200, true, -1},
               {"the same report", 85, 200, 200, true, 0},
               {"idle", 85, 199, 199, true, 1},
               {"hit", 85, 255, 255, true, 1},
               {"more than there is counts as the most", 85, 1000, 255, true, 0},
               {"as idle as can be, with nobody waiting for room", 85, 0, 0, true, 1},
               {"no report any more: a new addition again", 90, -1, 256, true, 0},
               {"and treated as one", 85, -1, 257, true, 0}};
  for (const auto& step : steps) {
    SCOPED_TRACE(step.what);
    sw.thresholds(step.low, 95, 100);
    sw.hwHit(cached(0), red, step.hit);
    sw.trace.clear();
    sw.scan();
    if (step.slice >= 0) {
      EXPECT_EQ(sw.sliceOf(cached(0)), step.slice);
    }
    EXPECT_EQ(sw.inHw(cached(0)), step.inHw);
    if (step.moves >= 0) {
      EXPECT_EQ(sw.trace.count("oldTs: "), static_cast<std::size_t>(step.moves));
    }
    EXPECT_THAT(sw.agedPrefixes(), IsEmpty());
  }
  EXPECT_EQ(sw.sliceOf(plain(0)), 256);  // not cacheable: unreported as it is, it stays
  sw.scan();
  EXPECT_THAT(sw.agedPrefixes(), ElementsAre(cached(0)));
}

// --- Ageing ----------------------------------------------------------------------------------------------------------

TEST_P(HwAgeingTest, AgeingPassesOverWhatIsQueuedUncacheableOrHitInSoftware) {
  CachingSwitch sw(GetParam(), 100, 6);
  sw.thresholds(100, 100, 100);
  sw.startUp();
  sw.addMany(cached, 0, 4);
  sw.add(cached(4), overIpv6);
  sw.addMany(plain, 0, 1);
  for (int i = 0; i < 5; ++i) sw.hwHit(cached(i), red, 10);
  sw.hwHit(plain(0), red, 10);
  sw.addMany(cached, 5, 7);  // new additions
  sw.thresholds(8, 8, 8);
  sw.scan();
  ASSERT_EQ(sw.sliceOf(cached(5)), 257);
  sw.sfeHit(cached(1), red, 1);
  sw.sfeHit(cached(2), red, 0);  // an entry, but no hit
  for (int i = 0; i < 20; ++i) sw.sfeHit(unknown(i), red, 1);
  sw.settle();
  sw.hwSm().routeProcessingIntervalIs(2);  // the scan comes before the queues
  sw.advance(sw.untilScan() - 1);
  sw.sfeHit(cached(5), red, 2);
  sw.add(cached(0), overIpv4Too);
  sw.scan();
  EXPECT_THAT(sw.agedPrefixes(), UnorderedElementsAre(cached(2), cached(3), cached(6)));
  // With enableRouteCache all are cacheable, and all leave that are idle.
  sw.trace.clear();
  sw.hwSm().enableRouteCacheIs(true);
  sw.thresholds(0, 0, 0);
  sw.scan();
  EXPECT_THAT(sw.agedPrefixes(), testing::IsSupersetOf({cached(0), cached(4), plain(0)}));
  EXPECT_THAT(sw.agedPrefixes(), Not(Contains(cached(1))));
}

// Scans, ageing runs and moves of random routes with the SFE's table in the test's hands, so that nobody answers: what
// became of each cacheable route, round by round.
std::vector<std::string> decisions(unsigned seed, int yieldAfter, bool visitors) {
  std::mt19937 random(seed);
  const auto pick = [&](int below) { return static_cast<int>(random() % static_cast<unsigned>(below)); };
  CachingSwitch sw(yieldAfter, 1000);
  sw.checkEveryRunIs(false);
  sw.config()->ageingKeepsRouteIs(seed % 2 == 0);
  sw.startUp();
  sw.agent().swRouteSmDel();
  const auto sfe = sw.agent().ipv4SfeRouteStatus();
  for (std::uint32_t id = 1; id <= 10; ++id) sw.agent().ipv4AdjStatus()->adjIs(RouteCache::Ipv4Via(AdjId(id)));
  const auto add = [&](const std::string& prefix, std::uint32_t adjId) {
    sfe->routeIs({keyOf(prefix), AdjId(adjId), false});
  };
  add(plain(0), 1);
  add(plain(1), 1);
  // Comes and goes between any two runs of the scan's task, while that works.
  int visits = 0;
  std::unique_ptr<Platform::Task> visitor;
  visitor = sw.scheduler.taskIs("visitor", Platform::TaskPriority::background, [&] {
    add(plain(0), 1 + static_cast<std::uint32_t>(++visits % 10));
    visits % 2 == 0 ? add(plain(1), 1) : sfe->routeDel(keyOf(plain(1)));
    sw.hwHit(plain(0), red, visits % 256);
    if (visits % 300 != 0) visitor->scheduleWithin(0);
  });
  std::vector<std::string> rounds;
  for (int round = 0; round < 8; ++round) {
    for (int i = 0; i < 20; ++i)
      pick(3) == 0 ? sfe->routeDel(keyOf(cached(pick(120)))) : add(cached(pick(120)), 1 + pick(2));
    for (int i = 0; i < 120; ++i) sw.hwHit(cached(i), red, pick(8) == 0 ? -1 : pick(256));
    for (int i = 0; i < 20; ++i) sw.sfeHit(unknown(i), red, i < pick(40) ? 1 : -1);
    sw.thresholds(100, 100, 100);
    sw.settle();
    for (int i = 0; i < 10; ++i) sw.sfeProgrammed(cached(pick(120)), red, pick(2) == 0);
    sw.settle();
    // In the middle of a percent, which no visitor leaves.
    const auto used = static_cast<int>(sw.hardware().size());
    for (int i = used; i % 10 != 5; ++i) add(plain(100 + round * 10 + i % 10), 1);
    sw.settle();
    sw.thresholds(static_cast<std::uint8_t>(pick(12)), static_cast<std::uint8_t>(2 + pick(12)), 14);
    if (visitors) visitor->scheduleWithin(sw.untilScan());
    sw.scan();
    std::string state = "aged " + std::to_string(sw.hwSm().aged());
    for (const auto& [key, inHw] : sw.hardware()) {
      if (key.starts_with("10."))
        state += " " + key + (inHw ? "+" : "-") + std::to_string(sw.sliceOf(key.substr(0, key.find('@'))));
    }
    rounds.push_back(state);
  }
  return rounds;
}

TEST(HwRouteSmYieldTest, WhatScanAgeingAndMoveDecideDoesNotDependOnTheTimeSlice) {
  for (unsigned seed = 1; seed <= 6; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    const auto inOneGo = decisions(seed, 0, false);
    EXPECT_EQ(decisions(seed, 1, false), inOneGo);
    EXPECT_EQ(decisions(seed, 1, true), inOneGo);
    EXPECT_EQ(decisions(seed, 7, true), inOneGo);
  }
}

TEST_P(HwAgeingTest, ARouteAdmittedWhileAgeingGoesOnIsNotMarkedToLeaveAtOnce) {
  CachingSwitch sw(GetParam(), 20);
  sw.thresholds(100, 100, 100);
  sw.startUp();
  sw.addMany(cached, 0, 6);
  sw.addMany(plain, 0, 14);
  for (int i = 0; i < 6; ++i) sw.hwHit(cached(i), red, i < 4 ? 10 : 254);
  sw.scan();
  sw.thresholds(50, 50, 50);
  sw.sfeHit(cached(100), red, 1);
  sw.add(cached(100));
  sw.scan();
  ASSERT_TRUE(sw.inTable(cached(100)));
  EXPECT_EQ(sw.sliceOf(cached(100)), 256);
}

// What ageing keeps loses its inHw, and leaves when the SFE has programmed it.
class KeptRouteTest : public HwRouteStory {
 protected:
  KeptRouteTest() : sw(GetParam(), 100, 6) {
    sw.config()->ageingKeepsRouteIs(true);
    sw.thresholds(100, 100, 100);
    sw.startUp();
    sw.addMany(cached, 0, 6);
    for (int i = 0; i < 5; ++i) sw.hwHit(cached(i), red, 10);
    sw.hwHit(cached(5), red, 250);
    sw.scan();
    sw.thresholds(0, 0, 0);
    sw.scan();
    sw.thresholds(100, 100, 100);
  }
  bool sfeInHw(const std::string& prefix) { return sw.agent().ipv4SfeRouteStatus()->route(keyOf(prefix))->inHw(); }
  void programmed(const std::string& prefix) {
    sw.sfeProgrammed(prefix, red, true);
    sw.settle();
  }

  CachingSwitch sw;
};
INSTANTIATE_TEST_SUITE_P(Yields, KeptRouteTest, howTasksYield, yieldName);

TEST_P(KeptRouteTest, LeavesOnceTheSfeHasProgrammedIt) {
  EXPECT_EQ(sw.hwSm().ipv4PrefixHwSpaceLeft(), 94u);
  EXPECT_FALSE(sw.inHw(cached(0)));
  EXPECT_FALSE(sfeInHw(cached(0)));
  EXPECT_EQ(sw.sliceOf(cached(0)), 256);  // the SFE's route changed: filed as new, and still to leave
  programmed(cached(0));
  programmed(cached(5));  // was never idle
  EXPECT_FALSE(sw.inTable(cached(0)));
  EXPECT_TRUE(sw.inHw(cached(5)));
  EXPECT_EQ(sw.hwSm().ipv4PrefixHwSpaceLeft(), 95u);
  sw.scan();
  EXPECT_FALSE(sw.inTable(cached(0))) << "nothing but a hit brings it back";
  sw.sfeHit(cached(1), red, 1);
  sw.settle();
  programmed(cached(1));
  EXPECT_TRUE(sw.inTable(cached(1))) << "hit in software while it waited to go";
  sw.cachedPrefixGone("10.0.0.0/8", "red");
  sw.settle();
  programmed(cached(2));
  EXPECT_TRUE(sw.inTable(cached(2))) << "not aged any more";
}

TEST_P(KeptRouteTest, IsConfirmedAgainByAHitAndNotByAValueThatOnlyFell) {
  const struct {
    const char* what;
    int route;
    std::vector<int> values;  // one scan each; -1: no entry
    bool confirmed;
  } rows[] = {{"hit", 0, {255}, true},
              {"idle on", 1, {10, 8, 7}, false},
              {"fell, then hit a little", 2, {6, 9}, true},
              {"hardware let go of it and has its old value again", 3, {-1, 10}, false},
              {"let go, then hit", 4, {-1, 4, 5}, true}};
  for (std::size_t i = 0; i < 3; ++i) {
    for (const auto& row : rows) {
      if (i < row.values.size()) sw.hwHit(cached(row.route), red, row.values[i]);
    }
    sw.scan();
  }
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    EXPECT_EQ(sw.inHw(cached(row.route)), row.confirmed);
    EXPECT_EQ(sfeInHw(cached(row.route)), row.confirmed);
    programmed(cached(row.route));
    EXPECT_EQ(sw.inTable(cached(row.route)), row.confirmed);
  }
}

TEST_P(KeptRouteTest, StaysWhenItIsANewAdditionAgainOrNobodyAsksTheSfe) {
  // Above the level a new next hop has to be confirmed, as a new route has.
  sw.thresholds(0, 0, 0);
  sw.add(cached(1), overIpv4Too);
  sw.add(plain(0));
  sw.settle();
  ASSERT_FALSE(sw.inHw(cached(1)));
  ASSERT_FALSE(sw.inHw(plain(0)));
  programmed(cached(1));
  programmed(plain(0));
  EXPECT_TRUE(sw.inTable(cached(1)));
  EXPECT_TRUE(sw.inTable(plain(0)));
  // An ageing run asks for itself: what it finds programmed goes.
  sw.add(cached(3), overIpv4Too);
  for (const int i : {1, 3}) sw.hwHit(cached(i), red, -1);
  sw.settle();
  sw.scan();
  EXPECT_TRUE(sw.inTable(cached(1)));
  sw.scan();
  EXPECT_FALSE(sw.inTable(cached(1)));
  EXPECT_TRUE(sw.inTable(cached(3)));
}

TEST_P(KeptRouteTest, LeavesWhenTheSfeProgrammedItWhileNobodyListened) {
  sw.hwSm().routeProcessingIntervalIs(1);  // the flag is back before anything is done about its having gone
  sw.config()->ageingKeepsRouteIs(false);
  sw.sfeProgrammed(cached(0), red, true);
  sw.advance(0.1);
  ASSERT_EQ(sw.hardware().size(), 6u);
  sw.config()->ageingKeepsRouteIs(true);
  sw.advance(2);
  EXPECT_FALSE(sw.inTable(cached(0)));
  EXPECT_EQ(sw.hardware().size(), 5u);
}

TEST_P(KeptRouteTest, LeavesAsAnIdleRouteDoesWhenRoutesAreNotKeptAnyMore) {
  sw.sfeHit(cached(1), red, 3);
  sw.settle();
  sw.config()->ageingKeepsRouteIs(false);
  sw.settle();
  EXPECT_EQ(sw.hardware().size(), 2u) << "the one that is hit in software and the one that never was idle";
  EXPECT_TRUE(sw.inTable(cached(1)));
  EXPECT_TRUE(sw.inTable(cached(5)));
  EXPECT_EQ(sw.hwSm().ipv4PrefixHwSpaceLeft(), 98u);
  // And ageing goes on with what is there.
  sw.sfeHit(cached(1), red, -1);
  sw.sfeHit(unknown(1), red, 1);
  sw.thresholds(0, 0, 0);
  sw.scan();  // confirms it, which queues it
  sw.scan();
  EXPECT_FALSE(sw.inTable(cached(1)));
}

// --- What ageing has taken out ---------------------------------------------------------------------------------------

// Three idle routes have just been taken out, which has brought utilisation below the level.
class AgedSwitch : public CachingSwitch {
 public:
  explicit AgedSwitch(int yieldAfter) : CachingSwitch(yieldAfter, 20) {
    thresholds(100, 100, 100);
    startUp();
    addMany(cached, 0, 10);
    for (int i = 0; i < 10; ++i) hwHit(cached(i), red, i < 3 ? 5 : 250);
    scan();
    for (int i = 0; i < 3; ++i) sfeHit(unknown(i), red, 1);
    thresholds(50, 50, 50);
    scan();
    for (int i = 0; i < 3; ++i) sfeHit(unknown(i), red, -1);
    settle();
  }
};

TEST_P(HwAgeingTest, WhatWasTakenOutComesBackForAReasonOnly) {
  const struct {
    const char* what;
    std::function<void(AgedSwitch&)> happens;
    bool comesBack;
  } rows[] = {
      {"its SFE entry changes", [](auto& sw) { sw.hwSm().handleSwRoute(keyOf(cached(0))); }, false},
      {"an SFE entry without a hit", [](auto& sw) { sw.sfeHit(cached(0), red, 0); }, false},
      {"its VRF is looked after", [](auto& sw) { sw.hwSm().scheduleSwRouteWalk(red); }, false},
      {"the letter", [](auto& sw) { sw.hwSm().admitAgedUnhitIs(true), sw.hwSm().scheduleSwRouteWalk(red); }, true},
      {"a hit", [](auto& sw) { sw.sfeHit(cached(0), red, 1); }, true},
      {"another next hop", [](auto& sw) { sw.add(cached(0), overIpv4Too); }, true},
      {"withdrawn and configured again", [](auto& sw) { sw.gone(cached(0)), sw.settle(), sw.add(cached(0)); }, true},
      {"not cacheable any more",
       [](auto& sw) {
         sw.cachedPrefix("10.1.0.0/16", "red");
         sw.cachedPrefixGone("10.0.0.0/8", "red");
         sw.settle();
         sw.cachedPrefixGone("10.1.0.0/16", "red");
       },
       true}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    AgedSwitch sw(GetParam());
    ASSERT_EQ(sw.hardware().size(), 7u);
    row.happens(sw);
    sw.settle();
    EXPECT_EQ(sw.inTable(cached(0)), row.comesBack);
  }
}

TEST_P(HwAgeingTest, WhatWasTakenOutIsForgottenWhenAsManyOthersFollowAsThereArePlaces) {
  AgedSwitch sw(GetParam());
  // Routes of their own come, are taken out, and are remembered: 17 of them make it 20 with the first three.
  const auto another = [&](int i) {
    sw.thresholds(100, 100, 100);
    sw.add(cached(i));
    sw.settle();
    sw.thresholds(0, 0, 0);
    sw.scan();
    sw.scan();
    ASSERT_FALSE(sw.inTable(cached(i)));
    sw.thresholds(100, 100, 100);
  };
  for (int i = 100; i < 117; ++i) another(i);
  sw.hwSm().scheduleSwRouteWalk(red);
  sw.settle();
  EXPECT_FALSE(sw.inTable(cached(0)));
  another(117);
  sw.hwSm().scheduleSwRouteWalk(red);
  sw.settle();
  EXPECT_TRUE(sw.inTable(cached(0)));
  EXPECT_FALSE(sw.inTable(cached(1))) << "the oldest one alone";
}

TEST_P(HwAgeingTest, ASlowSfeDoesNotMakeAgeingReleaseMoreAndMore) {
  CachingSwitch sw(GetParam(), 100);
  sw.config()->ageingKeepsRouteIs(true);
  sw.thresholds(100, 100, 100);
  sw.startUp();
  sw.addMany(cached, 0, 60);
  for (int i = 0; i < 60; ++i) sw.hwHit(cached(i), red, 10);
  sw.scan();
  sw.thresholds(55, 100, 100);  // at 60 percent: five routes too many
  for (int round = 0; round < 4; ++round) {
    sw.scan();
    const auto hardware = sw.hardware();
    EXPECT_EQ(std::count_if(hardware.begin(), hardware.end(), [](const auto& route) { return !route.second; }), 5);
  }
  for (const auto& [key, inHw] : sw.hardware()) {
    if (!inHw) sw.sfeProgrammed(key.substr(0, key.find('@')), red, true);
  }
  sw.settle();
  EXPECT_EQ(sw.hardware().size(), 55u);
}

}  // namespace
