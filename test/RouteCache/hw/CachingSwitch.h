// The stage for stories of hardware routes: the whole agent on real tables and virtual time, with hardware caching on.
#pragma once

#include <gtest/gtest.h>

#include <cmath>
#include <set>
#include <string>

#include "test/support/SimulatedSwitch.h"

constexpr std::uint32_t red = 101;
constexpr std::uint32_t blue = 102;
constexpr std::uint64_t overIpv4 = 1, overIpv6 = 2, overBoth = 3, overIpv4Too = 4;  // vias

// Host routes: under the cached prefix, elsewhere (not cacheable), and never configured.
inline std::string cached(int i) {
  return "10.1." + std::to_string(i / 250) + "." + std::to_string(i % 250) + "/32";
}
inline std::string plain(int i) {
  return "20.1." + std::to_string(i / 250) + "." + std::to_string(i % 250) + "/32";
}
inline std::string unknown(int i) {
  return "30.1.0." + std::to_string(i) + "/32";
}

inline RouteCache::HwRouteSm::Key keyOf(const std::string& prefix, std::uint32_t vrf = red) {
  return {Platform::fromText<Prefix>(prefix), vrf};
}
inline std::string inRed(const std::string& prefix) {
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
    const auto cli = levels();
    cli->lowThresholdHwUtilPercentageIs(low);
    cli->mediumThresholdHwUtilPercentageIs(medium);
    cli->highThresholdHwUtilPercentageIs(high);
  }
  std::shared_ptr<RouteCache::CliConfig> levels() const {
    return entity<RouteCache::CliConfig>("routecache/cliconfig", "RouteCache::CliConfig");
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

// A story is told twice: with tasks that never yield, and with tasks that yield after every entry. The invariants are
// checked after every task run.
class HwRouteStory : public testing::TestWithParam<int> {};
inline const auto howTasksYield = testing::Values(0, 1);
inline std::string yieldName(const testing::TestParamInfo<int>& yieldAfter) {
  return yieldAfter.param == 0 ? "Never" : "AfterEveryEntry";
}
