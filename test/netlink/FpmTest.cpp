// A routing suite's messages on one side, the RIB tables on the other: in one process with a clock of the test's own,
// and over TCP into a process that is killed.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <linux/neighbour.h>
#include <linux/nexthop.h>
#include <linux/rtnetlink.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <optional>
#include <random>
#include <set>
#include <string>

#include "host/TableTypes.h"
#include "linux/loop/EventLoop.h"
#include "linux/tables/SharedTableService.h"
#include "netlink/fpm/FpmRib.h"
#include "netlink/fpm/FpmServer.h"
#include "netlink/messages/MessageBuffer.h"
#include "platform/values/Paths.h"
#include "test/support/Command.h"
#include "test/support/Eventually.h"
#include "test/support/SimulatedClock.h"
#include "test/support/TemporaryDirectory.h"

namespace {

using LinuxPlatform::SharedTableService;
using Netlink::Bytes;
using Netlink::FpmFault;
using Netlink::MessageBuffer;
using Routing::Rib::Route;
using Routing::Rib::RouteConfig;
using Routing::Rib::RouteKey;
using Routing::Rib::RouteCache::Evpn::Via;
using Routing::Rib::RouteCache::Evpn::ViaConfig;
using Routing::Rib::RouteCache::Evpn::ViaNexthop;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr std::uint32_t table = 1001;
constexpr std::uint32_t vrfId = 2;
constexpr std::uint32_t vni = 10010;
const IpAddr vtep1(0x0AFF0001);
const IpAddr vtep2(0x0AFF0002);
const EthAddr mac1({2, 0, 0, 0, 0, 1});
const EthAddr mac2({2, 0, 0, 0, 0, 2});
const EthAddr mac3({2, 0, 0, 0, 0, 3});

struct Hop {
  IpAddr vtep;
  std::uint32_t vni;
};

// What a routing suite sends: messages, each in a frame of its own.
class Suite {
 public:
  // Both ways to say a set of next hops in the route itself.
  Suite& route(const IpGenPrefix& prefix, const std::vector<Hop>& hops, std::uint32_t inTable = table) {
    MessageBuffer message;
    begin(message, RTM_NEWROUTE, prefix, inTable);
    if (hops.size() == 1) hop(message, hops.front());
    if (hops.size() > 1) {
      message.nestBegins(RTA_MULTIPATH);
      for (const Hop& each : hops) {
        MessageBuffer inner;
        inner.messageBegins(0, 0, 0, rtnexthop{});
        hop(inner, each);
        inner.messageEnds();
        const Bytes attributes = inner.bytes().subspan(sizeof(nlmsghdr) + sizeof(rtnexthop));
        message.addBare(rtnexthop{static_cast<unsigned short>(sizeof(rtnexthop) + attributes.size()), 0, 0, 4});
        for (std::size_t at = 0; at < attributes.size(); at += 4) {
          std::uint32_t word;
          std::memcpy(&word, attributes.data() + at, sizeof word);
          message.addBare(word);
        }
      }
      message.nestEnds();
    }
    return ends(message);
  }
  Suite& routeByObject(const IpGenPrefix& prefix, std::uint32_t id) {
    MessageBuffer message;
    begin(message, RTM_NEWROUTE, prefix, table);
    message.addNumber<std::uint32_t>(RTA_NH_ID, id);
    return ends(message);
  }
  Suite& withdraw(const IpGenPrefix& prefix) {
    MessageBuffer message;
    begin(message, RTM_DELROUTE, prefix, table);
    return ends(message);
  }
  Suite& mac(const IpAddr& vtep, const EthAddr& mac, std::uint32_t ofVni = vni, std::uint16_t type = RTM_NEWNEIGH) {
    MessageBuffer message;
    ndmsg header{};
    header.ndm_family = AF_BRIDGE;
    message.messageBegins(type, 0, 0, header);
    message.addMac(NDA_LLADDR, mac);
    message.addAddress(NDA_DST, vtep);
    message.addNumber<std::uint32_t>(NDA_VNI, ofVni);
    return ends(message);
  }
  Suite& object(std::uint32_t id, const IpAddr& vtep, bool onlink = true) {
    MessageBuffer message;
    nhmsg header{};
    header.nh_family = AF_INET;
    header.nh_flags = onlink ? unsigned{RTNH_F_ONLINK} : 0;
    message.messageBegins(RTM_NEWNEXTHOP, 0, 0, header);
    message.addNumber<std::uint32_t>(NHA_ID, id);
    message.addAddress(NHA_GATEWAY, vtep);
    message.addNumber<std::uint32_t>(NHA_OIF, 4);
    return ends(message);
  }
  Suite& group(std::uint32_t id, const std::vector<std::uint32_t>& members) {
    MessageBuffer message;
    message.messageBegins(RTM_NEWNEXTHOP, 0, 0, nhmsg{});
    message.addNumber<std::uint32_t>(NHA_ID, id);
    std::vector<nexthop_grp> entries(members.size());
    for (std::size_t i = 0; i < members.size(); ++i) entries[i].id = members[i];
    message.add(NHA_GROUP, std::as_bytes(std::span(entries)));
    return ends(message);
  }
  // What was said since the last call.
  std::vector<std::byte> take() { return std::exchange(bytes_, {}); }

 private:
  static void begin(MessageBuffer& message, std::uint16_t type, const IpGenPrefix& prefix, std::uint32_t inTable) {
    rtmsg header{};
    header.rtm_family = prefix.isV4() ? AF_INET : AF_INET6;
    header.rtm_dst_len = static_cast<unsigned char>(prefix.length());
    header.rtm_type = RTN_UNICAST;
    header.rtm_protocol = RTPROT_BGP;
    message.messageBegins(type, NLM_F_CREATE | NLM_F_REPLACE, 0, header);
    message.addNumber<std::uint32_t>(RTA_TABLE, inTable);
    message.addAddress(RTA_DST, prefix.addr());
    message.addNumber<std::uint32_t>(RTA_PRIORITY, 20);
  }
  static void hop(MessageBuffer& message, const Hop& hop) {
    message.addAddress(RTA_GATEWAY, hop.vtep);
    if (hop.vni == 0) return;
    message.addNumber<std::uint16_t>(RTA_ENCAP_TYPE, 100);
    message.nestBegins(RTA_ENCAP);
    message.addNumber<std::uint32_t>(0, hop.vni);
    message.nestEnds();
  }
  Suite& ends(MessageBuffer& message) {
    message.messageEnds();
    const std::size_t length = message.bytes().size() + Netlink::FpmFrames::headerSize;
    for (const std::size_t byte : {std::size_t{1}, std::size_t{1}, length >> 8, length & 0xFF}) {
      bytes_.push_back(static_cast<std::byte>(byte));
    }
    bytes_.insert(bytes_.end(), message.bytes().begin(), message.bytes().end());
    return *this;
  }

  std::vector<std::byte> bytes_;
};

// What FRR 8.4 said: static routes with one, two and an onlink next hop, a blackhole, IPv6, connected networks.
std::vector<std::byte> captured(const std::string& name) {
  std::ifstream file(std::string(ROUTECACHE_GOLDEN) + "/fpm/" + name + ".hex");
  std::vector<std::byte> bytes;
  for (std::string line; std::getline(file, line);) {
    for (std::size_t at = 0; at + 1 < line.size(); at += 2) {
      bytes.push_back(static_cast<std::byte>(std::stoi(line.substr(at, 2), nullptr, 16)));
    }
  }
  EXPECT_FALSE(bytes.empty()) << name;
  return bytes;
}

std::vector<Netlink::FpmMessage> messagesIn(const std::vector<std::byte>& bytes) {
  Netlink::FpmFrames frames;
  frames.append(bytes);
  std::vector<Netlink::FpmMessage> messages;
  while (const auto frame = frames.next()) {
    for (auto& message : Netlink::fpmMessagesIn(*frame)) messages.push_back(std::move(message));
  }
  EXPECT_FALSE(frames.isWithinFrame());
  return messages;
}

IpGenPrefix prefix(std::uint32_t number) {
  return Prefix(IpAddr(0x0A000000 + (number << 8)), 24);
}

// One process, from its start until it is killed: it does nothing on its way out.
class Process {
 public:
  Process(const std::string& runDir, const Netlink::FpmSettings& settings)
      : clock_(std::make_shared<SimulatedClock>()),
        loop_(LinuxPlatform::EventLoop::defaultTimeSlice, clock_),
        tables_(runDir, types_),
        rib_(tables_, loop_, settings) {
    rib_.checkInvariants();
  }
  void connect() { rib_.sessionBegins(); }
  // As the server does it.
  void hears(Suite& suite) {
    Netlink::FpmFrames frames;
    frames.append(suite.take());
    while (const auto frame = frames.next()) rib_.apply(Netlink::fpmMessagesIn(*frame));
    settle();
  }
  void pass(double seconds) {
    clock_->advance(seconds);
    settle();
  }
  void settle() {
    do loop_.runOnce(0);
    while (!rib_.isIdle());
    for (int i = 0; i < 3; ++i) loop_.runOnce(0);
    rib_.checkInvariants();
  }
  // One batch of what there is to do, which a slow clock cuts short.
  void step() {
    clock_->secondsPerLookIs(0.001);
    loop_.runOnce(0);
    clock_->secondsPerLookIs(0);
    rib_.checkInvariants();
  }
  Netlink::FpmRib& rib() { return rib_; }
  std::uint64_t figure(const std::string& name) const {
    for (const auto& [known, value] : rib_.figures()) {
      if (known == name) return value;
    }
    ADD_FAILURE() << name;
    return 0;
  }
  // Of all three tables.
  std::uint64_t changes() const {
    return tables_.get<RouteConfig>(Paths::ribRoutes)->lastChange() +
           tables_.get<RouteConfig>(Paths::rib6Routes)->lastChange() +
           tables_.get<ViaConfig>(Paths::ribVias)->lastChange();
  }
  bool reconciled() const { return tables_.get<RouteConfig>(Paths::ribRoutes)->reconciled(); }
  std::vector<Route> routes(const char* path = Paths::ribRoutes) const {
    const auto routes = tables_.get<RouteConfig>(path);
    return {routes->begin(), routes->end()};
  }
  std::vector<Via> vias() const {
    const auto vias = tables_.get<ViaConfig>(Paths::ribVias);
    return {vias->begin(), vias->end()};
  }
  // Of one route; empty when it is not there.
  std::vector<ViaNexthop> nexthops(const IpGenPrefix& of) const {
    const auto route =
        tables_.get<RouteConfig>(of.isV4() ? Paths::ribRoutes : Paths::rib6Routes)->route(RouteKey(vrfId, of));
    if (!route) return {};
    const auto via = tables_.get<ViaConfig>(Paths::ribVias)->via(route->viaKey());
    EXPECT_TRUE(via.has_value());
    return via ? via->nexthops() : std::vector<ViaNexthop>();
  }

 private:
  std::shared_ptr<SimulatedClock> clock_;
  LinuxPlatform::EventLoop loop_;
  Platform::TableTypes types_ = Tools::allTableTypes();
  SharedTableService tables_;
  Netlink::FpmRib rib_;
};

class FpmTest : public testing::Test {
 protected:
  FpmTest() {
    settings.vrfs.byTable = {{table, vrfId}};
    settings.vti = IntfId("Vxlan1");
    settings.capacity = 1000;
  }
  void start() {
    process.reset();
    process.emplace(directory.path(), settings);
    process->connect();
  }
  static ViaNexthop via(const IpAddr& vtep, const EthAddr& mac, std::uint32_t withVni = vni) {
    return {vtep, IntfId("Vxlan1"), 0, Vxlan::Vni(withVni), mac};
  }

  TemporaryDirectory directory;
  Netlink::FpmSettings settings;
  std::optional<Process> process;
  Suite suite;
};

TEST_F(FpmTest, RoutesWaitForTheirMacsAndShareVias) {
  start();
  const IpGenPrefix prefix6 = Ip6Prefix(Ip6Addr(0x20010DB800000000, 0), 32);
  process->hears(suite.route(prefix(1), {{vtep1, vni}})
                     .route(prefix(2), {{vtep2, vni}, {vtep1, vni}})
                     .route(prefix(3), {{vtep1, vni}, {vtep2, vni}})
                     .route(prefix6, {{vtep1, vni}}));
  EXPECT_THAT(process->routes(), IsEmpty());
  EXPECT_EQ(process->figure("waitingForMac"), 4);
  process->hears(suite.mac(vtep1, mac3, vni + 1).mac(vtep1, mac1));
  EXPECT_THAT(process->nexthops(prefix(1)), ElementsAre(via(vtep1, mac1)));
  EXPECT_THAT(process->nexthops(prefix6), ElementsAre(via(vtep1, mac1)));
  EXPECT_EQ(process->figure("waitingForMac"), 2);
  process->hears(suite.mac(vtep2, mac2));
  EXPECT_THAT(process->nexthops(prefix(2)), ElementsAre(via(vtep1, mac1), via(vtep2, mac2)));
  EXPECT_EQ(process->nexthops(prefix(2)), process->nexthops(prefix(3)));
  EXPECT_THAT(process->vias(), SizeIs(2));
  EXPECT_EQ(process->routes()[0].metric(), 20);

  // The last route takes its via along.
  process->hears(suite.withdraw(prefix(2)).withdraw(prefix(1)));
  EXPECT_THAT(process->vias(), SizeIs(2));
  process->hears(suite.withdraw(prefix(3)).withdraw(prefix6));
  EXPECT_THAT(process->vias(), IsEmpty());
  EXPECT_EQ(process->figure("learned"), 0);
}

TEST_F(FpmTest, AnotherMacIsAnotherVia) {
  start();
  process->hears(suite.mac(vtep1, mac1).route(prefix(1), {{vtep1, vni}}).route(prefix(2), {{vtep1, vni}}));
  const auto before = process->routes()[0].viaKey();
  testing::internal::CaptureStderr();
  process->hears(suite.mac(vtep1, mac2).mac(vtep1, mac3));
  EXPECT_THAT(linesOf(testing::internal::GetCapturedStderr()), SizeIs(1));
  EXPECT_EQ(process->figure("contradictions"), 2);
  EXPECT_THAT(process->nexthops(prefix(2)), ElementsAre(via(vtep1, mac3)));
  EXPECT_NE(process->routes()[0].viaKey(), before);
  EXPECT_THAT(process->vias(), SizeIs(1));
  // One that went is contradicted by nobody; its routes stay as they are until there is another.
  process->hears(suite.mac(vtep1, mac3, vni, RTM_DELNEIGH));
  EXPECT_THAT(process->nexthops(prefix(1)), ElementsAre(via(vtep1, mac3)));
  process->hears(suite.mac(vtep1, mac1));
  EXPECT_THAT(process->nexthops(prefix(1)), ElementsAre(via(vtep1, mac1)));
  EXPECT_EQ(process->figure("contradictions"), 2);
}

TEST_F(FpmTest, WhatIsNoOverlayRouteIsLeftOut) {
  start();
  process->hears(suite.mac(vtep1, mac1)
                     .route(prefix(1), {{vtep1, 0}})
                     .route(prefix(2), {{vtep1, vni}, {vtep1, 0}})
                     .route(prefix(3), {{vtep1, vni}}, table + 1)
                     .route(prefix(4), {{vtep1, vni}}));
  EXPECT_EQ(process->figure("leftOut"), 3);
  EXPECT_THAT(process->routes(), SizeIs(1));
  process->hears(suite.route(prefix(4), {{vtep1, 0}}));
  EXPECT_THAT(process->routes(), IsEmpty());
}

TEST_F(FpmTest, NexthopObjectsAreFollowed) {
  settings.vnis = {{table, vni}};
  start();
  process->hears(suite.mac(vtep1, mac1).mac(vtep2, mac2).object(7, vtep1).object(8, vtep2).group(9, {7, 8}));
  process->hears(suite.routeByObject(prefix(1), 7).routeByObject(prefix(2), 9).routeByObject(prefix(3), 11));
  EXPECT_THAT(process->nexthops(prefix(1)), ElementsAre(via(vtep1, mac1)));
  EXPECT_THAT(process->nexthops(prefix(2)), ElementsAre(via(vtep1, mac1), via(vtep2, mac2)));
  EXPECT_EQ(process->figure("waitingForMac"), 1);
  process->hears(suite.object(7, vtep2));
  EXPECT_THAT(process->nexthops(prefix(1)), ElementsAre(via(vtep2, mac2)));
  EXPECT_EQ(process->nexthops(prefix(1)), process->nexthops(prefix(2)));
  EXPECT_THAT(process->vias(), SizeIs(1));
  // A neighbour in a network of one's own is no tunnel.
  process->hears(suite.object(11, vtep1, false));
  EXPECT_EQ(process->figure("leftOut"), 1);
  EXPECT_THAT(process->nexthops(prefix(3)), IsEmpty());
  // Objects are numbered anew by another session.
  process->connect();
  const auto before = process->changes();
  process->hears(suite.object(1, vtep2).object(7, vtep1).routeByObject(prefix(1), 1).routeByObject(prefix(2), 1));
  EXPECT_EQ(process->changes(), before);
}

TEST_F(FpmTest, AReplayWithoutAChangeWritesNothing) {
  const auto replay = [&]() -> Suite& {
    for (std::uint32_t i = 0; i < 100; ++i) suite.route(prefix(i), {{vtep1, vni}, {vtep2, vni}});
    return suite.mac(vtep1, mac1).mac(vtep2, mac2);
  };
  start();
  process->hears(replay());
  const auto written = process->changes();
  EXPECT_FALSE(process->reconciled());
  process->pass(settings.staleTime + 1);
  EXPECT_TRUE(process->reconciled());
  process->rib().sessionEnds();
  process->connect();
  EXPECT_EQ(process->figure("stale"), 100);
  process->hears(replay());
  EXPECT_EQ(process->figure("stale"), 0);
  process->pass(settings.staleTime + 1);
  EXPECT_EQ(process->changes(), written);

  start();  // killed, and started again
  EXPECT_EQ(process->figure("stale"), 100);
  const auto adopted = process->changes();
  process->hears(replay());
  process->pass(settings.staleTime + 1);
  EXPECT_EQ(process->changes(), adopted);
  EXPECT_THAT(process->routes(), SizeIs(100));
  EXPECT_TRUE(process->reconciled());
}

TEST_F(FpmTest, WhatIsNotSaidAgainGoesAfterQuietOnly) {
  start();
  process->hears(suite.mac(vtep1, mac1).mac(vtep2, mac2).route(prefix(1), {{vtep1, vni}}));
  process->hears(suite.route(prefix(2), {{vtep2, vni}}).route(prefix(3), {{vtep2, vni}}));
  for (const bool killed : {false, true}) {
    process->rib().sessionEnds();
    process->pass(10 * settings.staleTime);  // nobody is there to say it again
    EXPECT_THAT(process->routes(), SizeIs(killed ? 1 : 3));
    if (killed) start();
    if (!killed) process->connect();
    process->pass(10 * settings.staleTime);  // nor has begun
    process->hears(suite.route(prefix(1), {{vtep1, vni}}));
    for (int i = 0; i < 5; ++i) {
      process->pass(settings.staleTime - 1);
      process->hears(suite.mac(vtep1, mac1));
    }
    EXPECT_THAT(process->routes(), SizeIs(killed ? 1 : 3));
    process->pass(settings.staleTime + 1);
    EXPECT_THAT(process->routes(), SizeIs(1));
    EXPECT_THAT(process->vias(), SizeIs(1));
    EXPECT_EQ(process->figure("stale"), 0);
  }
}

TEST_F(FpmTest, RoutesWaitForRoom) {
  settings.capacity = 10;
  start();
  testing::internal::CaptureStderr();
  suite.mac(vtep1, mac1);
  for (std::uint32_t i = 0; i < 12; ++i) suite.route(prefix(i), {{vtep1, vni}});
  process->hears(suite);
  EXPECT_THAT(linesOf(testing::internal::GetCapturedStderr()), SizeIs(1));
  EXPECT_EQ(process->figure("waitingForRoom"), 2);
  process->hears(suite.withdraw(prefix(0)).withdraw(prefix(1)));
  process->pass(settings.retryInterval + 1);
  EXPECT_EQ(process->figure("waitingForRoom"), 0);
  EXPECT_THAT(process->routes(), SizeIs(10));
}

TEST_F(FpmTest, BothDialectsAreReadAsTheyAreSpoken) {
  const IpAddr gateway(0xC0000209);  // the onlink one
  const IpGenPrefix onlink = Prefix(IpAddr(0x0A030000), 24);
  std::array<std::set<IpGenPrefix>, 2> prefixes;
  for (const bool newer : {false, true}) {
    std::size_t paths = 0;
    for (const auto& message : messagesIn(captured(newer ? "newer" : "older"))) {
      const auto* route = std::get_if<Netlink::FpmRoute>(&message);
      if (route == nullptr) continue;
      prefixes[newer ? 1 : 0].insert(route->prefix);
      EXPECT_EQ(route->table, 254);
      EXPECT_EQ(route->metric, newer ? 20 : 0);
      EXPECT_EQ(route->isUnicast, route->prefix != Prefix(IpAddr(0x0A040000), 24));
      paths = std::max(paths, route->nexthops.size());
    }
    EXPECT_EQ(paths, newer ? 1 : 2);  // of the newer only the blackhole names no object
  }
  EXPECT_THAT(prefixes[0], SizeIs(7));
  EXPECT_EQ(prefixes[0], prefixes[1]);

  // The newer names tunnels by neither VNI nor MAC: the one says the command, the other a neighbour.
  settings.vrfs.byTable = {{254, vrfId}};
  settings.vnis = {{254, vni}};
  start();
  process->rib().apply(messagesIn(captured("newer")));
  process->settle();
  EXPECT_EQ(process->figure("waitingForMac"), 1);
  EXPECT_EQ(process->figure("leftOut"), 6);
  process->hears(suite.mac(gateway, mac1));
  EXPECT_THAT(process->nexthops(onlink), ElementsAre(via(gateway, mac1)));
  EXPECT_THAT(process->routes(), SizeIs(1));
}

// EVPN routes of type 5, of a suite with a network namespace for each VRF: one prefix in red and in blue; that of red
// goes, comes back and goes again.
TEST_F(FpmTest, EvpnRoutesAreReadAsTheyAreSpoken) {
  constexpr std::uint32_t blueVni = 10020;
  const IpGenPrefix shared = Prefix(IpAddr(0x0A020000), 24);
  const EthAddr mac({2, 0, 0, 0, 2, 1});
  settings.vrfs = {{}, {{vni, vrfId}, {blueVni, vrfId + 1}}, false};
  start();
  const auto messages = messagesIn(captured("evpn"));
  const auto firstWithdrawal = std::ranges::find_if(messages, [](const auto& message) {
    const auto* route = std::get_if<Netlink::FpmRoute>(&message);
    return route != nullptr && !route->isThere;
  });
  process->rib().apply({messages.begin(), firstWithdrawal});
  process->settle();
  ASSERT_THAT(process->routes(), SizeIs(2));
  EXPECT_THAT(process->nexthops(shared), ElementsAre(via(vtep2, mac)));
  EXPECT_EQ(process->routes()[1].key(), RouteKey(vrfId + 1, shared));
  EXPECT_FALSE(process->rib().wantsReplay());
  process->rib().apply({firstWithdrawal, messages.end()});
  process->settle();
  EXPECT_THAT(process->routes(), SizeIs(2)) << "whose it was nobody has said";
  EXPECT_TRUE(process->rib().wantsReplay());
  EXPECT_EQ(process->figure("leftOut"), 0);
}

// More routes than one time slice handles, and a change of their next hops before the one before has reached them all.
TEST_F(FpmTest, ChangesOvertakeNoWalk) {
  settings.capacity = 20000;
  start();
  suite.mac(vtep1, mac1);
  for (std::uint32_t i = 0; i < 20000; ++i) suite.route(prefix(i), {{i % 2 == 0 ? vtep1 : vtep2, vni}});
  process->hears(suite);
  EXPECT_THAT(process->routes(), SizeIs(10000));
  testing::internal::CaptureStderr();  // the contradictions
  for (const EthAddr& mac : {mac2, mac3, mac1}) {
    suite.mac(vtep1, mac, vni, RTM_DELNEIGH).mac(vtep1, mac).mac(vtep2, mac);
    process->rib().apply(messagesIn(suite.take()));
    process->step();
  }
  process->settle();
  testing::internal::GetCapturedStderr();
  EXPECT_THAT(process->routes(), SizeIs(20000));
  EXPECT_THAT(process->vias(), SizeIs(2));
  EXPECT_THAT(process->nexthops(prefix(19999)), ElementsAre(via(vtep2, mac1)));
  EXPECT_THAT(process->nexthops(prefix(19998)), ElementsAre(via(vtep1, mac1)));
}

// What comes is taken whole or refused; whatever it is, nothing is broken by it.
TEST_F(FpmTest, HostileInputIsRefused) {
  settings.vnis = {{table, vni}};
  settings.vrfs.byTable.emplace(254, 1);
  start();
  std::minstd_rand engine(14);
  const auto random = [&] { return static_cast<std::uint32_t>(engine()); };
  testing::internal::CaptureStderr();
  std::size_t refused = 0;
  for (int round = 0; round < 3000; ++round) {
    suite.mac(vtep1, mac1).route(prefix(random() % 50), {{vtep1, vni}, {vtep2, vni}}).object(7, vtep1);
    suite.group(9, {7, 7}).routeByObject(prefix(random() % 50), 7).withdraw(prefix(random() % 50));
    auto bytes = suite.take();
    if (round % 3 != 0) bytes = captured(round % 3 == 1 ? "older" : "newer");
    for (auto changes = random() % 4; changes > 0; --changes)
      bytes[random() % bytes.size()] = std::byte(random() & 0xFF);
    if (random() % 4 == 0) bytes.resize(random() % bytes.size());
    Netlink::FpmFrames frames;
    frames.append(bytes);
    try {
      while (const auto frame = frames.next()) process->rib().apply(Netlink::fpmMessagesIn(*frame));
    } catch (const FpmFault&) {
      ++refused;
      process->connect();
    }
    if (round % 100 == 0) process->settle();
  }
  process->settle();
  testing::internal::GetCapturedStderr();
  EXPECT_GT(refused, 100);
}

// --- Over TCP --------------------------------------------------------------------------------------------------------

// A suite that keeps each VRF in a network namespace of its own says one table for all of them.
TEST_F(FpmTest, VrfsThatShareATableAreToldApartByTheirVnis) {
  constexpr std::uint32_t blue = 3;
  constexpr std::uint32_t blueVni = 10020;
  settings.vrfs = {{{table, 1}}, {{vni, vrfId}, {blueVni, blue}}, false};
  settings.staleTime = 5;
  start();
  const auto vrfsWith = [&](const IpGenPrefix& wanted) {
    std::vector<std::uint32_t> vrfs;
    for (const Route& route : process->routes()) {
      if (IpGenPrefix(route.key().prefix()) == wanted) vrfs.push_back(route.key().vrfId());
    }
    return vrfs;
  };
  const auto everything = [&]() -> Suite& {
    suite.mac(vtep1, mac1).mac(vtep1, mac2, blueVni).mac(vtep1, mac3, 7);
    return suite.route(prefix(1), {{vtep1, vni}}).route(prefix(1), {{vtep1, blueVni}});
  };
  process->hears(everything().route(prefix(2), {{vtep1, blueVni}}).route(prefix(3), {{vtep1, 7}}));
  EXPECT_THAT(vrfsWith(prefix(1)), ElementsAre(vrfId, blue));
  EXPECT_THAT(vrfsWith(prefix(2)), ElementsAre(blue));
  EXPECT_THAT(vrfsWith(prefix(3)), ElementsAre(1)) << "by its table";
  EXPECT_THAT(process->nexthops(prefix(1)), ElementsAre(via(vtep1, mac1)));

  process->hears(suite.withdraw(prefix(2)).withdraw(prefix(3)).withdraw(prefix(4)));
  EXPECT_THAT(vrfsWith(prefix(2)), IsEmpty());
  EXPECT_THAT(vrfsWith(prefix(3)), IsEmpty());
  EXPECT_FALSE(process->rib().wantsReplay()) << "no other VRF has had these";
  process->hears(suite.withdraw(prefix(1)));
  EXPECT_THAT(vrfsWith(prefix(1)), ElementsAre(vrfId, blue));
  EXPECT_TRUE(process->rib().wantsReplay());
  process->connect();
  EXPECT_FALSE(process->rib().wantsReplay());
  process->hears(suite.mac(vtep1, mac2, blueVni).route(prefix(1), {{vtep1, blueVni}}));
  EXPECT_THAT(vrfsWith(prefix(1)), ElementsAre(vrfId, blue));
  process->pass(6);
  EXPECT_THAT(vrfsWith(prefix(1)), ElementsAre(blue));

  // The same prefix is that of a network of its own, in a VRF that is not known; then that one goes, or the other.
  // What is said of another table, our own routes as the kernel announces them above all, says nothing of this one.
  process->hears(suite.route(prefix(6), {{vtep1, blueVni}}).route(prefix(6), {}, table + 1).withdraw(prefix(6)));
  EXPECT_THAT(vrfsWith(prefix(6)), IsEmpty());
  process->hears(suite.route(prefix(5), {{vtep1, blueVni}}).route(prefix(5), {}).withdraw(prefix(5)));
  EXPECT_THAT(vrfsWith(prefix(5)), ElementsAre(blue));
  EXPECT_TRUE(process->rib().wantsReplay());
  EXPECT_EQ(process->figure("ambiguous"), 3);
}

TEST_F(FpmTest, AVrfThatGetsAnotherIdTakesItsRoutesAlong) {
  settings.vrfs.byTable.clear();
  settings.staleTime = 5;
  start();
  const auto said = [&]() -> Suite& { return suite.mac(vtep1, mac1).route(prefix(1), {{vtep1, vni}}); };
  process->hears(said());
  EXPECT_THAT(process->routes(), IsEmpty());
  const auto becomes = [&](std::uint32_t id) {
    process->rib().vrfsAre({{{table, id}}, {}, false});
    process->settle();
    EXPECT_TRUE(process->rib().wantsReplay());
    process->connect();
    process->hears(said());
    ASSERT_THAT(process->routes(), SizeIs(1));
    EXPECT_EQ(process->routes()[0].key().vrfId(), id);
  };
  becomes(vrfId);
  process->rib().vrfsAre({{{table, vrfId}}, {}, false});
  EXPECT_FALSE(process->rib().wantsReplay()) << "nothing has changed";
  becomes(vrfId + 1);
}

class FpmProcessTest : public FpmTest {
 protected:
  void startCommand(const std::string& vrfs = "--vrf-id 2=1001") {
    command.emplace("fpm --listen 127.0.0.1:" + std::to_string(port) + " --stale-time 1 --run-dir " + directory.path() +
                    " " + vrfs);
  }
  int connected() const {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    return fd;
  }
  void say(int fd) {
    const auto bytes = suite.take();
    EXPECT_EQ(send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
  }
  std::uint64_t status(const std::string& name) const {
    const Outcome shown = Command("fpm --status --json --run-dir " + directory.path()).wait();
    EXPECT_EQ(shown.exitCode, 0) << shown.err;
    return shown.exitCode == 0 ? nlohmann::json::parse(shown.out).at(name).get<std::uint64_t>() : 0;
  }
  std::size_t shown(const std::string& path) const {
    const Outcome outcome = Command("table show " + path + " --json --run-dir " + directory.path()).wait();
    return outcome.exitCode == 0 ? nlohmann::json::parse(outcome.out).size() : 0;
  }

  std::uint16_t port = static_cast<std::uint16_t>(20000 + getpid() % 10000);
  std::optional<Command> command;
};

TEST_F(FpmProcessTest, ASessionBreaksAndTheProcessIsKilled) {
  startCommand();
  ASSERT_TRUE(command->says("ready: "));
  int fd = connected();
  suite.mac(vtep1, mac1);
  for (std::uint32_t i = 0; i < 100; ++i) suite.route(prefix(i), {{vtep1, vni}});
  say(fd);
  EXPECT_TRUE(eventually([&] { return status("written") == 100; }));
  EXPECT_EQ(shown(Paths::ribRoutes), 100);
  EXPECT_EQ(shown(Paths::ribVias), 1);

  // The second connection takes the place of the first, which hears of it.
  const int second = connected();
  char byte = 0;
  EXPECT_EQ(recv(fd, &byte, 1, 0), 0);
  close(fd);
  EXPECT_EQ(status("stale"), 100);
  EXPECT_EQ(send(second, "no frame", 8, MSG_NOSIGNAL), 8);
  EXPECT_TRUE(command->complains("the session is closed: a frame of version"));
  close(second);
  EXPECT_EQ(status("faults"), 1);
  EXPECT_EQ(status("written"), 100);

  command->stop(SIGKILL);
  EXPECT_EQ(shown(Paths::ribRoutes), 100);
  startCommand();
  ASSERT_TRUE(command->says("ready: "));
  fd = connected();
  for (std::uint32_t i = 0; i < 60; ++i) suite.route(prefix(i), {{vtep1, vni}});
  say(fd);
  EXPECT_TRUE(eventually([&] { return status("written") == 60; }));
  EXPECT_EQ(shown(Paths::ribVias), 1);
  close(fd);
  EXPECT_EQ(command->stop(SIGTERM).exitCode, 0);
  EXPECT_EQ(shown(Paths::ribRoutes), 60);
}

TEST_F(FpmProcessTest, VrfsAreNamedByTheStateDatabase) {
  startCommand("--vrf red=1001");
  ASSERT_TRUE(command->complains("fpm: the agent in"));
  Command agent("run --scenario " ROUTECACHE_EXAMPLES "/leaf.json --agent " ROUTECACHE_AGENT " --run-dir " +
                directory.path());
  ASSERT_TRUE(command->says("ready: "));
  const auto say = [&](int fd) { this->say((suite.mac(vtep1, mac1).route(prefix(1), {{vtep1, vni}}), fd)); };
  const auto vrfIs = [&](const char* id) {
    return eventually([&] {
      const Outcome outcome =
          Command("table show " + std::string(Paths::ribRoutes) + " --run-dir " + directory.path()).wait();
      return outcome.out.find("@" + std::string(id) + ",") != std::string::npos;
    });
  };
  ASSERT_TRUE(command->says("ready: ")) << "once they are known";
  int fd = connected();
  say(fd);
  EXPECT_TRUE(vrfIs("2"));
  ASSERT_EQ(Command("del vrf/vrfNameStatus nameToId[red] --run-dir " + directory.path()).wait().exitCode, 0);
  ASSERT_EQ(Command("set vrf/vrfNameStatus nameToId[red] 9 --run-dir " + directory.path()).wait().exitCode, 0);
  char byte = 0;
  EXPECT_EQ(recv(fd, &byte, 1, 0), 0) << "to hear all routes again";
  close(fd);
  fd = connected();
  say(fd);
  EXPECT_TRUE(vrfIs("9"));
  close(fd);
}

// What a suite reads of the answers to it: "PREFIX offloaded" or "PREFIX failed".
std::multiset<std::string> answersIn(int fd, std::size_t count) {
  Netlink::FpmFrames frames;
  std::multiset<std::string> answers;
  while (answers.size() < count) {
    pollfd readable{fd, POLLIN, 0};
    constexpr int patience = 20'000;  // milliseconds
    if (poll(&readable, 1, patience) <= 0) break;
    std::array<std::byte, 4096> bytes{};
    const ssize_t size = recv(fd, bytes.data(), bytes.size(), 0);
    if (size <= 0) break;
    frames.append(Bytes(bytes).first(static_cast<std::size_t>(size)));
    while (auto frame = frames.next()) {
      const nlmsghdr* message = Netlink::nextMessage(*frame);
      const auto* header = message == nullptr ? nullptr : Netlink::headerOf<rtmsg>(*message);
      const auto attributes = Netlink::attributesOf<rtmsg>(*message);
      const auto to = attributes.address(RTA_DST);
      if (message->nlmsg_type != RTM_NEWROUTE || header == nullptr || !to) return {"no route"};
      if (attributes.number<std::uint32_t>(RTA_TABLE) != table || header->rtm_protocol != RTPROT_BGP)
        return {"another"};
      const bool isOffloaded = header->rtm_flags == RTM_F_OFFLOAD;
      answers.insert(Platform::toText(*to) + "/" + std::to_string(header->rtm_dst_len) +
                     (isOffloaded ? " offloaded" : " failed"));
    }
  }
  return answers;
}

TEST_F(FpmProcessTest, ASuiteIsToldOfWhatIsForwardedAndOfWhatIsNot) {
  const std::string inRunDir = " --run-dir " + directory.path();
  const auto run = [&](const std::string& arguments) { return Command(arguments + inRunDir).wait().exitCode; };
  Command agent("run --scenario " ROUTECACHE_EXAMPLES "/leaf.json --agent " ROUTECACHE_AGENT + inRunDir);
  ASSERT_TRUE(agent.says("ready: "));
  startCommand("--vrf red=1001 --feedback --fail-after 1");
  ASSERT_TRUE(command->says("ready: "));
  int fd = connected();
  const IpAddr unreachable(0xAC100001);
  const auto everything = [&] {
    suite.mac(vtep1, mac1).mac(unreachable, mac2);
    suite.route(prefix(1), {{vtep1, vni}}).route(prefix(2), {{unreachable, vni}}).route(prefix(3), {{vtep2, vni}});
    say(fd);
  };
  everything();
  const auto offloaded = [&](std::uint32_t i) { return Platform::toText(prefix(i)) + " offloaded"; };
  const auto failed = [&](std::uint32_t i) { return Platform::toText(prefix(i)) + " failed"; };
  EXPECT_THAT(answersIn(fd, 3), ElementsAre(offloaded(1), failed(2), failed(3))) << "of the last nobody knows the MAC";
  ASSERT_EQ(run("set routing/underlay/route route[172.16.0.1/32] 5"), 0);
  EXPECT_THAT(answersIn(fd, 1), ElementsAre(offloaded(2)));
  ASSERT_EQ(run("set interface/status/eth/vxlan vtiStatus[Vxlan1].operStatus down"), 0);
  EXPECT_THAT(answersIn(fd, 2), ElementsAre(failed(1), failed(2)));
  ASSERT_EQ(run("set interface/status/eth/vxlan vtiStatus[Vxlan1].operStatus up"), 0);
  EXPECT_THAT(answersIn(fd, 2), ElementsAre(offloaded(1), offloaded(2)));
  close(fd);
  fd = connected();
  everything();
  EXPECT_THAT(answersIn(fd, 3), ElementsAre(offloaded(1), offloaded(2), failed(3))) << "all of it to another session";

  // It does not read for a while.
  constexpr std::uint32_t many = 3000;
  for (std::uint32_t i = 100; i < 100 + many; ++i) suite.route(prefix(i), {{vtep1, vni}});
  say(fd);
  ASSERT_TRUE(eventually([&] { return status("written") >= many; }));
  EXPECT_THAT(answersIn(fd, many), SizeIs(many));

  // Said again, it is answered again.
  suite.route(prefix(1), {{vtep1, vni}});
  say(fd);
  EXPECT_THAT(answersIn(fd, 1), ElementsAre(offloaded(1)));
  // There was a mirror into the kernel, which says what is forwarded: while it does not answer nobody knows.
  std::ofstream(directory.path() + "/kernel.lock").close();
  suite.route(prefix(50), {{vtep1, vni}});
  say(fd);
  ASSERT_TRUE(eventually([&] { return status("toBeTold") > 0; }));
  sleep(2);  // longer than --fail-after
  EXPECT_EQ(status("toldFailed"), 5U);
  std::filesystem::remove(directory.path() + "/kernel.lock");
  EXPECT_THAT(answersIn(fd, 1), ElementsAre(offloaded(50)));
  close(fd);
}

TEST_F(FpmProcessTest, BadOptionsAreOneLine) {
  for (const std::string options :
       {"--listen nowhere", "--listen 127.0.0.1:70000", "--vrf-id 2=x", "--vrf-id 2=1 --vrf-id 3=1",
        "--vrf-id 2=1 --vrf-id 2=3", "--vrf-vni 2=1 --vrf-vni 3=1", "--vrf-vni 2=16777216", "--vrf red",
        "--vrf red=1 --vrf blue=1", "--vrf red=1 --vrf-id 2=1", "--vrf-id 2=1 --json", "--fail-after 5",
        "--vni 1=16777216", "--vti '123456789'"}) {
    const Outcome outcome = Command("fpm " + options + " --run-dir " + directory.path()).wait();
    EXPECT_EQ(outcome.exitCode, 2) << options;
    EXPECT_TRUE(outcome.isOneComplaint()) << options << ": " << outcome.err;
  }
  EXPECT_EQ(Command("fpm --status --run-dir " + directory.path()).wait().exitCode, 1);
}

}  // namespace
