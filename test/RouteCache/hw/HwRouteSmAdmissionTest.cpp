// Stories of hardware routes: who is let in, in which order, and what the operator and the FIB change about it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "lib/statedb/EntityFields.h"
#include "platform/tables/Trie.h"
#include "test/RouteCache/hw/CachingSwitch.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::IsSupersetOf;
using testing::Pair;

using HwAdmissionTest = HwRouteStory;
INSTANTIATE_TEST_SUITE_P(Yields, HwAdmissionTest, howTasksYield, yieldName);

TEST_P(HwAdmissionTest, AdmissionDependsOnKindHitsLevelAndRoom) {
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

TEST_P(HwAdmissionTest, ARouteThatWasTurnedAwayComesWithItsFirstHitAndIsConfirmedByHardwares) {
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
  const auto cli = sw.levels();
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

// Finds no place scarce, takes out one route a scan, the idlest, however hot it is, and never lets it in again.
class OddPolicy final : public RouteCache::CachePolicy {
 public:
  explicit OddPolicy(const RouteCache::CacheState&) {}
  bool isScarce() const override { return false; }
  bool admits(const RouteCache::Ipv4Route& route, std::uint32_t) const override { return !out_.contains(route.key()); }
  std::optional<RouteCache::AgeingPlan> ageingPlan(std::uint32_t) override { return RouteCache::AgeingPlan{1, 255}; }
  void handleLeftOut(const RouteCache::Ipv4Route&, std::uint32_t) override {}
  void handleAged(const RouteCache::Ipv4Route& route) override { out_.insert(route.key()); }
  void forget(const Key&) override {}
  void forgetAll() override {}
  void checkInvariants(const RouteCache::Ipv4RouteStatus&) const override {}

 private:
  std::set<Key> out_;
};

TEST_P(HwAdmissionTest, AnotherPolicyDecidesFromNowOn) {
  using RouteCache::CachePolicy, RouteCache::CacheState;
  CachingSwitch sw(GetParam(), 20);
  sw.startUp();
  sw.addMany(plain, 0, 17);
  sw.addMany(cached, 1, 4);
  ASSERT_EQ(sw.hardware().size(), 17u) << "the low level";
  EXPECT_ANY_THROW(LinuxPlatform::setField(sw.agent().hwRouteSm(), "policy", "odd")) << "it has no name";
  EXPECT_EQ(sw.hwSm().policy(), "levels");
  sw.hwSm().policyKindIs({"odd", [](const CacheState& state) -> std::unique_ptr<CachePolicy> {
                            return std::make_unique<OddPolicy>(state);
                          }});
  sw.settle();
  EXPECT_THAT(sw.hardware(), IsSupersetOf({Pair(inRed(cached(1)), true), Pair(inRed(cached(3)), true)}));
  for (int i = 1; i < 4; ++i) sw.hwHit(cached(i), red, 255 - i);
  sw.scan();
  sw.sfeHit(cached(3), red, 255);
  sw.settle();
  EXPECT_FALSE(sw.inTable(cached(3))) << "there is room, and it is hit";
  EXPECT_EQ(sw.hardware().size(), 19u);
  LinuxPlatform::setField(sw.agent().hwRouteSm(), "policy", "levels");
  sw.settle();
  EXPECT_TRUE(sw.inTable(cached(3)));
}

// --- Queues ----------------------------------------------------------------------------------------------------------

TEST_P(HwAdmissionTest, WhoWasHitLastIsLetInFirst) {
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

TEST_P(HwAdmissionTest, RoomWakesThoseThatWaitForItWhoeverMadeItThoseHitInSoftwareFirst) {
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

TEST_P(HwAdmissionTest, TriesThatComeAndGoDecideWhatIsCacheable) {
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

TEST_P(HwAdmissionTest, ManyPrefixesThatGoAreOneWalkOfTheirVrf) {
  CachingSwitch sw(GetParam(), 1000);
  sw.checkEveryRunIs(false);
  sw.vrf("blue", 2, blue);
  for (int i = 0; i < 250; ++i) sw.cachedPrefix("10.1." + std::to_string(i) + ".0/24", "red");
  sw.cachedPrefixGone("10.0.0.0/8", "red");
  sw.startUp();
  sw.addMany(cached, 0, 300);
  for (int i = 0; i < 100; ++i) sw.route(plain(i), 2, overIpv4);
  sw.settle();
  const auto before = sw.workDone("hwRouteProcessingTask");
  for (int i = 0; i < 250; ++i) sw.cachedPrefixGone("10.1." + std::to_string(i) + ".0/24", "red");
  sw.settle();
  EXPECT_LE(sw.workDone("hwRouteProcessingTask") - before, 2u * 400u + 2u);
  EXPECT_FALSE(sw.config()->cachingEnabled());
  sw.agent().checkInvariants();
}

}  // namespace
