#include "netlink/discover/MachineMessages.h"

#include <linux/if_addr.h>
#include <linux/if_bridge.h>
#include <linux/if_link.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>

#include "netlink/messages/RouteMessages.h"
#include "platform/values/Hash.h"

namespace Netlink {

namespace {

// --- Links -----------------------------------------------------------------------------------------------------------

VxlanLink vxlanOf(const Attributes& data) {
  VxlanLink vxlan;
  const bool isExternal = data.number<std::uint8_t>(IFLA_VXLAN_COLLECT_METADATA).value_or(0) != 0;
  const auto vni = data.number<std::uint32_t>(IFLA_VXLAN_ID);
  if (!isExternal && vni && *vni <= Vxlan::Vni::max) vxlan.vni = Vxlan::Vni(*vni);
  if (const auto local = data.address(IFLA_VXLAN_LOCAL); local && local->isV4()) vxlan.local4 = local->v4();
  if (const auto local = data.address(IFLA_VXLAN_LOCAL6); local && local->isV6()) vxlan.local6 = local->v6();
  return vxlan;
}

// --- A bridge's ports ------------------------------------------------------------------------------------------------

constexpr std::uint16_t maxVlan = 4094;

// Ranges are told by their first and their last VLAN, one behind the other.
class TunnelReader {
 public:
  explicit TunnelReader(BridgePort::VlanToVni& tunnels) : tunnels_(tunnels) {}
  void take(const Attributes& tunnel) {
    const auto vni = tunnel.number<std::uint32_t>(IFLA_BRIDGE_VLAN_TUNNEL_ID);
    const auto vlan = tunnel.number<std::uint16_t>(IFLA_BRIDGE_VLAN_TUNNEL_VID);
    if (!vni || !vlan || *vlan > maxVlan) return;
    const std::uint16_t flags = tunnel.number<std::uint16_t>(IFLA_BRIDGE_VLAN_TUNNEL_FLAGS).value_or(0);
    if ((flags & BRIDGE_VLAN_INFO_RANGE_BEGIN) != 0) {
      firstVlan_ = *vlan;
      firstVni_ = *vni;
      return;
    }
    const bool endsRange = (flags & BRIDGE_VLAN_INFO_RANGE_END) != 0 && firstVlan_ != 0 && firstVlan_ <= *vlan;
    const std::uint16_t first = endsRange ? firstVlan_ : *vlan;
    std::uint64_t next = endsRange ? firstVni_ : *vni;
    for (std::uint16_t at = first; at <= *vlan && next <= Vxlan::Vni::max; ++at, ++next) {
      tunnels_[at] = Vxlan::Vni(static_cast<std::uint32_t>(next));
    }
    firstVlan_ = 0;
  }

 private:
  BridgePort::VlanToVni& tunnels_;
  std::uint16_t firstVlan_ = 0;  // of a range whose end is to come; 0: none is
  std::uint32_t firstVni_ = 0;
};

Bridging::ExtendedVlanId untaggedVlan(Bytes info) {
  bridge_vlan_info vlan{};
  if (info.size() != sizeof vlan) return 0;
  std::memcpy(&vlan, info.data(), sizeof vlan);
  return (vlan.flags & BRIDGE_VLAN_INFO_PVID) != 0 && vlan.vid <= maxVlan ? vlan.vid : 0;
}

// --- Routes ----------------------------------------------------------------------------------------------------------

bool works(unsigned flags) {
  return (flags & (RTNH_F_DEAD | RTNH_F_LINKDOWN)) == 0;
}

std::uint64_t hashOf(const Attributes& nexthop, std::uint32_t device, unsigned weight) {
  std::uint64_t hash = Platform::hashMix(device, weight);
  if (const auto gateway = nexthop.address(RTA_GATEWAY)) hash = Platform::hashMix(hash, gateway->hash());
  if (const auto via = nexthop.find(RTA_VIA)) {
    hash =
        Platform::hashMix(hash, Platform::hashBytes(reinterpret_cast<const unsigned char*>(via->data()), via->size()));
  }
  return hash;
}

// A sum, which their order does not change.
std::uint64_t hashOfMultipath(Bytes rest) {
  std::uint64_t sum = 0;
  rtnexthop header;
  while (rest.size() >= sizeof header) {
    std::memcpy(&header, rest.data(), sizeof header);
    if (header.rtnh_len < sizeof header || header.rtnh_len > rest.size()) break;
    const Attributes attributes(rest.first(header.rtnh_len).subspan(sizeof header));
    if (works(header.rtnh_flags)) {
      sum += hashOf(attributes, static_cast<std::uint32_t>(header.rtnh_ifindex), header.rtnh_hops);
    }
    rest = rest.subspan(std::min<std::size_t>(RTNH_ALIGN(std::size_t{header.rtnh_len}), rest.size()));
  }
  return sum;
}

std::uint32_t nexthopsHash(const rtmsg& header, const Attributes& attributes) {
  std::uint64_t hash = 0;
  const auto device = attributes.number<std::uint32_t>(RTA_OIF);
  if (const auto multipath = attributes.find(RTA_MULTIPATH)) {
    hash = hashOfMultipath(*multipath);
  } else if (device) {
    hash = works(header.rtm_flags) ? hashOf(attributes, *device, 0) : 0;
  } else if (const auto object = attributes.number<std::uint32_t>(RTA_NH_ID)) {
    hash = Platform::hashOf(*object);  // a kernel that says no more of it
  }
  if (hash == 0) return 0;
  const auto folded = static_cast<std::uint32_t>(hash ^ hash >> 32);
  return folded == 0 ? 1 : folded;
}

bool isOfUnderlay(const IpGenPrefix& prefix) {
  constexpr std::uint64_t linkLocal = 0xFE80;
  constexpr std::uint64_t multicast = 0xFF;
  if (prefix.isV4() || prefix.length() < 8) return true;
  const std::uint64_t high = prefix.v6().addr().high();
  return high >> 56 != multicast && (high >> 48 & 0xFFC0) != linkLocal;
}

}  // namespace

std::optional<MachineLink> machineLinkIn(const nlmsghdr& message) {
  const auto* header = headerOf<ifinfomsg>(message);
  if (message.nlmsg_type != RTM_NEWLINK || header == nullptr || header->ifi_family != AF_UNSPEC) return std::nullopt;
  const auto attributes = attributesOf<ifinfomsg>(message);
  const auto name = attributes.text(IFLA_IFNAME);
  if (!name) return std::nullopt;
  MachineLink link;
  link.index = static_cast<std::uint32_t>(header->ifi_index);
  link.name = *name;
  link.isRunning = (header->ifi_flags & IFF_UP) != 0 && (header->ifi_flags & IFF_RUNNING) != 0;
  const Attributes info = attributes.nested(IFLA_LINKINFO);
  const auto kind = info.text(IFLA_INFO_KIND);
  const Attributes data = info.nested(IFLA_INFO_DATA);
  if (kind == "vxlan") link.vxlan = vxlanOf(data);
  if (kind == "vrf") link.vrfTable = data.number<std::uint32_t>(IFLA_VRF_TABLE);
  return link;
}

std::optional<BridgePort> bridgePortIn(const nlmsghdr& message) {
  const auto* header = headerOf<ifinfomsg>(message);
  if (message.nlmsg_type != RTM_NEWLINK || header == nullptr || header->ifi_family != AF_BRIDGE) return std::nullopt;
  BridgePort port;
  port.index = static_cast<std::uint32_t>(header->ifi_index);
  TunnelReader tunnels(port.tunnels);
  attributesOf<ifinfomsg>(message).nested(IFLA_AF_SPEC).forEach([&](const Attribute& attribute) {
    if (attribute.type == IFLA_BRIDGE_VLAN_INFO) port.untaggedVlan |= untaggedVlan(attribute.payload);
    if (attribute.type == IFLA_BRIDGE_VLAN_TUNNEL_INFO) tunnels.take(Attributes(attribute.payload));
  });
  return port;
}

std::optional<MachineAddress> machineAddressIn(const nlmsghdr& message) {
  const auto* header = headerOf<ifaddrmsg>(message);
  if (message.nlmsg_type != RTM_NEWADDR || header == nullptr) return std::nullopt;
  const auto attributes = attributesOf<ifaddrmsg>(message);
  auto address = attributes.address(IFA_LOCAL);
  if (!address) address = attributes.address(IFA_ADDRESS);
  if (!address) return std::nullopt;
  return MachineAddress{header->ifa_index, *address, header->ifa_scope == RT_SCOPE_UNIVERSE};
}

std::optional<UnderlayRoute> underlayRouteIn(const nlmsghdr& message) {
  const auto* header = headerOf<rtmsg>(message);
  if (message.nlmsg_type != RTM_NEWROUTE || header == nullptr || header->rtm_type != RTN_UNICAST ||
      header->rtm_protocol == ownProtocol || header->rtm_tos != 0 || (header->rtm_flags & RTM_F_CLONED) != 0) {
    return std::nullopt;
  }
  const auto attributes = attributesOf<rtmsg>(message);
  const auto prefix = destinationOf(*header, attributes);
  if (!prefix || !isOfUnderlay(*prefix)) return std::nullopt;
  // What stands for other senders only is no route of all.
  if (header->rtm_src_len != 0) return std::nullopt;
  if (attributes.number<std::uint32_t>(RTA_TABLE).value_or(header->rtm_table) != RT_TABLE_MAIN) return std::nullopt;
  return UnderlayRoute{*prefix, attributes.number<std::uint32_t>(RTA_PRIORITY).value_or(0),
                       nexthopsHash(*header, attributes)};
}

void askForMachineDump(MessageBuffer& out, MachineDump dump) {
  constexpr std::uint16_t flags = NLM_F_REQUEST | NLM_F_DUMP;
  const auto familyOf = [](bool isV6) { return static_cast<unsigned char>(isV6 ? AF_INET6 : AF_INET); };
  switch (dump) {
    case MachineDump::links:
      out.messageBegins(RTM_GETLINK, flags, 1, ifinfomsg{});
      break;
    case MachineDump::bridgePorts: {
      ifinfomsg header{};
      header.ifi_family = AF_BRIDGE;
      out.messageBegins(RTM_GETLINK, flags, 1, header);
      out.addNumber(IFLA_EXT_MASK, std::uint32_t{RTEXT_FILTER_BRVLAN});
      break;
    }
    case MachineDump::addresses4:
    case MachineDump::addresses6: {
      ifaddrmsg header{};
      header.ifa_family = familyOf(dump == MachineDump::addresses6);
      out.messageBegins(RTM_GETADDR, flags, 1, header);
      break;
    }
    case MachineDump::routes4:
    case MachineDump::routes6: {
      rtmsg header{};
      header.rtm_family = familyOf(dump == MachineDump::routes6);
      header.rtm_table = RT_TABLE_MAIN;
      out.messageBegins(RTM_GETROUTE, flags, 1, header);
      break;
    }
  }
  out.messageEnds();
}

std::uint32_t machineGroups() {
  return RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR | RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_ROUTE;
}

}  // namespace Netlink
