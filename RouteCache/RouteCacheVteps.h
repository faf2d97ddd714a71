// Remote tunnel end points (VTEPs) in use: how many routes monitor each one's underlay reachability, and which
// adjacencies use it. One object for each address family.
//
// Invariant: the resolver has a request for an address if (and, once leftovers of a predecessor are cleaned up, only
// if) its count is above 0.
#pragma once

#include <memory>
#include <unordered_map>

#include "RouteCache/RouteCacheConfig.h"
#include "platform/Assert.h"
#include "platform/Nexthop.h"

namespace RouteCache {

template <class Addr>
class VtepMonitor {
 public:
  using RefCounts = std::unordered_map<Addr, std::uint32_t, Platform::Hasher>;

  // One more use; the first one asks the resolver to watch the address.
  void add(const Addr& addr, Routing::NexthopVrfConfig& requests) {
    if (++refCounts_[addr] == 1) requests.nexthopIs(addr);
  }
  // One use less; the last one withdraws the request. Asserts that there was one.
  void remove(const Addr& addr, Routing::NexthopVrfConfig& requests) {
    const auto found = refCounts_.find(addr);
    const std::uint32_t refCount = found == refCounts_.end() ? 0 : found->second;
    PLATFORM_ASSERT(refCount > 0);
    if (--found->second > 0) return;
    refCounts_.erase(found);
    requests.nexthopDel(addr);
  }
  std::uint32_t refCount(const Addr& addr) const {
    const auto found = refCounts_.find(addr);
    return found == refCounts_.end() ? 0 : found->second;
  }
  const RefCounts& refCounts() const { return refCounts_; }

  // The adjacencies that use the address; null when none does.
  std::shared_ptr<AdjIdColl> adjIds(const Addr& addr) const {
    const auto found = adjIds_.find(addr);
    return found == adjIds_.end() ? nullptr : found->second;
  }
  void adjIdIs(const Addr& addr, AdjId adjId) {
    auto& coll = adjIds_[addr];
    if (!coll) coll = std::make_shared<AdjIdColl>();
    coll->adjIdCollIs(adjId);
  }
  void adjIdDel(const Addr& addr, AdjId adjId) {
    const auto found = adjIds_.find(addr);
    if (found == adjIds_.end()) return;
    found->second->adjIdCollDel(adjId);
    if (found->second->empty()) adjIds_.erase(found);
  }

 private:
  RefCounts refCounts_;
  std::unordered_map<Addr, std::shared_ptr<AdjIdColl>, Platform::Hasher> adjIds_;
};

}  // namespace RouteCache
