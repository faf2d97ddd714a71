#include "netlink/kernel/KernelMessages.h"

#include <linux/lwtunnel.h>
#include <linux/neighbour.h>
#include <linux/nexthop.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>

namespace Netlink {

namespace {

constexpr std::uint16_t request = NLM_F_REQUEST;
constexpr std::uint64_t linkLocalHigh = 0xFE80'0000'0000'0000;
// The bit of a MAC that says who has assigned it, which an address made of it has the other way round.
constexpr std::uint64_t assignedBit = std::uint64_t{1} << 57;
constexpr std::uint64_t middle = 0xFFFE;  // between its halves

// What a tunnel of a family is described by.
struct TunnelAttributes {
  std::uint16_t type;
  std::uint16_t id;
  std::uint16_t destination;
};
constexpr TunnelAttributes tunnel4{LWTUNNEL_ENCAP_IP, LWTUNNEL_IP_ID, LWTUNNEL_IP_DST};
constexpr TunnelAttributes tunnel6{LWTUNNEL_ENCAP_IP6, LWTUNNEL_IP6_ID, LWTUNNEL_IP6_DST};

std::uint16_t flagsOf(Change change) {
  switch (change) {
    case Change::add:
      return request | NLM_F_CREATE | NLM_F_EXCL;
    case Change::replace:
      return request | NLM_F_REPLACE;
    case Change::remove:
      return request;
  }
  return request;
}

nhmsg nexthopHeader(std::uint8_t family) {
  nhmsg header{};
  header.nh_family = family;
  header.nh_protocol = ownProtocol;
  return header;
}

// Nothing: it leads elsewhere than a hop of ours.
std::optional<Hop> hopIn(const Attributes& attributes) {
  const auto device = attributes.number<std::uint32_t>(NHA_OIF);
  const auto gateway = attributes.address(NHA_GATEWAY);
  const auto type = attributes.number<std::uint16_t>(NHA_ENCAP_TYPE);
  if (!device || !gateway || !gateway->isV6() || !type) return std::nullopt;
  if (*type != tunnel4.type && *type != tunnel6.type) return std::nullopt;
  const TunnelAttributes& tunnel = *type == tunnel6.type ? tunnel6 : tunnel4;
  const Attributes encapsulation = attributes.nested(NHA_ENCAP);
  const auto vni = encapsulation.bigEndian<std::uint64_t>(tunnel.id);
  const auto vtep = encapsulation.address(tunnel.destination);
  const auto mac = macOf(gateway->v6());
  if (!vni || *vni > Vxlan::Vni::max || !vtep || vtep->isV6() != (*type == tunnel6.type) || !mac) return std::nullopt;
  return Hop{{*device, *mac}, static_cast<std::uint32_t>(*vni), *vtep};
}

std::vector<std::uint32_t> membersIn(Bytes group) {
  std::vector<std::uint32_t> members;
  for (; group.size() >= sizeof(nexthop_grp); group = group.subspan(sizeof(nexthop_grp))) {
    nexthop_grp member;
    std::memcpy(&member, group.data(), sizeof member);
    members.push_back(member.id);
  }
  return members;
}

}  // namespace

Ip6Addr linkLocalOf(const EthAddr& mac) {
  const std::uint64_t value = mac.value();
  return {linkLocalHigh, ((value >> 24 << 40) | middle << 24 | (value & 0xFFFFFF)) ^ assignedBit};
}

std::optional<EthAddr> macOf(const Ip6Addr& linkLocal) {
  const std::uint64_t low = linkLocal.low() ^ assignedBit;
  if (linkLocal.high() != linkLocalHigh || (low >> 24 & 0xFFFF) != middle) return std::nullopt;
  std::uint64_t value = low >> 40 << 24 | (low & 0xFFFFFF);
  EthAddr::Bytes bytes{};
  for (auto byte = bytes.rbegin(); byte != bytes.rend(); ++byte, value >>= 8) *byte = static_cast<std::uint8_t>(value);
  return EthAddr(bytes);
}

void addNeighbour(MessageBuffer& out, std::uint32_t sequence, Change change, const Neighbour& neighbour) {
  ndmsg header{};
  header.ndm_family = AF_INET6;
  header.ndm_ifindex = static_cast<int>(neighbour.device);
  header.ndm_state = NUD_PERMANENT;
  // What the kernel has learned of the address by itself gives way.
  const std::uint16_t flags = change == Change::remove ? request : request | NLM_F_CREATE | NLM_F_REPLACE;
  out.messageBegins(change == Change::remove ? RTM_DELNEIGH : RTM_NEWNEIGH, flags, sequence, header);
  out.addAddress(NDA_DST, linkLocalOf(neighbour.routerMac));
  if (change != Change::remove) {
    out.addMac(NDA_LLADDR, neighbour.routerMac);
    out.addNumber(NDA_PROTOCOL, ownProtocol);
  }
  out.messageEnds();
}

void addHop(MessageBuffer& out, std::uint32_t sequence, std::uint32_t id, const Hop& hop) {
  nhmsg header = nexthopHeader(AF_INET6);
  header.nh_flags = RTNH_F_ONLINK;
  out.messageBegins(RTM_NEWNEXTHOP, request | NLM_F_CREATE | NLM_F_REPLACE, sequence, header);
  out.addNumber(NHA_ID, id);
  out.addNumber(NHA_OIF, hop.neighbour.device);
  out.addAddress(NHA_GATEWAY, linkLocalOf(hop.neighbour.routerMac));
  const TunnelAttributes& tunnel = hop.vtep.isV6() ? tunnel6 : tunnel4;
  out.addNumber(NHA_ENCAP_TYPE, tunnel.type);
  out.nestBegins(NHA_ENCAP);
  out.addBigEndian(tunnel.id, std::uint64_t{hop.vni});
  out.addAddress(tunnel.destination, hop.vtep);
  out.nestEnds();
  out.messageEnds();
}

// Of the family whose objects routes of both may refer to.
void addBlackhole(MessageBuffer& out, std::uint32_t sequence) {
  out.messageBegins(RTM_NEWNEXTHOP, request | NLM_F_CREATE | NLM_F_REPLACE, sequence, nexthopHeader(AF_INET6));
  out.addNumber(NHA_ID, blackholeId);
  out.add(NHA_BLACKHOLE, {});
  out.messageEnds();
}

void addGroup(MessageBuffer& out, std::uint32_t sequence, std::uint32_t id, std::span<const std::uint32_t> members) {
  out.messageBegins(RTM_NEWNEXTHOP, request | NLM_F_CREATE | NLM_F_REPLACE, sequence, nexthopHeader(AF_UNSPEC));
  out.addNumber(NHA_ID, id);
  std::array<nexthop_grp, maxSlot + 1> group{};
  for (std::size_t i = 0; i < members.size(); ++i) group.at(i).id = members[i];
  out.add(NHA_GROUP, std::as_bytes(std::span(group).first(members.size())));
  out.messageEnds();
}

void removeNexthop(MessageBuffer& out, std::uint32_t sequence, std::uint32_t id) {
  out.messageBegins(RTM_DELNEXTHOP, request, sequence, nhmsg{});
  out.addNumber(NHA_ID, id);
  out.messageEnds();
}

void addRoute(MessageBuffer& out, std::uint32_t sequence, Change change, const KernelRoute& route) {
  rtmsg header{};
  header.rtm_family = route.prefix.isV4() ? AF_INET : AF_INET6;
  header.rtm_dst_len = static_cast<unsigned char>(route.prefix.length());
  header.rtm_table = RT_TABLE_UNSPEC;  // the attribute has it
  header.rtm_protocol = ownProtocol;
  header.rtm_scope = change == Change::remove ? RT_SCOPE_NOWHERE : RT_SCOPE_UNIVERSE;
  header.rtm_type = change == Change::remove ? RTN_UNSPEC : RTN_UNICAST;
  out.messageBegins(change == Change::remove ? RTM_DELROUTE : RTM_NEWROUTE, flagsOf(change), sequence, header);
  out.addAddress(RTA_DST, route.prefix.addr());
  out.addNumber(RTA_TABLE, route.table);
  out.addNumber(RTA_PRIORITY, route.metric);
  if (change != Change::remove) out.addNumber(RTA_NH_ID, route.nexthopId);
  out.messageEnds();
}

void askForDump(MessageBuffer& out, std::uint32_t sequence, Dump dump) {
  constexpr std::uint16_t flags = NLM_F_REQUEST | NLM_F_DUMP;
  switch (dump) {
    case Dump::links:
      out.messageBegins(RTM_GETLINK, flags, sequence, ifinfomsg{});
      break;
    case Dump::neighbours: {
      ndmsg header{};
      header.ndm_family = AF_INET6;
      out.messageBegins(RTM_GETNEIGH, flags, sequence, header);
      break;
    }
    case Dump::nexthops:
      out.messageBegins(RTM_GETNEXTHOP, flags, sequence, nhmsg{});
      break;
    case Dump::routes4:
    case Dump::routes6: {
      rtmsg header{};
      header.rtm_family = dump == Dump::routes4 ? AF_INET : AF_INET6;
      header.rtm_protocol = ownProtocol;
      out.messageBegins(RTM_GETROUTE, flags, sequence, header);
      break;
    }
  }
  out.messageEnds();
}

std::optional<Link> linkIn(const nlmsghdr& message) {
  if (message.nlmsg_type != RTM_NEWLINK && message.nlmsg_type != RTM_DELLINK) return std::nullopt;
  const auto* header = headerOf<ifinfomsg>(message);
  // A bridge tells of its ports with messages of its own family.
  if (header == nullptr || header->ifi_family != AF_UNSPEC) return std::nullopt;
  const auto name = attributesOf<ifinfomsg>(message).text(IFLA_IFNAME);
  if (!name) return std::nullopt;
  const bool isGone = message.nlmsg_type == RTM_DELLINK;
  return Link{static_cast<std::uint32_t>(header->ifi_index), *name, !isGone && (header->ifi_flags & IFF_UP) != 0,
              isGone};
}

std::optional<Neighbour> neighbourIn(const nlmsghdr& message) {
  if (message.nlmsg_type != RTM_NEWNEIGH) return std::nullopt;
  const auto* header = headerOf<ndmsg>(message);
  const auto attributes = attributesOf<ndmsg>(message);
  if (header == nullptr || attributes.number<std::uint8_t>(NDA_PROTOCOL) != ownProtocol) return std::nullopt;
  const auto address = attributes.address(NDA_DST);
  const auto mac = attributes.mac(NDA_LLADDR);
  if (!address || !address->isV6() || !mac || macOf(address->v6()) != mac) return std::nullopt;
  return Neighbour{static_cast<std::uint32_t>(header->ndm_ifindex), *mac};
}

std::optional<Nexthop> nexthopIn(const nlmsghdr& message) {
  if (message.nlmsg_type != RTM_NEWNEXTHOP) return std::nullopt;
  const auto* header = headerOf<nhmsg>(message);
  if (header == nullptr || header->nh_protocol != ownProtocol) return std::nullopt;
  const auto attributes = attributesOf<nhmsg>(message);
  const auto id = attributes.number<std::uint32_t>(NHA_ID);
  if (!id) return std::nullopt;
  return Nexthop{*id, hopIn(attributes), membersIn(attributes.find(NHA_GROUP).value_or(Bytes()))};
}

std::optional<KernelRoute> routeIn(const nlmsghdr& message) {
  if (message.nlmsg_type != RTM_NEWROUTE) return std::nullopt;
  const auto* header = headerOf<rtmsg>(message);
  if (header == nullptr || header->rtm_protocol != ownProtocol || (header->rtm_flags & RTM_F_CLONED) != 0) {
    return std::nullopt;
  }
  const auto attributes = attributesOf<rtmsg>(message);
  const auto prefix = destinationOf(*header, attributes);
  if (!prefix) return std::nullopt;
  return KernelRoute{*prefix, attributes.number<std::uint32_t>(RTA_TABLE).value_or(header->rtm_table),
                     attributes.number<std::uint32_t>(RTA_PRIORITY).value_or(0),
                     attributes.number<std::uint32_t>(RTA_NH_ID).value_or(0)};
}

}  // namespace Netlink
