// The adjacencies: which next-hop sets routes leave by, under which identifier, and what of it stands in the adjacency
// tables. Owned by SwRouteSm; each of its published routes, the inherited ones apart, holds one reference.
//
// An adjacency is written before the first route that names it and goes with the last. What is written follows the
// resolver's answers: one that changes puts the adjacencies that use it into adjToProcess. A class's table that is full
// leaves the adjacency unwritten, and it is tried again with its routes.
//
// Restart. Adjacencies found in the tables are adopted: they keep their identifiers, which nobody holds at first.
//
// Invariants (checkInvariants), beside those of AdjacencyIds:
//   - for each identifier: references = the routes that hold it;
//   - a VTEP's adjacencies are the identifiers in use whose next-hop set names it.
#pragma once

#include <map>
#include <memory>
#include <set>

#include "RouteCache/model/Sides.h"
#include "RouteCache/queues/DeferredTask.h"
#include "RouteCache/sw/AdjacencyIds.h"
#include "RouteCache/sw/RoomEpisode.h"
#include "RouteCache/sw/Underlay.h"

namespace RouteCache {

// Number 0 stands for no adjacency, whatever its class bits: a route that carries it holds nothing.
inline bool isAdjacency(AdjId adjId) {
  return (adjId.value() & AdjId::adjacencyIdMask) != AdjId::adjacencyInvalid;
}

// Class bits and number, and nothing between them.
inline bool isWellFormed(AdjId adjId) {
  return (adjId.value() & ~(AdjId::adjacencyMixedConst | AdjId::adjacencyIdMask)) == 0;
}

// An identifier of this class, mixed ones included: its adjacency has a part in the family's table.
template <class Family>
bool hasClass(AdjId adjId) {
  return Family::family == AddressFamily::ipv4 ? adjId.isAdjacencyV4() : adjId.isAdjacencyV6();
}

// The next hops behind what stands in a table.
template <class Family>
std::shared_ptr<BasicNexthopRef<Family>> nexthopRefFrom(const BasicVia<Family>& via) {
  auto ref = std::make_shared<BasicNexthopRef<Family>>(Family::family == AddressFamily::ipv4,
                                                       Family::family == AddressFamily::ipv6);
  for (const auto& adjacency : via.viaKey()) {
    ref->viaIs({adjacency.vti(), adjacency.extendedVlanId(), adjacency.routerMac(), adjacency.remoteVtepIp()});
  }
  return ref;
}

class Adjacencies {
 public:
  // Underlay and trace outlive it.
  Adjacencies(std::shared_ptr<Ipv4AdjacencyStatus> ipv4AdjStatus, std::shared_ptr<Ipv6AdjacencyStatus> ipv6AdjStatus,
              Underlay& underlay, const Platform::TraceHandle& trace)
      : ids_(trace), tables_{std::move(ipv4AdjStatus), std::move(ipv6AdjStatus)}, underlay_(underlay), trace_(trace) {}

  // --- References ------------------------------------------------------------------------------------------------
  // Finds or allocates the identifier for the next hops, with one more reference. Number 0: the free list is empty.
  // `guess`: what the same `ref` had last, or nothing. The parts of `ref` become those that the identifier stands for.
  AdjId take(const std::shared_ptr<IpMixedNexthopRef>& ref, AdjId guess = AdjId());
  // Releases one route's hold on the identifier, registrations included; with the last one the adjacency goes.
  void deleteAdjFromAdjStatus(AdjId adjId);
  AdjacencyIds& ids() { return ids_; }
  const AdjacencyIds& ids() const { return ids_; }

  // --- Tables ----------------------------------------------------------------------------------------------------
  // Readers find all of the adjacency.
  bool stands(AdjId adjId) const;
  // It stands, and what stands is known to be what its next hops and the resolver say.
  bool current(AdjId adjId) const { return ids_.current(adjId); }
  // Nothing is known to be right any more.
  void currentDelAll() { ids_.currentDelAll(); }
  // Writes the adjacency for the identifier where it differs from the table. False: there was no room.
  bool createViaFromNexthopRef(AdjId adjId, const std::shared_ptr<IpMixedNexthopRef>& ref);
  template <class Family>
  bool createVia(AdjId adjId, const BasicNexthopRef<Family>& ref);

  // --- Rewriting -------------------------------------------------------------------------------------------------
  // What the resolver says of these has changed.
  void handleAnswer(const AdjIdColl& adjIds);
  void adjToProcessIs(AdjId adjId) { adjToProcess_.insert(adjId); }
  void adjToProcessDel(AdjId adjId) { adjToProcess_.erase(adjId); }
  const std::set<AdjId>& adjToProcess() const { return adjToProcess_; }
  // Works off adjToProcess, in slices. False: to be continued in the task's next run.
  bool process(DeferredTask& task);

  // --- Restart ---------------------------------------------------------------------------------------------------
  // Takes over an adjacency that stands in the family's table, or drops one that no agent has made.
  template <class Family>
  void adopt(const BasicVia<Family>& via);
  // Removes what nobody holds, in slices. False: to be continued in the task's next run.
  bool cleanUp(DeferredTask& task);
  AdjId adjCleanupBookmark() const { return adjCleanupBookmark_; }

  template <class Family>
  AdjacencyStatus<Family>& table() const {
    return *tables_.of<Family>();
  }

  // Asserts the invariants, with what each identifier is held by. `leftovers`: some may be held by nobody.
  void checkInvariants(const std::map<AdjId, std::uint32_t>& held, bool leftovers) const;

 private:
  template <class Family>
  using Table = std::shared_ptr<AdjacencyStatus<Family>>;
  template <class Family>
  using Room = RoomEpisode;

  template <class Family>
  std::shared_ptr<BasicNexthopRef<Family>> adopted(AdjId adjId) const;
  template <class Family>
  void forget(AdjId adjId, const IpMixedNexthopRef* ref);
  void checkVtepUses() const;

  AdjacencyIds ids_;
  Sides<Table> tables_;
  Sides<Room> room_;
  Underlay& underlay_;
  const Platform::TraceHandle& trace_;
  std::set<AdjId> adjToProcess_;
  AdjId adjCleanupBookmark_;
};

}  // namespace RouteCache
