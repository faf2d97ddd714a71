#include "netlink/messages/RouteMessages.h"

#include <linux/rtnetlink.h>
#include <sys/socket.h>

namespace Netlink {

std::optional<IpGenPrefix> destinationOf(const rtmsg& header, const Attributes& attributes) {
  const auto address = attributes.address(RTA_DST);
  if (header.rtm_family == AF_INET && header.rtm_dst_len <= Prefix::maxLength) {
    if (address && !address->isV4()) return std::nullopt;
    return IpGenPrefix(Prefix(address ? address->v4() : IpAddr(), header.rtm_dst_len));
  }
  if (header.rtm_family == AF_INET6 && header.rtm_dst_len <= Ip6Prefix::maxLength) {
    if (address && !address->isV6()) return std::nullopt;
    return IpGenPrefix(Ip6Prefix(address ? address->v6() : Ip6Addr(), header.rtm_dst_len));
  }
  return std::nullopt;
}

}  // namespace Netlink
