// The vias of the RIB tables by what they hold: equal sets of next hops share one.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

#include "platform/tables/Rib.h"

namespace Netlink {

// Every via of the table is known here, and has users or is about to be removed. A via never changes: other next hops
// are another via, with a key that no via had since this process began.
class ViaSets {
 public:
  using ViaConfig = Routing::Rib::RouteCache::Evpn::ViaConfig;
  using Via = Routing::Rib::RouteCache::Evpn::Via;
  using ViaNexthop = Routing::Rib::RouteCache::Evpn::ViaNexthop;
  using ViaKey = Routing::Rib::ViaKey;

  // Takes over what stands in the table, without users. The table outlives this, and has no other writer.
  explicit ViaSets(ViaConfig& table);

  // The key of the via of these next hops, which gets a user by it; written if there is none. 0: there is no room.
  ViaKey use(const std::vector<ViaNexthop>& nexthops);
  // One more user of a via that stands; false: there is none with this key.
  bool useAgain(ViaKey key);
  // One user less; the last takes the via along. 0 is nobody.
  void release(ViaKey key);
  // Removes what has no users.
  void removeUnused();
  std::size_t size() const { return users_.size(); }
  std::uint64_t refused() const { return refused_; }  // for want of room
  void checkInvariants() const;

 private:
  void remove(ViaKey key);

  ViaConfig& table_;
  std::map<std::string, ViaKey> keys_;     // by the bytes of the content
  std::map<ViaKey, std::uint64_t> users_;  // of each via in the table
  ViaKey lastKey_ = 0;
  std::uint64_t refused_ = 0;
};

}  // namespace Netlink
