// What a routing suite says in one frame, as values. A frame is read whole or not at all.
#pragma once

#include <cstdint>
#include <optional>
#include <variant>
#include <vector>

#include "netlink/fpm/FpmFrames.h"
#include "platform/values/Net.h"

namespace Netlink {

// One next hop as it was said.
struct FpmNexthop {
  IpGenAddr gateway;          // the VTEP, for a tunnel; empty: none
  Vxlan::Vni vni;             // where it was said
  bool isOnlink = false;      // the gateway is not in the interface's network: beyond a tunnel
  std::uint32_t ifIndex = 0;  // the sender's number of the interface; 0: none
  auto operator<=>(const FpmNexthop&) const = default;
};

struct FpmRoute {
  bool isThere = true;  // false: it is withdrawn
  bool isUnicast = true;
  std::uint32_t table = 0;    // of the kernel
  std::uint8_t protocol = 0;  // who has it from whom: RTPROT_...
  IpGenPrefix prefix;
  std::optional<std::uint32_t> metric;
  std::uint32_t nexthopId = 0;  // 0: `nexthops` says it
  std::vector<FpmNexthop> nexthops;
};

// A next hop object, or a group of such.
struct FpmNexthopObject {
  bool isThere = true;
  std::uint32_t id = 0;
  FpmNexthop nexthop;
  std::vector<std::uint32_t> group;  // empty: `nexthop` says it
};

// The router MAC behind a VTEP.
struct FpmNeighbour {
  bool isThere = true;
  IpGenAddr vtep;
  Vxlan::Vni vni;  // where it was said
  EthAddr mac;
};

using FpmMessage = std::variant<FpmRoute, FpmNexthopObject, FpmNeighbour>;

// Of a frame's messages those that are one of the above, in their order. Throws FpmFault when one is not whole or
// contradicts itself; others are left alone.
std::vector<FpmMessage> fpmMessagesIn(Bytes frame);

}  // namespace Netlink
