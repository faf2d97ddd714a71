// The kernel route state machine: keeps a table of routes for the kernel in step with what is published.
//
// A published route has a kernel route unless a cached FIB prefix of its VRF covers it: that traffic is the FIB's. A
// prefix that is not published has one if it is itself a cached FIB prefix. Kernel routes are keyed by the platform's
// VRF id; while a VRF has none, nothing of it can be written, and its arrival brings all its routes again.
//
// Room. Published routes are mirrored while the table holds fewer entries than the hardware's; cached FIB prefixes may
// fill the buffer above that as well. What stands already needs no room. Keys that find none wait, apart from the
// others, so that looking after them costs one comparison while there is none; a kernel route that goes brings them.
// When cached prefixes go untold, with their VRF or their trie, those that wait are looked through behind all other
// work, every routeProcessingIntervalDefer at most.
//
// A reaction queues the key, a task of the key's family decides it. What concerns many routes - a VRF, a cached prefix
// and all that it covers - is recorded as a walk over the published table, done by the same task in slices. The kernel
// walk goes through the kernel table itself, for VRFs that have gone: their published routes may have gone before them.
//
// Restart. The kernel table that is found is adopted: a route is written only when it differs. Stale ones go with the
// first kernel walk over all of it, which leaves the switch as long to bring its VRFs as the route syncs do. The kernel
// table is reconciled when the published tables are, that walk is over and what had changed by then has been decided.
//
// Invariants, between any two callbacks (checkInvariants):
//   - every published route and every cached prefix of a mapped VRF stands in the kernel table exactly if the decision
//     says so, with the fields that it must have; or is queued, or a walk that is owed will meet it;
//   - every other kernel route is ahead of a kernel walk, or of the one that the start has asked for;
//   - a cached prefix that waits for room is of a mapped VRF and still cached, or those that wait are to be reviewed.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "RouteCache/model/Capability.h"
#include "RouteCache/model/Sides.h"
#include "RouteCache/model/VrfCachedRoute.h"
#include "RouteCache/model/VrfIdMap.h"
#include "RouteCache/queues/CoveredRoutesWalk.h"
#include "RouteCache/queues/DeferredTask.h"
#include "RouteCache/queues/KeyQueue.h"
#include "RouteCache/queues/ReadAhead.h"
#include "platform/tables/Rib.h"
#include "platform/tables/TableFollower.h"

namespace RouteCache {

// What KernelRouteSm is given, in this order.
struct KernelRouteSmInputs {
  std::shared_ptr<const Ipv4RouteStatus> swIpv4RouteStatus;
  std::shared_ptr<const Ipv6RouteStatus> swIpv6RouteStatus;
  std::shared_ptr<Routing::Rib::RouteConfig> kernelRouteStatus;
  std::shared_ptr<const Capability> routeCacheCapability;
  std::shared_ptr<const VrfIdMap> vrfIdMap;
  std::shared_ptr<const VrfCachedRoute> vrfCachedRoute;
  // Where a kernel route has everything but its key from.
  std::shared_ptr<const Routing::Rib::RouteConfig> routeConfig;
  std::shared_ptr<const Routing::Rib::RouteConfig> route6Config;
};

class KernelRouteSm final : public Lattis::Entity {
 public:
  using RouteKey = Routing::Rib::RouteKey;
  // What a queued key that finds no room waits for: room for a published route, for a cached FIB prefix, or its turn in
  // the review of the latter.
  enum Room : std::uint8_t { mirrorRoom = 0, cachedRoom = 1, review = 2 };
  template <class Key>
  using Queue = KeyQueue<Key, 3>;

  // The capability's hardware route table size bounds the mirrored routes; it is read here, once. Nothing happens
  // before handleInitialized().
  KernelRouteSm(const KernelRouteSmInputs& inputs, Platform::TaskScheduler& scheduler, Platform::TraceFacility& trace);
  ~KernelRouteSm() override;

  // All inputs are there: follows tables, VRFs and tries, and queues what stands in them.
  void handleInitialized();
  bool initialized() const { return initialized_; }

  // --- Reactions: they queue, tasks work -------------------------------------------------------------------------
  void handleIpv4SwRoute(const Ipv4RouteVrfKey& key);
  void handleIpv4SwRoute();  // every published route
  void handleIpv6SwRoute(const Ipv6RouteVrfKey& key);
  void handleIpv6SwRoute();
  template <class Family>
  void handleSwWriter();  // whether the published table is reconciled
  void handleIpv4CachedRoute(const Ipv4RouteVrfKey& key);
  void handleIpv6CachedRoute(const Ipv6RouteVrfKey& key);
  void handleVrfId(std::uint32_t piVrfId);
  // A configured route changed: only what the kernel has already can differ from it.
  void handleRouteConfig(const RouteKey& key);
  // Every published route of the VRF is to be decided again; a walk that the family's task does in slices.
  void scheduleSwIpv4RouteStatusWalk(std::uint32_t hwVrfId);
  void scheduleSwIpv6RouteStatusWalk(std::uint32_t hwVrfId);
  // The kernel walk is to visit the kernel routes of this VRF: the one that begins next, so that one under way is never
  // widened.
  void addKernelRouteVrfIdColl(std::uint32_t piVrfId);

  // --- Decisions -------------------------------------------------------------------------------------------------
  // One key at a time, for callers outside: the tasks read ahead, and decide in groups what is queued or walked over.
  // Whether the queued route must be in the kernel table. Takes it out of the queue, or leaves it waiting and answers
  // false when it must be added and there is no room.
  bool isIpv4RouteAdded(const Ipv4RouteVrfKey& key);
  bool isIpv6RouteAdded(const Ipv6RouteVrfKey& key);
  // Decides a route and writes or deletes its kernel route; one that is not queued is not added.
  void ipv4ProcessRoute(const Ipv4RouteVrfKey& key);
  void ipv6ProcessRoute(const Ipv6RouteVrfKey& key);
  // One step of the kernel walk.
  void processKernelRoute(const RouteKey& key);

  void ipv4RouteToProcessIs(const Ipv4RouteVrfKey& key) { sides_.v4.toProcess.keyIs(key); }
  void ipv6RouteToProcessIs(const Ipv6RouteVrfKey& key) { sides_.v6.toProcess.keyIs(key); }
  const Queue<Ipv4RouteVrfKey>& ipv4RouteToProcess() const { return sides_.v4.toProcess; }
  const Queue<Ipv6RouteVrfKey>& ipv6RouteToProcess() const { return sides_.v6.toProcess; }
  Ipv4RouteVrfKey ipv4RouteToProcessBookmark() const { return sides_.v4.toProcess.bookmark(); }
  Ipv6RouteVrfKey ipv6RouteToProcessBookmark() const { return sides_.v6.toProcess.bookmark(); }
  // The empty key: no kernel walk is under way.
  RouteKey kernelRouteBookmark() const { return kernelRouteBookmark_; }
  const std::set<std::uint32_t>& currentKernelRouteVrfIdColl() const { return currentKernelRouteVrfIdColl_; }
  const std::set<std::uint32_t>& nextKernelRouteVrfIdColl() const { return nextKernelRouteVrfIdColl_; }

  // --- Tries -----------------------------------------------------------------------------------------------------
  // A reactor for the VRF's trie as it is now, if it has one; what the trie holds is queued.
  void trieIs(std::uint32_t hwVrfId);
  void trieDel(std::uint32_t hwVrfId);
  void trie6Is(std::uint32_t hwVrfId);
  void trie6Del(std::uint32_t hwVrfId);

  // --- Task bodies and requests ----------------------------------------------------------------------------------
  void handleIpv4RouteProcessing();
  void handleIpv6RouteProcessing();
  void handleKernelRouteProcessing();
  // Puts every VRF of the kernel table before the kernel walk: once, some time after the start.
  void handleKernelRouteSync();
  // Begins the review of the cached prefixes that wait for room.
  void handleWaitingReview();
  void scheduleIpv4RouteProcessingTask(double seconds) { sides_.v4.task.schedule(seconds); }
  void scheduleIpv6RouteProcessingTask(double seconds) { sides_.v6.task.schedule(seconds); }
  void scheduleKernelRouteProcessingTask(double seconds) { kernelRouteProcessingTask_.schedule(seconds); }
  void scheduleKernelRouteSyncTask(double seconds) { kernelRouteSyncTask_.schedule(seconds); }
  void scheduleWaitingReviewTask(double seconds) { waitingReviewTask_.schedule(seconds); }

  // --- Settings and counts ---------------------------------------------------------------------------------------
  // Seconds, finite. The second, at least 0.001, is how often keys that wait for room are looked after or reviewed, and
  // what a VRF has to arrive after a restart.
  double routeProcessingInterval() const { return routeProcessingInterval_; }
  void routeProcessingIntervalIs(double seconds) { routeProcessingInterval_ = seconds; }
  double routeProcessingIntervalDefer() const { return routeProcessingIntervalDefer_; }
  void routeProcessingIntervalDeferIs(double seconds) { routeProcessingIntervalDefer_ = seconds; }
  std::uint32_t capacity() const { return capacity_; }  // of mirrored routes, in entries
  std::uint64_t ipv4RouteToProcessCount() const { return sides_.v4.toProcess.size(); }
  std::uint64_t ipv6RouteToProcessCount() const { return sides_.v6.toProcess.size(); }
  std::uint64_t written() const { return written_; }  // kernel routes written or replaced since the start
  std::uint64_t deleted() const { return deleted_; }

  const Lattis::EntityType& entityType() const override;
  // An interval out of its range.
  std::string fault() const override;
  // Aborts when an invariant does not hold. Walks every table. To be called when all table changes are delivered.
  void checkInvariants() const;

 private:
  class VrfCachedRouteReactor;
  template <class Family>
  class TrieReactor;
  template <class Table>
  using Follower = Pondra::TableFollower<Table, KernelRouteSm>;

  // Of the walk through the kernel's routes: those whose turn comes next.
  struct KernelRouteGroup {
    std::array<RouteKey, readAheadGroup> keys;
    std::size_t next = 0;
    std::size_t count = 0;
    bool empty() const { return next == count; }
  };

  // What the tables say of a route that is to be decided. Its decision writes no kernel route but its own, and the id
  // map gives no two VRFs one hardware id: what has been read ahead of others stays right.
  template <class Family>
  struct RouteFacts {
    BasicRouteVrfKey<Family> key;
    bool published = false;
    std::optional<RouteKey> kernel;  // nothing while the VRF is not mapped
    std::optional<Routing::Rib::Route> standing;
    std::optional<Routing::Rib::Route> configured;  // of a published route only
  };

  // What there is of each family.
  template <class Family>
  struct Side {
    using Key = BasicRouteVrfKey<Family>;
    Side(const RouteStatus<Family>& published, const Routing::Rib::RouteConfig& configured, DeferredTask processingTask)
        : routes(published), config(configured), walk(published), task(std::move(processingTask)) {}
    const RouteStatus<Family>& routes;
    const Routing::Rib::RouteConfig& config;
    Queue<Key> toProcess;
    ReadAhead<RouteFacts<Family>> readAhead;  // of what a task handles next; empty between two runs
    CoveredRoutesWalk<RouteStatus<Family>> walk;
    bool reconciled = false;  // the published table, and all that had changed by then has been queued
    // Tries by hardware VRF id whose prefixes are to be queued, from this one on.
    std::map<std::uint32_t, typename Family::Prefix> trieSweep;
    DeferredTask task;
    std::map<std::uint32_t, std::unique_ptr<TrieReactor<Family>>> tries;
    std::vector<std::uint32_t> triesToFollow;  // that stood at the start, the first one last
  };

  template <class Family>
  auto trie(std::uint32_t hwVrfId) const;  // null when there is none
  template <class Family>
  bool isWanted(const BasicRouteVrfKey<Family>& key, bool published) const;
  template <class Family>
  bool isWanted(const BasicRouteVrfKey<Family>& key) const {
    return isWanted<Family>(key, sides_.of<Family>().routes.has(key));
  }
  template <class Family>
  void lookUpFacts(std::span<RouteFacts<Family>> facts) const;
  template <class Family>
  const RouteFacts<Family>& factsOf(const BasicRouteVrfKey<Family>& key);
  template <class Family>
  void readAheadOfFresh();
  bool hasRoom(Room room) const;
  // Nothing while the VRF is not mapped.
  template <class Key>
  std::optional<RouteKey> kernelKey(const Key& key) const;
  template <class Family>
  bool isQueued(const BasicRouteVrfKey<Family>& key) const;
  template <class Family>
  bool isRouteAdded(const BasicRouteVrfKey<Family>& key);
  template <class Family>
  bool admit(const RouteFacts<Family>& facts, bool wanted);
  template <class Family>
  void wakeWaiting();
  template <class Family>
  void processRoute(const BasicRouteVrfKey<Family>& key);
  template <class Family>
  void decideRoute(const RouteFacts<Family>& facts);
  template <class Family>
  void writeKernelRoute(const RouteFacts<Family>& facts);
  void deleteKernelRoute(const RouteKey& key);
  template <class Family>
  void handleRouteProcessing();
  void reconcile();
  KernelRouteGroup readKernelRoutes(Routing::Rib::RouteConfig::Iterator& at);
  std::uint64_t walkKernelRoutes();
  template <class Family>
  bool processNext();
  template <class Family>
  void queueTriePrefix();
  template <class Family>
  void queueKey(const BasicRouteVrfKey<Family>& key, double seconds);
  template <class Family>
  void vrfWalkIs(std::uint32_t hwVrfId);
  template <class Family>
  void trieSweepIs(std::uint32_t hwVrfId);
  // The trie of a VRF is another one, or empty, and nobody has told its prefixes one by one.
  template <class Family>
  void trieChanged(std::uint32_t hwVrfId);
  template <class Family>
  void trieReactorIs(std::uint32_t hwVrfId);
  template <class Family>
  void trieReactorDel(std::uint32_t hwVrfId);
  // Follows the tries that stood at the start, a time slice at a time: before the first decision all are followed.
  void handleTrieFollow();
  template <class Family>
  bool followTries();
  // Cached prefixes have gone untold: those that wait for room may not be wanted any more.
  void reviewWaiting();
  template <class Family>
  void beginReview();
  // A prefix came to the VRF's trie or left it.
  template <class Family>
  void cachedPrefixChanged(const BasicRouteVrfKey<Family>& key);
  template <class Family>
  void checkPublished() const;
  template <class Family>
  void checkCachedPrefixes() const;
  template <class Family>
  void checkWaiting() const;
  template <class Family>
  bool isAwaited(const BasicRouteVrfKey<Family>& key) const;
  bool isAheadOfKernelWalk(const RouteKey& key) const;
  void checkKernelRoutes() const;

  const KernelRouteSmInputs in_;
  const std::uint32_t capacity_;
  Platform::TraceHandle trace_;
  bool initialized_ = false;
  bool synced_ = false;  // every VRF of the kernel table found at start has been put before the kernel walk
  bool reviewOwed_ = false;
  double routeProcessingInterval_ = 0.0;
  double routeProcessingIntervalDefer_ = 5.0;
  std::uint64_t written_ = 0;
  std::uint64_t deleted_ = 0;

  Sides<Side> sides_;
  std::set<std::uint32_t> currentKernelRouteVrfIdColl_;
  std::set<std::uint32_t> nextKernelRouteVrfIdColl_;
  RouteKey kernelRouteBookmark_;
  DeferredTask kernelRouteProcessingTask_;
  DeferredTask kernelRouteSyncTask_;
  DeferredTask waitingReviewTask_;
  DeferredTask trieFollowTask_;

  // Last: they call back into all of the above.
  std::unique_ptr<Follower<Ipv4RouteStatus>> swRouteReactor_;
  std::unique_ptr<Follower<Ipv6RouteStatus>> swRoute6Reactor_;
  std::unique_ptr<Follower<Routing::Rib::RouteConfig>> routeReactor_;
  std::unique_ptr<Follower<Routing::Rib::RouteConfig>> route6Reactor_;
  std::unique_ptr<VrfIdFollower<KernelRouteSm>> vrfIdReactor_;
  std::unique_ptr<VrfCachedRouteReactor> vrfCachedRouteReactor_;
};

// Makes the state machine; handleInitialized() starts it.
std::shared_ptr<KernelRouteSm> KernelRouteSmIs(const KernelRouteSmInputs& inputs, Platform::TaskScheduler& scheduler,
                                               Platform::TraceFacility& trace);

}  // namespace RouteCache
