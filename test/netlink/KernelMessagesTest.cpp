// What is said to a kernel is what it understands, and tells again: in a network of the test's own.
#include <gmock/gmock.h>
#include <linux/netlink.h>

#include <algorithm>
#include <cerrno>

#include "netlink/kernel/KernelMessages.h"
#include "netlink/messages/Socket.h"
#include "test/support/OwnNetwork.h"

namespace {

using namespace Netlink;
using RouteCache::AdjId;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

const EthAddr mac({0x02, 0x1c, 0x73, 0xaa, 0xbb, 0xcc});

TEST(KernelMessagesTest, NumbersAndAddressesTellWhatTheyAreMadeOf) {
  const struct {
    const char* what;
    std::uint32_t adjId;
    Slot slot;
    std::uint32_t id;
  } cases[] = {
      {"the first group", 0x00000001, 0, 0x40000080},
      {"the last slot of the last IPv4 adjacency", 0x001FFFFF, 64, 0x4FFFFFC0},
      {"IPv6", 0x80000002, 33, 0x60000121},
      {"both", 0xC01FFFFF, 64, 0x7FFFFFC0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(nexthopId(AdjId(c.adjId), c.slot), c.id);
    EXPECT_EQ(adjIdOf(c.id), AdjId(c.adjId));
    EXPECT_EQ(slotOf(c.id), c.slot);
  }
  for (const std::uint32_t id : {0U, 1U, blackholeId, unusedId, 0x800000U, 0xC0000080U})
    EXPECT_FALSE(adjIdOf(id)) << id;

  EXPECT_EQ(Platform::toText(linkLocalOf(mac)), "fe80::1c:73ff:feaa:bbcc");
  EXPECT_EQ(macOf(linkLocalOf(mac)), mac);
  for (const auto& other : {Ip6Addr(0xFE80000000000000, 1), Ip6Addr(0xFE80000000000001, linkLocalOf(mac).low())}) {
    EXPECT_EQ(macOf(other), std::nullopt);
  }
}

class KernelMessagesInKernelTest : public testing::Test {
 protected:
  void SetUp() override {
    if (!network.fault().empty()) GTEST_SKIP() << network.fault();
    socket.emplace();
    for (const auto& link : dumped<Link>(Dump::links, linkIn)) {
      if (link.name == "vx") vx = link.device;
    }
    ASSERT_NE(vx, 0U);
  }
  // Sends what is in the batch. The errors of those that are refused.
  std::vector<std::pair<std::size_t, int>> exchange() {
    batch.answerIsWanted();
    const auto outcome = socket->exchange(batch, sequence - static_cast<std::uint32_t>(batch.messages()));
    batch.clear();
    std::vector<std::pair<std::size_t, int>> errors;
    for (const auto& refusal : outcome.refusals) errors.emplace_back(refusal.message, refusal.error);
    EXPECT_TRUE(outcome.isWhole);
    return errors;
  }
  template <class Value>
  std::vector<Value> dumped(Dump dump, std::optional<Value> (*read)(const nlmsghdr&)) {
    MessageBuffer question;
    askForDump(question, sequence++, dump);
    socket->send(question);
    std::vector<Value> values;
    for (bool isOver = false; !isOver;) {
      Bytes rest;
      if (socket->receive(rest) != Socket::Receipt::messages) break;
      while (const nlmsghdr* message = nextMessage(rest)) {
        isOver = isOver || message->nlmsg_type == NLMSG_DONE || message->nlmsg_type == NLMSG_ERROR;
        if (const auto value = read(*message)) values.push_back(*value);
      }
    }
    return values;
  }
  void hopIs(Slot slot, const Hop& hop) { addHop(batch, sequence++, nexthopId(adjId, slot), hop); }
  void groupIs(std::initializer_list<Slot> slots) {
    std::vector<std::uint32_t> members;
    for (const Slot slot : slots) members.push_back(slot == groupSlot ? blackholeId : nexthopId(adjId, slot));
    addGroup(batch, sequence++, nexthopId(adjId), members);
  }
  void route(Change change, const KernelRoute& value) { addRoute(batch, sequence++, change, value); }

  OwnNetwork network;
  std::optional<Socket> socket;
  MessageBuffer batch;
  std::uint32_t sequence = 1;
  std::uint32_t vx = 0;
  const AdjId adjId{0xC0000007};
};

TEST_F(KernelMessagesInKernelTest, WhatIsAddedIsDumpedAsItWas) {
  const Hop hop{{vx, mac}, 10010, IpAddr(0x0aff0001)};
  const Hop hop6{{vx, mac}, Vxlan::Vni::max, Ip6Addr(0x20010db800000000, 9)};
  const std::uint32_t group = nexthopId(adjId);
  const KernelRoute route4{Prefix(IpAddr(0x0a010200), 24), 1002, 20, group};
  const KernelRoute route6{Ip6Prefix(Ip6Addr(0x20010db800010000, 0), 48), 1002, 20, group};
  const KernelRoute all4{Prefix(), 3000000000, 20, group};
  addNeighbour(batch, sequence++, Change::add, hop.neighbour);
  hopIs(1, hop);
  hopIs(33, hop6);
  addBlackhole(batch, sequence++);
  groupIs({1, 33});
  for (const auto& value : {route4, route6, all4}) route(Change::add, value);
  EXPECT_THAT(exchange(), IsEmpty());

  EXPECT_THAT(dumped<Neighbour>(Dump::neighbours, neighbourIn), ElementsAre(hop.neighbour));
  EXPECT_THAT(dumped<KernelRoute>(Dump::routes4, routeIn), testing::UnorderedElementsAre(route4, all4));
  EXPECT_THAT(dumped<KernelRoute>(Dump::routes6, routeIn), ElementsAre(route6));
  const auto nexthops = dumped<Nexthop>(Dump::nexthops, nexthopIn);
  ASSERT_EQ(nexthops.size(), 4U);
  EXPECT_EQ(nexthops[0].id, blackholeId);
  EXPECT_EQ(nexthops[1].id, group);
  EXPECT_THAT(nexthops[1].members, ElementsAre(nexthopId(adjId, 1), nexthopId(adjId, 33)));
  EXPECT_EQ(nexthops[2].hop, hop);
  EXPECT_EQ(nexthops[3].hop, hop6);
  EXPECT_THAT(OwnNetwork::ipOutput("route show table 1002"), HasSubstr("10.1.2.0/24 nhid"));

  // One message turns all its routes: elsewhere, nowhere, and back.
  hopIs(1, {{vx, EthAddr({2, 0, 0, 0, 0, 1})}, 5, IpAddr(0x0aff0002)});
  groupIs({0});
  groupIs({33});
  EXPECT_THAT(exchange(), IsEmpty());
  EXPECT_EQ(dumped<KernelRoute>(Dump::routes4, routeIn).size(), 2U);
}

TEST_F(KernelMessagesInKernelTest, EachRefusalIsThatOfItsMessage) {
  ASSERT_TRUE(OwnNetwork::ip("route add blackhole 10.2.0.0/16 table 1002 metric 20"));
  addBlackhole(batch, sequence++);
  groupIs({0});
  const KernelRoute foreign{Prefix(IpAddr(0x0a020000), 16), 1002, 20, nexthopId(adjId)};
  const KernelRoute nowhere{Prefix(IpAddr(0x0a030000), 16), 1002, 20, 77};
  const KernelRoute absent{Prefix(IpAddr(0x0a040000), 16), 1002, 20, nexthopId(adjId)};
  const KernelRoute fine{Prefix(IpAddr(0x0a050000), 16), 1002, 20, nexthopId(adjId)};
  const KernelRoute foreign6{Ip6Prefix(Ip6Addr(0x20010db800000000, 0), 32), 1002, 20, nexthopId(adjId)};
  ASSERT_TRUE(OwnNetwork::ip("-6 route add blackhole 2001:db8::/32 table 1002 metric 20"));
  route(Change::add, foreign);      // 2
  route(Change::add, nowhere);      // 3
  route(Change::replace, absent);   // 4
  route(Change::add, fine);         // 5
  route(Change::remove, absent);    // 6
  route(Change::remove, foreign);   // 7
  route(Change::add, foreign6);     // 8
  route(Change::remove, foreign6);  // 9
  using testing::Pair;
  EXPECT_THAT(exchange(), ElementsAre(Pair(2, EEXIST), Pair(3, EINVAL), Pair(4, ENOENT), Pair(6, ESRCH), Pair(7, ESRCH),
                                      Pair(8, EEXIST), Pair(9, ESRCH)));
  EXPECT_THAT(dumped<KernelRoute>(Dump::routes4, routeIn), ElementsAre(fine));
  EXPECT_THAT(OwnNetwork::ipOutput("route show table 1002"), HasSubstr("blackhole 10.2.0.0/16"));
  route(Change::remove, fine);
  removeNexthop(batch, sequence++, nexthopId(adjId));
  EXPECT_THAT(exchange(), IsEmpty());
  EXPECT_EQ(dumped<Nexthop>(Dump::nexthops, nexthopIn).size(), 1U);
}

}  // namespace
