// The software route state machine: turns configured routes and vias into published routes and adjacencies.
//
// What goes in: the RIB's routes and vias (shared tables), the VRF id map, the resolver's answers and the tunnel
// interfaces. What comes out: the route and adjacency status tables, the record of routes that are configured but not
// (yet) in hardware, and the requests to the resolver.
//
// A route's way: a reaction queues its key; the route-processing task decides it (processRoute); it ends published,
// parked and still queued (something it needs is missing), or parked and out of the queue (its tunnel interface is
// down; the interface coming up queues all routes). What stays queued without a change to wait for is tried again at a
// time of its own, a time slice each routeProcessingIntervalDefer: a fresh change never drags it along.
//
// A route for whose adjacency there is no room, or no identifier, is published without one, stays queued, and counts
// as not in hardware: nobody forwards by it. HwRouteSm keeps it out of the hardware's table until its adjacency stands.
//
// Restart. The tables outlive the agent. A route that a predecessor published and that this life has not processed yet
// is *inherited*: it holds no reference and no registration. Its first processing makes it an ordinary one.
//
// Invariants, between any two callbacks (checkInvariants):
//   - for each identifier: references = published, not inherited routes that name it;
//   - for each VTEP: registrations = those routes whose next-hop set names it, each counted once;
//   - a VTEP's adjacencies are the identifiers in use whose next-hop set names it;
//   - forward and reverse maps agree;
//   - every published route names an adjacency that stands, or is queued for one;
//   - every configured route is published, parked or queued;
//   - every configured route that is not in hardware is recorded as unprogrammed, unless the record is full.
// Identifier number 0 (the free list ran out) stands for no adjacency and holds nothing.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "RouteCache/model/Config.h"
#include "RouteCache/model/StatusTables.h"
#include "RouteCache/queues/DeferredTask.h"
#include "RouteCache/queues/FlatTable.h"
#include "RouteCache/sw/AdjacencyIds.h"
#include "RouteCache/sw/RouteConfigWalk.h"
#include "RouteCache/sw/RouteQueue.h"
#include "RouteCache/sw/UnprogrammedRecord.h"
#include "RouteCache/sw/VtepMonitor.h"
#include "platform/state/Nexthop.h"
#include "platform/state/Vxlan.h"
#include "platform/tables/Rib.h"

namespace RouteCache {

// What SwRouteSm is given, in this order.
struct SwRouteSmInputs {
  std::shared_ptr<const Ipv4RouteStatus> ipv4HwRouteStatus;  // null: hardware route caching is off
  std::shared_ptr<Ipv4RouteStatus> ipv4RouteStatus;
  std::shared_ptr<Ipv4AdjacencyStatus> ipv4AdjStatus;
  std::shared_ptr<Ipv6RouteStatus> ipv6RouteStatus;
  std::shared_ptr<Ipv6AdjacencyStatus> ipv6AdjStatus;
  std::shared_ptr<const Routing::Rib::RouteConfig> routeConfig;
  std::shared_ptr<const Routing::Rib::RouteConfig> route6Config;
  std::shared_ptr<Routing::Rib::RouteConfig> unprogrammedRouteConfig;
  std::shared_ptr<const Routing::Rib::RouteCache::Evpn::ViaConfig> viaConfig;
  std::shared_ptr<const VrfIdMap> vrfIdMap;
  std::shared_ptr<Routing::NexthopConfig> nexthopConfig;
  std::shared_ptr<const Routing::NexthopStatus> nexthopStatus;
  std::shared_ptr<const Vxlan::VtiStatusDir> vtiStatusDir;
};

class SwRouteSm final : public Lattis::Entity {
 public:
  using RouteKey = Routing::Rib::RouteKey;
  using Via = Routing::Rib::RouteCache::Evpn::Via;

  // `restart`: a predecessor has left something in the tables or at the resolver. Nothing happens before
  // handleInitialized().
  SwRouteSm(const SwRouteSmInputs& inputs, Platform::TaskScheduler& scheduler, Platform::TraceFacility& trace,
            bool restart);
  ~SwRouteSm() override;

  // All inputs are there: registers with the resolver, watches the tunnel interfaces and starts the adjacency syncs.
  void handleInitialized();

  // --- Reactions: they queue, tasks work -------------------------------------------------------------------------
  void handleRoute(const RouteKey& key);
  void handleRoute();  // every configured route
  void handleHwRoute(const Ipv4RouteVrfKey& key);
  void handleVrfId(std::uint32_t piVrfId);
  // Queues every configured route; a walk that the route-processing task does in slices. Asked for again while it runs,
  // it is done again after it.
  void scheduleAllRoutesForProcessing(bool vtep, bool init);

  // --- Route queue and processing --------------------------------------------------------------------------------
  void routeToProcessIs(const RouteKey& key, std::uint8_t flags) { routeToProcess_.routeToProcessIs(key, flags); }
  void routeToProcessDel(const RouteKey& key) { routeToProcess_.routeToProcessDel(key); }
  void routeToProcessDelAll() { routeToProcess_.routeToProcessDelAll(); }
  const RouteQueue& routeToProcess() const { return routeToProcess_; }
  RouteKey routeToProcessBookmark() const { return routeToProcess_.routeToProcessBookmark(); }
  // Decides and publishes one route. `vtep`: its VTEPs are to be registered; `init`: it was queued at start.
  void processRoute(const RouteKey& key, bool vtep, bool init);
  void addIpv4Route(const RouteKey& key, AdjId adjId, const std::shared_ptr<Ipv4NexthopRef>& v4nh,
                    const std::shared_ptr<Ipv6NexthopRef>& v6nh, bool vtep, bool init);
  void addIpv6Route(const RouteKey& key, AdjId adjId, const std::shared_ptr<Ipv4NexthopRef>& v4nh,
                    const std::shared_ptr<Ipv6NexthopRef>& v6nh, bool vtep, bool init);
  void deleteRouteFromRouteCacheStatus(const RouteKey& key);

  // --- Adjacencies -----------------------------------------------------------------------------------------------
  // Writes the adjacency for the identifier where it differs from the table. False: there was no room.
  bool createViaFromNexthopRef(AdjId adjId, const std::shared_ptr<IpMixedNexthopRef>& ref);
  bool createIpv4ViaFromNexthopRef(AdjId adjId, const std::shared_ptr<Ipv4NexthopRef>& v4nh);
  bool createIpv6ViaFromNexthopRef(AdjId adjId, const std::shared_ptr<Ipv6NexthopRef>& v6nh);
  // Releases one route's hold on the identifier, registrations included; with the last one the adjacency goes.
  void deleteAdjFromAdjStatus(AdjId adjId);
  void adjToProcessIs(AdjId adjId) { adjToProcess_.insert(adjId); }
  void adjToProcessDel(AdjId adjId) { adjToProcess_.erase(adjId); }
  bool adjToProcessHas(AdjId adjId) const { return adjToProcess_.contains(adjId); }
  const std::set<AdjId>& adjToProcess() const { return adjToProcess_; }
  const AdjacencyIds& adjIds() const { return adjIds_; }
  void freeAdjIdEnq(AdjId adjId) { adjIds_.freeAdjIdEnq(adjId); }
  void freeAdjIdDelAll() { adjIds_.freeAdjIdDelAll(); }

  // --- Next hops and VTEPs ---------------------------------------------------------------------------------------
  void addUnderlayVtepIpv4Monitoring(IpAddr ip);
  void removeUnderlayVtepIpv4Monitoring(IpAddr ip);
  void addUnderlayVtepIpv6Monitoring(const Ip6Addr& ip);
  void removeUnderlayVtepIpv6Monitoring(const Ip6Addr& ip);
  std::uint32_t ipv4RemoteVtepRefCount(IpAddr ip) const { return vteps4_.refCount(ip); }
  std::uint32_t ipv6RemoteVtepRefCount(const Ip6Addr& ip) const { return vteps6_.refCount(ip); }
  std::shared_ptr<AdjIdColl> remoteVtepIpv4ToAdjId(IpAddr ip) const { return vteps4_.adjIds(ip); }
  std::shared_ptr<AdjIdColl> remoteVtepIpv6ToAdjId(const Ip6Addr& ip) const { return vteps6_.adjIds(ip); }
  // What the via's next hops come to with the tunnel interfaces as they are: null when none is usable yet (unknown
  // interface, VNI without a VLAN), neither part when the interfaces are down. Throws RangeError over 32 next hops.
  std::shared_ptr<IpMixedNexthopRef> createNexthopRefFromViaConfig(const Via& via) const;
  static std::shared_ptr<Ipv4NexthopRef> createIpv4NexthopRefFromIpv4Via(const Ipv4Via& via);
  static std::shared_ptr<Ipv6NexthopRef> createIpv6NexthopRefFromIpv6Via(const Ipv6Via& via);
  std::shared_ptr<SwRouteVtiStatus> swRouteVtiStatusColl(IntfId intfId) const;  // null: unknown interface
  const std::shared_ptr<Routing::NexthopVrfConfig>& nexthopVrfConfig() const { return nexthopVrfConfig_; }
  const std::shared_ptr<const Routing::NexthopVrfStatus>& nexthopVrfStatus() const { return nexthopVrfStatus_; }
  // As the last route processed had it, for traces.
  bool vtepResolutionNeeded() const { return vtepResolutionNeeded_; }

  // --- The tables, for reading ------------------------------------------------------------------------------------
  std::shared_ptr<const Ipv4RouteStatus> ipv4RouteStatus() const { return in_.ipv4RouteStatus; }
  std::shared_ptr<const Ipv6RouteStatus> ipv6RouteStatus() const { return in_.ipv6RouteStatus; }
  std::shared_ptr<const Ipv4AdjacencyStatus> ipv4AdjStatus() const { return in_.ipv4AdjStatus; }
  std::shared_ptr<const Ipv6AdjacencyStatus> ipv6AdjStatus() const { return in_.ipv6AdjStatus; }
  std::shared_ptr<const Routing::Rib::RouteConfig> routeConfig() const { return in_.routeConfig; }
  std::shared_ptr<const Routing::Rib::RouteConfig> route6Config() const { return in_.route6Config; }
  std::shared_ptr<const VrfIdMap> vrfIdMap() const { return in_.vrfIdMap; }

  // --- Task bodies and requests ----------------------------------------------------------------------------------
  void handleRouteProcessing();
  void handleLeftoverProcessing();
  void handleUnprogrammedRecord();
  void handleAdjProcessing();
  void handleAdjCleanup();
  void handleVtepResolutionCleanup();
  void handleIpv4AdjSync();
  void handleIpv6AdjSync();
  void initRouteProcessing();
  void handleRouteSync();
  void handleRoute6Sync();
  void handleInitComplete();
  void scheduleRouteProcessingTask(double seconds) { routeProcessingTask_.schedule(seconds); }
  void scheduleLeftoverProcessingTask(double seconds) { leftoverProcessingTask_.schedule(seconds); }
  void scheduleUnprogrammedRecordTask(double seconds) { unprogrammedRecordTask_.schedule(seconds); }
  void scheduleAdjProcessingTask(double seconds) { adjProcessingTask_.schedule(seconds); }
  void scheduleAdjCleanupTask(double seconds) { adjCleanupTask_.schedule(seconds); }
  void scheduleVtepResolutionCleanupTask(double seconds) { vtepResolutionCleanupTask_.schedule(seconds); }
  void scheduleRouteCacheIpv4AdjSyncTask(double seconds) { ipv4AdjSyncTask_.schedule(seconds); }
  void scheduleRouteCacheIpv6AdjSyncTask(double seconds) { ipv6AdjSyncTask_.schedule(seconds); }
  void scheduleRouteSyncTask(double seconds) { routeSyncTask_.schedule(seconds); }
  void scheduleRoute6SyncTask(double seconds) { route6SyncTask_.schedule(seconds); }
  void scheduleInitTask(double seconds) { initTask_.schedule(seconds); }

  // --- State and settings ----------------------------------------------------------------------------------------
  // Intervals in seconds, finite; routeProcessingIntervalDefer and adjCleanupInterval, by which things that wait are
  // looked after, at least 0.001.
  bool initialized() const { return initialized_; }
  bool restart() const { return restart_; }
  bool ipv4AdjSyncDone() const { return ipv4AdjSync_.done; }
  bool ipv6AdjSyncDone() const { return ipv6AdjSync_.done; }
  bool enableRouteProcessing() const { return enableRouteProcessing_; }
  void enableRouteProcessingIs(bool enable) { enableRouteProcessing_ = enable; }
  double routeProcessingInterval() const { return routeProcessingInterval_; }
  void routeProcessingIntervalIs(double seconds) { routeProcessingInterval_ = seconds; }
  double routeProcessingIntervalDefer() const { return routeProcessingIntervalDefer_; }
  void routeProcessingIntervalDeferIs(double seconds) { routeProcessingIntervalDefer_ = seconds; }
  double adjProcessingInterval() const { return adjProcessingInterval_; }
  void adjProcessingIntervalIs(double seconds) { adjProcessingInterval_ = seconds; }
  double adjCleanupInterval() const { return adjCleanupInterval_; }
  void adjCleanupIntervalIs(double seconds) { adjCleanupInterval_ = seconds; }
  double adjSyncInterval() const { return adjSyncInterval_; }
  void adjSyncIntervalIs(double seconds) { adjSyncInterval_ = seconds; }
  double routeSyncInterval() const { return routeSyncInterval_; }
  void routeSyncIntervalIs(double seconds) { routeSyncInterval_ = seconds; }
  double initInterval() const { return initInterval_; }
  void initIntervalIs(double seconds) { initInterval_ = seconds; }
  std::uint64_t routeToProcessCount() const { return routeToProcess_.size(); }
  // How often the record of an unprogrammed route was left out because its table was full.
  std::uint64_t unprogrammedSkipped() const { return unprogrammed_.refusals(); }
  std::optional<Ipv4RouteVrfKey> routeSyncBookmark() const { return ipv4Sync_.bookmark; }
  std::optional<Ipv6RouteVrfKey> route6SyncBookmark() const { return ipv6Sync_.bookmark; }
  std::optional<AdjId> ipv4AdjSyncBookmark() const { return ipv4AdjSync_.bookmark; }
  std::optional<AdjId> ipv6AdjSyncBookmark() const { return ipv6AdjSync_.bookmark; }
  AdjId adjCleanupBookmark() const { return adjCleanupBookmark_; }
  IpGenAddr vtepCleanupBookmark() const { return vtepCleanupBookmark_; }

  const Lattis::EntityType& entityType() const override;
  // An interval out of its range.
  std::string fault() const override;
  // Aborts when an invariant does not hold. Walks every table. To be called when all table changes are delivered.
  void checkInvariants() const;

 private:
  friend class VtiStatusReactor;
  friend class NexthopVrfStatusReactor;
  class RouteConfigReactor;
  class HwRouteReactor;
  class VrfIdReactor;
  class NexthopConfigReactor;
  class NexthopStatusReactor;
  class VtiStatusDirReactor;

  // The twins' types, and which members serve each.
  struct V4;
  struct V6;

  // Walk of one published route table that withdraws what is no longer configured or no longer its VRF's. Once begun it
  // goes on without a pause, taking turns with route processing.
  template <class Key>
  struct RouteSync {
    std::optional<Key> bookmark;  // set: a walk is under way
    bool again = false;           // a VRF went during the walk: start over after its end
    bool endedOnce = false;
  };
  // Walk of one adjacency table at start, followed by the collection of the inherited routes of the family.
  template <class Key>
  struct AdjSync {
    std::optional<AdjId> bookmark;
    bool adjacenciesDone = false;
    std::optional<Key> routeBookmark;
    bool done = false;
  };
  // A table that was found full: traced once until there is room again.
  struct RoomEpisode {
    bool full = false;
    template <class Text, class Key>
    void refused(const Platform::TraceHandle& trace, const Text& text, const Key& key) {
      if (!full) trace(2, text, key);
      full = true;
    }
    void written(bool hasRoom) { full = full && !hasRoom; }
  };

  const Routing::Rib::RouteConfig& configOf(const RouteKey& key) const {
    return key.prefix().isV4() ? *in_.routeConfig : *in_.route6Config;
  }
  // The key in the route status tables, or nothing while the VRF has no hardware id.
  template <class F>
  std::optional<typename F::Key> tableKey(const RouteKey& key) const;

  // Steps of processRoute.
  void forgetRoute(const RouteKey& key);
  void parkRoute(const Routing::Rib::Route& route);
  std::shared_ptr<IpMixedNexthopRef> nexthopRefOf(const Routing::Rib::Route& route);
  template <class F>
  void decideRoute(const Routing::Rib::Route& route, const std::shared_ptr<IpMixedNexthopRef>& ref, bool vtep,
                   bool init);
  AdjId takeAdjId(const std::shared_ptr<IpMixedNexthopRef>& ref);
  bool resolutionNeeded(const IpMixedNexthopRef& ref) const;

  template <class F>
  void addRoute(const RouteKey& key, AdjId adjId, const std::shared_ptr<Ipv4NexthopRef>& v4nh,
                const std::shared_ptr<Ipv6NexthopRef>& v6nh, bool vtep, bool init);
  template <class F>
  bool isInHw(const typename F::Key& key, AdjId adjId) const;
  // Readers find all of the adjacency.
  bool adjacencyStands(AdjId adjId) const;
  template <class F>
  void deleteRoute(const typename F::Key& key);
  // Takes the route out of the record; what was left out of it may come in.
  void unprogrammedRouteDel(const RouteKey& key);
  bool recordNext();
  template <class F>
  bool isPublishedInHw(const RouteKey& key) const;

  void addMonitoring(const Ipv4NexthopRef* v4nh, const Ipv6NexthopRef* v6nh);
  void removeMonitoring(const Ipv4NexthopRef* v4nh, const Ipv6NexthopRef* v6nh);
  template <class F>
  bool createVia(AdjId adjId, const typename F::NexthopRef& ref);
  template <class F>
  void deleteVia(AdjId adjId);
  std::optional<Fib::FecId> answerOf(const IpGenAddr& vtep) const;

  template <class F>
  void adjSync();
  template <class F>
  bool syncAdjacencies();
  template <class F>
  void adoptAdjacency(const typename F::Via& via);
  template <class F>
  bool collectInheritedRoutes();
  template <class F>
  void routeSync(void (SwRouteSm::*scheduleSync)(double), const char* rescheduled, const char* ended);
  template <class F>
  void syncRoute(const typename F::Key& key);
  template <class F>
  void vrfGone(RouteSync<typename F::Key>& sync);
  // While true, identifiers that nobody holds stay, and requests that nobody has made: unprocessed routes of a
  // predecessor may name the ones and forward by the answers to the others.
  bool retainingAdjIds() const;
  void updateRetention();

  bool processFreshRoutes(std::uint64_t& handled);
  template <class F>
  bool processRoutesThatFindRoom(std::uint64_t& handled);
  template <class F>
  bool hasRoomForWaiting() const;
  void routesProcessed();
  void processVisited(const RouteQueue::Visit& visit);

  // Registers the underlay's VRF with the resolver, and again if somebody else has withdrawn it.
  void nexthopVrfConfigIs();
  void nexthopVrfStatusIs(const L3::VrfName& name);
  void nexthopVrfStatusDel(const L3::VrfName& name);
  void nexthopVrfStatusDelAll();
  void vtiStatusIs(IntfId intfId);
  void vtiStatusDel(IntfId intfId);
  void vtiStatusDelAll();

  template <class F>
  std::map<AdjId, std::uint32_t> countHeldRoutes() const;
  void checkHeldRoutes(const std::map<AdjId, std::uint32_t>& held) const;
  void checkVtepUses() const;
  void checkConfiguredRoutes(const Routing::Rib::RouteConfig& config) const;

  const SwRouteSmInputs in_;
  Platform::TraceHandle trace_;

  RouteQueue routeToProcess_;
  std::size_t leftoverRound_ = 0;  // leftovers still to visit in the round that goes on
  RouteConfigWalk configWalk_;
  AdjacencyIds adjIds_;
  std::set<AdjId> adjToProcess_;
  VtepMonitor<IpAddr> vteps4_;
  VtepMonitor<Ip6Addr> vteps6_;
  std::map<IntfId, std::shared_ptr<SwRouteVtiStatus>> swRouteVtiStatusColl_;
  // The VRFs as they were when last heard of, to tell a new VRF from one that moved.
  std::map<std::uint32_t, std::uint32_t> knownHwVrfId_;
  // Published by a predecessor, not processed in this life.
  FlatSet<Ipv4RouteVrfKey> inherited4_;
  FlatSet<Ipv6RouteVrfKey> inherited6_;
  std::shared_ptr<Routing::NexthopVrfConfig> nexthopVrfConfig_;
  std::shared_ptr<const Routing::NexthopVrfStatus> nexthopVrfStatus_;  // of the VRF "default"; null: no answers yet
  UnprogrammedRecord unprogrammed_;
  RoomEpisode routeRoom4_;
  RoomEpisode routeRoom6_;
  RoomEpisode adjRoom4_;
  RoomEpisode adjRoom6_;

  RouteSync<Ipv4RouteVrfKey> ipv4Sync_;
  RouteSync<Ipv6RouteVrfKey> ipv6Sync_;
  AdjSync<Ipv4RouteVrfKey> ipv4AdjSync_;
  AdjSync<Ipv6RouteVrfKey> ipv6AdjSync_;
  AdjId adjCleanupBookmark_;
  IpGenAddr vtepCleanupBookmark_;
  bool initialized_ = false;
  bool enableRouteProcessing_ = false;
  const bool restarted_;  // what restart_ was at first
  bool restart_;
  bool vtepResolutionNeeded_ = false;
  double routeProcessingInterval_ = 0;
  double routeProcessingIntervalDefer_ = 1.0;
  double adjProcessingInterval_ = 0;
  double adjCleanupInterval_ = 5.0;
  double adjSyncInterval_ = 0;
  double routeSyncInterval_ = 5.0;
  double initInterval_ = 300.0;

  DeferredTask vtepResolutionCleanupTask_;
  DeferredTask adjCleanupTask_;
  DeferredTask ipv4AdjSyncTask_;
  DeferredTask ipv6AdjSyncTask_;
  DeferredTask routeSyncTask_;
  DeferredTask route6SyncTask_;
  DeferredTask initTask_;
  DeferredTask routeProcessingTask_;
  DeferredTask adjProcessingTask_;
  DeferredTask leftoverProcessingTask_;
  DeferredTask unprogrammedRecordTask_;

  // Last: they call back into all of the above.
  std::unique_ptr<RouteConfigReactor> routeReactor_;
  std::unique_ptr<RouteConfigReactor> route6Reactor_;
  std::unique_ptr<HwRouteReactor> hwRouteReactor_;
  std::unique_ptr<VrfIdReactor> vrfIdReactor_;
  std::unique_ptr<NexthopConfigReactor> nexthopConfigReactor_;
  std::unique_ptr<NexthopStatusReactor> nexthopStatusReactor_;
  std::unique_ptr<VtiStatusDirReactor> vtiStatusDirReactor_;
  std::map<L3::VrfName, std::unique_ptr<class NexthopVrfStatusReactor>> nexthopVrfStatusReactors_;
  std::map<IntfId, std::unique_ptr<class VtiStatusReactor>> vtiStatusReactors_;
};

// Makes the state machine; handleInitialized() starts it.
std::shared_ptr<SwRouteSm> SwRouteSmIs(const SwRouteSmInputs& inputs, Platform::TaskScheduler& scheduler,
                                       Platform::TraceFacility& trace, bool restart);

}  // namespace RouteCache
