#include "simulator/routing/NexthopSets.h"

#include <algorithm>
#include <array>
#include <limits>

namespace Tools {

using Routing::Rib::RouteCache::Evpn::Via;
using Routing::Rib::RouteCache::Evpn::ViaNexthop;

namespace {

// The low word of an address: the whole of an IPv4 address, the low half of an IPv6 one.
std::uint64_t lowWord(const IpGenAddr& addr) {
  return addr.isV4() ? addr.v4().value() : addr.v6().low();
}

IpGenAddr addressAt(const IpGenAddr& base, std::uint64_t offset) {
  if (base.isV4()) return IpAddr(static_cast<std::uint32_t>(base.v4().value() + offset));
  return Ip6Addr(base.v6().high(), base.v6().low() + offset);
}

// How many different sets there are. Set s takes the VTEPs s, s + d, s + 2d ... round the range, the distance d growing
// by one each time s has gone round. With two paths or more, sets of different start or distance differ as long as a
// set stays within half the range; those of distance 1 differ unless a set is the whole range.
std::uint64_t setsAvailable(std::uint64_t vteps, std::uint64_t paths) {
  if (paths == 1) return vteps;
  if (paths == vteps) return 1;
  return vteps * std::max<std::uint64_t>(1, (vteps - 1) / (2 * (paths - 1)));
}

}  // namespace

ViaNexthop nexthopTo(const IpGenAddr& vtep, const TunnelOptions& tunnel) {
  const std::uint64_t low = lowWord(vtep);
  const auto byte = [low](unsigned shift) { return static_cast<std::uint8_t>(low >> shift); };
  return {vtep, tunnel.vti, tunnel.extendedVlanId, tunnel.vni,
          EthAddr(EthAddr::Bytes{0x02, 0x00, byte(24), byte(16), byte(8), byte(0)})};
}

NexthopSets::NexthopSets(const NexthopSetOptions& options) : options_(options), sets_(options.sets) {
  const std::uint64_t vteps = options.vteps;
  const std::uint64_t paths = options.paths;
  if (options.vtepBase.isEmpty() || vteps == 0) throw RangeError("no VTEP is given");
  if (paths == 0 || paths > Via::maxNexthops) throw RangeError("a via has 1 to 32 paths");
  if (paths > vteps) {
    throw RangeError(std::to_string(paths) + " paths need as many VTEPs, not " + std::to_string(vteps));
  }
  const std::uint64_t last =
      options.vtepBase.isV4() ? std::numeric_limits<std::uint32_t>::max() : std::numeric_limits<std::uint64_t>::max();
  if (vteps - 1 > last - lowWord(options.vtepBase)) {
    throw RangeError(std::to_string(vteps) + " VTEPs from " + Platform::toText(options.vtepBase) +
                     " run over the end of the address space");
  }
  const std::uint64_t available = setsAvailable(vteps, paths);
  if (sets_ == 0) sets_ = static_cast<std::uint32_t>(std::min(vteps, available));
  if (sets_ > available) {
    throw RangeError(std::to_string(vteps) + " VTEPs give " + std::to_string(available) + " next-hop sets of " +
                     std::to_string(paths) + " paths, not " + std::to_string(sets_));
  }
}

Via NexthopSets::via(std::uint32_t set) const {
  const std::uint64_t start = set % options_.vteps;
  const std::uint64_t distance = 1 + set / options_.vteps;
  Via via(std::uint64_t{set} + 1);
  for (std::uint64_t path = 0; path < options_.paths; ++path) {
    const std::uint64_t vtep = (start + path * distance) % options_.vteps;
    via.nexthopAdd(nexthopTo(addressAt(options_.vtepBase, vtep), options_.tunnel));
  }
  return via;
}

}  // namespace Tools
