// The next-hop objects and neighbours that a kernel has of this program, as far as is known, and the messages that make
// them what they should be.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <vector>

#include "netlink/kernel/KernelBatch.h"

namespace Netlink {

// One group for each adjacency, of one object for each of its next hops that can forward; or of the one that leads
// nowhere, so that its routes need not go. Every hop has an object, whether it forwards or not.
//
// Invariants: a neighbour's count of users is that of the hops over it; what has no users, and no hops, members or
// routes, is not kept.
class KernelNexthops {
 public:
  struct Member {
    Slot slot = 0;
    Hop hop;
    bool forwards = false;
    bool operator==(const Member&) const = default;
  };
  using Content = std::vector<Member>;  // by slot

  // `stood` is told of a group that routes can refer to from now on, when what is in the batch has been sent.
  KernelNexthops(KernelBatch& batch, std::function<void(RouteCache::AdjId)> stood)
      : batch_(batch), stood_(std::move(stood)) {}

  // The adjacency's group can be referred to.
  bool stands(RouteCache::AdjId adjId) const;
  // The same, and some next hop in it forwards.
  bool leads(RouteCache::AdjId adjId) const;
  // Sends what is different.
  void contentIs(RouteCache::AdjId adjId, const Content& content);
  // The adjacency is no more. False: routes still refer to it, and nothing is done.
  bool del(RouteCache::AdjId adjId);

  // Routes that refer to the group. The last one that goes: true.
  void routeAdded(RouteCache::AdjId adjId) { ++groups_[adjId].routes; }
  bool routeRemoved(RouteCache::AdjId adjId);

  // --- What the kernel is found to have ---
  void forget();
  void found(const Neighbour& neighbour) { neighbours_[neighbour].stands = true; }
  void found(const Nexthop& nexthop);
  // A neighbour that nobody uses goes.
  void removeStrays();
  // Not carried out; the next contentIs() tries again.
  void refused(const Subject& subject);

  // The adjacency behind this one that something is kept of; nothing: there is none.
  std::optional<RouteCache::AdjId> after(RouteCache::AdjId adjId) const;
  std::size_t groups() const { return groups_.size(); }
  void checkInvariants() const;

 private:
  struct Group {
    std::map<Slot, Hop> hops{};
    std::vector<std::uint32_t> members{};  // ids
    bool stands = false;
    std::uint64_t routes = 0;
  };
  struct NeighbourState {
    bool stands = false;
    std::uint32_t users = 0;
  };

  void hopIs(RouteCache::AdjId adjId, Group& group, const Member& member);
  void membersAre(RouteCache::AdjId adjId, Group& group, const Content& content);
  void removeHops(RouteCache::AdjId adjId, Group& group, const Content& besides);
  void release(const Neighbour& neighbour);

  KernelBatch& batch_;
  std::function<void(RouteCache::AdjId)> stood_;
  std::map<RouteCache::AdjId, Group> groups_;
  std::map<Neighbour, NeighbourState> neighbours_;
  bool blackholeStands_ = false;
};

}  // namespace Netlink
