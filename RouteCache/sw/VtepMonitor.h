// Remote tunnel end points (VTEPs) in use: how many routes monitor each one's underlay reachability, which adjacencies
// use it, and which FEC reached it last. One object for each address family.
//
// Invariants:
//   - the resolver has a request for an address if (and, once leftovers of a predecessor are cleaned up, only if) its
//     count is above 0;
//   - an address is in use from the first adjacency that names it, adopted or written, until the last one has gone.
#pragma once

#include <memory>
#include <unordered_map>

#include "RouteCache/model/AdjIdColl.h"
#include "RouteCache/queues/FlatTable.h"
#include "platform/state/Nexthop.h"
#include "platform/values/Assert.h"

namespace RouteCache {

template <class Addr>
class VtepMonitor {
 public:
  struct RefCount {
    Addr addr;
    std::uint32_t count = 0;
  };
  struct AddrOf {
    const Addr& operator()(const RefCount& refCount) const { return refCount.addr; }
  };
  using RefCounts = FlatTable<RefCount, Addr, AddrOf>;

  // One more use; the first one asks the resolver to watch the address.
  void add(const Addr& addr, Routing::NexthopVrfConfig& requests) {
    if (++refCounts_.insert({addr, 0}).first->count == 1) requests.nexthopIs(addr);
  }
  // One use less; the last one withdraws the request. Asserts that there was one.
  void remove(const Addr& addr, Routing::NexthopVrfConfig& requests) {
    RefCount* const found = refCounts_.find(addr);
    const std::uint32_t refCount = found == nullptr ? 0 : found->count;
    PLATFORM_ASSERT(refCount > 0);
    if (--found->count > 0) return;
    refCounts_.eraseAt(found);
    requests.nexthopDel(addr);
  }
  std::uint32_t refCount(const Addr& addr) const {
    const RefCount* const found = refCounts_.find(addr);
    return found == nullptr ? 0 : found->count;
  }
  const RefCounts& refCounts() const { return refCounts_; }
  // Asks memory for what one use more or less takes.
  void expect(const Addr& addr) const { refCounts_.expect(addr); }

  // What is known of an address in use.
  struct Use {
    std::shared_ptr<AdjIdColl> adjIds = std::make_shared<AdjIdColl>();
    // The resolver's last word, in this life or as adopted adjacencies have it; it goes on forwarding for as long as
    // the resolver says nothing. Empty: unreachable, or never resolved.
    Fib::FecId lastFec;
  };

  // The adjacencies that use the address; null when none does.
  std::shared_ptr<AdjIdColl> adjIds(const Addr& addr) const {
    const auto found = uses_.find(addr);
    return found == uses_.end() ? nullptr : found->second.adjIds;
  }
  // Enters the adjacency as one that uses the address. What is returned lives until the next change.
  Use& adjIdIs(const Addr& addr, AdjId adjId) {
    Use& use = uses_[addr];
    use.adjIds->adjIdCollIs(adjId);
    return use;
  }
  void adjIdDel(const Addr& addr, AdjId adjId) {
    const auto found = uses_.find(addr);
    if (found == uses_.end()) return;
    found->second.adjIds->adjIdCollDel(adjId);
    if (found->second.adjIds->empty()) uses_.erase(found);
  }
  // The resolver has spoken: nothing comes of it unless the address is in use.
  void lastFecIs(const Addr& addr, Fib::FecId fecId) {
    const auto found = uses_.find(addr);
    if (found != uses_.end()) found->second.lastFec = fecId;
  }
  // Calls visit(address, identifier) for every use.
  template <class Visit>
  void forEachUse(Visit&& visit) const {
    for (const auto& [addr, use] : uses_) {
      for (const AdjId adjId : use.adjIds->adjIdColl()) visit(addr, adjId);
    }
  }

 private:
  RefCounts refCounts_;
  std::unordered_map<Addr, Use, Platform::Hasher> uses_;
};

}  // namespace RouteCache
