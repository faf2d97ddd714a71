// Published tables on one side, the kernel of a network of the test's own on the other.
#include <gmock/gmock.h>

#include <algorithm>
#include <csignal>
#include <nlohmann/json.hpp>
#include <optional>
#include <random>
#include <sstream>
#include <string>

#include "host/TableDelivery.h"
#include "host/TableTypes.h"
#include "linux/tables/SharedTableService.h"
#include "netlink/kernel/KernelFlush.h"
#include "netlink/kernel/KernelMirror.h"
#include "platform/values/Paths.h"
#include "test/support/Command.h"
#include "test/support/Eventually.h"
#include "test/support/OwnNetwork.h"
#include "test/support/TemporaryDirectory.h"

namespace {

using LinuxPlatform::SharedTableService;
using Netlink::MirrorSettings;
using RouteCache::AdjId;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

const EthAddr mac1({2, 0, 0, 0, 0, 1});
const EthAddr mac2({2, 0, 0, 0, 0, 2});
constexpr Bridging::ExtendedVlanId vlan = 10;

// One mirror, from its start until it is killed: it does nothing on its way out.
class Mirror {
 public:
  Mirror(const std::string& runDir, const MirrorSettings& settings)
      : tables_(runDir, types_, [this] {
          if (delivery_) delivery_->wanted();
        }) {
    delivery_.emplace(loop_, tables_);
    mirror_.emplace(tables_, loop_, settings);
  }
  // Runs until there is nothing to do.
  void settle() {
    for (int idle = 0; idle < 3;) {
      tables_.handleWakeup();
      if (tables_.pendingChanges()) delivery_->wanted();
      loop_.runOnce(0);
      idle = mirror_->isIdle() && !tables_.pendingChanges() ? idle + 1 : 0;
    }
    mirror_->checkInvariants();
    const std::uint64_t before = runs();
    for (int i = 0; i < 8; ++i) loop_.runOnce(0);
    EXPECT_LE(runs(), before + 2) << "with nothing to do it rests";
  }
  Netlink::KernelMirror* operator->() { return &*mirror_; }
  std::uint64_t figure(const std::string& name) const {
    for (const auto& [known, value] : mirror_->figures()) {
      if (known == name) return value;
    }
    ADD_FAILURE() << name;
    return 0;
  }
  LinuxPlatform::EventLoop& loop() { return loop_; }

 private:
  // Of its own tasks.
  std::uint64_t runs() const {
    std::uint64_t sum = 0;
    for (const auto& task : loop_.statistics()) {
      if (task.name.starts_with("kernel")) sum += task.runs;
    }
    return sum;
  }

  LinuxPlatform::EventLoop loop_;
  Platform::TableTypes types_ = Tools::allTableTypes();
  std::optional<Tools::TableDelivery> delivery_;
  SharedTableService tables_;
  std::optional<Netlink::KernelMirror> mirror_;
};

class KernelMirrorTest : public testing::Test {
 protected:
  void SetUp() override {
    if (!network.fault().empty()) GTEST_SKIP() << network.fault();
    settings.tableBase = 1000;
    settings.vnis = {{{IntfId(), vlan}, 10010}};
    settings.device = "vx";
    settings.routePath = Paths::sfeRoutes;
    settings.route6Path = Paths::hw6Routes;
    settings.compareInterval = 3600;
    startPublisher();
  }
  // An agent's tables. With the next call another agent has them.
  void startPublisher() {
    publisher.reset();
    publisher.emplace(directory.path(), types);
    routes = written<RouteCache::Ipv4RouteStatus>(Paths::sfeRoutes, 20000);
    routes6 = written<RouteCache::Ipv6RouteStatus>(Paths::hw6Routes, 1000);
    adjacencies = written<RouteCache::Ipv4AdjacencyStatus>(Paths::adjacencies, 1000);
    adjacencies6 = written<RouteCache::Ipv6AdjacencyStatus>(Paths::adjacencies6, 1000);
  }
  template <class Table>
  std::shared_ptr<Table> written(const char* path, std::uint32_t capacity) {
    publisher->mount(path, Table::typeName, Pondra::MountKind::writer,
                     Pondra::CollectionInfo{Table::collectionName, capacity});
    return publisher->get<Table>(path);
  }
  void reconcile() {
    routes->reconciledIs();
    routes6->reconciledIs();
    adjacencies->reconciledIs();
    adjacencies6->reconciledIs();
    settle();
  }
  void startMirror() {
    mirror.reset();
    mirror.emplace(directory.path(), settings);
    settle();
  }
  void settle() {
    publisher->flush();
    if (mirror) mirror->settle();
  }
  // Messages that what is done takes.
  template <class Work>
  std::uint64_t messagesFor(Work work) {
    const auto before = (*mirror)->messagesSent();
    work();
    settle();
    return (*mirror)->messagesSent() - before;
  }

  static RouteCache::Ipv4Adjacency hop(std::uint32_t vtep, const EthAddr& mac = mac1, bool forwards = true,
                                       Bridging::ExtendedVlanId over = vlan) {
    return {Fib::FecId(forwards ? 7 : 0), over, mac, IntfId("Vxlan1"), IpAddr(vtep)};
  }
  void adjacencyIs(std::uint32_t id, const std::vector<RouteCache::Ipv4Adjacency>& hops) {
    RouteCache::Ipv4Via via{AdjId(id)};
    for (std::size_t i = 0; i < hops.size(); ++i) via.viaKeyIs(RouteCache::ViaIndex(i), hops[i]);
    adjacencies->adjIs(via);
  }
  static RouteCache::Ipv4RouteVrfKey key(const std::string& text) {
    return *RouteCache::Ipv4RouteVrfKey::fromShortText(text);
  }
  void routeIs(const std::string& text, std::uint32_t adjId) {
    routes->routeIs(RouteCache::Ipv4Route(key(text), AdjId(adjId), false));
  }
  void route6Is(const std::string& text, std::uint32_t adjId) {
    routes6->routeIs(RouteCache::Ipv6Route(*RouteCache::Ipv6RouteVrfKey::fromShortText(text), AdjId(adjId), false));
  }
  // So many host routes of VRF 1, all with the adjacency.
  void manyRoutes(std::uint32_t count, std::uint32_t adjId) {
    for (std::uint32_t i = 0; i < count; ++i) {
      routes->routeIs({{Prefix(IpAddr(0x0a000000 + i), 32), 1}, AdjId(adjId), false});
    }
  }
  static std::size_t linesOf(const std::string& text) {
    return static_cast<std::size_t>(std::ranges::count(text, '\n'));
  }
  static std::string kernel(const std::string& table, const char* family = "") {
    return OwnNetwork::ipOutput("-o " + std::string(family) + "route show table " + table);
  }
  static std::string nexthops() { return OwnNetwork::ipOutput("nexthop"); }

  OwnNetwork network;
  const TemporaryDirectory directory;
  const Platform::TableTypes types = Tools::allTableTypes();
  MirrorSettings settings;
  std::optional<SharedTableService> publisher;
  std::shared_ptr<RouteCache::Ipv4RouteStatus> routes;
  std::shared_ptr<RouteCache::Ipv6RouteStatus> routes6;
  std::shared_ptr<RouteCache::Ipv4AdjacencyStatus> adjacencies;
  std::shared_ptr<RouteCache::Ipv6AdjacencyStatus> adjacencies6;
  std::optional<Mirror> mirror;
};

TEST_F(KernelMirrorTest, WhatIsPublishedIsForwardedAndARestartChangesNothing) {
  adjacencyIs(1, {hop(0x0aff0001), hop(0x0aff0002, mac2)});
  routeIs("10.1.0.0/24@2", 1);
  routeIs("0.0.0.0/0@2", 1);
  route6Is("2001:db8::/48@2", 1);
  startMirror();
  EXPECT_THAT(kernel("1002"), HasSubstr("10.1.0.0/24 nhid 1073741952 proto 140 metric 20"));
  EXPECT_THAT(kernel("1002"), HasSubstr("default nhid 1073741952"));
  EXPECT_THAT(kernel("1002", "-6 "), HasSubstr("2001:db8::/48 nhid 1073741952 proto 140 metric 20"));
  EXPECT_THAT(nexthops(), HasSubstr("encap ip id 10010 src 0.0.0.0 dst 10.255.0.2"));
  EXPECT_THAT(OwnNetwork::ipOutput("-6 neigh show dev vx"),
              HasSubstr("fe80::ff:fe00:2 lladdr 02:00:00:00:00:02 PERMANENT"));

  startMirror();
  EXPECT_EQ((*mirror)->messagesSent(), 0U);
  EXPECT_EQ(mirror->figure("ipv4Routes"), 2U);
  EXPECT_EQ(mirror->figure("ipv6Routes"), 1U);
}

TEST_F(KernelMirrorTest, VnisMayBeKnownLaterAndChange) {
  settings.vnis.clear();
  adjacencyIs(1, {hop(0x0aff0001)});
  routeIs("10.1.0.0/24@2", 1);
  startMirror();
  const auto forwards = [&] { return (*mirror)->forwards(2, Prefix(IpAddr(0x0a010000), 24)); };
  EXPECT_EQ(kernel("1002"), "");
  EXPECT_FALSE(forwards());
  const auto vniIs = [&](const char* interface, std::uint32_t vni) {
    return messagesFor([&] { (*mirror)->vnisAre({{{IntfId(interface), vlan}, vni}}); });
  };
  EXPECT_EQ(vniIs("another", 10030), 0U);
  vniIs("Vxlan1", 10010);
  EXPECT_THAT(nexthops(), HasSubstr("encap ip id 10010"));
  EXPECT_TRUE(forwards());
  EXPECT_EQ(vniIs("Vxlan1", 10020), 1U);
  EXPECT_THAT(nexthops(), HasSubstr("encap ip id 10020"));
  EXPECT_EQ(vniIs("another", 10030), 0U) << "what is there stays while nobody knows better";
  EXPECT_TRUE(forwards());
  adjacencyIs(1, {hop(0x0aff0001, mac1, false)});
  settle();
  vniIs("Vxlan1", 10020);
  EXPECT_FALSE(forwards()) << "it leads nowhere";
}

TEST_F(KernelMirrorTest, ChangesTakeAsFewMessagesAsTheyCan) {
  adjacencyIs(1, {hop(0x0aff0001), hop(0x0aff0002)});
  manyRoutes(3000, 1);
  route6Is("2001:db8::/48@2", 1);
  startMirror();
  reconcile();
  EXPECT_EQ(linesOf(kernel("1001")), 3000U);
  const auto hops = [&](std::initializer_list<RouteCache::Ipv4Adjacency> all) {
    return messagesFor([&] { adjacencyIs(1, all); });
  };
  EXPECT_EQ(hops({hop(0x0aff0001), hop(0x0aff0003)}), 1U) << "another VTEP";
  EXPECT_EQ(hops({hop(0x0aff0001), hop(0x0aff0003, mac2)}), 2U) << "another router MAC, with its neighbour";
  EXPECT_EQ(hops({hop(0x0aff0001), hop(0x0aff0003, mac2, false)}), 1U) << "one does not forward";
  EXPECT_EQ(hops({hop(0x0aff0001, mac1, false), hop(0x0aff0003, mac2, false)}), 2U)
      << "the object that leads nowhere, too";
  EXPECT_EQ(linesOf(kernel("1001")), 3000U) << "routes stay";
  EXPECT_EQ(hops({hop(0x0aff0001)}), 3U) << "the group, and one hop and its neighbour less";
  EXPECT_EQ(hops({hop(0x0aff0001)}), 0U);
  EXPECT_EQ(hops({hop(0x0aff0009, mac1, true, 99)}), 0U) << "a VLAN without a VNI: the kernel keeps what it has";
  EXPECT_EQ(hops({hop(0x0aff0001)}), 0U);

  EXPECT_EQ(messagesFor([&] {
              adjacencyIs(2, {hop(0x0aff0001)});
              manyRoutes(1000, 2);
            }),
            1002U);
  EXPECT_EQ(messagesFor([&] { manyRoutes(1000, 2); }), 0U) << "said again";
  EXPECT_EQ(messagesFor([&] { routes->routeDelAll(); }), 3000U);
  EXPECT_EQ(messagesFor([&] { adjacencies->adjDel(AdjId(2)); }), 2U);
  EXPECT_EQ(messagesFor([&] { adjacencies->adjDel(AdjId(1)); }), 0U) << "the IPv6 route needs it";
  EXPECT_EQ(messagesFor([&] { routes6->routeDelAll(); }), 4U);
  EXPECT_THAT(kernel("1001"), IsEmpty());
}

TEST_F(KernelMirrorTest, WhatIsNotKnownYetIsWaitedForAndRemovesNothing) {
  adjacencyIs(1, {hop(0x0aff0001)});
  routeIs("10.1.0.0/24@2", 1);
  routeIs("10.2.0.0/24@2", 1);
  startMirror();
  reconcile();
  // Another agent, which begins with nothing.
  routes.reset();
  startPublisher();
  EXPECT_EQ(messagesFor([&] {
              routes->routeDelAll();
              adjacencies->adjDelAll();
            }),
            0U);
  EXPECT_EQ(messagesFor([&] { routeIs("10.1.0.0/24@2", 2); }), 0U) << "its adjacency is not there";
  EXPECT_THAT(kernel("1002"), HasSubstr("10.1.0.0/24 nhid 1073741952"));
  EXPECT_EQ(mirror->figure("waiting"), 1U);
  EXPECT_EQ(mirror->figure("unreconciled"), 1U);
  EXPECT_EQ(messagesFor([&] { adjacencyIs(2, {hop(0x0aff0001)}); }), 3U);
  EXPECT_THAT(kernel("1002"), HasSubstr("10.1.0.0/24 nhid 1073742080"));
  EXPECT_EQ(messagesFor([&] { reconcile(); }), 3U) << "the other route, the group and the hop of the first adjacency";
  EXPECT_THAT(kernel("1002"), Not(HasSubstr("10.2.0.0/24")));

  // A mirror without any tables leaves the kernel alone.
  const TemporaryDirectory empty;
  mirror.reset();
  mirror.emplace(empty.path(), settings);
  mirror->settle();
  EXPECT_EQ((*mirror)->messagesSent(), 0U);
  EXPECT_THAT(kernel("1002"), HasSubstr("10.1.0.0/24"));
}

TEST_F(KernelMirrorTest, RoutesOfOthersStayAndAreInTheWayUntilTheyGo) {
  ASSERT_TRUE(OwnNetwork::ip("route add blackhole 10.1.0.0/24 table 1002 metric 20 proto static"));
  ASSERT_TRUE(OwnNetwork::ip("route add blackhole 10.9.0.0/24 table 1002 proto static"));
  ASSERT_TRUE(OwnNetwork::ip("-6 route add blackhole 2001:db8::/48 table 1002 metric 20 proto static"));
  adjacencyIs(1, {hop(0x0aff0001)});
  routeIs("10.1.0.0/24@2", 1);
  routeIs("10.2.0.0/24@2", 1);
  route6Is("2001:db8::/48@2", 1);
  startMirror();
  reconcile();
  EXPECT_THAT(kernel("1002"), HasSubstr("blackhole 10.1.0.0/24"));
  EXPECT_THAT(kernel("1002"), HasSubstr("10.2.0.0/24 nhid"));
  EXPECT_EQ(mirror->figure("refused"), 2U);
  const auto refused = (*mirror)->refused(20);
  ASSERT_EQ(refused.size(), 2U);
  EXPECT_EQ(refused[0].route, "10.1.0.0/24@2");
  EXPECT_EQ(refused[0].error, EEXIST);
  EXPECT_EQ(refused[1].route, "2001:db8::/48@2");
  EXPECT_EQ((*mirror)->refused(1).size(), 1U);

  ASSERT_TRUE(OwnNetwork::ip("route del blackhole 10.1.0.0/24 table 1002"));
  routes6->routeDelAll();
  settle();
  EXPECT_TRUE(eventually([&] { return mirror->settle(), mirror->figure("refused") == 0; }));
  EXPECT_THAT(kernel("1002"), HasSubstr("10.1.0.0/24 nhid"));
  EXPECT_THAT(kernel("1002", "-6 "), HasSubstr("blackhole 2001:db8::/48"));
  const auto flushed = Netlink::flushKernel();
  EXPECT_EQ(flushed.routes, 2U);
  EXPECT_EQ(flushed.nexthops, 2U);
  EXPECT_EQ(flushed.neighbours, 1U);
  EXPECT_THAT(kernel("1002"), HasSubstr("blackhole 10.9.0.0/24"));
  EXPECT_THAT(nexthops(), IsEmpty());
}

TEST_F(KernelMirrorTest, WhatALinkTakesAlongComesBackWithIt) {
  adjacencyIs(1, {hop(0x0aff0001)});
  adjacencyIs(2, {hop(0x0aff0002, mac2)});
  manyRoutes(2000, 1);
  route6Is("2001:db8::/48@2", 2);
  startMirror();
  reconcile();
  ASSERT_TRUE(OwnNetwork::ip("link set vx down"));
  settle();
  EXPECT_THAT(kernel("1001"), IsEmpty());
  EXPECT_EQ(mirror->figure("waiting"), 2001U);
  EXPECT_EQ(messagesFor([&] { routeIs("10.200.0.0/16@1", 1); }), 0U);
  ASSERT_TRUE(OwnNetwork::ip("link set vx up"));
  settle();
  EXPECT_EQ(linesOf(kernel("1001")), 2001U);
  EXPECT_THAT(kernel("1002", "-6 "), HasSubstr("2001:db8::/48"));

  // Down and up before anybody looks; and another device under the name.
  ASSERT_TRUE(OwnNetwork::ip("link set vx down") && OwnNetwork::ip("link set vx up"));
  settle();
  EXPECT_EQ(linesOf(kernel("1001")), 2001U);
  ASSERT_TRUE(OwnNetwork::ip("link del vx") && OwnNetwork::ip("link add vx type vxlan external dstport 4789"));
  settle();
  ASSERT_TRUE(OwnNetwork::ip("link set vx up"));
  settle();
  EXPECT_EQ(linesOf(kernel("1001")), 2001U);
  EXPECT_THAT(kernel("1002", "-6 "), HasSubstr("2001:db8::/48"));
  EXPECT_EQ(mirror->figure("refused"), 0U);
}

// Whatever others do to what is ours, and whatever is published meanwhile: a comparison brings the kernel in line, and
// the next one finds nothing.
TEST_F(KernelMirrorTest, ComparisonHealsWhatHasDiverged) {
  for (std::uint32_t adjId = 1; adjId <= 8; ++adjId) adjacencyIs(adjId, {hop(0x0aff0000 + adjId)});
  startMirror();
  reconcile();
  std::mt19937 random(7);
  for (int round = 0; round < 12; ++round) {
    SCOPED_TRACE(round);
    for (int i = 0; i < 60; ++i) {
      const std::string text = "10." + std::to_string(random() % 40) + ".0.0/16@1";
      if (random() % 3 == 0) {
        routes->routeDel(key(text));
      } else {
        routeIs(text, 1 + random() % 8);
      }
    }
    if (round % 2 == 0) settle();
    for (int i = 0; i < 10; ++i) {
      const std::string prefix = "10." + std::to_string(random() % 40) + ".0.0/16 table 1001 metric 20";
      const std::string group = std::to_string(Netlink::nexthopId(AdjId(1 + random() % 8)));
      switch (random() % 5) {
        case 0:
          OwnNetwork::ip("route del " + prefix);
          break;
        case 1:
          OwnNetwork::ip("route replace " + prefix + " nhid " + group + " proto 140");
          break;
        case 2:
          OwnNetwork::ip("route add 10.1.0.0/16 table 1001 metric 77 proto 140 nhid " + group);  // of another metric
          break;
        case 3:
          OwnNetwork::ip("nexthop del id " + group);
          break;
        case 4:
          OwnNetwork::ip("neigh del fe80::ff:fe00:1 dev vx");
          break;
      }
    }
    (*mirror)->comparisonWanted();
    settle();
    EXPECT_EQ(messagesFor([&] { (*mirror)->comparisonWanted(); }), 0U);
    for (const auto& route : *routes) {
      const std::string line =
          Platform::toText(route.key().prefix()) + " nhid " + std::to_string(Netlink::nexthopId(route.adjId())) + " ";
      EXPECT_THAT(kernel("1001"), HasSubstr(line));
    }
    EXPECT_EQ(linesOf(kernel("1001")), routes->size());
    EXPECT_EQ(mirror->figure("ipv4Routes"), routes->size());
    EXPECT_EQ(mirror->figure("refused"), 0U);
  }
}

}  // namespace
