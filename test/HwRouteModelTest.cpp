// Random sequences of everything that can happen to hardware routes. The invariants are checked after every task run;
// whenever things have settled, nothing that belongs in hardware may be missing there while there is room.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "test/support/SimulatedSwitch.h"

namespace {

using RouteCache::AdjId;
using RouteCache::Ipv4Route;
using RouteCache::Ipv4RouteVrfKey;

class RandomHardware {
 public:
  explicit RandomHardware(unsigned seed) : random_(seed), yieldAfter_(pick(4)) {
    sw.scheduler.yieldAfterEntriesIs(yieldAfter_);
    sw.hwRouteCaching(true);
    sw.capability(8 + pick(24), 200, 200);
    for (std::uint32_t vrf = 0; vrf < vrfs.size(); ++vrf) sw.vrf(vrfs[vrf], vrf + 1, hwVrfId(vrf));
    sw.vti("Vxlan1", "192.0.2.1", "2001:db8::1");
    sw.underlay("10.255.0.0/16", 5);
    for (std::uint64_t key = 1; key <= 3; ++key) sw.via(key, {sw.nexthop("10.255.0." + std::to_string(key))});
    sw.via(4, {sw.nexthop("2001:db8:ff::1")});  // an IPv4 route over it is never cacheable
    sw.start();
  }

  void step() {
    switch (pick(20)) {
      case 0:
        return restart();
      case 1:
        return vrf();
      case 2:
      case 3:
        return cachedPrefix();
      case 4:
      case 5:
      case 6:
        return hits();
      case 7:
        return programmed();
      case 8:
        return settings();
      case 9:
        return sw.advance(40);
      case 10:
      case 11:
      case 12:
        return sw.advance(static_cast<double>(pick(5)) * 0.8);
      default:
        return route();
    }
  }

  // Past the walks over routes whose VRF has gone and past every deferred queue run, those of a scan just now included.
  void settle() {
    sw.scheduler.yieldAfterEntriesIs(0);
    sw.advance(30);
    for (int i = 0; i < 5 && hasFresh(); ++i) sw.advance(1);
    sw.scheduler.yieldAfterEntriesIs(yieldAfter_);
  }

  void check() const {
    const auto& sm = *sw.agent().hwRouteSm();
    const auto& sfe = *sw.agent().ipv4SfeRouteStatus();
    const auto& hw = *sw.agent().ipv4HwRouteStatus();
    for (const Ipv4Route& route : hw) {
      const auto published = sfe.route(route.key());
      ASSERT_TRUE(published && published->adjId() == route.adjId()) << route.key().shortText();
      ASSERT_EQ(published->inHw(), route.inHw()) << route.key().shortText();
    }
    for (const Ipv4Route& route : sfe) {
      const bool belongs = !sm.isRouteCacheable(route.key()) || sfeHits_.contains(route.key());
      if (belongs && sm.ipv4PrefixHwSpaceLeft() > 0) {
        ASSERT_TRUE(hw.has(route.key())) << route.key().shortText();
      }
    }
    bool cached = false;
    for (const auto& entry : sw.agent().vrfCachedRoute()->vrfTries()) cached = cached || !entry.second->empty();
    ASSERT_EQ(sw.agent().routeCacheConfig()->cachingEnabled(), cached);
    ASSERT_FALSE(hasFresh());
  }

  mutable SimulatedSwitch sw;

 private:
  static std::uint32_t hwVrfId(std::uint32_t vrf) { return vrf == 0 ? 0 : 100 + vrf; }
  std::uint32_t pick(std::uint32_t count) { return static_cast<std::uint32_t>(random_() % count); }
  bool hasFresh() const {
    const auto& sm = *sw.agent().hwRouteSm();
    return sm.routeToProcess().hasFresh() || sm.sfeRouteHitToProcess().hasFresh();
  }
  std::string prefix() {
    const std::string network = "10." + std::to_string(pick(3)) + ".0.";
    return pick(5) == 0 ? network + "0/24" : network + std::to_string(1 + pick(12)) + "/32";
  }
  Ipv4RouteVrfKey keyOf(const std::string& text, std::uint32_t vrf) const {
    return {Platform::fromText<Prefix>(text), hwVrfId(vrf)};
  }

  void route() {
    const std::uint32_t vrf = pick(2);
    if (pick(3) == 0) {
      sw.routeGone(prefix(), vrf + 1);
    } else {
      sw.route(prefix(), vrf + 1, 1 + pick(4));
    }
  }

  void vrf() {
    const std::uint32_t vrf = pick(2);
    if (pick(2) == 0) {
      sw.vrfGone(vrfs[vrf]);
    } else {
      sw.vrf(vrfs[vrf], vrf + 1, hwVrfId(vrf));
    }
  }

  void cachedPrefix() {
    const std::string network = "10." + std::to_string(pick(3)) + ".0.0/16";
    if (pick(2) == 0) {
      sw.cachedPrefix(network, vrfs[pick(2)], pick(5) == 0 ? 1 : 40);
    } else {
      sw.cachedPrefixGone(network, vrfs[pick(2)]);
    }
  }

  // Mostly as forwarding planes behave; now and then they lag behind.
  void hits() {
    const std::uint32_t vrf = pick(2);
    const std::string text = prefix();
    const Ipv4RouteVrfKey key = keyOf(text, vrf);
    if (pick(2) == 0) {
      sw.hwHit(text, key.vrfId(), static_cast<int>(pick(5)) * 75 - 1);  // none, 74, 149, 224, 299
      return;
    }
    const int value = pick(2) == 0 ? -1 : static_cast<int>(pick(3)) * 120;
    sw.sfeHit(text, key.vrfId(), value);
    if (value > 0) {
      sfeHits_.insert(key);
    } else {
      sfeHits_.erase(key);
    }
  }

  void programmed() {
    const std::uint32_t vrf = pick(2);
    const std::string text = prefix();
    const auto published =
        isReady() ? sw.agent().ipv4SfeRouteStatus()->route(keyOf(text, vrf)) : std::optional<Ipv4Route>();
    const bool expected = published && !published->inHw();
    sw.sfeProgrammed(text, hwVrfId(vrf), pick(4) == 0 ? !expected : expected);
  }

  // An agent that was just made has not mounted anything yet.
  bool isReady() const { return sw.running() && sw.agent().hwRouteSm() != nullptr; }

  void settings() {
    if (!isReady()) return;
    const auto levels = sw.entity<RouteCache::CliConfig>("routecache/cliconfig", "RouteCache::CliConfig");
    switch (pick(4)) {
      case 0:
        levels->lowThresholdHwUtilPercentageIs(static_cast<std::uint8_t>(30 + pick(56)));
        return levels->lowThresholdIdleTimeIs(static_cast<std::uint16_t>(pick(5101)));
      case 1:
        return sw.agent().routeCacheConfig()->ageingKeepsRouteIs(pick(2) == 0);
      case 2:
        return sw.hwSm().hwSpaceBufferIs(pick(5000));
      default:
        return sw.hwSm().enableRouteCacheIs(pick(4) == 0);
    }
  }

  void restart() {
    sw.stop();
    if (pick(3) == 0) sw.capability(8 + pick(24), 200, 200);
    sw.start();
    if (pick(2) == 0) sw.advance(0);
  }

  const std::vector<std::string> vrfs{"default", "red"};
  std::mt19937 random_;
  const unsigned yieldAfter_;
  std::set<Ipv4RouteVrfKey> sfeHits_;
};

class HwRouteModelTest : public testing::TestWithParam<unsigned> {};

TEST_P(HwRouteModelTest, WhatBelongsInHardwareIsThereWhileThereIsRoom) {
  RandomHardware hardware(GetParam());
  for (int i = 0; i < 1000; ++i) {
    if (!hardware.sw.running()) hardware.sw.start();
    hardware.step();
    if (i % 25 != 0) continue;
    hardware.settle();
    ASSERT_NO_FATAL_FAILURE(hardware.check()) << "after step " << i;
  }
}

INSTANTIATE_TEST_SUITE_P(Seeds, HwRouteModelTest, testing::Range(1u, 5u));

}  // namespace
