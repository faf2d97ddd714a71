// Next-hop sets for a load: which VTEPs, taken from a range of addresses, make up the vias that routes are spread over.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/tables/Rib.h"

namespace Tools {

// What every next hop of a via has besides its VTEP.
struct TunnelOptions {
  IntfId vti;
  Bridging::ExtendedVlanId extendedVlanId = 0;
  Vxlan::Vni vni;
};

// The next hop to one VTEP. Its router MAC is locally administered and follows from the VTEP's address (the last 32
// bits).
Routing::Rib::RouteCache::Evpn::ViaNexthop nexthopTo(const IpGenAddr& vtep, const TunnelOptions& tunnel);

struct NexthopSetOptions {
  IpGenAddr vtepBase;       // the first VTEP; the others follow it address by address
  std::uint32_t vteps = 1;  // how many
  std::uint32_t paths = 1;  // next hops in each set, 1 to 32, to as many different VTEPs
  std::uint32_t sets = 0;   // 0: one for each VTEP
  TunnelOptions tunnel;
};

// A number of different next-hop sets over a range of VTEPs. The sets follow from the options alone, and a set with a
// smaller number does not depend on how many there are.
class NexthopSets {
 public:
  // Throws RangeError when there are no such sets: no VTEP, more paths than VTEPs or than a via holds, addresses that
  // run over the end of the family, more sets than the VTEPs give.
  explicit NexthopSets(const NexthopSetOptions& options);
  std::uint32_t size() const { return sets_; }
  // Set number `set`, 0 to size() - 1, as a via under the key set + 1.
  Routing::Rib::RouteCache::Evpn::Via via(std::uint32_t set) const;

 private:
  NexthopSetOptions options_;
  std::uint32_t sets_;
};

}  // namespace Tools
