// Stories of hardware routes: who is let in, who has to leave, and what hardware, SFE and FIB do meanwhile. The whole
// agent on real tables and virtual time; every story runs with tasks that never yield and with tasks that yield after
// every entry, and the invariants are checked after every task run.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <random>

#include "lib/statedb/EntityFields.h"
#include "platform/tables/Trie.h"
#include "test/support/SimulatedSwitch.h"

namespace {

using RouteCache::AdjId;
using RouteCache::HwRouteSm;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::Pair;
using testing::UnorderedElementsAre;

constexpr std::uint32_t red = 101;
constexpr std::uint32_t blue = 102;
constexpr std::uint64_t overIpv4 = 1, overIpv6 = 2, overBoth = 3, overIpv4Too = 4;  // vias

// Host routes: under the cached prefix, elsewhere (not cacheable), and never configured.
std::string cached(int i) {
  return "10.1." + std::to_string(i / 250) + "." + std::to_string(i % 250) + "/32";
}
std::string plain(int i) {
  return "20.1." + std::to_string(i / 250) + "." + std::to_string(i % 250) + "/32";
}
std::string unknown(int i) {
  return "30.1.0." + std::to_string(i) + "/32";
}

HwRouteSm::Key keyOf(const std::string& prefix, std::uint32_t vrf = red) {
  return {Platform::fromText<Prefix>(prefix), vrf};
}
std::string inRed(const std::string& prefix) {
  return prefix + "@101";
}

// A switch with hardware caching on and the VRF "red", whose FIB caches 10.0.0.0/8.
class CachingSwitch : public SimulatedSwitch {
 public:
  explicit CachingSwitch(int yieldAfter, std::uint32_t hwRoutes, int traceLevel = -1) : SimulatedSwitch(traceLevel) {
    scheduler.yieldAfterEntriesIs(static_cast<std::uint64_t>(yieldAfter));
    capability(hwRoutes, 10000, 1000);
    hwRouteCaching(true);
    underlay("10.255.0.0/16", 5);
    underlay("2001:db8:ff::/48", 6);
    vti("Vxlan1", "192.0.2.1", "2001:db8::1");
    vrf("red", 1, red);
    cachedPrefix("10.0.0.0/8", "red");
    via(overIpv4, {nexthop("10.255.0.1")});
    via(overIpv6, {nexthop("2001:db8:ff::1")});
    via(overBoth, {nexthop("10.255.0.1"), nexthop("2001:db8:ff::1")});
    via(overIpv4Too, {nexthop("10.255.0.2")});
  }
  // Longer than any queue waits, shorter than the pause between two scans.
  void settle() { advance(4); }
  void startUp() {
    start();
    started_ = scheduler.now();
    settle();
  }
  // To just after the next full scan and what it sets off.
  void scan() {
    advance(untilScan());
    settle();
  }
  double untilScan() const {
    const double pause = 40;
    return pause - std::fmod(scheduler.now() - started_, pause);
  }
  void add(const std::string& prefix, std::uint64_t via = overIpv4) { route(prefix, 1, via); }
  template <class Name>
  void addMany(Name name, int from, int to) {
    for (int i = from; i < to; ++i) add(name(i));
    settle();
  }
  void gone(const std::string& prefix) { routeGone(prefix, 1); }
  void thresholds(std::uint8_t low, std::uint8_t medium, std::uint8_t high) {
    const auto cli = entity<RouteCache::CliConfig>("routecache/cliconfig", "RouteCache::CliConfig");
    cli->lowThresholdHwUtilPercentageIs(low);
    cli->mediumThresholdHwUtilPercentageIs(medium);
    cli->highThresholdHwUtilPercentageIs(high);
  }
  std::shared_ptr<RouteCache::Config> config() const {
    return entity<RouteCache::Config>("routecache/config", "RouteCache::Config");
  }
  bool inTable(const std::string& prefix) const { return hardware().contains(inRed(prefix)); }
  bool inHw(const std::string& prefix) const { return hardware().at(inRed(prefix)); }
  int sliceOf(const std::string& prefix) {
    for (std::uint16_t slice = 0; slice < RouteCache::timeSliceInvalid; ++slice) {
      if (hwSm().hwHitbitColl(slice)->routeHas(keyOf(prefix))) return slice;
    }
    return RouteCache::timeSliceInvalid;
  }
  Platform::TaskStatistics task(const std::string& name) const {
    for (const auto& task : scheduler.statistics()) {
      if (task.name == name) return task;
    }
    return {};
  }
  // What ageing has counted as removed since the trace was cleared.
  std::multiset<std::string> agedPrefixes() const {
    std::multiset<std::string> prefixes;
    const std::string words = " ageing prefix: ";
    for (const auto& line : trace.lines()) {
      const auto at = line.text.find(words);
      if (at == std::string::npos) continue;
      const auto begin = at + words.size();
      prefixes.insert(line.text.substr(begin, line.text.find(' ', begin) - begin));
    }
    return prefixes;
  }

 private:
  double started_ = 0;
};

class HwRouteSmTest : public testing::TestWithParam<int> {};
INSTANTIATE_TEST_SUITE_P(Yields, HwRouteSmTest, testing::Values(0, 1),
                         [](const auto& p) { return p.param == 0 ? "Never" : "AfterEveryEntry"; });

// --- Admission -------------------------------------------------------------------------------------------------------

TEST_P(HwRouteSmTest, AdmissionDependsOnKindHitsLevelAndRoom) {
  enum Fate { admitted, unconfirmed, waits, waitsAsHit, turnedAway };  // unconfirmed: admitted with inHw false
  // Of 20 entries 17 are 85 %, the low level. `filled` of them are taken by others.
  const struct {
    const char* what;
    std::string prefix;
    std::uint64_t via;
    int hit;  // the SFE's hit-bit value; -1: no entry
    int filled;
    bool all;  // enableRouteCache
    Fate fate;
  } rows[] = {
      {"cacheable, below", cached(1), overIpv4, -1, 10, false, admitted},
      {"cacheable, reaches the level itself", cached(1), overIpv4, -1, 16, false, unconfirmed},
      {"cacheable, at the level", cached(1), overIpv4, -1, 17, false, turnedAway},
      {"cacheable, hit value 0 is no hit", cached(1), overIpv4, 0, 17, false, turnedAway},
      {"cacheable, hit, at the level", cached(1), overIpv4, 1, 17, false, unconfirmed},
      {"cacheable, hit, the last entry", cached(1), overIpv4, 255, 19, false, unconfirmed},
      {"cacheable, full", cached(1), overIpv4, -1, 20, false, turnedAway},
      {"cacheable, hit, full", cached(1), overIpv4, 7, 20, false, waitsAsHit},
      {"not under a cached prefix, at the level", plain(1), overIpv4, -1, 17, false, unconfirmed},
      {"not under a cached prefix, full", plain(1), overIpv4, -1, 20, false, waits},
      {"not under a cached prefix, hit, full", plain(1), overIpv4, 9, 20, false, waits},
      {"no host route, at the level", "10.1.0.0/31", overIpv4, -1, 17, false, unconfirmed},
      {"the cached prefix itself, full", "10.0.0.0/8", overIpv4, -1, 20, false, waits},
      {"IPv6 adjacency, at the level", cached(1), overIpv6, -1, 17, false, unconfirmed},
      {"mixed adjacency, full", cached(1), overBoth, -1, 20, false, waits},
      {"all cacheable: not under a cached prefix", plain(1), overIpv4, -1, 17, true, turnedAway},
      {"all cacheable: no host route", "10.1.0.0/31", overIpv4, -1, 17, true, turnedAway},
      {"all cacheable: IPv6 adjacency, hit", cached(1), overIpv6, 3, 19, true, unconfirmed},
      {"all cacheable: below", plain(1), overIpv4, -1, 15, true, admitted},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    CachingSwitch sw(GetParam(), 20);
    sw.startUp();
    sw.addMany(plain, 100, 100 + row.filled);
    sw.hwSm().enableRouteCacheIs(row.all);
    sw.settle();
    sw.sfeHit(row.prefix, red, row.hit);
    sw.add(row.prefix, row.via);
    sw.settle();
    const auto hardware = sw.hardware();
    const bool in = row.fate == admitted || row.fate == unconfirmed;
    ASSERT_EQ(hardware.size(), static_cast<std::size_t>(row.filled + (in ? 1 : 0)));
    if (in) {
      EXPECT_THAT(hardware, Contains(Pair(inRed(row.prefix), row.fate == admitted)));
    }
    EXPECT_EQ(sw.sliceOf(row.prefix), in ? 256 : 258);
    EXPECT_EQ(sw.hwSm().routeToProcessHas(keyOf(row.prefix)), row.fate == waits);
    if (row.fate != waits) {
      EXPECT_EQ(sw.hwSm().sfeRouteHitToProcessCount(), row.fate == waitsAsHit ? 1u : 0u);
    }
  }
}

TEST_P(HwRouteSmTest, ARouteThatWasTurnedAwayComesWithItsFirstHitAndIsConfirmedByHardwares) {
  CachingSwitch sw(GetParam(), 20);
  sw.startUp();
  sw.addMany(plain, 0, 17);
  sw.add(cached(1));
  sw.add(cached(2));
  sw.settle();
  EXPECT_EQ(sw.hwSm().routeToProcessCount(), 0u);
  sw.sfeHit(cached(1), red, 0);
  sw.settle();
  EXPECT_FALSE(sw.inTable(cached(1)));
  sw.sfeHit(cached(1), red, 3);
  sw.advance(0);
  EXPECT_THAT(sw.hardware(), Contains(Pair(inRed(cached(1)), false)));
  EXPECT_FALSE(sw.inTable(cached(2)));
  sw.hwHit(cached(1), red, 255);
  sw.scan();
  EXPECT_TRUE(sw.inHw(cached(1)));
  // Another next hop is written at once and asks for no room; whether hardware has it is open again.
  const auto adjId = sw.adjIdOf(cached(1), red);
  sw.add(cached(1), overIpv4Too);
  sw.settle();
  EXPECT_NE(sw.adjIdOf(cached(1), red), adjId);
  EXPECT_FALSE(sw.inHw(cached(1)));
  EXPECT_EQ(sw.sliceOf(cached(1)), 256);
  EXPECT_EQ(sw.hwSm().ipv4PrefixHwSpaceLeft(), 2u);
  // All are cacheable, and then not any more: the routes are decided again.
  sw.hwSm().enableRouteCacheIs(true);
  sw.add(plain(20));
  sw.settle();
  EXPECT_FALSE(sw.inTable(plain(20)));
  sw.hwSm().enableRouteCacheIs(false);
  sw.settle();
  EXPECT_TRUE(sw.inTable(plain(20)));
  // A shorter interval counts for the scan that waits.
  sw.hwSm().hwHitbitScanIntervalIs(1);
  sw.advance(1);
  EXPECT_TRUE(sw.inHw(cached(1)));
}

TEST(HwRouteSmThresholdTest, IdleTimesBecomeSlicesAndNonsenseIsRefusedAndChangesNothing) {
  CachingSwitch sw(0, 100);
  sw.startUp();
  const auto cli = sw.entity<RouteCache::CliConfig>("routecache/cliconfig", "RouteCache::CliConfig");
  const struct {
    const char* seconds;
    std::uint16_t slice;
  } rows[] = {{"0", 255}, {"19", 255}, {"20", 254}, {"100", 250}, {"300", 240}, {"1100", 200}, {"5100", 0}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.seconds);
    for (const char* level : {"low", "medium", "high"}) {
      LinuxPlatform::setField(cli, std::string(level) + "ThresholdIdleTime", row.seconds);
    }
    EXPECT_EQ(sw.hwSm().lowThresholdIdleTimeSlice(), row.slice);
    EXPECT_EQ(sw.hwSm().mediumThresholdIdleTimeSlice(), row.slice);
    EXPECT_EQ(sw.hwSm().highThresholdIdleTimeSlice(), row.slice);
  }
  const auto sm = sw.agent().hwRouteSm();
  const struct {
    std::shared_ptr<Lattis::Entity> entity;
    const char* field;
    const char* value;
  } refused[] = {{cli, "lowThresholdIdleTime", "5101"},
                 {cli, "highThresholdIdleTime", "65535"},
                 {cli, "lowThresholdHwUtilPercentage", "91"},
                 {cli, "highThresholdHwUtilPercentage", "101"},
                 {sm, "hwSpaceBuffer", "4294967196"},
                 {sm, "hwHitbitScanInterval", "-1"},
                 {sm, "routeProcessingInterval", "nan"},
                 {sm, "routeProcessingIntervalDefer", "0"},
                 {sm, "capacity", "7"},
                 {sw.config(), "cachingEnabled", "false"},
                 {sw.config(), "ipv4PrefixHwSpaceLeft", "7"}};
  for (const auto& row : refused) {
    SCOPED_TRACE(std::string(row.field) + " " + row.value);
    EXPECT_ANY_THROW(LinuxPlatform::setField(row.entity, row.field, row.value));
  }
  EXPECT_EQ(sm->lowThresholdIdleTimeSlice(), 0);
  EXPECT_EQ(sm->highThresholdIdleTimeSlice(), 0);
  EXPECT_EQ(sm->lowThresholdHwUtilPercentage(), 85);
  EXPECT_EQ(sm->highThresholdHwUtilPercentage(), 95);
  EXPECT_EQ(sw.config()->ipv4PrefixHwSpaceLeft(), 100u + 1024u);
  LinuxPlatform::setField(sm, "hwSpaceBuffer", "4294967195");
  EXPECT_EQ(sw.config()->ipv4PrefixHwSpaceLeft(), 4294967295u);
}

// --- The scan --------------------------------------------------------------------------------------------------------

TEST_P(HwRouteSmTest, TheScanFilesByWhatHardwareReportsAndConfirmsWhatItHit) {
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

TEST_P(HwRouteSmTest, AgeingPassesOverWhatIsQueuedUncacheableOrHitInSoftware) {
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

TEST_P(HwRouteSmTest, ARouteAdmittedWhileAgeingGoesOnIsNotMarkedToLeaveAtOnce) {
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
class KeptRouteTest : public HwRouteSmTest {
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
INSTANTIATE_TEST_SUITE_P(Yields, KeptRouteTest, testing::Values(0, 1),
                         [](const auto& p) { return p.param == 0 ? "Never" : "AfterEveryEntry"; });

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
class AgedRouteTest : public HwRouteSmTest {
 protected:
  AgedRouteTest() : sw(GetParam(), 20) {
    sw.thresholds(100, 100, 100);
    sw.startUp();
    sw.addMany(cached, 0, 10);
    for (int i = 0; i < 10; ++i) sw.hwHit(cached(i), red, i < 3 ? 5 : 250);
    sw.scan();
  }
  void age() {
    for (int i = 0; i < 3; ++i) sw.sfeHit(unknown(i), red, 1);
    sw.thresholds(50, 50, 50);
    sw.scan();
    for (int i = 0; i < 3; ++i) sw.sfeHit(unknown(i), red, -1);
    sw.settle();
  }

  CachingSwitch sw;
};
INSTANTIATE_TEST_SUITE_P(Yields, AgedRouteTest, testing::Values(0, 1),
                         [](const auto& p) { return p.param == 0 ? "Never" : "AfterEveryEntry"; });

TEST_P(AgedRouteTest, ComesBackForAReasonOnly) {
  const auto reconfigure = [this] {
    sw.gone(cached(0));
    sw.settle();
    sw.add(cached(0));
  };
  const auto noPrefixForAWhile = [this] {
    sw.cachedPrefix("10.1.0.0/16", "red");
    sw.cachedPrefixGone("10.0.0.0/8", "red");
    sw.settle();
    sw.cachedPrefixGone("10.1.0.0/16", "red");
  };
  const struct {
    const char* what;
    std::function<void()> happens;
    bool comesBack;
  } rows[] = {{"its SFE entry changes", [this] { sw.hwSm().handleSwRoute(keyOf(cached(0))); }, false},
              {"an SFE entry without a hit", [this] { sw.sfeHit(cached(0), red, 0); }, false},
              {"its VRF is looked after", [this] { sw.hwSm().scheduleSwRouteWalk(red); }, false},
              {"the letter", [this] { sw.hwSm().admitAgedUnhitIs(true), sw.hwSm().scheduleSwRouteWalk(red); }, true},
              {"a hit", [this] { sw.sfeHit(cached(0), red, 1); }, true},
              {"another next hop", [this] { sw.add(cached(0), overIpv4Too); }, true},
              {"withdrawn and configured again", reconfigure, true},
              {"not cacheable any more", noPrefixForAWhile, true}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    if (sw.inTable(cached(0))) {
      age();
      ASSERT_EQ(sw.hardware().size(), 7u);
    }
    row.happens();
    sw.settle();
    EXPECT_EQ(sw.inTable(cached(0)), row.comesBack);
    if (!row.comesBack) continue;
    // As it was at first, for the next row.
    sw.hwSm().admitAgedUnhitIs(false);
    sw.sfeHit(cached(0), red, -1);
    sw.cachedPrefix("10.0.0.0/8", "red");
    sw.thresholds(100, 100, 100);
    for (int i = 0; i < 3; ++i) sw.gone(cached(i));
    sw.settle();
    for (int i = 0; i < 3; ++i) sw.add(cached(i));
    sw.settle();
    sw.scan();
    ASSERT_EQ(sw.hardware().size(), 10u);
  }
}

TEST_P(AgedRouteTest, IsForgottenWhenAsManyOthersFollowAsThereArePlaces) {
  age();
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

// --- Queues ----------------------------------------------------------------------------------------------------------

TEST_P(HwRouteSmTest, WhoWasHitLastIsLetInFirst) {
  CachingSwitch sw(GetParam(), 20);
  sw.startUp();
  sw.addMany(plain, 0, 20);
  const int values[] = {1, 255, 30, 200, 30, 254};
  for (int i = 0; i < 6; ++i) sw.sfeHit(cached(i), red, values[i]);
  sw.addMany(cached, 0, 6);
  sw.sfeHit(cached(0), red, 240);  // hit again while it waits
  sw.sfeHit(cached(3), red, 2);    // idle
  sw.settle();
  std::vector<int> order;
  for (int i = 0; i < 6; ++i) {
    sw.gone(plain(i));
    sw.settle();
    for (int k = 0; k < 6; ++k) {
      if (sw.inTable(cached(k)) && std::ranges::count(order, k) == 0) order.push_back(k);
    }
  }
  EXPECT_THAT(order, ElementsAre(1, 5, 0, 2, 4, 3));
  // A restart that finds more room has them all in its walks, and lets nobody in before it has seen them.
  for (int i = 10; i < 30; ++i) sw.sfeHit(cached(i), red, 100 + i);
  sw.addMany(cached, 10, 30);
  ASSERT_EQ(sw.hwSm().sfeRouteHitToProcessCount(), 20u);
  sw.stop();
  sw.capability(24, 10000, 1000);
  sw.startUp();
  for (int i = 10; i < 30; ++i) EXPECT_EQ(sw.agent().ipv4HwRouteStatus()->has(keyOf(cached(i))), i >= 26) << i;
}

TEST_P(HwRouteSmTest, RoomWakesThoseThatWaitForItWhoeverMadeItThoseHitInSoftwareFirst) {
  CachingSwitch sw(GetParam(), 6);
  sw.config()->ageingKeepsRouteIs(true);
  sw.thresholds(100, 100, 100);
  sw.startUp();
  sw.addMany(cached, 0, 6);
  for (int i = 0; i < 6; ++i) sw.hwHit(cached(i), red, 10);
  sw.scan();
  sw.thresholds(0, 0, 0);
  sw.scan();
  sw.add(plain(0));
  sw.add(plain(1));
  for (int i = 10; i < 12; ++i) sw.sfeHit(cached(i), red, 1);
  sw.addMany(cached, 10, 12);
  sw.hwSm().routeProcessingIntervalDeferIs(1000);
  sw.settle();  // the queues have asked for their last run by the short interval
  const auto in = [&] {
    sw.advance(0.01);
    std::vector<std::string> others;
    for (const auto& route : sw.hardware()) {
      for (const auto& prefix : {plain(0), plain(1), cached(10), cached(11)}) {
        if (route.first == inRed(prefix)) others.push_back(prefix);
      }
    }
    return others;
  };
  ASSERT_THAT(in(), IsEmpty());
  sw.sfeProgrammed(cached(0), red, true);
  EXPECT_THAT(in(), ElementsAre(cached(10)));
  sw.config()->ageingKeepsRouteIs(false);  // five more go at once
  EXPECT_EQ(in().size(), 4u);
}

// --- Tries -----------------------------------------------------------------------------------------------------------

TEST_P(HwRouteSmTest, TriesThatComeAndGoDecideWhatIsCacheable) {
  CachingSwitch sw(GetParam(), 20);
  sw.startUp();
  const auto caching = [&] { return sw.config()->cachingEnabled(); };
  EXPECT_TRUE(caching());
  sw.addMany(plain, 0, 17);
  const auto tries = sw.agent().vrfCachedRoute();
  const auto turnedAway = [&](int i) {
    sw.add(cached(i));
    sw.settle();
    return !sw.inTable(cached(i));
  };
  EXPECT_TRUE(turnedAway(0));
  // A state machine that starts over tries that stand.
  sw.agent().hwRouteSmDel();
  sw.config()->cachingEnabledIs(false);
  sw.agent().hwRouteSmIs();
  EXPECT_TRUE(caching());
  sw.settle();
  EXPECT_FALSE(sw.inTable(cached(0)));
  // Under another type the FIB's route is not cached any more: the VRF's routes are decided again.
  sw.cachedPrefix("10.0.0.0/8", "red", 1);
  sw.settle();
  EXPECT_FALSE(caching());
  EXPECT_TRUE(sw.inTable(cached(0)));
  sw.cachedPrefix("10.0.0.0/8", "red");
  sw.settle();
  EXPECT_TRUE(caching());
  EXPECT_TRUE(turnedAway(1));
  // Another trie in its place: it decides, and it is heard; the old one is not.
  const auto old = tries->vrfTrie(red);
  const auto other = std::make_shared<Routing::Trie>();
  tries->vrfTrieIs(red, other);
  sw.settle();
  EXPECT_FALSE(caching());
  EXPECT_TRUE(sw.inTable(cached(1)));
  other->routeIs(Platform::fromText<Prefix>("10.0.0.0/8"), true);
  EXPECT_TRUE(caching());
  old->trieDelete();
  EXPECT_TRUE(caching());
  EXPECT_TRUE(turnedAway(2));
  // Another VRF's trie keeps caching on, when this one's goes.
  sw.vrf("blue", 2, blue);
  sw.cachedPrefix("40.0.0.0/8", "blue");
  sw.settle();
  tries->vrfTrieDel(red);
  sw.settle();
  EXPECT_TRUE(caching());
  EXPECT_TRUE(sw.inTable(cached(2)));
  sw.vrfGone("blue");
  EXPECT_FALSE(caching());
}

TEST_P(HwRouteSmTest, ManyPrefixesThatGoAreOneWalkOfTheirVrf) {
  CachingSwitch sw(GetParam(), 1000);
  sw.checkEveryRunIs(false);
  sw.vrf("blue", 2, blue);
  for (int i = 0; i < 250; ++i) sw.cachedPrefix("10.1." + std::to_string(i) + ".0/24", "red");
  sw.cachedPrefixGone("10.0.0.0/8", "red");
  sw.startUp();
  sw.addMany(cached, 0, 300);
  for (int i = 0; i < 100; ++i) sw.route(plain(i), 2, overIpv4);
  sw.settle();
  const auto before = sw.task("hwRouteProcessingTask").workDone;
  for (int i = 0; i < 250; ++i) sw.cachedPrefixGone("10.1." + std::to_string(i) + ".0/24", "red");
  sw.settle();
  EXPECT_LE(sw.task("hwRouteProcessingTask").workDone - before, 2u * 400u + 2u);
  EXPECT_FALSE(sw.config()->cachingEnabled());
  sw.agent().checkInvariants();
}

// --- Restart ---------------------------------------------------------------------------------------------------------

TEST_P(HwRouteSmTest, ARestartLosesNoHardwareRouteAndDropsWhatIsStale) {
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

TEST_P(HwRouteSmTest, HardwareCachingMayBeTurnedOnAndOffBetweenTwoLives) {
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

// --- Walks, restarts and slow neighbours -----------------------------------------------------------------------------

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

TEST_P(HwRouteSmTest, ARestartKnowsTheCachedPrefixesBeforeItDecides) {
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

TEST_P(HwRouteSmTest, NobodyDecidesOnHalfOfWhatTurningCachingOnTakesOverAndNothingWithdrawnComesBack) {
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
  EXPECT_GE(sw.task("sfeFillTask").runs, GetParam() == 0 ? 1u : 35u);
  sw.advance(30);
  sw.outside->pendingChanges();
  sw.outside->deliverChanges([] { return false; });
  EXPECT_EQ(sw.hardware().size(), 29u);
  EXPECT_EQ(sw.hwSm().admissions(), 0u);
  EXPECT_TRUE(changed.contains(Platform::toText(keyOf(cached(28)))));
  for (int i = 30; i < 40; ++i) EXPECT_FALSE(changed.contains(Platform::toText(keyOf(cached(i))))) << cached(i);
}

TEST_P(HwRouteSmTest, ARestartDoesNotTakeWhatTheSfeHasProgrammedForReleased) {
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

TEST_P(HwRouteSmTest, ASlowSfeDoesNotMakeAgeingReleaseMoreAndMore) {
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
