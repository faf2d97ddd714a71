// Random sequences of everything that can happen to routes, against a plain model that says what must be published in
// the end. The invariants are checked after every task run; agents come and go in between.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "test/support/SimulatedSwitch.h"

namespace {

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

class RandomSwitch {
 public:
  explicit RandomSwitch(unsigned seed) : random_(seed) {
    sw.scheduler.yieldAfterEntriesIs(pick(3));
    // Tight enough that waiting for room happens, never so tight that something is missing in the end.
    sw.capability(64, 64, 64);
  }

  void step() {
    switch (pick(16)) {
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
        return sw.advance(5);
      default:
        return route();
    }
  }

  void finish() {
    // A via is picked up when its routes are next processed: the routing process rewrites them with it.
    for (const auto& [key, viaKey] : model.routes) sw.route(key.second, key.first, viaKey);
    if (!sw.running()) sw.start();
    sw.advance(900);
  }

  SimulatedSwitch sw;
  Model model;

 private:
  unsigned pick(unsigned count) { return static_cast<unsigned>(random_() % count); }
  template <std::size_t N>
  std::string one(const char* const (&of)[N]) {
    return of[pick(N)];
  }

  void vrf() {
    static constexpr const char* names[] = {"default", "red", "blue", "a/b"};
    const std::string name = one(names);
    // Each name has a pi id of its own; hardware ids move about, and for a while two names may claim one.
    const std::uint32_t pi =
        static_cast<std::uint32_t>(std::find(std::begin(names), std::end(names), name) - names) + 1;
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
        sw.piVrf(name, pi);
        model.piVrfs[name] = pi;
        return;
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
    const bool v6 = pick(2) != 0;
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
    // One VLAN for a VNI, so that the model need not know which of two was heard of last.
    sw.vlan(name, vlan, 1000U + vlan);
    model.vtis[name].vlans[vlan] = 1000U + vlan;
  }

  void underlay() {
    static constexpr const char* prefixes[] = {"10.255.0.0/16", "10.255.0.1/32", "2001:db8:ff::/48"};
    const std::string prefix = one(prefixes);
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
    static constexpr const char* vteps[] = {"10.255.0.1", "10.255.0.2", "10.254.0.1", "2001:db8:ff::1",
                                            "2001:db8:fe::1"};
    static constexpr const char* macs[] = {"00:1c:73:00:00:01", "00:1c:73:00:00:02"};
    const std::uint64_t key = 1 + pick(8);
    if (pick(6) == 0) {
      sw.viaGone(key);
      model.vias.erase(key);
    } else {
      std::vector<ViaNexthop> nexthops;
      for (unsigned count = pick(5) == 0 ? 33 : 1 + pick(4); count > 0; --count) {
        nexthops.push_back(sw.nexthop(one(vteps), pick(2) ? "Vxlan1" : "Vxlan2", pick(2) ? 1010 + pick(3) : 0,
                                      static_cast<Bridging::ExtendedVlanId>(10 + pick(2)), one(macs)));
      }
      sw.via(key, nexthops);
      model.vias[key] = nexthops;
    }
    for (const auto& [route, viaKey] : model.routes) {
      if (viaKey == key) sw.route(route.second, route.first, viaKey);
    }
  }

  void route() {
    static constexpr const char* prefixes[] = {"0.0.0.0/0",   "10.0.0.0/8", "10.1.0.0/16",
                                               "10.1.2.3/32", "::/0",       "2001:db8::/32"};
    const std::uint32_t pi = 1 + pick(4);
    const std::string prefix = one(prefixes);
    if (pick(3) == 0) {
      sw.routeGone(prefix, pi);
      model.routes.erase({pi, prefix});
      return;
    }
    const std::uint64_t viaKey = 1 + pick(8);
    sw.route(prefix, pi, viaKey);
    model.routes[{pi, prefix}] = viaKey;
  }

  void agent() {
    if (sw.running()) {
      if (pick(2) == 0) sw.stop();
    } else {
      sw.start();
    }
  }

  std::mt19937 random_;
};

class SwRouteModelTest : public testing::TestWithParam<unsigned> {};

TEST_P(SwRouteModelTest, EndsWithWhatIsConfigured) {
  for (unsigned seed = GetParam() * 1000; seed < GetParam() * 1000 + 20; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    RandomSwitch random(seed);
    random.sw.start();
    for (int round = 0; round < 4; ++round) {
      for (int i = 0; i < 60; ++i) random.step();
      random.finish();
      ASSERT_EQ(random.sw.published(), random.model.published());
    }
    // Nothing is left of what is gone: as many adjacencies as distinct next-hop sets, one request for each VTEP.
    std::set<std::string> sets;
    std::set<std::string> vteps;
    for (const auto& route : random.model.published()) sets.insert(route.second);
    ASSERT_GE(random.sw.adjacencyIds().size(), sets.size());
    for (const auto& route : random.model.routes) random.sw.routeGone(route.first.second, route.first.first);
    random.sw.advance(900);
    ASSERT_TRUE(random.sw.published().empty());
    ASSERT_TRUE(random.sw.adjacencyIds().empty());
    ASSERT_TRUE(random.sw.requests().empty());
    ASSERT_TRUE(random.sw.unprogrammed().empty());
    ASSERT_EQ(random.sw.sm().routeToProcess().size(), 0u);
  }
}

INSTANTIATE_TEST_SUITE_P(Seeds, SwRouteModelTest, testing::Range(1U, 5U));

}  // namespace
