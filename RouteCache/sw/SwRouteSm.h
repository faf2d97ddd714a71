// The software route state machine: turns configured routes and vias into published routes and adjacencies.
//
// What goes in: the RIB's routes and vias (shared tables), the VRF id map, the resolver's answers and the tunnel
// interfaces. What comes out: the route and adjacency status tables, the record of routes that are configured but not
// (yet) in hardware, and the requests to the resolver.
//
// A route's way: a reaction queues its key; the route-processing task decides it (processRoute); it ends published,
// parked and still queued (something it needs is missing), or parked and out of the queue (its tunnel interface is
// down; the interface coming up queues all routes). What stays queued without a change to wait for is tried again at a
// time of its own, a time slice each routeProcessingIntervalDefer: a fresh change never drags it along. What a via's
// next hops come to is worked out once for all routes that leave by it (NexthopSets), and dropped when there has been
// nothing to do for a second.
//
// A route for whose adjacency there is no room, or no identifier, is published without one, stays queued, and counts
// as not in hardware: nobody forwards by it. HwRouteSm keeps it out of the hardware's table until its adjacency stands.
//
// Restart. The tables outlive the agent. A route that a predecessor published and that this life has not processed yet
// is *inherited*: it holds no reference and no registration. Its first processing makes it an ordinary one.
// Once both route syncs have ended and every configured route has been processed, whatever became of it, the tables are
// reconciled.
//
// Invariants, between any two callbacks (checkInvariants), beside those of Adjacencies and Underlay:
//   - for each identifier: references = published, not inherited routes that name it;
//   - for each VTEP: registrations = those routes whose next-hop set names it, each counted once;
//   - every published route names an adjacency that stands, or is queued for one;
//   - every configured route is published, parked or queued;
//   - every configured route that is not in hardware is recorded as unprogrammed, unless the record is full.
// Identifier number 0 (the free list ran out) stands for no adjacency and holds nothing.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "RouteCache/model/Sides.h"
#include "RouteCache/model/VrfIdMap.h"
#include "RouteCache/queues/DeferredTask.h"
#include "RouteCache/queues/FlatTable.h"
#include "RouteCache/queues/ReadAhead.h"
#include "RouteCache/sw/Adjacencies.h"
#include "RouteCache/sw/AdjacencySync.h"
#include "RouteCache/sw/NexthopSets.h"
#include "RouteCache/sw/RouteConfigWalk.h"
#include "RouteCache/sw/RouteQueue.h"
#include "RouteCache/sw/RouteSync.h"
#include "RouteCache/sw/Underlay.h"
#include "RouteCache/sw/UnprogrammedRecord.h"
#include "platform/tables/Rib.h"
#include "platform/tables/TableFollower.h"

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

class SwRouteSm final : public Lattis::Entity, private Underlay::User {
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
  // Back-pressure: how many configured routes it can be told of while its task is about to work; all while that is put
  // off.
  Pondra::Appetite appetite() const;
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
  bool createViaFromNexthopRef(AdjId adjId, const std::shared_ptr<IpMixedNexthopRef>& ref) {
    return adjacencies_.createViaFromNexthopRef(adjId, ref);
  }
  bool createIpv4ViaFromNexthopRef(AdjId adjId, const std::shared_ptr<Ipv4NexthopRef>& v4nh) {
    return adjacencies_.createVia(adjId, *v4nh);
  }
  bool createIpv6ViaFromNexthopRef(AdjId adjId, const std::shared_ptr<Ipv6NexthopRef>& v6nh) {
    return adjacencies_.createVia(adjId, *v6nh);
  }
  void deleteAdjFromAdjStatus(AdjId adjId) { adjacencies_.deleteAdjFromAdjStatus(adjId); }
  void adjToProcessIs(AdjId adjId) { adjacencies_.adjToProcessIs(adjId); }
  void adjToProcessDel(AdjId adjId) { adjacencies_.adjToProcessDel(adjId); }
  bool adjToProcessHas(AdjId adjId) const { return adjToProcess().contains(adjId); }
  const std::set<AdjId>& adjToProcess() const { return adjacencies_.adjToProcess(); }
  const AdjacencyIds& adjIds() const { return adjacencies_.ids(); }
  void freeAdjIdEnq(AdjId adjId) { adjacencies_.ids().freeAdjIdEnq(adjId); }
  void freeAdjIdDelAll() { adjacencies_.ids().freeAdjIdDelAll(); }

  // --- Next hops and VTEPs ---------------------------------------------------------------------------------------
  void addUnderlayVtepIpv4Monitoring(IpAddr ip) { underlay_.addMonitoring(ip); }
  void removeUnderlayVtepIpv4Monitoring(IpAddr ip) { underlay_.removeMonitoring(ip); }
  void addUnderlayVtepIpv6Monitoring(const Ip6Addr& ip) { underlay_.addMonitoring(ip); }
  void removeUnderlayVtepIpv6Monitoring(const Ip6Addr& ip) { underlay_.removeMonitoring(ip); }
  std::uint32_t ipv4RemoteVtepRefCount(IpAddr ip) const { return underlay_.refCount(ip); }
  std::uint32_t ipv6RemoteVtepRefCount(const Ip6Addr& ip) const { return underlay_.refCount(ip); }
  std::shared_ptr<AdjIdColl> remoteVtepIpv4ToAdjId(IpAddr ip) const { return underlay_.vteps<Ipv4Family>().adjIds(ip); }
  std::shared_ptr<AdjIdColl> remoteVtepIpv6ToAdjId(const Ip6Addr& ip) const {
    return underlay_.vteps<Ipv6Family>().adjIds(ip);
  }
  std::shared_ptr<IpMixedNexthopRef> createNexthopRefFromViaConfig(const Via& via) const {
    return underlay_.createNexthopRefFromViaConfig(via);
  }
  static std::shared_ptr<Ipv4NexthopRef> createIpv4NexthopRefFromIpv4Via(const Ipv4Via& via) {
    return nexthopRefFrom(via);
  }
  static std::shared_ptr<Ipv6NexthopRef> createIpv6NexthopRefFromIpv6Via(const Ipv6Via& via) {
    return nexthopRefFrom(via);
  }
  std::shared_ptr<SwRouteVtiStatus> swRouteVtiStatusColl(IntfId intfId) const {
    return underlay_.swRouteVtiStatusColl(intfId);
  }
  const std::shared_ptr<Routing::NexthopVrfConfig>& nexthopVrfConfig() const { return underlay_.nexthopVrfConfig(); }
  const std::shared_ptr<const Routing::NexthopVrfStatus>& nexthopVrfStatus() const {
    return underlay_.nexthopVrfStatus();
  }
  bool vtepResolutionNeeded() const { return underlay_.vtepResolutionNeeded(); }

  // --- The tables, for reading ------------------------------------------------------------------------------------
  std::shared_ptr<const Ipv4RouteStatus> ipv4RouteStatus() const { return in_.ipv4RouteStatus; }
  std::shared_ptr<const Ipv6RouteStatus> ipv6RouteStatus() const { return in_.ipv6RouteStatus; }
  template <class Family>
  std::shared_ptr<const RouteStatus<Family>> routeStatus() const {
    return sides_.of<Family>().routes;
  }
  std::shared_ptr<const Ipv4AdjacencyStatus> ipv4AdjStatus() const { return in_.ipv4AdjStatus; }
  std::shared_ptr<const Ipv6AdjacencyStatus> ipv6AdjStatus() const { return in_.ipv6AdjStatus; }
  std::shared_ptr<const Routing::Rib::RouteConfig> routeConfig() const { return in_.routeConfig; }
  std::shared_ptr<const Routing::Rib::RouteConfig> route6Config() const { return in_.route6Config; }
  template <class Family>
  const Routing::Rib::RouteConfig& configured() const {
    return sides_.of<Family>().config;
  }
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
  // Called when initInterval has passed since route processing was enabled: nobody waits longer for the end of a
  // restart.
  void initCompleteHandlerIs(std::function<void()> handler) { initCompleteHandler_ = std::move(handler); }
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
  bool ipv4AdjSyncDone() const { return sides_.v4.adjSync.done(); }
  bool ipv6AdjSyncDone() const { return sides_.v6.adjSync.done(); }
  bool enableRouteProcessing() const { return enableRouteProcessing_; }
  double routeProcessingInterval() const { return routeProcessingInterval_; }
  void routeProcessingIntervalIs(double seconds);
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
  std::optional<Ipv4RouteVrfKey> routeSyncBookmark() const { return sides_.v4.sync.bookmark(); }
  std::optional<Ipv6RouteVrfKey> route6SyncBookmark() const { return sides_.v6.sync.bookmark(); }
  std::optional<AdjId> ipv4AdjSyncBookmark() const { return sides_.v4.adjSync.bookmark(); }
  std::optional<AdjId> ipv6AdjSyncBookmark() const { return sides_.v6.adjSync.bookmark(); }
  AdjId adjCleanupBookmark() const { return adjacencies_.adjCleanupBookmark(); }
  IpGenAddr vtepCleanupBookmark() const { return underlay_.vtepCleanupBookmark(); }

  const Lattis::EntityType& entityType() const override;
  // An interval out of its range.
  std::string fault() const override;
  // Aborts when an invariant does not hold. Walks every table. To be called when all table changes are delivered.
  void checkInvariants() const;

 private:
  template <class Table>
  using Follower = Pondra::TableFollower<Table, SwRouteSm>;

  // What there is of the routes of each family. Their next hops are independent of it: an IPv4 route may leave over
  // IPv6 tunnels.
  template <class Family>
  struct Side {
    using Key = BasicRouteVrfKey<Family>;
    Side(std::shared_ptr<RouteStatus<Family>> table, const Routing::Rib::RouteConfig& configured,
         const SwRouteSmInputs& in, const Platform::TraceHandle& trace, DeferredTask& routeTask, DeferredTask& adjTask)
        : routes(std::move(table)),
          config(configured),
          sync(*routes, config, *in.vrfIdMap, trace),
          syncTask(routeTask),
          adjSyncTask(adjTask) {}
    std::shared_ptr<RouteStatus<Family>> routes;
    const Routing::Rib::RouteConfig& config;
    FlatSet<Key> inherited;  // published by a predecessor, not processed in this life
    RoomEpisode room;
    RouteSync<Family> sync;
    AdjacencySync<Family> adjSync;
    DeferredTask& syncTask;
    DeferredTask& adjSyncTask;
  };

  void handleUnderlay() override;
  void handleAnswers() override;
  void handleAnswer(const AdjIdColl& adjIds) override;

  const Routing::Rib::RouteConfig& configOf(const RouteKey& key) const {
    return key.prefix().isV4() ? *in_.routeConfig : *in_.route6Config;
  }
  // The key in the route status tables, or nothing while the VRF has no hardware id.
  template <class Family>
  std::optional<BasicRouteVrfKey<Family>> tableKey(const RouteKey& key) const;

  template <class Family>
  using Published = std::optional<BasicRoute<Family>>;
  // What the tables say of a route that is to be decided. Its decision writes no route but its own, and the id map
  // gives no two VRFs one hardware id: what has been read ahead of others stays right. The via is the RIB's, who
  // rewrites the routes that leave by it when it changes.
  struct RouteFacts {
    RouteKey key;
    std::optional<Routing::Rib::Route> route;  // configured; known already where a walk has met it
    std::optional<std::uint32_t> hwVrfId;      // this and what follows: of a configured route only
    NexthopSet* set = nullptr;                 // of all routes of its via, until dropSome(); null: the via is not there
    Sides<Published> published;                // of the key's family
  };
  void readAheadOfFresh();
  void readAheadOfWalk();
  void lookUpFacts(std::span<RouteFacts> facts);
  template <class Family>
  void lookUpConfigured(std::span<RouteFacts> facts) const;
  template <class Family>
  void lookUpPublished(std::span<RouteFacts> facts) const;

  // Steps of processRoute.
  void forgetRoute(const RouteKey& key);
  void parkRoute(const Routing::Rib::Route& route);
  void traceNotReady(const NexthopSet* set) const;
  template <class Family>
  void decideRoute(const RouteFacts& facts, bool vtep, bool init);
  template <class Family>
  void addRoute(const RouteKey& key, AdjId adjId, const std::shared_ptr<Ipv4NexthopRef>& v4nh,
                const std::shared_ptr<Ipv6NexthopRef>& v6nh, bool vtep, bool init);
  // What has been taken for a route that is to be published: a reference to its adjacency and, with `vtep`, a
  // registration for each VTEP of these next hops.
  struct Taken {
    const Ipv4NexthopRef* v4nh = nullptr;
    const Ipv6NexthopRef* v6nh = nullptr;
    bool vtep = false;
    bool init = false;
  };
  template <class Family>
  void publish(const RouteKey& key, const BasicRoute<Family>& route, const std::optional<BasicRoute<Family>>& published,
               const std::optional<Routing::Rib::Route>& configured, const Taken& taken);
  // `standing`: readers find all of the adjacency.
  template <class Family>
  bool isInHw(const BasicRouteVrfKey<Family>& key, AdjId adjId, bool standing) const;
  template <class Family>
  void deleteRoute(const BasicRouteVrfKey<Family>& key);
  // Takes the route out of the record; what was left out of it may come in.
  void unprogrammedRouteDel(const RouteKey& key);
  bool recordNext();
  template <class Family>
  bool isPublishedInHw(const RouteKey& key) const;

  template <class Family>
  void adjSync();
  template <class Family>
  void routeSync(std::string_view name);
  template <class Family>
  void vrfGone();
  // While true, identifiers that nobody holds stay, and requests that nobody has made: unprocessed routes of a
  // predecessor may name the ones and forward by the answers to the others.
  bool retainingAdjIds() const;
  void updateRetention();

  bool processFreshRoutes(std::uint64_t& handled);
  template <class Family>
  bool processRoutesThatFindRoom(std::uint64_t& handled);
  template <class Family>
  bool hasRoomForWaiting() const;
  void routesProcessed(std::uint64_t handled);
  void lookAgain(bool foundNothing);
  void endRestart();
  void reconcile();
  void processVisited(const RouteQueue::Visit& visit);

  template <class Family>
  void countHeldRoutes(std::map<AdjId, std::uint32_t>& held) const;
  void checkConfiguredRoutes(const Routing::Rib::RouteConfig& config) const;

  const SwRouteSmInputs in_;
  Platform::TraceHandle trace_;

  RouteQueue routeToProcess_;
  ReadAhead<RouteFacts> readAhead_;  // of fresh routes; empty between two runs
  std::size_t leftoverRound_ = 0;    // leftovers still to visit in the round that goes on
  RouteConfigWalk configWalk_;
  Underlay underlay_;
  NexthopSets nexthopSets_;
  Adjacencies adjacencies_;
  // The VRFs as they were when last heard of, to tell a new VRF from one that moved.
  std::map<std::uint32_t, std::uint32_t> knownHwVrfId_;
  UnprogrammedRecord unprogrammed_;
  bool initialized_ = false;
  bool enableRouteProcessing_ = false;
  const bool restarted_;  // what restart_ was at first
  bool restart_;
  // Every route that was configured when route processing was enabled, and the tables had come to rest then.
  bool processedOnce_ = false;
  std::function<void()> initCompleteHandler_;
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
  Sides<Side> sides_;

  // Last: they call back into all of the above.
  std::unique_ptr<Follower<Routing::Rib::RouteConfig>> routeReactor_;
  std::unique_ptr<Follower<Routing::Rib::RouteConfig>> route6Reactor_;
  std::unique_ptr<Follower<Ipv4RouteStatus>> hwRouteReactor_;
  std::unique_ptr<VrfIdFollower<SwRouteSm>> vrfIdReactor_;
};

// Makes the state machine; handleInitialized() starts it.
std::shared_ptr<SwRouteSm> SwRouteSmIs(const SwRouteSmInputs& inputs, Platform::TaskScheduler& scheduler,
                                       Platform::TraceFacility& trace, bool restart);

}  // namespace RouteCache
