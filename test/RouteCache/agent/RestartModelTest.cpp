// Agents and resolvers that end and come back at any moment: what was resolved goes on forwarding until the resolver
// says otherwise, and an agent killed after any of its writes leaves what its successor can take over.
#include <gtest/gtest.h>

#include <random>

#include "lib/statedb/PlatformTypes.h"
#include "platform/values/Paths.h"
#include "test/support/SimulatedSwitch.h"

namespace {

// --- Resolver and agent come and go ----------------------------------------------------------------------------------

constexpr const char* vteps[] = {"10.255.0.1", "10.255.0.2",     "10.255.0.3",
                                 "10.255.0.4", "2001:db8:ff::1", "2001:db8:ff::2"};
constexpr const char* prefixes[] = {"0.0.0.0/0", "10.0.0.0/8", "10.1.0.0/16", "10.1.2.3/32", "::/0", "2001:db8::/32"};

class ComingAndGoing {
 public:
  explicit ComingAndGoing(unsigned seed) : random_(seed) {
    sw.scheduler.yieldAfterEntriesIs(pick(2));
    sw.vti("Vxlan1", "192.0.2.1", "2001:db8::1");
    sw.vlan("Vxlan1", 10, 10010);
    sw.vrf("red", 1, 101);
    for (unsigned vtep = 0; vtep < std::size(vteps); ++vtep) underlay(vtep, 10 + vtep);
    for (unsigned key = 1; key <= viaCount; ++key) via(key);
    sw.scheduler.afterRunIs([this] {
      sw.afterRun();
      checkFecs();
    });
    sw.start();
    sw.advance(0);
    const auto requests = sw.entity<Routing::NexthopConfig>(Paths::nexthopConfig, "Routing::NexthopConfig");
    withdrawals_ = std::make_unique<Withdrawals>(*this, requests->vrf(L3::VrfName()));
  }

  void step() {
    switch (pick(12)) {
      case 0:
        return resolver();
      case 1:
        return sw.running() ? sw.stop() : sw.start();
      case 2:
        return pick(4) == 0 ? vlan() : underlay(pick(std::size(vteps)), pick(4) == 0 ? 0 : 1 + pick(99));
      case 3:
      case 4:
        return via(1 + pick(viaCount));
      case 5:
        return sw.advance(400);  // whatever a restart owes is over
      case 6:
      case 7:
      case 8:
        return sw.advance(static_cast<double>(pick(3)) * 0.25);
      default:
        return route();
    }
  }

  // What must be published once everybody is there and has had the time.
  void finish() {
    if (!sw.running()) sw.start();
    sw.advance(400);
    for (const auto& [vtep, fecs] : shown_) ASSERT_EQ(fecs.size(), 1u) << vtep << " has one FEC in all adjacencies";
    if (!resolverThere_) resolver();
    sw.advance(400);
    std::map<std::string, std::string> expected;
    for (const auto& [prefix, viaKey] : routes_) {
      std::string& text = expected[prefix + "@101"];
      for (const unsigned vtep : vias_[viaKey]) {
        text += (text.empty() ? "" : ", ") + std::string(vteps[vtep]) + " Vxlan1 vlan " + std::to_string(vlan_) +
                " fec " + std::to_string(underlay_[vtep]);
      }
    }
    ASSERT_EQ(sw.published(), expected);
  }

  SimulatedSwitch sw;

 private:
  static constexpr unsigned viaCount = 6;

  // A VTEP that nobody wanted for a moment may begin again without a FEC.
  class Withdrawals final : public Routing::NexthopVrfConfig::Reactor {
   public:
    Withdrawals(ComingAndGoing& model, std::shared_ptr<const Routing::NexthopVrfConfig> requests)
        : Reactor(std::move(requests)), model_(model) {}
    void handleNexthop(const IpGenAddr& addr) override {
      if (!watched().nexthop().contains(addr)) model_.shown_[Platform::toText(addr)].insert(0);
    }

   private:
    ComingAndGoing& model_;
  };

  unsigned pick(std::size_t count) { return static_cast<unsigned>(random_() % count); }

  void resolver() {
    if (resolverThere_) {
      sw.resolverGone();
    } else {
      sw.resolverBack();
    }
    resolverThere_ = !resolverThere_;
  }

  void underlay(unsigned vtep, std::uint32_t fec) {
    const std::string prefix = std::string(vteps[vtep]) + (vtep < 4 ? "/32" : "/128");
    if (fec == 0) {
      sw.underlayGone(prefix);
    } else {
      sw.underlay(prefix, fec);
    }
    underlay_[vtep] = fec;
  }

  // The VNI moves to another VLAN: every next-hop set is another one.
  void vlan() {
    sw.vlanGone("Vxlan1", vlan_);
    vlan_ = static_cast<Bridging::ExtendedVlanId>(10 + pick(20));
    sw.vlan("Vxlan1", vlan_, 10010);
  }

  void via(unsigned key) {
    std::set<unsigned> chosen;
    for (unsigned count = 1 + pick(4); count > 0; --count) chosen.insert(pick(std::size(vteps)));
    std::vector<SimulatedSwitch::ViaNexthop> nexthops;
    for (const unsigned vtep : chosen) nexthops.push_back(sw.nexthop(vteps[vtep], "Vxlan1", 10010));
    sw.via(key, nexthops);
    vias_[key] = chosen;
    for (const auto& [prefix, viaKey] : routes_) {
      if (viaKey == key) sw.route(prefix, 1, key);
    }
  }

  void route() {
    const std::string prefix = prefixes[pick(std::size(prefixes))];
    if (pick(4) == 0) {
      sw.routeGone(prefix, 1);
      routes_.erase(prefix);
      return;
    }
    routes_[prefix] = 1 + pick(viaCount);
    sw.route(prefix, 1, routes_[prefix]);
  }

  template <class Table>
  void collect(const char* path, std::map<std::string, std::set<std::uint64_t>>& fecs) {
    for (const auto& via : *sw.reader<Table>(path)) {
      for (const auto& slot : via.viaKey()) {
        fecs[Platform::toText(slot.remoteVtepIp())].insert(slot.underlayFecId().value());
      }
    }
  }

  // A VTEP's FEC is one that it had before, or the resolver's last word. One that nobody used may begin without.
  void checkFecs() {
    if (testing::Test::HasFatalFailure()) return;
    sw.outside->pendingChanges();
    sw.outside->deliverChanges([] { return false; });
    std::map<std::string, std::set<std::uint64_t>> fecs;
    collect<RouteCache::Ipv4AdjacencyStatus>("routecache/adj/ipv4", fecs);
    collect<RouteCache::Ipv6AdjacencyStatus>("routecache/adj/ipv6", fecs);
    const auto answers =
        sw.entity<Routing::NexthopStatus>(Paths::nexthopStatus, "Routing::NexthopStatus")->vrf(L3::VrfName());
    for (const char* vtep : vteps) {
      const auto answer = answers ? answers->nexthop(Platform::fromText<IpGenAddr>(vtep)) : std::nullopt;
      if (answer) lastWord_[vtep] = answer->value();
      if (!answer && !fecs.contains(vtep)) lastWord_.erase(vtep);
    }
    for (const auto& [vtep, now] : fecs) {
      const auto before = shown_.find(vtep);
      for (const std::uint64_t fec : now) {
        const bool had = before == shown_.end() ? fec == 0 : before->second.contains(fec);
        const auto word = lastWord_.find(vtep);
        ASSERT_TRUE(had || (word != lastWord_.end() && word->second == fec)) << vtep << " has FEC " << fec;
      }
    }
    shown_ = std::move(fecs);
  }

  std::mt19937 random_;
  bool resolverThere_ = true;
  Bridging::ExtendedVlanId vlan_ = 10;
  std::map<unsigned, std::uint32_t> underlay_;
  std::map<unsigned, std::set<unsigned>> vias_;
  std::map<std::string, unsigned> routes_;
  std::map<std::string, std::set<std::uint64_t>> shown_;  // VTEP -> its FECs in the adjacency tables after the last run
  std::map<std::string, std::uint64_t> lastWord_;
  std::unique_ptr<Withdrawals> withdrawals_;
};

class RestartModelTest : public testing::TestWithParam<unsigned> {};

TEST_P(RestartModelTest, WhatWasResolvedStaysUntilTheResolverSaysOtherwise) {
  for (unsigned seed = GetParam() * 1000; seed < GetParam() * 1000 + 6; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    ComingAndGoing model(seed);
    for (int round = 0; round < 4; ++round) {
      for (int i = 0; i < 50 && !HasFatalFailure(); ++i) model.step();
      if (!HasFatalFailure()) model.finish();
      if (HasFatalFailure()) return;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Seeds, RestartModelTest, testing::Range(1U, 4U));

// --- Killed after every write ----------------------------------------------------------------------------------------

struct Picture {
  std::map<std::string, std::string> published;
  std::map<std::string, bool> hardware;
  std::set<std::string> unprogrammed, requests, kernel;
  std::size_t adjacencies = 0;
  bool operator==(const Picture&) const = default;
};

Picture pictureOf(const SimulatedSwitch& sw) {
  Picture picture{sw.published(), sw.hardware(), sw.unprogrammed(), sw.requests(), {}, sw.adjacencyIds().size()};
  for (const auto& route : *sw.reader<Routing::Rib::RouteConfig>("routecache/route/kernel")) {
    picture.kernel.insert(Platform::toText(route.key()));
  }
  return picture;
}

const std::vector<std::function<void(SimulatedSwitch&)>>& story() {
  static const std::vector<std::function<void(SimulatedSwitch&)>> steps{
      [](SimulatedSwitch& sw) {
        sw.via(1, {sw.nexthop("10.255.0.1", "Vxlan1", 10010)});
        sw.via(2, {sw.nexthop("10.255.0.1", "Vxlan1", 10010), sw.nexthop("2001:db8:ff::1")});
        sw.route("10.1.0.0/16", 1, 1);
        sw.route("10.2.0.0/16", 1, 2);
        sw.route("10.3.0.0/16", 2, 1);
        sw.route("2001:db8:1::/48", 1, 2);
        sw.route("10.9.0.0/16", 9, 1);  // its VRF never comes
      },
      [](SimulatedSwitch& sw) {
        sw.via(1, {sw.nexthop("10.255.0.1", "Vxlan1", 10010), sw.nexthop("10.255.0.2", "Vxlan1", 10010)});
        sw.route("10.1.0.0/16", 1, 1);
        sw.route("10.3.0.0/16", 2, 1);
      },
      [](SimulatedSwitch& sw) { sw.underlay("10.255.0.1/32", 9); },
      [](SimulatedSwitch& sw) {
        sw.hwVrf("red", 102);
        sw.hwVrf("blue", 101);
      },
      [](SimulatedSwitch& sw) {
        sw.routeGone("10.2.0.0/16", 1);
        sw.route("10.1.0.0/16", 1, 2);
      },
      [](SimulatedSwitch& sw) { sw.vtiDown("Vxlan1"); },
      [](SimulatedSwitch& sw) {
        sw.vti("Vxlan1", "192.0.2.1", "2001:db8::1");
        sw.routeGone("10.9.0.0/16", 9);
      },
  };
  return steps;
}

// Tells the story to an agent that is killed after so many writes, and to its successor. False: it outlived the story.
bool tell(bool caching, std::uint64_t writesToLive, Picture& end) {
  SimulatedSwitch sw;
  sw.hwRouteCaching(caching);
  sw.capability(64, 64, 64);
  sw.underlay("10.255.0.0/16", 5);
  sw.underlay("2001:db8:ff::/48", 6);
  sw.vti("Vxlan1", "192.0.2.1", "2001:db8::1");
  sw.vlan("Vxlan1", 10, 10010);
  sw.vrf("red", 1, 101);
  sw.vrf("blue", 2, 102);
  bool killed = false;
  const auto unlessKilled = [&](const std::function<void()>& act) {
    try {
      act();
    } catch (const Killed&) {
      killed = true;
      for (const auto& [key, nexthops] : sw.published()) EXPECT_NE(nexthops, "no adjacency") << key;
      sw.stop();
      sw.start();
    }
  };
  unlessKilled([&] { sw.start(writesToLive); });
  for (const auto& step : story()) {
    step(sw);
    unlessKilled([&] { sw.advance(10); });
  }
  sw.advance(400);
  end = pictureOf(sw);
  return killed;
}

TEST(KilledAgentTest, ItsSuccessorEndsWhereItWouldHave) {
  for (const bool caching : {false, true}) {
    Picture undisturbed;
    ASSERT_FALSE(tell(caching, 0, undisturbed));
    ASSERT_EQ(undisturbed.published.size(), 3u);
    std::uint64_t writes = 1;
    for (Picture end; tell(caching, writes, end) && !testing::Test::HasFailure(); ++writes) {
      EXPECT_EQ(end, undisturbed) << (caching ? "caching, " : "") << "killed after write " << writes;
    }
    EXPECT_GT(writes, 40u) << "a story that is worth telling";
  }
}

}  // namespace
