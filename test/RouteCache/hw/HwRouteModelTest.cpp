// Random sequences of everything that can happen to hardware routes, against a model that knows what is configured,
// what others report, and what it has seen hardware routes do; not what the agent makes of it.
//
//   - After every task run: the invariants, and whoever has just been let in had a reason.
//   - Whenever things have settled: nothing stands in hardware that is not published, and nothing that belongs there is
//     missing while there is room.
//   - After an undisturbed scan: as many idle routes have gone as the levels call for, the idlest ones, and no others.
//
// The hardware's table has 8 to 31 places for up to 78 routes, the SFE's at times fewer places than there are routes;
// nor is there always an adjacency, or an identifier, for each of the four next hops.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <set>

#include "test/support/SimulatedSwitch.h"

namespace {

using RouteCache::AdjId;
using RouteCache::Ipv4Route;
using RouteCache::Ipv4RouteVrfKey;

class RandomHardware {
 public:
  explicit RandomHardware(unsigned seed) : random_(seed), yieldAfter_(pick(4)) {
    sw.scheduler.yieldAfterEntriesIs(yieldAfter_);
    sw.scheduler.afterRunIs([this] {
      observe();
      sw.afterRun();
    });
    sw.hwRouteCaching(true);
    sizes();
    for (std::uint32_t vrf = 0; vrf < vrfs.size(); ++vrf) setVrf(vrf, true);
    sw.vti("Vxlan1", "192.0.2.1", "2001:db8::1");
    sw.underlay("10.255.0.0/16", 5);
    for (std::uint64_t key = 1; key < overIpv6; ++key) sw.via(key, {sw.nexthop("10.255.0." + std::to_string(key))});
    sw.via(overIpv6, {sw.nexthop("2001:db8:ff::1")});  // an IPv4 route over it is never cacheable
    sw.start();
  }

  void step() {
    switch (pick(20)) {
      case 0:
        return restart();
      case 1:
        return setVrf(pick(2), pick(2) == 0);
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
    prefixesKnown_ = true;
  }

  void check() {
    const auto& sm = *sw.agent().hwRouteSm();
    const auto& sfe = *sw.agent().ipv4SfeRouteStatus();
    const auto& hw = *sw.agent().ipv4HwRouteStatus();
    for (const Ipv4Route& route : hw) {
      const auto published = sfe.route(route.key());
      ASSERT_TRUE(published && published->adjId() == route.adjId()) << route.key().shortText();
      ASSERT_EQ(published->inHw(), route.inHw()) << route.key().shortText();
      ASSERT_TRUE(stands(route.adjId())) << route.key().shortText();
    }
    std::size_t published = 0;
    for (const auto& [key, via] : routes_) {
      if (!vrfUp_[key.vrfId()]) continue;
      ++published;
      const auto route = sfe.route(key);
      if (!route) continue;
      ASSERT_EQ((route->adjId().value() & AdjId::adjacencyV6Const) != 0, via == overIpv6) << key.shortText();
      ASSERT_EQ(sm.isRouteCacheable(key), isCacheable(*route)) << key.shortText();
      withoutAdjacency_ += stands(route->adjId()) ? 0 : 1;
      if (!stands(route->adjId())) continue;
      if ((!isCacheable(*route) || isHit(key)) && hw.size() < capacity_) {
        ASSERT_TRUE(hw.has(key)) << key.shortText();
      }
    }
    if (sfe.size() <= sfe.capacity()) {  // more may have stood there at the start
      ASSERT_EQ(sfe.size(), std::min<std::size_t>(published, sfe.capacity()));
    }
    full_ += hw.size() >= capacity_ ? 1 : 0;
    sfeFull_ += sfe.size() == sfe.capacity() ? 1 : 0;
    const bool cached =
        std::ranges::any_of(cached_, [this](const Ipv4RouteVrfKey& key) { return vrfUp_[key.vrfId()]; });
    ASSERT_EQ(sw.agent().routeCacheConfig()->cachingEnabled(), cached);
    ASSERT_FALSE(hasFresh());
  }

  // One scan that nobody disturbs, from a settled state.
  void checkScan() {
    if (pick(2) == 0) beIdle();
    const Idle idle = idleRoutes();
    const std::uint32_t toGo = routesToGo();
    // One that the scan has to confirm first may be queued for it when its turn to go comes.
    const bool allConfirmed = std::ranges::all_of(idle, [&](const auto& route) { return hw_.at(route.second).inHw; });
    gone_.clear();
    sw.advance(40);
    // What hardware does not report may go as a new addition that nobody hit.
    std::erase_if(gone_, [this](const Ipv4RouteVrfKey& key) { return !hwHits_.contains(key) && !isHit(key); });
    for (const auto& key : gone_) ASSERT_TRUE(contains(idle, key)) << key.shortText() << " went, which was not idle";
    if (allConfirmed) checkIdlest(idle, gone_, toGo);
    scans_ += gone_.empty() ? 0 : 1;
  }

  // How often a settled check found a full table; checked scans that took something out.
  int full() const { return full_; }
  int sfeFull() const { return sfeFull_; }
  int withoutAdjacency() const { return withoutAdjacency_; }
  int scans() const { return scans_; }

  mutable SimulatedSwitch sw;

 private:
  static constexpr std::uint64_t overIpv6 = 4;
  // A route of the hardware table when it was last looked at.
  struct HwRoute {
    AdjId adjId;
    bool inHw = false;
    bool operator==(const HwRoute&) const = default;
  };
  // A route that ageing has taken out, the how manieth it was.
  struct Aged {
    AdjId adjId;
    std::uint64_t number = 0;
  };
  // By the hit-bit value that hardware reports.
  using Idle = std::set<std::pair<std::uint32_t, Ipv4RouteVrfKey>>;

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

  // --- What the model thinks ---

  bool stands(AdjId adjId) const {
    const auto& agent = sw.agent();
    return (adjId.value() & AdjId::adjacencyIdMask) != 0 &&
           (adjId.isAdjacencyV6() ? agent.ipv6AdjStatus()->has(adjId) : agent.ipv4AdjStatus()->has(adjId));
  }
  bool isHit(const Ipv4RouteVrfKey& key) const {
    const auto hit = sfeHits_.find(key);
    return hit != sfeHits_.end() && hit->second > 0;
  }
  bool isCacheable(const Ipv4Route& route) const {
    const auto& key = route.key();
    const bool overV6 = (route.adjId().value() & AdjId::adjacencyV6Const) != 0;
    const bool covered = std::ranges::any_of(cached_, [&](const Ipv4RouteVrfKey& cover) {
      return cover.vrfId() == key.vrfId() && cover.prefix().covers(key.prefix());
    });
    return allCacheable_ || (key.prefix().isHost() && !overV6 && covered);
  }
  std::uint32_t percentOf(std::size_t entries) const {
    return static_cast<std::uint32_t>(std::min<std::size_t>(entries, capacity_) * 100 / capacity_);
  }
  const RouteCache::CliConfig& levels() const { return *sw.agent().routeCacheCliConfig(); }

  // What the next ageing run may take, if there is reason to.
  Idle idleRoutes() const {
    const std::uint32_t percent = percentOf(hw_.size());
    std::uint32_t idleTime = levels().lowThresholdIdleTime();
    if (!sfeHits_.empty() && percent >= levels().highThresholdHwUtilPercentage()) {
      idleTime = levels().highThresholdIdleTime();
    } else if (!sfeHits_.empty() && percent >= levels().mediumThresholdHwUtilPercentage()) {
      idleTime = levels().mediumThresholdIdleTime();
    }
    Idle idle;
    if (percent < levels().lowThresholdHwUtilPercentage()) return idle;
    for (const auto& [key, route] : hw_) {
      const auto value = hwHits_.find(key);
      if (value == hwHits_.end() || value->second > 255 - idleTime / 20 || isHit(key) || released_.contains(key))
        continue;
      if (isCacheable({key, route.adjId, route.inHw})) idle.insert({value->second, key});
    }
    return idle;
  }
  std::uint32_t routesToGo() const {
    const std::uint32_t percent = percentOf(hw_.size());
    if (percent < levels().lowThresholdHwUtilPercentage()) return 0;
    const std::uint32_t excess = (percent - levels().lowThresholdHwUtilPercentage()) * capacity_ / 100;
    const auto toGo = std::max(excess, static_cast<std::uint32_t>(sfeHits_.size()));
    return toGo - std::min(toGo, static_cast<std::uint32_t>(released_.size()));
  }
  static bool contains(const Idle& idle, const Ipv4RouteVrfKey& key) {
    return std::ranges::any_of(idle, [&](const auto& entry) { return entry.second == key; });
  }
  static void checkIdlest(const Idle& idle, const std::set<Ipv4RouteVrfKey>& went, std::uint32_t toGo) {
    ASSERT_EQ(went.size(), std::min<std::size_t>(toGo, idle.size()));
    std::uint32_t left = 256;  // the least idle time among those that stayed, as a value
    for (const auto& [value, key] : idle) {
      if (!went.contains(key)) left = std::min(left, value);
    }
    for (const auto& [value, key] : idle) ASSERT_TRUE(!went.contains(key) || value <= left) << key.shortText();
  }

  // --- What it sees ---

  // The hardware table after a task run: who came, and had to have a reason; who was taken out, or is kept to go.
  void observe() {
    if (!isReady() || !sw.hwSm().initialized()) return;
    const auto& sfe = *sw.agent().ipv4SfeRouteStatus();
    std::map<Ipv4RouteVrfKey, HwRoute> now;
    for (const Ipv4Route& route : *sw.agent().ipv4HwRouteStatus()) now[route.key()] = {route.adjId(), route.inHw()};
    std::size_t left = 0;
    for (const auto& [key, route] : hw_) {
      const auto found = now.find(key);
      if (found == now.end()) {
        ++left;
        const auto published = sfe.route(key);
        if (published && stands(published->adjId())) {
          leave(key, route);
        } else {
          released_.erase(key);
        }
      } else if (route.inHw && !found->second.inHw && route.adjId == found->second.adjId) {
        gone_.insert(key);
        released_.insert(key);
      } else if (route != found->second) {
        released_.erase(key);
      }
    }
    std::size_t unasked = 0;
    for (const auto& [key, route] : now) {
      if (hw_.contains(key)) continue;
      if (prefixesKnown_ && isCacheable({key, route.adjId, route.inHw}) && !isHit(key)) {
        ++unasked;
        EXPECT_FALSE(isRemembered(key, route.adjId)) << key.shortText() << " is back, without a hit";
      }
      aged_.erase(key);
    }
    if (unasked > 0) {
      EXPECT_LT(percentOf(hw_.size() - left + unasked - 1), levels().lowThresholdHwUtilPercentage());
    }
    for (auto route = aged_.begin(); route != aged_.end();) {
      const auto published = sfe.route(route->first);
      const bool stays = published && published->adjId() == route->second.adjId && !isHit(route->first);
      route = stays ? std::next(route) : aged_.erase(route);
    }
    hw_ = std::move(now);
  }
  void leave(const Ipv4RouteVrfKey& key, const HwRoute& route) {
    if (released_.erase(key) == 0) gone_.insert(key);
    aged_[key] = {route.adjId, ++agedCount_};
  }
  // As many as there are places follow before it is forgotten.
  bool isRemembered(const Ipv4RouteVrfKey& key, AdjId adjId) const {
    const auto aged = aged_.find(key);
    return !sw.hwSm().admitAgedUnhit() && aged != aged_.end() && aged->second.adjId == adjId &&
           agedCount_ - aged->second.number < capacity_;
  }
  // What is cacheable changes, and the agent hears of it when it may.
  void prefixesChange() {
    prefixesKnown_ = false;
    aged_.clear();
  }

  // --- What happens ---

  void sizes() {
    capacity_ = 8 + pick(24);
    sw.capability(capacity_, pick(3) == 0 ? 20 + pick(30) : 200, pick(3) == 0 ? 2 : 200);
    sw.identifiers(pick(3) == 0 ? 3 : 0);
  }

  void route() {
    const std::uint32_t vrf = pick(2);
    const std::string text = prefix();
    if (pick(3) == 0) {
      sw.routeGone(text, vrf + 1);
      routes_.erase(keyOf(text, vrf));
    } else {
      const std::uint64_t via = 1 + pick(4);
      sw.route(text, vrf + 1, via);
      routes_[keyOf(text, vrf)] = via;
    }
  }

  void setVrf(std::uint32_t vrf, bool up) {
    up ? sw.vrf(vrfs[vrf], vrf + 1, hwVrfId(vrf)) : sw.vrfGone(vrfs[vrf]);
    vrfUp_[hwVrfId(vrf)] = up;
    prefixesChange();
  }

  void cachedPrefix() {
    const std::string network = "10." + std::to_string(pick(3)) + ".0.0/16";
    const std::uint32_t vrf = pick(2);
    const bool isCached = pick(3) != 0;
    if (isCached || pick(3) == 0) {
      sw.cachedPrefix(network, vrfs[vrf], isCached ? 40 : 1);
    } else {
      sw.cachedPrefixGone(network, vrfs[vrf]);
    }
    if (isCached) {
      cached_.insert(keyOf(network, vrf));
    } else {
      cached_.erase(keyOf(network, vrf));
    }
    prefixesChange();
  }

  // Mostly as forwarding planes behave; now and then they lag behind.
  void hits() {
    const std::uint32_t vrf = pick(2);
    const std::string text = prefix();
    const Ipv4RouteVrfKey key = keyOf(text, vrf);
    const bool inHardware = pick(2) == 0;
    auto& hits = inHardware ? hwHits_ : sfeHits_;
    // None, 74, 149, 224 and 299, or none, 0, 120 and 240.
    const int value = inHardware     ? static_cast<int>(pick(5)) * 75 - 1
                      : pick(2) == 0 ? -1
                                     : static_cast<int>(pick(3)) * 120;
    if (inHardware) {
      sw.hwHit(text, key.vrfId(), value);
    } else {
      sw.sfeHit(text, key.vrfId(), value);
    }
    if (value < 0) {
      hits.erase(key);
    } else {
      hits[key] = std::min(static_cast<std::uint32_t>(value), 255u);
    }
    if (!inHardware && value > 0) aged_.erase(key);
  }

  // Hardware reports most of what it holds, each route as idle as it happens to be, and has confirmed it; none has to
  // go for that yet.
  void beIdle() {
    const auto cli = sw.entity<RouteCache::CliConfig>("routecache/cliconfig", "RouteCache::CliConfig");
    const std::uint8_t low = cli->lowThresholdHwUtilPercentage();
    cli->lowThresholdHwUtilPercentageIs(101);
    const auto standing = hw_;
    for (const auto& [key, route] : standing) {
      if (pick(4) == 0) continue;
      hwHits_[key] = pick(256);
      sw.hwHit(Platform::toText(key.prefix()), key.vrfId(), static_cast<int>(hwHits_[key]));
    }
    sw.advance(40);
    settle();
    cli->lowThresholdHwUtilPercentageIs(low);
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
    const auto cli = sw.entity<RouteCache::CliConfig>("routecache/cliconfig", "RouteCache::CliConfig");
    switch (pick(6)) {
      case 0:
        cli->lowThresholdHwUtilPercentageIs(static_cast<std::uint8_t>(30 + pick(56)));
        return cli->lowThresholdIdleTimeIs(static_cast<std::uint16_t>(pick(5101)));
      case 1:
        cli->highThresholdIdleTimeIs(static_cast<std::uint16_t>(pick(1000)));
        return cli->mediumThresholdIdleTimeIs(static_cast<std::uint16_t>(pick(3000)));
      case 2:
        return keepRoutes(pick(2) == 0);
      case 3:
        return sw.hwSm().hwSpaceBufferIs(pick(5000));
      case 4:
        aged_.clear();
        return sw.hwSm().admitAgedUnhitIs(pick(3) == 0);
      default:
        allCacheable_ = pick(4) == 0;
        prefixesChange();
        return sw.hwSm().enableRouteCacheIs(allCacheable_);
    }
  }

  void keepRoutes(bool keep) {
    sw.agent().routeCacheConfig()->ageingKeepsRouteIs(keep);
    if (keep) return;
    sw.advance(0.1);  // what was kept goes, or is as any other
    released_.clear();
  }

  void restart() {
    sw.stop();
    if (pick(3) == 0) sizes();
    released_.clear();
    allCacheable_ = false;
    prefixesChange();
    sw.start();
    if (pick(2) == 0) sw.advance(0);
  }

  const std::vector<std::string> vrfs{"default", "red"};
  std::mt19937 random_;
  const unsigned yieldAfter_;
  std::uint32_t capacity_ = 0;

  // What is configured, and what others report.
  std::map<Ipv4RouteVrfKey, std::uint64_t> routes_;  // and their vias
  std::map<std::uint32_t, bool> vrfUp_;              // by hardware id
  std::set<Ipv4RouteVrfKey> cached_;                 // prefixes of the FIBs
  std::map<Ipv4RouteVrfKey, std::uint32_t> sfeHits_;
  std::map<Ipv4RouteVrfKey, std::uint32_t> hwHits_;
  bool allCacheable_ = false;
  bool prefixesKnown_ = false;  // to the agent, as they are now

  // What was seen.
  std::map<Ipv4RouteVrfKey, HwRoute> hw_;
  std::map<Ipv4RouteVrfKey, Aged> aged_;  // those that must be remembered
  std::uint64_t agedCount_ = 0;
  std::set<Ipv4RouteVrfKey> released_;
  std::set<Ipv4RouteVrfKey> gone_;  // taken out or released, since it was cleared
  int full_ = 0, sfeFull_ = 0, withoutAdjacency_ = 0, scans_ = 0;
};

class HwRouteModelTest : public testing::TestWithParam<unsigned> {};

TEST_P(HwRouteModelTest, HardwareHoldsWhatBelongsThereAndNothingElse) {
  RandomHardware hardware(GetParam());
  for (int i = 0; i < 1000; ++i) {
    if (!hardware.sw.running()) hardware.sw.start();
    hardware.step();
    if (i % 25 != 0) continue;
    hardware.settle();
    ASSERT_NO_FATAL_FAILURE(hardware.check()) << "after step " << i;
    ASSERT_NO_FATAL_FAILURE(hardware.checkScan()) << "after step " << i;
    ASSERT_FALSE(testing::Test::HasFailure()) << "by step " << i;
  }
  EXPECT_GT(hardware.full(), 0);
  EXPECT_GT(hardware.withoutAdjacency(), 0);
  EXPECT_GT(hardware.scans(), 0);
}

INSTANTIATE_TEST_SUITE_P(Seeds, HwRouteModelTest, testing::Range(1u, 7u));

}  // namespace
