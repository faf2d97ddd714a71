// What several programs read from messages about the kernel's routes.
#pragma once

#include <cstdint>
#include <optional>

#include "netlink/messages/Attributes.h"
#include "platform/values/Net.h"

struct rtmsg;

namespace Netlink {

// Everything that the mirror of published routes puts into the kernel carries it, and nothing else is touched.
inline constexpr std::uint8_t ownProtocol = 140;

// Where a route leads to; without an address it is the default route. Nothing: what stands there is no prefix of the
// route's family.
std::optional<IpGenPrefix> destinationOf(const rtmsg& header, const Attributes& attributes);

}  // namespace Netlink
