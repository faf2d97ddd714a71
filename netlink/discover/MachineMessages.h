// What the kernel says of links, addresses and routes, as values: as much of it as a switch's state is made of.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "netlink/messages/Attributes.h"
#include "netlink/messages/MessageBuffer.h"
#include "platform/values/Net.h"

namespace Netlink {

struct VxlanLink {
  std::optional<Vxlan::Vni> vni;  // the device's only one; nothing: it takes that from where packets come (external)
  IpAddr local4;                  // zero: not said
  Ip6Addr local6;
  bool operator==(const VxlanLink&) const = default;
};

struct MachineLink {
  std::uint32_t index = 0;
  std::string name;
  bool isRunning = false;  // set up, and with a carrier
  std::optional<VxlanLink> vxlan;
  std::optional<std::uint32_t> vrfTable;  // of a VRF device
};

// What a bridge knows of a port.
struct BridgePort {
  using VlanToVni = std::map<Bridging::ExtendedVlanId, Vxlan::Vni>;
  std::uint32_t index = 0;
  Bridging::ExtendedVlanId untaggedVlan = 0;  // of packets that come in without a tag; 0: none
  VlanToVni tunnels;
};

struct MachineAddress {
  std::uint32_t index = 0;  // of the link
  IpGenAddr addr;
  bool isGlobal = false;
};

// A route of the kernel's main table.
struct UnderlayRoute {
  IpGenPrefix prefix;
  std::uint32_t metric = 0;
  // Of the next hops that work, in any order: the same in every run, other for others. 0: none works.
  std::uint32_t nexthopsHash = 0;
};

enum class MachineDump : std::uint8_t { links, bridgePorts, addresses4, addresses6, routes4, routes6 };
void askForMachineDump(MessageBuffer& out, MachineDump dump);
// The groups of announcements (RTMGRP_...) that tell when one of these dumps would be another.
std::uint32_t machineGroups();

// Nothing: the message is about something else, or not whole.
std::optional<MachineLink> machineLinkIn(const nlmsghdr& message);
std::optional<BridgePort> bridgePortIn(const nlmsghdr& message);
std::optional<MachineAddress> machineAddressIn(const nlmsghdr& message);
// Nothing, too, for what leads nowhere, for what this program's mirror has put there, and for link-local and multicast
// prefixes.
std::optional<UnderlayRoute> underlayRouteIn(const nlmsghdr& message);

}  // namespace Netlink
