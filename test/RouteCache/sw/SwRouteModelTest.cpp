// Random sequences of everything that can happen to routes, against a plain model that says what must be published in
// the end, as far as the tables have room. After every task run the invariants are checked, and that what was resolved
// goes on forwarding until the resolver says otherwise; agents and resolvers come and go in between, with hardware
// route caching and without. In the end a stream of changes runs beside all that waits, and then more of them than
// there is time for.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "platform/values/Paths.h"
#include "test/support/SimulatedSwitch.h"

namespace {

using RouteCache::AdjId;
using ViaNexthop = SimulatedSwitch::ViaNexthop;

struct Vti {
  bool up = false, v4 = false, v6 = false;
  std::map<Bridging::ExtendedVlanId, std::uint32_t> vlans;
};

// What is configured, in plain containers; what follows from it.
struct Model {
  std::map<std::string, std::uint32_t> piVrfs, hwVrfs;
  std::map<std::string, Vti> vtis;
  std::map<std::string, std::uint32_t> underlay;
  std::map<std::uint64_t, std::vector<ViaNexthop>> vias;
  std::map<std::pair<std::uint32_t, std::string>, std::uint64_t> routes;

  // The hardware id of a pi id, when exactly the VRF of that id is complete.
  std::optional<std::uint32_t> hwVrfOf(std::uint32_t piVrfId) const {
    for (const auto& [name, pi] : piVrfs) {
      const auto hw = hwVrfs.find(name);
      if (pi == piVrfId && hw != hwVrfs.end() && (hw->second != 0 || name == "default")) return hw->second;
    }
    return std::nullopt;
  }

  std::uint64_t fecOf(const IpGenAddr& addr) const {
    std::uint64_t fec = 0;
    int longest = -1;
    for (const auto& [text, value] : underlay) {
      const auto prefix = Platform::fromText<IpGenPrefix>(text);
      const bool covers =
          prefix.family() == addr.family() &&
          (addr.isV4() ? prefix.v4().covers(Prefix(addr.v4(), 32)) : prefix.v6().covers(Ip6Prefix(addr.v6(), 128)));
      if (!covers || static_cast<int>(prefix.length()) <= longest) continue;
      longest = static_cast<int>(prefix.length());
      fec = value;
    }
    return fec;
  }

  // The next hops of a route as text, in slot order; nothing: the route is not published.
  std::optional<std::string> nexthopsOf(std::uint64_t viaKey) const {
    const auto via = vias.find(viaKey);
    if (via == vias.end() || via->second.size() > 32) return std::nullopt;
    std::set<std::tuple<bool, std::string, int, EthAddr, IpGenAddr>> slots;  // IPv4 first, each in canonical order
    for (const ViaNexthop& nexthop : via->second) {
      const auto vti = vtis.find(nexthop.vti.name());
      if (vti == vtis.end() || !vti->second.up) continue;
      if (nexthop.remoteVtep.isV4() ? !vti->second.v4 : !vti->second.v6) continue;
      int vlan = nexthop.extendedVlanId;
      if (nexthop.vni.isPresent()) {
        vlan = -1;
        for (const auto& [number, vni] : vti->second.vlans) {
          if (vni == nexthop.vni.value()) vlan = number;
        }
        if (vlan < 0) continue;
      }
      slots.insert({nexthop.remoteVtep.isV6(), nexthop.vti.name(), vlan, nexthop.routerMac, nexthop.remoteVtep});
    }
    if (slots.empty()) return std::nullopt;
    std::string text;
    for (const auto& [v6, vti, vlan, mac, vtep] : slots) {
      if (!text.empty()) text += ", ";
      text +=
          Platform::toText(vtep) + " " + vti + " vlan " + std::to_string(vlan) + " fec " + std::to_string(fecOf(vtep));
    }
    return text;
  }

  std::map<std::string, std::string> published() const {
    std::map<std::string, std::string> result;
    for (const auto& [key, viaKey] : routes) {
      const auto hwVrf = hwVrfOf(key.first);
      const auto nexthops = nexthopsOf(viaKey);
      if (hwVrf && nexthops) result[key.second + "@" + std::to_string(*hwVrf)] = *nexthops;
    }
    return result;
  }
};

bool isIpv6(const std::string& prefix) {
  return prefix.find(':') != std::string::npos;
}

// There are 16 IPv4 and 8 IPv6 routes over up to 8 next-hop sets: about every second thing is too small for them.
class RandomSwitch {
 public:
  // `overflows`: how often each thing was found too small.
  RandomSwitch(unsigned seed, std::map<std::string, int>& overflows)
      : overflows_(overflows), random_(seed), yieldAfter_(pick(3)) {
    const auto room = [this](unsigned least, unsigned most) { return pick(2) ? 64 : least + pick(most - least + 1); };
    hwRoutes_ = room(2, 6);
    sfeRoutes_ = room(2, 10);
    adjacencies_ = room(1, 3);
    identifiers_ = room(1, 4);
    record_ = room(1, 6);
    caching_ = pick(3) == 0;
    sw.scheduler.yieldAfterEntriesIs(yieldAfter_);
    sw.capability(hwRoutes_, sfeRoutes_, adjacencies_);
    sw.identifiers(identifiers_);
    sw.recordCapacity(record_);
    sw.hwRouteCaching(caching_);
    sw.scheduler.afterRunIs([this] {
      sw.afterRun();
      checkFecs();
    });
    returns_ = std::make_unique<Returns>(*this, answers_);  // before the agent, and so heard first
    sw.start();
    sw.advance(0);
    withdrawals_ = std::make_unique<Withdrawals>(*this, requests_->vrf(L3::VrfName()));
  }

  void step() {
    switch (pick(18)) {
      case 0:
        return vrf();
      case 1:
        return vti();
      case 2:
        return vlan();
      case 3:
        return underlay();
      case 4:
      case 5:
      case 6:
        return via();
      case 7:
        return agent();
      case 8:
      case 9:
        return sw.advance(static_cast<double>(pick(4)) * 0.25);
      case 10:
        return sw.advance(pick(8) == 0 ? 400 : 5);  // or whatever a restart owes is over
      case 11:
        return resolver();
      case 12:
        return changeOne();
      default:
        return route();
    }
  }

  // Everything that there can be at once, so that whatever is too small overflows.
  void fill() {
    for (const char* name : vrfNames) {
      pairVrf(name, 0);
      if (!model.hwVrfs.contains(name)) swapHwVrf(name, name == vrfNames[0] ? 0 : 100 + pick(4));
    }
    for (const char* name : {"Vxlan1", "Vxlan2"}) {
      vtiUp(name, true, true);
      for (unsigned i = 0; i < 3; ++i) vlanIs(name, static_cast<Bridging::ExtendedVlanId>(10 + i));
    }
    for (std::uint64_t key = 1; key <= vias; ++key) viaIs(key, 1 + pick(4));
    for (std::uint32_t pi = 1; pi <= std::size(vrfNames); ++pi) {
      for (const char* prefix : prefixes) routeIs(prefix, pi);
    }
  }

  void finish() {
    if (!sw.running()) sw.start();
    sw.advance(400);
    for (const auto& [vtep, fecs] : fecsInTables())
      ASSERT_EQ(fecs.size(), 1u) << vtep << " has one FEC in all adjacencies";
    if (!resolverThere_) resolver();
    sw.advance(400);
  }

  // What is published is what is configured; what is missing is missing because something is full.
  void check() {
    const auto& sm = sw.sm();
    const auto expected = model.published();
    const auto published = sw.published();
    std::size_t wanted[2] = {}, found[2] = {};
    for (const auto& route : expected) ++wanted[isIpv6(route.first)];
    for (const auto& [key, nexthops] : published) {
      SCOPED_TRACE(key);
      ++found[isIpv6(key)];
      ASSERT_TRUE(expected.contains(key));
      const auto [adjId, inHw] = stateOf(key);
      if (nexthops == expected.at(key)) {
        const auto hardware = hwRoute(key);
        ASSERT_EQ(inHw, !hardware || (*hardware && (*hardware)->inHw() && (*hardware)->adjId() == adjId));
        ASSERT_TRUE(!hardware || *hardware || !sw.agent().ipv4HwRouteStatus()->hasRoom());
        continue;
      }
      ASSERT_FALSE(inHw) << "without its adjacency: " << nexthops;
      ASSERT_FALSE(hwRoute(key).value_or(std::nullopt)) << "without its adjacency: " << nexthops;
      const bool numbered = (adjId.value() & AdjId::adjacencyIdMask) != 0;
      const bool full4 = adjId.isAdjacencyV4() && !sm.ipv4AdjStatus()->has(adjId) && !sm.ipv4AdjStatus()->hasRoom();
      const bool full6 = adjId.isAdjacencyV6() && !sm.ipv6AdjStatus()->has(adjId) && !sm.ipv6AdjStatus()->hasRoom();
      ASSERT_TRUE(numbered ? full4 || full6 : sm.adjIds().freeAdjId().size() == 0) << nexthops;
    }
    ASSERT_EQ(found[0], std::min<std::size_t>(wanted[0], caching_ ? sfeRoutes_ : hwRoutes_));
    ASSERT_EQ(found[1], std::min<std::size_t>(wanted[1], hwRoutes_));
    checkShared(expected, published);
    checkRecord();
    overflows_["IPv4 routes"] += !caching_ && found[0] < wanted[0];
    overflows_["SFE routes"] += caching_ && found[0] < wanted[0];
    overflows_["kernel routes"] += sw.agent().kernelRouteStatus()->size() >= hwRoutes_;
    overflows_["IPv6 routes"] += found[1] < wanted[1];
    overflows_["IPv4 adjacencies"] += !sm.ipv4AdjStatus()->hasRoom();
    overflows_["IPv6 adjacencies"] += !sm.ipv6AdjStatus()->hasRoom();
    overflows_["identifiers"] += sm.adjIds().freeAdjId().size() == 0;
  }

  // Some routes go, and nothing else is touched: what finds room now comes in by itself.
  void thinOut() {
    std::erase_if(model.routes, [this](const auto& route) {
      if (pick(3) != 0) return false;
      sw.routeGone(route.first.second, route.first.first);
      return true;
    });
    sw.advance(80);
  }

  // One thing changes alone, and what rests on it follows by itself: no other change looks after it.
  void changeOne() {
    void (RandomSwitch::*const changes[])() = {&RandomSwitch::vrf,  &RandomSwitch::vrf,      &RandomSwitch::vti,
                                               &RandomSwitch::vlan, &RandomSwitch::underlay, &RandomSwitch::route};
    (this->*changes[pick(static_cast<unsigned>(std::size(changes)))])();
    sw.advance(80);
  }

  // A change every 50 ms for two seconds costs a visit each; what waits is tried again in its own time, and only what
  // waits for no change.
  void stream() {
    if (model.routes.empty()) return;
    const auto& [key, viaKey] = *std::next(model.routes.begin(), pick(static_cast<unsigned>(model.routes.size())));
    const auto work = [this](std::initializer_list<const char*> tasks) {
      std::uint64_t sum = 0;
      for (const char* task : tasks) sum += sw.workDone(task);
      return sum;
    };
    const struct {
      const char* what;
      std::initializer_list<const char*> tasks;
      std::uint64_t most;
    } costs[] = {
        {"changes", {"routeProcessingTask"}, 40},
        {"leftovers", {"leftoverProcessingTask"}, 3 * (sw.sm().routeToProcess().leftoverCount() + 1)},
        {"record", {"unprogrammedRecordTask"}, 0},
        {"hardware", {"hwRouteProcessingTask", "sfeRouteHitProcessingTask"}, 0},
        {"kernel", {"ipv4RouteProcessingTask", "ipv6RouteProcessingTask", "kernelRouteProcessingTask"}, 40},
    };
    std::vector<std::uint64_t> before;
    for (const auto& cost : costs) before.push_back(work(cost.tasks));
    for (int i = 0; i < 40; ++i) {
      sw.route(key.second, key.first, viaKey);
      sw.advance(0.05);
    }
    for (std::size_t i = 0; i < std::size(costs); ++i) {
      ASSERT_LE(work(costs[i].tasks) - before[i], costs[i].most) << costs[i].what;
    }
  }

  // Changes without a pause, an entry of anything takes 4 ms: the lowest priority has its share of the time.
  void overload() {
    if (model.routes.empty()) return;
    sw.scheduler.yieldAfterEntriesIs(2);
    sw.scheduler.entryCostIs(0.004);
    std::unique_ptr<Platform::Task> changes, background;
    // A leftover that changes is fresh. The oldest one does not: it has nothing but its round.
    const auto leftover = sw.sm().routeToProcess().routeToProcessBookmark();
    const bool leftovers = sw.sm().routeToProcess().leftoverCount() > 0;
    changes = sw.scheduler.taskIs("changes", Platform::TaskPriority::processing, [&] {
      do {
        const auto& [key, viaKey] = *std::next(model.routes.begin(), pick(static_cast<unsigned>(model.routes.size())));
        const bool waits =
            leftovers && key.first == leftover.vrfId() && key.second == Platform::toText(leftover.prefix());
        if (!waits) sw.route(key.second, key.first, viaKey);
      } while (!changes->shouldYield());
      changes->scheduleWithin(0);
    });
    int turns = 0;
    background = sw.scheduler.taskIs("background", Platform::TaskPriority::background, [&] {
      ++turns;
      while (!background->shouldYield()) continue;
      background->scheduleWithin(0);
    });
    changes->scheduleWithin(0);
    background->scheduleWithin(0);
    const auto visited = sw.workDone("leftoverProcessingTask");
    sw.advance(2);
    EXPECT_GE(turns, 10);
    EXPECT_LE(sw.longestBackgroundWait(), 0.2) << "seven slices of 8 ms, for each of those that wait";
    EXPECT_TRUE(!leftovers || sw.workDone("leftoverProcessingTask") > visited);
    sw.scheduler.entryCostIs(0);
    sw.scheduler.yieldAfterEntriesIs(yieldAfter_);
  }

  std::uint32_t identifiers() const { return identifiers_; }

  SimulatedSwitch sw;
  Model model;

 private:
  // A VTEP that nobody asked about for a moment may begin again without a FEC.
  class Withdrawals final : public Routing::NexthopVrfConfig::Reactor {
   public:
    Withdrawals(RandomSwitch& random, std::shared_ptr<const Routing::NexthopVrfConfig> requests)
        : Reactor(std::move(requests)), random_(random) {}
    void handleNexthop(const IpGenAddr& vtep) override {
      if (watched().nexthop().contains(vtep)) return;
      random_.shown_[vtep].insert(0);
    }

   private:
    RandomSwitch& random_;
  };
  // Now and then a resolver has its answers in place before anybody else hears that it is back.
  class Returns final : public Routing::NexthopStatus::Reactor {
   public:
    Returns(RandomSwitch& random, std::shared_ptr<const Routing::NexthopStatus> answers)
        : Reactor(std::move(answers)), random_(random) {}
    void handleVrf(const L3::VrfName& name) override {
      const auto answers = random_.answers_->vrf(name);
      const auto requests = random_.requests_->vrf(name);
      if (!answers || !requests || random_.pick(2) == 0) return;
      for (const auto& request : requests->nexthop()) {
        answers->nexthopIs(request.first, Fib::FecId(random_.model.fecOf(request.first)));
      }
    }

   private:
    RandomSwitch& random_;
  };
  using Fecs = std::map<IpGenAddr, std::set<std::uint64_t>>;

  template <class Table>
  void collect(const char* path, Fecs& fecs) {
    for (const auto& via : *sw.reader<Table>(path)) {
      for (const auto& slot : via.viaKey()) fecs[slot.remoteVtepIp()].insert(slot.underlayFecId().value());
    }
  }
  Fecs fecsInTables() {
    Fecs fecs;
    collect<RouteCache::Ipv4AdjacencyStatus>("routecache/adj/ipv4", fecs);
    collect<RouteCache::Ipv6AdjacencyStatus>("routecache/adj/ipv6", fecs);
    return fecs;
  }
  // A VTEP's FEC is one that it had before, or the resolver's last word. One that nobody used may begin without. In use
  // is also one that is asked about for routes whose adjacency finds no room, or that nothing but a predecessor's
  // adjacency names.
  void checkFecs() {
    if (testing::Test::HasFatalFailure()) return;
    sw.outside->pendingChanges();
    sw.outside->deliverChanges([] { return false; });
    Fecs fecs = fecsInTables();
    if (const auto answers = answers_->vrf(L3::VrfName())) {
      for (const auto& [vtep, fec] : answers->nexthop()) lastWord_[vtep] = fec.value();
    }
    for (const auto& [vtep, now] : fecs) {
      const auto before = shown_.find(vtep);
      const auto word = lastWord_.find(vtep);
      for (const std::uint64_t fec : now) {
        const bool had = before == shown_.end() ? fec == 0 : before->second.contains(fec);
        ASSERT_TRUE(had || (word != lastWord_.end() && word->second == fec)) << vtep << " has FEC " << fec;
      }
    }
    const auto requests = requests_->vrf(L3::VrfName());
    const auto unused = [&](const auto& entry) {
      return !fecs.contains(entry.first) && !requests->nexthop().contains(entry.first);
    };
    std::erase_if(shown_, unused);
    std::erase_if(lastWord_, unused);
    for (auto& [vtep, now] : fecs) shown_[vtep] = std::move(now);
  }
  // Identifier and inHw of a published route, "10.0.0.0/8@7".
  std::pair<AdjId, bool> stateOf(const std::string& key) {
    const auto of = [](const auto& route) { return std::pair(route->adjId(), route->inHw()); };
    if (isIpv6(key)) {
      return of(sw.sm().ipv6RouteStatus()->route(Platform::fromText<RouteCache::Ipv6RouteVrfKey>(key)));
    }
    return of(sw.sm().ipv4RouteStatus()->route(Platform::fromText<RouteCache::Ipv4RouteVrfKey>(key)));
  }
  // What the hardware's table has of it; nothing where no such table follows what is published.
  std::optional<std::optional<RouteCache::Ipv4Route>> hwRoute(const std::string& key) {
    if (!caching_ || isIpv6(key)) return std::nullopt;
    return sw.agent().ipv4HwRouteStatus()->route(Platform::fromText<RouteCache::Ipv4RouteVrfKey>(key));
  }
  // Routes over one via that are published as they should be have one adjacency.
  void checkShared(const std::map<std::string, std::string>& expected,
                   const std::map<std::string, std::string>& published) {
    std::map<std::uint64_t, AdjId> shared;
    for (const auto& [route, viaKey] : model.routes) {
      const std::string key = route.second + "@" + std::to_string(model.hwVrfOf(route.first).value_or(0));
      const auto found = published.find(key);
      if (found == published.end() || !model.hwVrfOf(route.first) || found->second != expected.at(key)) continue;
      const AdjId adjId = stateOf(key).first;
      ASSERT_EQ(shared.try_emplace(viaKey, adjId).first->second, adjId) << key;
    }
  }
  // Every configured route that is not in hardware is recorded, as far as there is room.
  void checkRecord() {
    const auto published = sw.publishedKeys();
    std::set<std::string> notInHw;
    for (const auto& route : model.routes) {
      const auto& [piVrfId, prefix] = route.first;
      const auto hwVrf = model.hwVrfOf(piVrfId);
      const std::string key = prefix + "@" + std::to_string(hwVrf.value_or(0));
      if (!hwVrf || !published.contains(key) || !stateOf(key).second) {
        notInHw.insert(prefix + "@" + std::to_string(piVrfId));
      }
    }
    const auto recorded = sw.unprogrammed();
    for (const auto& key : recorded) ASSERT_TRUE(notInHw.contains(key)) << key;
    ASSERT_EQ(recorded.size(), std::min<std::size_t>(notInHw.size(), record_));
    overflows_["record"] += recorded.size() < notInHw.size();
  }

  unsigned pick(unsigned count) { return static_cast<unsigned>(random_() % count); }
  template <std::size_t N>
  std::string one(const char* const (&of)[N]) {
    return of[pick(N)];
  }

  static constexpr const char* vrfNames[] = {"default", "red", "blue", "a/b"};
  static constexpr const char* prefixes[] = {"0.0.0.0/0",   "10.0.0.0/8", "10.1.0.0/16",
                                             "10.1.2.3/32", "::/0",       "2001:db8::/32"};
  static constexpr unsigned vias = 8;

  // Each name has two pi ids of its own, one at a time; hardware ids move about, and for a while two names may claim
  // one.
  void pairVrf(const std::string& name, std::uint32_t which) {
    const auto at = std::find(std::begin(vrfNames), std::end(vrfNames), name);
    const auto pi = static_cast<std::uint32_t>(at - std::begin(vrfNames) + 1 + which * std::ssize(vrfNames));
    sw.piVrf(name, pi);
    model.piVrfs[name] = pi;
  }
  void vrf() {
    const std::string name = one(vrfNames);
    switch (pick(4)) {
      case 0:
        sw.piVrfGone(name);
        model.piVrfs.erase(name);
        return;
      case 1:
        sw.hwVrfGone(name);
        model.hwVrfs.erase(name);
        return;
      case 2:
        return pairVrf(name, pick(4) == 0);
      default:
        swapHwVrf(name, name == "default" ? 0 : 100 + pick(4));
    }
  }

  // Gives the name this id; whoever had it gets the old one, as a switch that renumbers does.
  void swapHwVrf(const std::string& name, std::uint32_t hw) {
    constexpr std::uint32_t none = 0xFFFFFFFF;
    const auto old = model.hwVrfs.find(name);
    const std::uint32_t oldHw = old == model.hwVrfs.end() ? none : old->second;
    std::string holder;
    for (const auto& [other, id] : model.hwVrfs) {
      if (other != name && id == hw) holder = other;
    }
    sw.hwVrf(name, hw);
    model.hwVrfs[name] = hw;
    if (holder.empty()) return;
    if (oldHw != none && oldHw != hw) {
      sw.hwVrf(holder, oldHw);
      model.hwVrfs[holder] = oldHw;
    } else {
      sw.hwVrfGone(holder);
      model.hwVrfs.erase(holder);
    }
  }

  void vti() {
    const std::string name = pick(2) ? "Vxlan1" : "Vxlan2";
    if (pick(4) == 0) {
      sw.vtiGone(name);
      model.vtis.erase(name);
      return;
    }
    if (pick(3) == 0) {
      sw.vtiDown(name);
      model.vtis[name].up = false;
      return;
    }
    const bool v4 = pick(3) != 0;
    vtiUp(name, v4, pick(2) != 0);
  }
  void vtiUp(const std::string& name, bool v4, bool v6) {
    sw.vti(name, v4 ? "192.0.2.1" : "", v6 ? "2001:db8::1" : "");
    Vti& vti = model.vtis[name];
    vti.up = true;
    vti.v4 = v4;
    vti.v6 = v6;
  }

  void vlan() {
    const std::string name = pick(2) ? "Vxlan1" : "Vxlan2";
    if (!model.vtis.contains(name)) return;
    const auto vlan = static_cast<Bridging::ExtendedVlanId>(10 + pick(3));
    if (pick(3) == 0) {
      sw.vlanGone(name, vlan);
      model.vtis[name].vlans.erase(vlan);
      return;
    }
    vlanIs(name, vlan);
  }
  void vlanIs(const std::string& name, Bridging::ExtendedVlanId vlan) {
    // One VLAN for a VNI, so that the model need not know which of two was heard of last.
    sw.vlan(name, vlan, 1000U + vlan);
    model.vtis[name].vlans[vlan] = 1000U + vlan;
  }

  void underlay() {
    static constexpr const char* underlays[] = {"10.255.0.0/16", "10.255.0.1/32", "2001:db8:ff::/48"};
    const std::string prefix = one(underlays);
    if (pick(3) == 0) {
      sw.underlayGone(prefix);
      model.underlay.erase(prefix);
      return;
    }
    const std::uint32_t fec = 1 + pick(9);
    sw.underlay(prefix, fec);
    model.underlay[prefix] = fec;
  }

  void via() {
    const std::uint64_t key = 1 + pick(vias);
    if (pick(6) == 0) {
      sw.viaGone(key);
      model.vias.erase(key);
    } else {
      viaIs(key, pick(5) == 0 ? 32 + pick(2) : 1 + pick(4));
    }
    for (const auto& [route, viaKey] : model.routes) {
      if (viaKey == key) sw.route(route.second, route.first, viaKey);
    }
  }

  void viaIs(std::uint64_t key, unsigned count) {
    static constexpr const char* vteps[] = {"10.255.0.1", "10.255.0.2", "10.254.0.1", "2001:db8:ff::1",
                                            "2001:db8:fe::1"};
    static constexpr const char* macs[] = {"00:1c:73:00:00:01", "00:1c:73:00:00:02"};
    std::vector<ViaNexthop> nexthops;
    for (; count > 0; --count) {
      nexthops.push_back(sw.nexthop(one(vteps), pick(2) ? "Vxlan1" : "Vxlan2", pick(2) ? 1010 + pick(3) : 0,
                                    static_cast<Bridging::ExtendedVlanId>(10 + pick(2)), one(macs)));
    }
    sw.via(key, nexthops);
    model.vias[key] = nexthops;
  }

  void route() {
    const std::uint32_t pi = 1 + pick(pick(4) == 0 ? 8 : 4);
    const std::string prefix = one(prefixes);
    if (pick(3) == 0) {
      sw.routeGone(prefix, pi);
      model.routes.erase({pi, prefix});
      return;
    }
    routeIs(prefix, pi);
  }
  void routeIs(const std::string& prefix, std::uint32_t pi) {
    const std::uint64_t viaKey = 1 + pick(vias);
    sw.route(prefix, pi, viaKey);
    model.routes[{pi, prefix}] = viaKey;
  }

  void resolver() {
    resolverThere_ ? sw.resolverGone() : sw.resolverBack();
    resolverThere_ = !resolverThere_;
  }

  void agent() {
    if (sw.running()) {
      if (pick(2) == 0) sw.stop();
    } else {
      sw.start();
    }
  }

  std::map<std::string, int>& overflows_;
  std::mt19937 random_;
  const unsigned yieldAfter_;
  std::uint32_t hwRoutes_, sfeRoutes_, adjacencies_, identifiers_, record_;
  bool caching_;
  bool resolverThere_ = true;
  std::shared_ptr<Routing::NexthopConfig> requests_ =
      sw.entity<Routing::NexthopConfig>(Paths::nexthopConfig, "Routing::NexthopConfig");
  std::shared_ptr<Routing::NexthopStatus> answers_ =
      sw.entity<Routing::NexthopStatus>(Paths::nexthopStatus, "Routing::NexthopStatus");
  Fecs shown_;                                   // VTEP in use -> its FECs when they were last in the adjacency tables
  std::map<IpGenAddr, std::uint64_t> lastWord_;  // the resolver's, of those in use
  std::unique_ptr<Withdrawals> withdrawals_;
  std::unique_ptr<Returns> returns_;
};

class SwRouteModelTest : public testing::TestWithParam<unsigned> {};

TEST_P(SwRouteModelTest, EndsWithWhatIsConfigured) {
  std::map<std::string, int> overflows;
  for (unsigned seed = GetParam() * 1000; seed < GetParam() * 1000 + 12; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    RandomSwitch random(seed, overflows);
    for (int round = 0; round < 4; ++round) {
      for (int i = 0; i < 50; ++i) random.step();
      if (round % 2 == 0) random.fill();
      for (int i = 0; i < 6; ++i) random.step();
      ASSERT_NO_FATAL_FAILURE(random.finish());
      ASSERT_NO_FATAL_FAILURE(random.check());
      ASSERT_NO_FATAL_FAILURE(random.stream());
      random.overload();
      random.thinOut();
      ASSERT_NO_FATAL_FAILURE(random.check());
      for (int i = 0; i < 10; ++i) {
        random.changeOne();
        ASSERT_NO_FATAL_FAILURE(random.check()) << "after change " << i;
      }
    }
    // Nothing is left of what is gone.
    for (const auto& route : random.model.routes) random.sw.routeGone(route.first.second, route.first.first);
    random.sw.advance(400);
    ASSERT_TRUE(random.sw.published().empty());
    ASSERT_TRUE(random.sw.adjacencyIds().empty());
    ASSERT_TRUE(random.sw.requests().empty());
    ASSERT_TRUE(random.sw.unprogrammed().empty());
    ASSERT_EQ(random.sw.sm().routeToProcess().size(), 0u);
    ASSERT_EQ(random.sw.sm().adjIds().freeAdjId().size(), random.identifiers());
  }
  for (const auto& [what, count] : overflows) EXPECT_GT(count, 0) << what << " were never too small";
}

INSTANTIATE_TEST_SUITE_P(Seeds, SwRouteModelTest, testing::Range(1U, 5U));

}  // namespace
