#include <gtest/gtest.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <random>

#include "netlink/messages/Attributes.h"
#include "netlink/messages/MessageBuffer.h"

namespace {

using namespace Netlink;

// A route with everything that can stand in one, and a neighbour behind it.
MessageBuffer batch() {
  MessageBuffer buffer;
  rtmsg route{};
  route.rtm_family = AF_INET6;
  buffer.messageBegins(RTM_NEWROUTE, NLM_F_REQUEST, 7, route);
  buffer.addNumber(RTA_TABLE, std::uint32_t{1002});
  buffer.addAddress(RTA_GATEWAY, IpAddr(0x0a000001));
  buffer.addAddress(RTA_DST, Ip6Addr(0x20010db800000000, 1));
  buffer.nestBegins(RTA_MULTIPATH);
  buffer.nestBegins(RTA_ENCAP);
  buffer.addBigEndian(1, std::uint64_t{10010});
  buffer.addNumber(2, std::uint8_t{64});
  buffer.nestEnds();
  buffer.nestEnds();
  buffer.messageEnds();
  buffer.messageBegins(RTM_NEWNEIGH, NLM_F_REQUEST, 8, ndmsg{});
  buffer.addMac(NDA_LLADDR, EthAddr({2, 0, 0, 0, 0, 9}));
  buffer.addText(NDA_DST, "odd");
  buffer.messageEnds();
  return buffer;
}

TEST(NetlinkMessagesTest, WhatIsPutTogetherComesApartAgain) {
  const MessageBuffer buffer = batch();
  EXPECT_EQ(buffer.messages(), 2U);
  Bytes rest = buffer.bytes();
  const nlmsghdr* route = nextMessage(rest);
  ASSERT_NE(route, nullptr);
  EXPECT_EQ(route->nlmsg_seq, 7U);
  ASSERT_NE(headerOf<rtmsg>(*route), nullptr);
  EXPECT_EQ(headerOf<rtmsg>(*route)->rtm_family, AF_INET6);
  const auto attributes = attributesOf<rtmsg>(*route);
  EXPECT_TRUE(attributes.isWhole());
  EXPECT_EQ(attributes.number<std::uint32_t>(RTA_TABLE), 1002U);
  EXPECT_EQ(attributes.number<std::uint8_t>(RTA_TABLE), std::nullopt) << "of another size";
  EXPECT_EQ(attributes.address(RTA_GATEWAY), IpGenAddr(IpAddr(0x0a000001)));
  EXPECT_EQ(attributes.address(RTA_DST), IpGenAddr(Ip6Addr(0x20010db800000000, 1)));
  EXPECT_EQ(attributes.nested(RTA_MULTIPATH).nested(RTA_ENCAP).bigEndian<std::uint64_t>(1), 10010U);
  EXPECT_EQ(attributes.nested(RTA_MULTIPATH).nested(RTA_ENCAP).number<std::uint8_t>(2), 64);
  EXPECT_FALSE(attributes.has(RTA_OIF));
  EXPECT_EQ(attributes.mac(RTA_GATEWAY), std::nullopt);

  const nlmsghdr* neighbour = nextMessage(rest);
  ASSERT_NE(neighbour, nullptr);
  EXPECT_EQ(attributesOf<ndmsg>(*neighbour).mac(NDA_LLADDR), EthAddr({2, 0, 0, 0, 0, 9}));
  EXPECT_EQ(attributesOf<ndmsg>(*neighbour).text(NDA_DST), "odd");
  EXPECT_EQ(nextMessage(rest), nullptr);
  EXPECT_TRUE(rest.empty());
}

// Every read lies in a copy that ends where the bytes do: a step too far is the address sanitizer's.
TEST(NetlinkMessagesTest, NothingIsReadBehindTheEndOfWhatIsCutOrDamaged) {
  const MessageBuffer buffer = batch();
  const auto readAll = [](const std::vector<std::byte>& bytes) {
    std::size_t seen = 0;
    Bytes rest = bytes;
    while (const nlmsghdr* message = nextMessage(rest)) {
      if (headerOf<rtmsg>(*message) == nullptr) continue;
      const auto attributes = attributesOf<rtmsg>(*message);
      attributes.forEach([&](const Attribute& attribute) {
        seen += attribute.payload.size();
        attributes.address(attribute.type);
        attributes.text(attribute.type);
        attributes.nested(attribute.type).nested(RTA_ENCAP).forEach([&](const Attribute&) { ++seen; });
      });
    }
    return seen;
  };
  const std::vector<std::byte> whole(buffer.bytes().begin(), buffer.bytes().end());
  for (std::size_t size = 0; size < whole.size(); ++size) {
    EXPECT_LT(readAll({whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size)}), readAll(whole)) << size;
  }
  std::mt19937 random(1);
  for (unsigned i = 0; i < 20000; ++i) {
    auto damaged = whole;
    for (unsigned j = random() % 4; j < 4; ++j) damaged[random() % damaged.size()] = std::byte(random());
    readAll(damaged);
  }
}

}  // namespace
