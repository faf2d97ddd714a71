// Stories of routes: what the routing process, the switch and the resolver do, and what other processes then see. Every
// story runs with tasks that never yield and with tasks that yield after every entry; the invariants are checked after
// every task run.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "lib/statedb/PlatformTypes.h"
#include "platform/values/Paths.h"
#include "test/support/SimulatedSwitch.h"

namespace {

using RouteCache::AdjId;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::UnorderedElementsAre;

class SwRouteSmTest : public testing::TestWithParam<int> {
 protected:
  explicit SwRouteSmTest(int traceLevel = 9) : sw(traceLevel) {
    sw.scheduler.yieldAfterEntriesIs(static_cast<std::uint64_t>(GetParam()));
    sw.underlay("10.255.0.0/16", 5);
    sw.underlay("2001:db8:ff::/48", 6);
    sw.vti("Vxlan1", "192.0.2.1", "2001:db8::1");
    sw.vlan("Vxlan1", 10, 10010);
    sw.vrf("red", 1, 101);
  }
  // Long enough for every queue, sync and clean-up that a change can set off.
  void settle() { sw.advance(40); }

  SimulatedSwitch sw;
};

INSTANTIATE_TEST_SUITE_P(Yields, SwRouteSmTest, testing::Values(0, 1),
                         [](const auto& p) { return p.param == 0 ? "Never" : "AfterEveryEntry"; });

TEST_P(SwRouteSmTest, AVlanThatLetsGoOfItsVniLeavesItToAnotherThatHasIt) {
  sw.vlan("Vxlan1", 20, 10010);
  sw.via(1, {sw.nexthop("10.255.0.1", "Vxlan1", 10010)});
  sw.route("10.0.0.0/8", 1, 1);
  sw.start();
  settle();
  EXPECT_EQ(sw.published().at("10.0.0.0/8@101"), "10.255.0.1 Vxlan1 vlan 20 fec 5");
  sw.vlan("Vxlan1", 20, 777);
  settle();
  EXPECT_EQ(sw.published().at("10.0.0.0/8@101"), "10.255.0.1 Vxlan1 vlan 10 fec 5");
}

TEST_P(SwRouteSmTest, WithHardwareCachingOnTheHardwareEntryDecidesInHw) {
  sw.hwRouteCaching(true);
  sw.via(1, {sw.nexthop("10.255.0.1")});
  sw.route("10.0.0.0/8", 1, 1);
  sw.start();
  settle();
  // From here on this test decides what hardware holds.
  sw.agent().hwRouteSmDel();
  sw.agent().ipv4HwRouteStatus()->routeDel({Platform::fromText<Prefix>("10.0.0.0/8"), 101});
  settle();
  const RouteCache::Ipv4RouteVrfKey key(Platform::fromText<Prefix>("10.0.0.0/8"), 101);
  const auto inHw = [&] { return sw.agent().ipv4SfeRouteStatus()->route(key)->inHw(); };
  const AdjId adjId = sw.agent().ipv4SfeRouteStatus()->route(key)->adjId();
  EXPECT_FALSE(inHw());
  EXPECT_THAT(sw.unprogrammed(), ElementsAre("10.0.0.0/8@1"));
  const struct {
    const char* what;
    AdjId adjId;
    bool programmed, expected;
  } steps[] = {{"entry not programmed", adjId, false, false},
               {"programmed", adjId, true, true},
               {"programmed with another adjacency: nothing changes", AdjId(999), true, true},
               {"not programmed any more", adjId, false, false}};
  for (const auto& step : steps) {
    SCOPED_TRACE(step.what);
    sw.hwRoute("10.0.0.0/8", 101, step.adjId, step.programmed);
    settle();
    EXPECT_EQ(inHw(), step.expected);
    EXPECT_EQ(sw.unprogrammed().empty(), step.expected);
  }
}

// --- Restart ---------------------------------------------------------------------------------------------------------

TEST_P(SwRouteSmTest, ARestartChangesNothingThatStandsAsItShould) {
  sw.via(1, {sw.nexthop("10.255.0.1")});
  sw.via(2, {sw.nexthop("10.255.0.1"), sw.nexthop("2001:db8:ff::1")});
  sw.route("10.0.0.0/8", 1, 1);
  sw.route("2001:db8:1::/48", 1, 2);
  sw.route("10.1.0.0/16", 7, 1);  // parked: no such VRF
  sw.start();
  settle();
  const auto before = sw.published();
  const auto ids = sw.adjacencyIds();
  ASSERT_THAT(sw.unprogrammed(), ElementsAre("10.1.0.0/16@7"));
  sw.stop();

  // Everything that changes in any of the tables from here on is heard of.
  std::vector<std::string> changed;
  std::vector<std::unique_ptr<Pondra::TableEntity::Watcher>> watchers;
  for (const char* path : {"routecache/route/hw/ipv4", "routecache/route/hw/ipv6", "routecache/adj/ipv4",
                           "routecache/adj/ipv6", "routing/rib/routeConfig/ipv4/unprogrammedStaticRouteCacheConfig"}) {
    watchers.push_back(sw.outside->entity(path)->watchText([&](const std::string& key) { changed.push_back(key); }));
  }
  sw.start();
  sw.advance(1);
  EXPECT_EQ(sw.published(), before);
  sw.advance(400);
  EXPECT_EQ(sw.published(), before);
  EXPECT_EQ(sw.adjacencyIds(), ids);
  EXPECT_THAT(changed, IsEmpty());
  EXPECT_FALSE(sw.sm().restart());
}

TEST_P(SwRouteSmTest, ARestartTakesUpWhatChangedMeanwhile) {
  for (std::uint64_t key = 1; key <= 4; ++key) sw.via(key, {sw.nexthop("10.255.0." + std::to_string(key))});
  for (std::uint64_t key = 1; key <= 4; ++key) sw.route("10." + std::to_string(key) + ".0.0/16", 1, key);
  sw.route("10.8.0.0/16", 8, 1);
  sw.start();
  settle();
  const auto kept = sw.adjIdOf("10.1.0.0/16", 101);
  sw.stop();
  sw.routeGone("10.2.0.0/16", 1);
  sw.routeGone("10.8.0.0/16", 8);
  sw.route("10.3.0.0/16", 1, 4);  // another via
  sw.via(4, {sw.nexthop("10.255.0.4"), sw.nexthop("10.255.0.5")});
  sw.route("10.5.0.0/16", 1, 1);
  sw.start();
  sw.advance(1);
  EXPECT_TRUE(sw.publishedKeys().contains("10.2.0.0/16@101") && sw.requests().contains("10.255.0.2"))
      << "nobody withdraws what a route still forwards by";
  sw.advance(400);
  EXPECT_EQ(sw.trace.count("RouteSync rescheduled with Bookmark ") > 0, GetParam() != 0);
  EXPECT_EQ(sw.adjIdOf("10.1.0.0/16", 101), kept);
  EXPECT_EQ(sw.adjIdOf("10.5.0.0/16", 101), kept);
  EXPECT_THAT(sw.published(),
              ElementsAre(Pair("10.1.0.0/16@101", "10.255.0.1 Vxlan1 vlan 10 fec 5"),
                          Pair("10.3.0.0/16@101", "10.255.0.4 Vxlan1 vlan 10 fec 5, 10.255.0.5 Vxlan1 vlan 10 fec 5"),
                          Pair("10.4.0.0/16@101", "10.255.0.4 Vxlan1 vlan 10 fec 5, 10.255.0.5 Vxlan1 vlan 10 fec 5"),
                          Pair("10.5.0.0/16@101", "10.255.0.1 Vxlan1 vlan 10 fec 5")));
  EXPECT_EQ(sw.adjacencyIds().size(), 2u);
  EXPECT_THAT(sw.requests(), UnorderedElementsAre("10.255.0.1", "10.255.0.4", "10.255.0.5"));
  EXPECT_THAT(sw.unprogrammed(), IsEmpty());
}

// A resolver that has its answers in place before anybody else hears that it is back.
class Answering final : public Routing::NexthopStatus::Reactor {
 public:
  explicit Answering(std::shared_ptr<Routing::NexthopStatus> status) : Reactor(status), status_(std::move(status)) {}
  void handleVrf(const L3::VrfName& name) override {
    if (const auto vrf = status_->vrf(name)) vrf->nexthopIs(Platform::fromText<IpGenAddr>("10.255.0.1"), fec);
  }
  Fib::FecId fec;

 private:
  std::shared_ptr<Routing::NexthopStatus> status_;
};

TEST_P(SwRouteSmTest, WhatWasResolvedForwardsUntilTheResolverSaysOtherwise) {
  sw.via(1, {sw.nexthop("10.255.0.1")});
  sw.route("10.0.0.0/8", 1, 1);
  sw.route("10.9.0.0/16", 9, 1);  // its VRF never comes: the queue does not drain
  sw.start();
  settle();
  sw.stop();
  sw.resolverGone();
  const auto status = sw.entity<Routing::NexthopStatus>(Paths::nexthopStatus, "Routing::NexthopStatus");
  Answering resolver(status);
  const auto answer = [&](const char* vtep, std::uint32_t fec) {
    status->vrfIs(L3::VrfName())->nexthopIs(Platform::fromText<IpGenAddr>(vtep), Fib::FecId(fec));
  };
  const auto expect = [&](unsigned first, unsigned second) {
    EXPECT_EQ(sw.published().at("10.0.0.0/8@101"), "10.255.0.1 Vxlan1 vlan 10 fec " + std::to_string(first) +
                                                       ", 10.255.0.2 Vxlan1 vlan 10 fec " + std::to_string(second));
  };
  sw.via(1, {sw.nexthop("10.255.0.1"), sw.nexthop("10.255.0.2")});  // another set, and so another identifier
  sw.start();
  sw.advance(20);
  expect(5, 0);
  sw.advance(400);  // whatever a restart owes is over
  expect(5, 0);
  resolver.fec = Fib::FecId(8);
  answer("10.255.0.2", 7);
  settle();
  expect(8, 7);
  status->vrfDel(L3::VrfName());
  settle();
  expect(8, 7);
  resolver.fec = Fib::FecId(4);
  status->vrfIs(L3::VrfName());
  sw.advance(0);
  expect(4, 7);
  answer("10.255.0.1", 0);  // unreachable, and that stays too
  status->vrfDel(L3::VrfName());
  settle();
  expect(0, 7);
}

TEST_P(SwRouteSmTest, AnAdjacencyThatNoAgentMadeIsDropped) {
  sw.via(1, {sw.nexthop("10.255.0.1")});
  sw.via(2, {sw.nexthop("10.255.0.1"), sw.nexthop("2001:db8:ff::1")});
  sw.route("10.1.0.0/16", 1, 1);
  sw.route("10.2.0.0/16", 1, 2);
  const auto fill = [](auto& table, std::initializer_list<std::uint32_t> ids, const auto& adjacency) {
    for (const std::uint32_t id : ids) {
      typename std::decay_t<decltype(table)>::Value via{AdjId(id)};
      via.viaKeyIs(RouteCache::ViaIndex(0), adjacency);
      table.adjIs(via);
    }
  };
  const EthAddr mac = Platform::fromText<EthAddr>("00:1c:73:00:00:01");
  constexpr const char* path4 = "routecache/adj/ipv4";
  constexpr const char* path6 = "routecache/adj/ipv6";
  const Pondra::CollectionInfo info{"adj", 10000};
  {
    LinuxPlatform::SharedTableService foreign(sw.directory.path(), sw.tableTypes);
    foreign.mount(path4, RouteCache::Ipv4AdjacencyStatus::typeName, Pondra::MountKind::writer, info);
    foreign.mount(path6, RouteCache::Ipv6AdjacencyStatus::typeName, Pondra::MountKind::writer, info);
    // Taken over: 5, and the IPv6 half of a mixed one, number 8. Foreign: bits and classes that mean nothing, number
    // 0, another table's class, a number that is taken.
    fill(*foreign.get<RouteCache::Ipv4AdjacencyStatus>(path4),
         {5, 0x00200009, 0x40000007, 0x80000006, 0xC0000000, 0xC0000005},
         RouteCache::Ipv4Adjacency(Fib::FecId(5), 10, mac, IntfId("Vxlan1"), Platform::fromText<IpAddr>("10.255.0.1")));
    fill(*foreign.get<RouteCache::Ipv6AdjacencyStatus>(path6), {7, 0x80000005, 0xC0000005, 0xC0000008},
         RouteCache::Ipv6Adjacency(Fib::FecId(6), 10, mac, IntfId("Vxlan1"),
                                   Platform::fromText<Ip6Addr>("2001:db8:ff::1")));
  }
  sw.start();
  sw.advance(0);
  EXPECT_THAT(sw.adjacencyIds(), ElementsAre(5u, 0xC0000001, 0xC0000008));
  sw.advance(400);
  EXPECT_THAT(sw.adjacencyIds(), ElementsAre(5u, 0xC0000001));
  EXPECT_THAT(
      sw.published(),
      ElementsAre(Pair("10.1.0.0/16@101", "10.255.0.1 Vxlan1 vlan 10 fec 5"),
                  Pair("10.2.0.0/16@101", "10.255.0.1 Vxlan1 vlan 10 fec 5, 2001:db8:ff::1 Vxlan1 vlan 10 fec 6")));
}

TEST_P(SwRouteSmTest, RequestsAloneAreAPredecessorsToo) {
  sw.entity<Routing::NexthopConfig>(Paths::nexthopConfig, "Routing::NexthopConfig")
      ->vrfIs(L3::VrfName())
      ->nexthopIs(Platform::fromText<IpGenAddr>("10.255.0.9"));
  sw.start();
  sw.advance(400);
  EXPECT_THAT(sw.requests(), IsEmpty());
}

TEST_P(SwRouteSmTest, NoIdentifierIsReusedWhileAnInheritedRouteNamesIt) {
  sw.via(1, {sw.nexthop("10.255.0.1")});
  sw.via(2, {sw.nexthop("10.255.0.2")});
  sw.route("10.1.0.0/16", 1, 1);
  sw.route("10.2.0.0/16", 1, 1);
  sw.start();
  settle();
  const auto inherited = sw.adjIdOf("10.1.0.0/16", 101);
  sw.stop();
  sw.routeGone("10.1.0.0/16", 1);  // stays published until the route sync meets it
  sw.start();
  sw.advance(0.5);
  sw.routeGone("10.2.0.0/16", 1);
  sw.advance(0.5);
  EXPECT_THAT(sw.publishedKeys(), ElementsAre("10.1.0.0/16@101"));
  EXPECT_THAT(sw.adjacencyIds(), ElementsAre(inherited));
  sw.route("10.3.0.0/16", 1, 2);
  sw.advance(0.5);
  EXPECT_NE(sw.adjIdOf("10.3.0.0/16", 101), inherited);
  sw.advance(400);
  EXPECT_THAT(sw.publishedKeys(), ElementsAre("10.3.0.0/16@101"));
  EXPECT_EQ(sw.adjacencyIds().size(), 1u);
}

TEST_P(SwRouteSmTest, AnInheritedRouteKeepsItsIdentifierAlsoWithoutAnAdjacency) {
  sw.capability(100, 100, 2);
  sw.recordCapacity(1);  // and another route has it: what is recorded is decided at once after a restart
  sw.route("11.0.0.0/8", 9, 1);
  sw.start();
  settle();
  for (std::uint64_t key = 1; key <= 4; ++key) sw.via(key, {sw.nexthop("10.255.0." + std::to_string(key))});
  for (std::uint64_t key = 1; key <= 3; ++key) sw.route("10." + std::to_string(key) + ".0.0/16", 1, key);
  settle();
  sw.stop();
  // The route that found no room for its adjacency is withdrawn while the agent is away; a new one comes.
  const auto without = sw.published();
  const auto left =
      std::find_if(without.begin(), without.end(), [](const auto& r) { return r.second == "no adjacency"; });
  ASSERT_NE(left, without.end());
  const std::string prefix = left->first.substr(0, left->first.find('@'));
  const auto adjId = sw.adjIdOf(prefix, 101);
  sw.routeGone(prefix, 1);
  sw.capability(100, 100, 10);
  sw.route("9.0.0.0/8", 1, 4);
  sw.start();
  sw.advance(0.5);
  ASSERT_TRUE(sw.publishedKeys().contains(prefix + "@101"));
  EXPECT_NE(sw.adjIdOf("9.0.0.0/8", 101), adjId);
  sw.advance(400);
  EXPECT_EQ(sw.published().size(), 3u);
  EXPECT_EQ(sw.sm().adjIds().inUse(), 3u);
}

TEST_P(SwRouteSmTest, RequestsAreMadeAgainWhenTheResolversSideDropsThem) {
  sw.via(1, {sw.nexthop("10.255.0.1")});
  sw.route("10.1.0.0/16", 1, 1);
  sw.start();
  settle();
  sw.entity<Routing::NexthopConfig>("l3/nexthop-resolver/config/routeCache", "Routing::NexthopConfig")
      ->vrfDel(L3::VrfName());
  settle();
  EXPECT_THAT(sw.requests(), ElementsAre("10.255.0.1"));
  EXPECT_THAT(sw.published(), ElementsAre(Pair("10.1.0.0/16@101", "10.255.0.1 Vxlan1 vlan 10 fec 5")));
  sw.route("10.2.0.0/16", 1, 1);
  settle();
  EXPECT_EQ(sw.published().size(), 2u);
}

// --- Queue -----------------------------------------------------------------------------------------------------------

TEST_P(SwRouteSmTest, AFreshChangeDoesNotDragAlongWhatIsTriedAgain) {
  sw.checkEveryRunIs(false);
  constexpr unsigned waiting = 3000;
  sw.via(1, {sw.nexthop("10.255.0.1")});
  sw.route("20.0.0.0/8", 1, 1);
  sw.start();
  settle();
  for (unsigned i = 0; i < waiting; ++i) {
    sw.route("10." + std::to_string(i / 250) + "." + std::to_string(i % 250) + ".0/24", 1, 9);
  }
  settle();
  ASSERT_EQ(sw.sm().routeToProcess().leftoverCount(), waiting);
  const auto work = [&](const char* task) { return sw.workDone(task); };
  const auto fresh = work("routeProcessingTask");
  const auto again = work("leftoverProcessingTask");
  for (int i = 0; i < 1000; ++i) {
    sw.route("20.0.0.0/8", 1, 1);
    sw.advance(0.002);
  }
  EXPECT_EQ(work("routeProcessingTask") - fresh, 1000u);
  // One slice of it a second: all of them, or one.
  EXPECT_LE(work("leftoverProcessingTask") - again, 3 * (GetParam() == 0 ? waiting : 1));
  EXPECT_GE(work("leftoverProcessingTask") - again, GetParam() == 0 ? waiting : 1);

  // What they wait for comes: they are published with the next round, which goes on while it gets them further. The
  // queue is empty then, which ends a restart.
  sw.stop();
  sw.start();
  sw.advance(1.5);
  EXPECT_TRUE(sw.sm().restart());
  sw.via(9, {sw.nexthop("10.255.0.1")});
  sw.advance(1 + (GetParam() == 0 ? 0 : 0.001 * waiting));
  EXPECT_EQ(sw.published().size(), waiting + 1);
  EXPECT_EQ(sw.sm().routeToProcess().size(), 0u);
  EXPECT_FALSE(sw.sm().restart());
}

TEST_P(SwRouteSmTest, AChangeOvertakesALoad) {
  constexpr unsigned loaded = 20'000;
  const auto keyOf = [](unsigned i) { return Platform::toText(Prefix(IpAddr(0x14000000 + i), 32)); };
  sw.capability(loaded + 1, loaded + 1, 100);
  sw.checkEveryRunIs(false);
  sw.via(1, {sw.nexthop("10.255.0.1")});
  sw.via(2, {sw.nexthop("10.255.0.2")});
  sw.route("10.0.0.0/8", 1, 1);
  sw.start();
  settle();
  for (unsigned i = 0; i < loaded; ++i) sw.route(keyOf(i), 1, 1);
  sw.route("10.0.0.0/8", 1, 2);
  std::size_t publishedBefore = 0;
  sw.scheduler.afterRunIs([&] {
    sw.afterRun();
    const RouteCache::Ipv4RouteVrfKey key(Platform::fromText<Prefix>("10.0.0.0/8"), 101);
    const auto& table = *sw.agent().ipv4HwRouteStatus();
    if (publishedBefore == 0 && table.route(key)->adjId() != AdjId(1)) publishedBefore = table.size();
  });
  settle();
  EXPECT_GT(publishedBefore, 0U);
  EXPECT_LT(publishedBefore, loaded / 4);
  EXPECT_EQ(sw.published().size(), loaded + 1);
  sw.agent().checkInvariants();
}

TEST_P(SwRouteSmTest, WhomTheRecordHadNoRoomForIsRecordedSoonAfterThereIsSome) {
  sw.recordCapacity(40);
  for (int i = 0; i <= 40; ++i) sw.route("10.0." + std::to_string(i) + ".0/24", 9, 1);
  sw.start();
  settle();
  ASSERT_FALSE(sw.unprogrammed().contains("10.0.40.0/24@9"));
  sw.routeGone("10.0.0.0/24", 9);
  sw.advance(1);
  EXPECT_TRUE(sw.unprogrammed().contains("10.0.40.0/24@9"));
}

TEST_P(SwRouteSmTest, AKeyThatIsNoneHoldsUpNobody) {
  sw.vrf("blue", 2, 102);
  sw.via(1, {sw.nexthop("10.255.0.1")});
  // 64 routes are one step of the walk: the key without a prefix stands where the next step begins.
  for (int i = 0; i < 64; ++i) sw.route("2001:db8:" + std::to_string(1000 + i) + "::/48", 1, 1);
  sw.route("", 2, 1);
  for (int i = 0; i < 10; ++i) sw.route("2001:db8:" + std::to_string(2000 + i) + "::/48", 2, 1);
  sw.start();
  settle();
  EXPECT_EQ(sw.published().size(), 74u);
}

TEST_P(SwRouteSmTest, ARouteInTheOtherFamilysTableIsNone) {
  sw.via(0, {sw.nexthop("10.255.0.1")});
  sw.start();
  settle();
  sw.misplacedRoute("2001:db8:5::/48", 1);
  sw.misplacedRoute("10.5.0.0/16", 1);
  sw.vti("Vxlan1", "192.0.2.2", "2001:db8::2");  // every route is decided again
  settle();
  EXPECT_TRUE(sw.published().empty());
}

TEST_P(SwRouteSmTest, ARouteSyncOnceBegunGoesOnToItsEndAndTakesTurns) {
  sw.vrf("blue", 2, 102);
  sw.via(1, {sw.nexthop("10.255.0.1")});
  sw.route("9.0.0.0/8", 2, 1);  // the first that the sync meets
  const auto stale = [](int i) { return "10.0." + std::to_string(i) + ".0/24"; };
  for (int i = 0; i < 100; ++i) sw.route(stale(i), 1, 1);
  sw.start();
  settle();
  sw.stop();
  for (int i = 0; i < 100; ++i) sw.routeGone(stale(i), 1);
  sw.trace.clear();
  sw.scheduler.yieldAfterEntriesIs(1);
  sw.start();
  sw.advance(4.75);
  EXPECT_EQ(sw.published().size(), 101u);
  // In its middle a VRF goes whose routes it has passed, and a route comes.
  std::size_t publishedAfter = 0;
  sw.scheduler.afterRunIs([&, done = false]() mutable {
    sw.afterRun();
    const auto runs = sw.trace.count("RouteSync rescheduled with Bookmark ");
    if (runs == 10 && !std::exchange(done, true)) {
      sw.vrfGone("blue");
      sw.route("20.0.0.0/8", 1, 1);
    }
    if (publishedAfter == 0 && sw.publishedKeys().contains("20.0.0.0/8@101")) publishedAfter = runs;
  });
  sw.advance(0.25);
  sw.scheduler.afterRunIs([&] { sw.afterRun(); });
  EXPECT_THAT(sw.publishedKeys(), ElementsAre("20.0.0.0/8@101"));
  EXPECT_GE(publishedAfter, 10u);
  EXPECT_LT(publishedAfter, 20u);
}

}  // namespace
