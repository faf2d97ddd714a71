// What a mirror of published routes says to the kernel, and what the kernel says of it: neighbours, next hops, routes
// and links, each as a value that becomes a message, and comes out of a dump again.
//
// A next hop is one object for routes of both families: it leaves through the VXLAN device to the VTEP and with the VNI
// that stand in it, and by a gateway that stands for the router MAC of the far end: the link-local address which that
// MAC makes, with a permanent neighbour entry. What a route refers to is always a group of such objects, also where
// there is one: so it need not change when its next hops do.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "RouteCache/RouteCache.h"
#include "netlink/messages/Attributes.h"
#include "netlink/messages/MessageBuffer.h"
#include "netlink/messages/RouteMessages.h"
#include "platform/values/Net.h"

namespace Netlink {

// --- Numbers of next-hop objects -------------------------------------------------------------------------------------
//   bit   30      set: nobody else's as a rule
//   bits  29..28  class of the adjacency id
//   bits  27..7   its number; 0: of nobody
//   bits   6..0   0: the group; 1 to 32: its IPv4 next hops; 33 to 64: its IPv6 next hops

using Slot = std::uint8_t;
inline constexpr Slot groupSlot = 0;
inline constexpr Slot maxSlot = 64;
// The next hop of all groups that lead nowhere.
inline constexpr std::uint32_t blackholeId = 0x40000001;
inline constexpr std::uint32_t unusedId = 0x7FFFFFFF;

constexpr std::uint32_t nexthopId(RouteCache::AdjId adjId, Slot slot = groupSlot) {
  return 0x40000000 | adjId.value() >> 30 << 28 | (adjId.value() & RouteCache::AdjId::adjacencyIdMask) << 7 | slot;
}
// Nothing: the number is of no adjacency's object.
constexpr std::optional<RouteCache::AdjId> adjIdOf(std::uint32_t nexthopId) {
  const std::uint32_t number = nexthopId >> 7 & RouteCache::AdjId::adjacencyIdMask;
  if (nexthopId >> 30 != 1 || number == 0 || (nexthopId & 0x7F) > maxSlot) return std::nullopt;
  return RouteCache::AdjId((nexthopId >> 28 & 3) << 30 | number);
}
constexpr Slot slotOf(std::uint32_t nexthopId) {
  return static_cast<Slot>(nexthopId & 0x7F);
}

// --- Values ----------------------------------------------------------------------------------------------------------

// The router MAC behind a tunnel, as the kernel has to know it.
struct Neighbour {
  std::uint32_t device = 0;  // number of the VXLAN device
  EthAddr routerMac;
  auto operator<=>(const Neighbour&) const = default;
};

struct Hop {
  Neighbour neighbour;
  std::uint32_t vni = 0;
  IpGenAddr vtep;
  bool operator==(const Hop&) const = default;
};

// A next-hop object: a next hop, a group, or, with neither, one that leads nowhere or is none of ours.
struct Nexthop {
  std::uint32_t id = 0;
  std::optional<Hop> hop;
  std::vector<std::uint32_t> members;  // ids
};

struct KernelRoute {
  IpGenPrefix prefix;
  std::uint32_t table = 0;
  std::uint32_t metric = 0;
  std::uint32_t nexthopId = 0;  // 0: it has other next hops
  bool operator==(const KernelRoute&) const = default;
};

struct Link {
  std::uint32_t device = 0;
  std::string name;
  bool isUp = false;
  bool isGone = false;
};

// The link-local address that the MAC makes, and back.
Ip6Addr linkLocalOf(const EthAddr& mac);
std::optional<EthAddr> macOf(const Ip6Addr& linkLocal);

// --- To the kernel ---------------------------------------------------------------------------------------------------
// Each appends one message. `isLast` asks for an answer also when all is well.

enum class Change : std::uint8_t { add, replace, remove };

void addNeighbour(MessageBuffer& out, std::uint32_t sequence, Change change, const Neighbour& neighbour);
// Added or replaced, whatever is there.
void addHop(MessageBuffer& out, std::uint32_t sequence, std::uint32_t id, const Hop& hop);
void addBlackhole(MessageBuffer& out, std::uint32_t sequence);
void addGroup(MessageBuffer& out, std::uint32_t sequence, std::uint32_t id, std::span<const std::uint32_t> members);
void removeNexthop(MessageBuffer& out, std::uint32_t sequence, std::uint32_t id);
// One is added only where there is none of this table, prefix and metric, and replaced only where there is one.
void addRoute(MessageBuffer& out, std::uint32_t sequence, Change change, const KernelRoute& route);

enum class Dump : std::uint8_t { links, neighbours, nexthops, routes4, routes6 };
void askForDump(MessageBuffer& out, std::uint32_t sequence, Dump dump);

// --- From the kernel -------------------------------------------------------------------------------------------------
// Nothing: the message is about something else, not ours, or not whole.

std::optional<Link> linkIn(const nlmsghdr& message);
std::optional<Neighbour> neighbourIn(const nlmsghdr& message);
std::optional<Nexthop> nexthopIn(const nlmsghdr& message);
std::optional<KernelRoute> routeIn(const nlmsghdr& message);

}  // namespace Netlink
