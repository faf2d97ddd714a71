#include "netlink/fpm/FpmMessages.h"

#include <linux/neighbour.h>
#include <linux/netlink.h>
#include <linux/nexthop.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <algorithm>

namespace Netlink {

namespace {

constexpr std::uint16_t vxlanEncap = 100;  // the sender's own number of this encapsulation
constexpr std::uint16_t encapVni = 0;      // its one attribute
constexpr std::size_t maxPaths = 256;      // the sender's own bound

void require(bool holds, const char* fault) {
  if (!holds) throw FpmFault(fault);
}

template <class Number>
std::optional<Number> checkedNumber(const Attributes& attributes, std::uint16_t type) {
  const auto number = attributes.number<Number>(type);
  require(number || !attributes.has(type), "an attribute of another size than it has");
  return number;
}

IpGenAddr checkedAddress(const Attributes& attributes, std::uint16_t type) {
  const auto address = attributes.address(type);
  require(address || !attributes.has(type), "an address that is none");
  return address.value_or(IpGenAddr());
}

Vxlan::Vni checkedVni(std::uint32_t vni) {
  require(vni <= Vxlan::Vni::max, "a VNI over 16777215");
  return Vxlan::Vni(vni);
}

// RTA_VIA: the family (two bytes) and the address.
IpGenAddr viaAddress(Bytes via) {
  require(via.size() == 2 + 4 || via.size() == 2 + 16, "a gateway of a size that no address has");
  if (via.size() == 2 + 4) {
    std::uint32_t value;
    std::memcpy(&value, via.data() + 2, sizeof value);
    return IpAddr(Platform::bigEndian(value));
  }
  Ip6Addr::Bytes bytes;
  std::memcpy(bytes.data(), via.data() + 2, bytes.size());
  return Ip6Addr(bytes);
}

FpmNexthop nexthopOf(const Attributes& attributes, unsigned flags) {
  FpmNexthop nexthop;
  nexthop.isOnlink = (flags & RTNH_F_ONLINK) != 0;
  nexthop.gateway = checkedAddress(attributes, RTA_GATEWAY);
  if (const auto via = attributes.find(RTA_VIA)) nexthop.gateway = viaAddress(*via);
  if (checkedNumber<std::uint16_t>(attributes, RTA_ENCAP_TYPE) == vxlanEncap) {
    const Attributes encap(attributes.find(RTA_ENCAP).value_or(Bytes()));
    const auto vni = encap.number<std::uint32_t>(encapVni);
    require(encap.isWhole() && vni, "an encapsulation without its VNI");
    nexthop.vni = checkedVni(*vni);
  }
  nexthop.ifIndex = checkedNumber<std::uint32_t>(attributes, RTA_OIF).value_or(0);
  return nexthop;
}

std::vector<FpmNexthop> multipathOf(Bytes rest) {
  std::vector<FpmNexthop> nexthops;
  while (!rest.empty()) {
    rtnexthop header;
    require(rest.size() >= sizeof header, "a next hop that is not whole");
    std::memcpy(&header, rest.data(), sizeof header);
    require(header.rtnh_len >= sizeof header && header.rtnh_len <= rest.size(), "a next hop that is not whole");
    const Attributes attributes(rest.first(header.rtnh_len).subspan(sizeof header));
    require(attributes.isWhole(), "a next hop whose attributes are not whole");
    FpmNexthop nexthop = nexthopOf(attributes, header.rtnh_flags);
    if (nexthop.ifIndex == 0) nexthop.ifIndex = static_cast<std::uint32_t>(header.rtnh_ifindex);
    nexthops.push_back(nexthop);
    require(nexthops.size() <= maxPaths, "more next hops than a route has");
    rest = rest.subspan(std::min<std::size_t>(RTNH_ALIGN(std::size_t{header.rtnh_len}), rest.size()));
  }
  return nexthops;
}

template <class PrefixType, class Address>
IpGenPrefix checkedPrefix(const Address& address, unsigned length) {
  require(length <= PrefixType::maxLength, "a prefix length over its family's");
  return PrefixType(address, length);
}

IpGenPrefix prefixOf(const rtmsg& header, const IpGenAddr& address) {
  require(address.isEmpty() ? header.rtm_dst_len == 0 : address.isV4() == (header.rtm_family == AF_INET),
          "a prefix of another family than its route");
  if (header.rtm_family == AF_INET) return checkedPrefix<Prefix>(address.v4(), header.rtm_dst_len);
  return checkedPrefix<Ip6Prefix>(address.v6(), header.rtm_dst_len);
}

template <class Header>
std::pair<const Header*, Attributes> partsOf(const nlmsghdr& message) {
  const auto* header = headerOf<Header>(message);
  require(header != nullptr, "a message that is too short");
  const Attributes attributes = attributesOf<Header>(message);
  require(attributes.isWhole(), "a message whose attributes are not whole");
  return {header, attributes};
}

std::optional<FpmMessage> routeIn(const nlmsghdr& message) {
  const auto [header, attributes] = partsOf<rtmsg>(message);
  if (header->rtm_family != AF_INET && header->rtm_family != AF_INET6) return std::nullopt;
  FpmRoute route;
  route.isThere = message.nlmsg_type == RTM_NEWROUTE;
  route.isUnicast = header->rtm_type == RTN_UNICAST;
  route.table = checkedNumber<std::uint32_t>(attributes, RTA_TABLE).value_or(header->rtm_table);
  route.protocol = header->rtm_protocol;
  route.prefix = prefixOf(*header, checkedAddress(attributes, RTA_DST));
  route.metric = checkedNumber<std::uint32_t>(attributes, RTA_PRIORITY);
  route.nexthopId = checkedNumber<std::uint32_t>(attributes, RTA_NH_ID).value_or(0);
  if (const auto multipath = attributes.find(RTA_MULTIPATH)) {
    route.nexthops = multipathOf(*multipath);
  } else if (route.isThere && route.nexthopId == 0) {
    route.nexthops.push_back(nexthopOf(attributes, header->rtm_flags));
  }
  return route;
}

std::optional<FpmMessage> nexthopObjectIn(const nlmsghdr& message) {
  const auto [header, attributes] = partsOf<nhmsg>(message);
  FpmNexthopObject object;
  object.isThere = message.nlmsg_type == RTM_NEWNEXTHOP;
  object.id = checkedNumber<std::uint32_t>(attributes, NHA_ID).value_or(0);
  require(object.id != 0, "a next hop object without its number");
  object.nexthop.gateway = checkedAddress(attributes, NHA_GATEWAY);
  object.nexthop.isOnlink = (header->nh_flags & RTNH_F_ONLINK) != 0;
  object.nexthop.ifIndex = checkedNumber<std::uint32_t>(attributes, NHA_OIF).value_or(0);
  if (const auto group = attributes.find(NHA_GROUP)) {
    require(!group->empty() && group->size() % sizeof(nexthop_grp) == 0, "a group that is not whole");
    require(group->size() / sizeof(nexthop_grp) <= maxPaths, "a group of more next hops than a route has");
    for (std::size_t at = 0; at < group->size(); at += sizeof(nexthop_grp)) {
      nexthop_grp member;
      std::memcpy(&member, group->data() + at, sizeof member);
      object.group.push_back(member.id);
    }
  }
  return object;
}

std::optional<FpmMessage> neighbourIn(const nlmsghdr& message) {
  const auto [header, attributes] = partsOf<ndmsg>(message);
  FpmNeighbour neighbour;
  neighbour.isThere = message.nlmsg_type == RTM_NEWNEIGH;
  neighbour.vtep = checkedAddress(attributes, NDA_DST);
  if (const auto vni = checkedNumber<std::uint32_t>(attributes, NDA_VNI)) neighbour.vni = checkedVni(*vni);
  const auto mac = attributes.mac(NDA_LLADDR);
  require(mac || !attributes.has(NDA_LLADDR), "a MAC address that is none");
  if (neighbour.vtep.isEmpty() || (neighbour.isThere && !mac)) return std::nullopt;
  neighbour.mac = mac.value_or(EthAddr());
  return neighbour;
}

std::optional<FpmMessage> read(const nlmsghdr& message) {
  switch (message.nlmsg_type) {
    case RTM_NEWROUTE:
    case RTM_DELROUTE:
      return routeIn(message);
    case RTM_NEWNEXTHOP:
    case RTM_DELNEXTHOP:
      return nexthopObjectIn(message);
    case RTM_NEWNEIGH:
    case RTM_DELNEIGH:
      return neighbourIn(message);
    default:
      return std::nullopt;
  }
}

}  // namespace

std::vector<FpmMessage> fpmMessagesIn(Bytes frame) {
  std::vector<FpmMessage> messages;
  while (const nlmsghdr* message = nextMessage(frame)) {
    if (auto known = read(*message)) messages.push_back(std::move(*known));
  }
  require(frame.empty(), "a message that is not whole");
  return messages;
}

}  // namespace Netlink
