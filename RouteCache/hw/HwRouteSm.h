// The hardware route state machine: puts those of the SFE's IPv4 routes into hardware that have a place there.
//
// Admission (hw/HwRouteSm.cpp). A reaction queues the route's key; the route-processing task decides it. A host
// route under a cached FIB prefix of its VRF is *cacheable*: it is admitted when the policy says so (CachePolicy; the
// first and default one is LevelsPolicy). Any other route is admitted while there is room, and stays. Of the routes hit
// in software those hit last come first (HitQueue).
//
// Ageing (hw/HwRouteSmAgeing.cpp). The scan goes through the time slices of the hardware routes, refiles each by the
// hit-bit value that hardware reports, and then removes as many cacheable routes as the policy says from the idlest
// slices. With Config::ageingKeepsRoute an idle route is *released*: it loses its inHw, so that the SFE programs it,
// and leaves the table when the SFE has. A released route counts among those that an ageing run is to remove, and does
// not count again when the run meets it. When the flag is cleared, what is released leaves at once, as an idle route
// does without the flag.
//
// A route whose adjacency is not written, for want of room or of an identifier, is forwarded by nobody: it is not
// admitted, and leaves if that happens to it while it is in hardware. Its adjacency's coming brings it again.
//
// Restart. What stands in the hardware table is kept: start-up decides every route of the table and of the SFE's
// again, and only one that the SFE does not have, or that has no adjacency, is removed. The hardware table is
// reconciled when the SFE's is and everything that stood in the two, was hit or has changed by then has been decided;
// what waits for room or for its adjacency has been.
//
// Invariants, between any two callbacks (checkInvariants):
//   - space left + entries of the hardware table = capacity + space debt, and there is a debt only at no space left;
//   - the published figure is the space left plus hwSpaceBuffer;
//   - every entry of the hardware table is in one time slice or has its first decision still to come; nothing else is;
//   - the adjacency of every entry stands, or a decision about it is still to come;
//   - a route of the SFE's whose adjacency does not stand waits for it, or is still to be decided;
//   - what is released is in the hardware table without inHw;
//   - what the policy remembers goes with the hardware table.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "RouteCache/hw/AdjacencyWait.h"
#include "RouteCache/hw/CachePolicy.h"
#include "RouteCache/hw/HitBitTimeSlices.h"
#include "RouteCache/hw/HitQueue.h"
#include "RouteCache/model/Capability.h"
#include "RouteCache/model/CliConfig.h"
#include "RouteCache/model/Config.h"
#include "RouteCache/model/StatusTables.h"
#include "RouteCache/model/VrfCachedRoute.h"
#include "RouteCache/queues/DeferredTask.h"
#include "RouteCache/queues/KeyNotes.h"
#include "RouteCache/queues/KeyQueue.h"
#include "RouteCache/queues/ReadAhead.h"
#include "RouteCache/queues/RouteStatusWalk.h"
#include "platform/tables/TableFollower.h"

namespace RouteCache {

// What HwRouteSm is given, in this order.
struct HwRouteSmInputs {
  std::shared_ptr<Ipv4RouteStatus> ipv4HwRouteStatus;
  std::shared_ptr<Config> routeCacheConfig;
  std::shared_ptr<const CliConfig> cliConfig;
  std::shared_ptr<const Ipv4RouteStatus> ipv4SfeRouteStatus;
  std::shared_ptr<const Ipv4HitBitStatus> ipv4HwHitBitStatus;
  std::shared_ptr<const Ipv4HitBitStatus> ipv4SfeHitBitStatus;
  std::shared_ptr<const Capability> routeCacheCapability;
  std::shared_ptr<const VrfCachedRoute> vrfCachedRoute;
  std::shared_ptr<const Ipv4ProgrammedRouteStatus> ipv4SfeProgrammedRouteStatus;  // null: nobody programs routes
  std::shared_ptr<const Ipv4AdjacencyStatus> ipv4AdjStatus;
  std::shared_ptr<const Ipv6AdjacencyStatus> ipv6AdjStatus;
};

class HwRouteSm final : public Lattis::Entity {
 public:
  using Key = Ipv4RouteVrfKey;

  // The capability's hardware route table size is the capacity, and at least 1; it is read here, once. The policy is
  // the default one. Nothing happens before handleInitialized().
  HwRouteSm(const HwRouteSmInputs& inputs, Platform::TaskScheduler& scheduler, Platform::TraceFacility& trace);
  ~HwRouteSm() override;

  // All inputs are there: counts the space, follows the tables and tries, queues what stands in them, starts the scan.
  void handleInitialized();
  bool initialized() const { return initialized_; }

  // --- Reactions: they queue, tasks work -------------------------------------------------------------------------
  void handleThresholdConfig();
  void handleSwRoute(const Key& key);
  void handleSwRoute();  // every SFE route
  // Back-pressure: how many SFE routes it can be told of while its task is about to work; all while that is put off.
  Pondra::Appetite appetite() const;
  void handleSwWriter();  // whether the SFE's table is reconciled
  void handleHwRoute();   // every route of the hardware table
  void handleSfeRouteHit(const Key& key);
  void handleSfeRouteHit();  // every route with an SFE hit bit
  // Counts only while Config::ageingKeepsRoute is set.
  void handleSwProgrammedRoute(const Key& key);
  void handleSwProgrammedRoute();  // every programmed route
  // One of the adjacency tables has it now, or has it no more.
  void handleAdjacency(const AdjId& adjId);
  // Every SFE route of the VRF is to be decided again; a walk that the route-processing task does in slices.
  void scheduleSwRouteWalk(std::uint32_t hwVrfId);

  // --- Admission -------------------------------------------------------------------------------------------------
  // Entries of the hardware table that the space counts admit, in percent of the capacity, rounded down.
  std::uint32_t getHwPercentageSpaceUsed() const { return state_.percentUsed(); }
  bool isRouteCacheable(const Key& key) const;
  bool checkRouteAddEligibility(const Key& key) const;
  // Brings cachingEnabled of Config in line with the tries. `hint`: a prefix was just added.
  void evaluateCachingEnabled(bool hint);
  // Takes back entries of space, after the debt is paid; returns the space left. Where there was none, routes that wait
  // for room get their turn at once, those hit in software first.
  std::uint32_t ipv4PrefixHwSpaceLeftInc(std::uint32_t n);
  std::uint32_t ipv4PrefixHwSpaceLeft() const { return state_.spaceLeft; }
  // Entries found at start beyond the capacity and not removed yet.
  std::uint32_t spaceDebt() const { return spaceDebt_; }
  std::uint32_t capacity() const { return state_.capacity; }

  void routeToProcessIs(const Key& key) { routeToProcess_.keyIs(key); }
  void routeToProcessDel(const Key& key) { routeToProcess_.keyDel(key); }
  bool routeToProcessHas(const Key& key) const { return routeToProcess_.has(key); }
  void routeToProcessDelAll() { routeToProcess_.keyDelAll(); }
  const KeyQueue<Key>& routeToProcess() const { return routeToProcess_; }
  Key routeToProcessBookmark() const { return routeToProcess_.bookmark(); }
  const HitQueue& sfeRouteHitToProcess() const { return sfeRouteHitToProcess_; }
  Key sfeRouteHitToProcessBookmark() const { return sfeRouteHitToProcess_.bookmark(); }
  const KeyQueue<Key>& sfeProgrammedRouteToProcess() const { return sfeProgrammedRouteToProcess_; }
  Key sfeProgrammedRouteToProcessBookmark() const { return sfeProgrammedRouteToProcess_.bookmark(); }
  // Decides and writes the hardware status of one route.
  void processRoute(const Key& key);

  // --- Time slices, scan and ageing ------------------------------------------------------------------------------
  std::uint16_t getHitbitTimeSlice(std::uint8_t hitbit) const;
  // Null: there is no such slice.
  std::shared_ptr<HitBitTimeSliceColl> hwHitbitColl(std::uint16_t slice) const;
  void hwHitbitCollIs(std::uint16_t slice, std::shared_ptr<HitBitTimeSliceColl> coll);
  void hwHitbitCollDel(std::uint16_t slice);
  void hwHitbitCollDelAll();
  std::uint16_t hwHitbitScanTimeSliceBookmark() const { return hwHitbitScanTimeSliceBookmark_; }
  // The zero key: from the slice's start.
  Key hwHitbitScanRouteBookmark() const;
  // One ageing run, as the scan task begins it when its scan is complete: what does not fit into the time slice, that
  // task continues.
  void checkHwRouteAgeing();
  // Ages up to `count` routes of the slice, oldest filing first; returns how many it removed, those released before not
  // counted. Where the time slice ends before, the next call for the same slice goes on.
  std::uint32_t ageHwRoutes(std::uint16_t slice, std::uint32_t count);

  // --- Tries -----------------------------------------------------------------------------------------------------
  // A reactor for the VRF's trie as it is now.
  void trieIs(std::uint32_t hwVrfId);
  void trieDel(std::uint32_t hwVrfId);
  void trieDelAll();

  // --- Task bodies and requests ----------------------------------------------------------------------------------
  void handleRouteProcessing();
  void handleSfeRouteHitProcessing();
  void handleSfeProgrammedRouteProcessing();
  void handleHwhitbitScan();
  void scheduleRouteProcessingTask(double seconds);
  void scheduleSfeRouteHitProcessingTask(double seconds);
  void scheduleSfeProgrammedRouteProcessingTask(double seconds);
  void scheduleHwHitbitScanTask(double seconds);

  // --- Settings --------------------------------------------------------------------------------------------------
  // Every route counts as cacheable, whatever the FIB says. A change re-decides all routes.
  bool enableRouteCache() const { return enableRouteCache_; }
  void enableRouteCacheIs(bool enable);
  // The policy's name. Throws BadText when there is none of this name. Another one begins without a memory, and all
  // routes are decided again; what hardware holds stays, and an ageing run that has begun ends as it was begun.
  std::string policy() const { return std::string(policyKind_.name); }
  void policyIs(const std::string& name);
  void policyKindIs(CachePolicyKind kind);
  // A route that ageing took out may be admitted unasked like any other: the policy is not told of it.
  bool admitAgedUnhit() const { return admitAgedUnhit_; }
  void admitAgedUnhitIs(bool admit);
  // Entries that the published figure is above the true one: it keeps this agent from the true end of the table while
  // others still see room.
  std::uint32_t hwSpaceBuffer() const { return hwSpaceBuffer_; }
  void hwSpaceBufferIs(std::uint32_t entries);
  // Seconds, finite. The second, at least 0.001, holds at or above the low level, and for keys that wait.
  double routeProcessingInterval() const { return routeProcessingInterval_; }
  void routeProcessingIntervalIs(double seconds);
  double routeProcessingIntervalDefer() const { return routeProcessingIntervalDefer_; }
  void routeProcessingIntervalDeferIs(double seconds) { routeProcessingIntervalDefer_ = seconds; }
  double hwHitbitScanInterval() const { return hwHitbitScanInterval_; }  // between two full scans, at least 0.001
  void hwHitbitScanIntervalIs(double seconds);

  // The levels in force: percent, and the highest time slice that is aged.
  std::uint8_t highThresholdHwUtilPercentage() const { return state_.high.hwUtilPercentage; }
  std::uint8_t mediumThresholdHwUtilPercentage() const { return state_.medium.hwUtilPercentage; }
  std::uint8_t lowThresholdHwUtilPercentage() const { return state_.low.hwUtilPercentage; }
  std::uint16_t highThresholdIdleTimeSlice() const { return state_.high.idleTimeSlice; }
  std::uint16_t mediumThresholdIdleTimeSlice() const { return state_.medium.idleTimeSlice; }
  std::uint16_t lowThresholdIdleTimeSlice() const { return state_.low.idleTimeSlice; }

  // What it writes, for reading.
  std::shared_ptr<const Ipv4RouteStatus> ipv4HwRouteStatus() const { return in_.ipv4HwRouteStatus; }

  // --- What has happened since the start, for an operator ---------------------------------------------------------
  std::uint64_t admissions() const { return admissions_; }  // routes put into the hardware table
  std::uint64_t aged() const { return aged_; }              // routes that ageing counted as removed
  std::uint64_t routeToProcessCount() const { return routeToProcess_.size(); }
  std::uint64_t sfeRouteHitToProcessCount() const { return sfeRouteHitToProcess_.size(); }

  const Lattis::EntityType& entityType() const override;
  // An interval out of its range, a buffer that takes the published figure over 32 bits.
  std::string fault() const override;
  // Aborts when an invariant does not hold. Walks every table. To be called when all table changes are delivered.
  void checkInvariants() const;

 private:
  template <class Table>
  using Follower = Pondra::TableFollower<Table, HwRouteSm>;
  class ThresholdReactor;
  class ConfigReactor;
  class VrfCachedRouteReactor;
  class TrieReactor;

  // An ageing run that has not ended.
  struct Ageing {
    AgeingPlan rest;               // of it what is still to be done
    std::uint16_t slice = 0;       // where the run stands
    std::uint32_t ofSlice = 0;     // routes still to remove from the slice being visited
    std::uint32_t removedNew = 0;  // routes removed from timeSliceNewAdditionsToDel
  };
  enum class ScanPhase : std::uint8_t { slices, ageing, newAdditions };

  // What the tables say of a route that is to be decided. Its decision writes no hardware route but its own: what has
  // been read ahead of others stays right.
  struct RouteFacts {
    Key key;
    std::optional<Ipv4Route> sfeRoute;
    std::optional<Ipv4Route> hwRoute;
    std::uint32_t sfeHitbit = 0;  // of a route that is not in hardware
    bool isFiled = false;         // of one that a walk has met: it is in a slice, and nothing else has been looked up
  };
  // The same of a route that is to be aged, and of one that is scanned: neither's turn writes another's. What hardware
  // reports after the look is the next scan's.
  struct AgedFacts {
    Key key;
    std::optional<Ipv4Route> hwRoute;
    std::optional<Ipv4Route> sfeRoute;
    std::uint32_t sfeHitbit = 0;
  };
  struct ScanFacts {
    Key key;
    std::optional<Ipv4RouteHitBit> hit;
    std::optional<Ipv4Route> hwRoute;  // of one that does not stay in its slice
  };
  void lookUpFacts(std::span<RouteFacts> facts) const;
  void lookUpWalked(std::span<RouteFacts> facts) const;
  void lookUpAged(std::span<AgedFacts> facts) const;
  void lookUpScanned(std::span<ScanFacts> facts, std::uint16_t slice) const;
  void readAheadOfFresh();
  void readAheadOfDue(std::uint16_t slice);
  void readAheadOfAged(std::uint32_t most);

  // Whether the VRF's trie holds prefixes now.
  void notePrefixes(std::uint32_t hwVrfId, bool any);
  // Readers find all of the adjacency.
  bool adjacencyStands(AdjId adjId) const;
  bool isCacheable(const Key& key, const Ipv4Route& sfeRoute) const;
  std::uint32_t sfeHitbit(const Key& key) const;
  bool isEligible(const Ipv4Route& sfeRoute, std::uint32_t hitbit, bool cacheable) const;
  void leaveOut(const Ipv4Route& sfeRoute, std::uint32_t hitbit, bool cacheable);
  void writeHwRoute(const Ipv4Route& sfeRoute, bool isNew);
  void removeHwRoute(const Key& key);
  void removeAgedRoute(const Ipv4Route& hwRoute);
  void publishSpace();
  bool processNextRoute();
  void reconcile();
  void decideRoute(const RouteFacts& facts);
  void decideWalked(const RouteFacts& facts);
  void decideSfeWalked(const RouteFacts& facts);
  bool processNextHit();
  bool processNextProgrammed();
  void processProgrammedRoute(const Key& key);
  void handleAgeingKeepsRoute();
  void finishReleased(const Key& key);

  // Each returns false when it is to be continued in the next run.
  bool scanSlices();
  bool continueAgeing();
  bool ageSlice(std::uint32_t& removed);
  bool moveNewAdditions();

  std::uint16_t reportedSlice(const std::optional<Ipv4RouteHitBit>& hit, std::uint16_t slice) const;
  void scanRoute(const Key& key, std::uint16_t slice);
  void confirmInHw(const Ipv4Route& route, std::uint16_t hitbit);
  bool ageRoute(const Key& key, std::uint16_t slice);  // true: it counts as removed
  void checkSpace() const;
  void checkSlices() const;
  void checkAdjacencies() const;
  bool isDecisionToCome(const Key& key) const;

  const HwRouteSmInputs in_;
  CacheState state_;
  CachePolicyKind policyKind_;
  std::unique_ptr<CachePolicy> policy_;
  Platform::TraceHandle trace_;
  bool initialized_ = false;
  bool sfeReconciled_ = false;  // and all that had changed by then has been queued

  bool enableRouteCache_ = false;
  bool admitAgedUnhit_ = false;
  std::uint32_t hwSpaceBuffer_ = 1024;
  std::uint32_t spaceDebt_ = 0;
  double routeProcessingInterval_ = 0;
  double routeProcessingIntervalDefer_ = 3.0;
  double hwHitbitScanInterval_ = 40.0;

  KeyQueue<Key> routeToProcess_;
  // Each is empty between two runs of its task.
  ReadAhead<RouteFacts> readAhead_;  // of fresh routes
  ReadAhead<RouteFacts> walkAhead_;  // of the routes of the tables' walks
  ReadAhead<ScanFacts> scanAhead_;
  ReadAhead<AgedFacts> agedAhead_;
  AdjacencyWait withoutAdjacency_;
  HitQueue sfeRouteHitToProcess_;
  KeyQueue<Key> sfeProgrammedRouteToProcess_;
  // Owed to whole tables or VRFs; each is done by the task of the queue that its keys would otherwise stand in.
  RouteStatusWalk<Ipv4RouteStatus> sfeWalk_;
  RouteStatusWalk<Ipv4RouteStatus> hwWalk_;
  RouteStatusWalk<Ipv4HitBitStatus> hitWalk_;
  std::unique_ptr<RouteStatusWalk<Ipv4ProgrammedRouteStatus>> programmedWalk_;

  std::shared_ptr<HitBitTimeSlices> slices_;
  std::map<std::uint16_t, std::shared_ptr<HitBitTimeSliceColl>> hwHitbitColl_;
  std::uint16_t hwHitbitScanTimeSliceBookmark_ = 0;
  ScanPhase scanPhase_ = ScanPhase::slices;
  std::uint64_t scanned_ = 0;  // routes that this run of the task has handled
  std::optional<Ageing> ageing_;
  KeyNotes<Key, std::uint16_t> released_;  // the hit-bit value when it was released, or the lowest seen since
  std::uint64_t admissions_ = 0;
  std::uint64_t aged_ = 0;
  std::set<std::uint32_t> vrfsWithPrefixes_;  // hardware ids whose tries hold some

  DeferredTask routeProcessingTask_;
  DeferredTask sfeRouteHitProcessingTask_;
  DeferredTask sfeProgrammedRouteProcessingTask_;
  DeferredTask hwHitbitScanTask_;

  // Last: they call back into all of the above.
  std::unique_ptr<ThresholdReactor> thresholdReactor_;
  std::unique_ptr<ConfigReactor> configReactor_;
  std::unique_ptr<Follower<Ipv4RouteStatus>> swRouteReactor_;
  std::unique_ptr<Follower<Ipv4HitBitStatus>> sfeHitReactor_;
  std::unique_ptr<Follower<Ipv4ProgrammedRouteStatus>> programmedReactor_;
  std::unique_ptr<Follower<Ipv4AdjacencyStatus>> adjReactor_;
  std::unique_ptr<Follower<Ipv6AdjacencyStatus>> adj6Reactor_;
  std::unique_ptr<VrfCachedRouteReactor> vrfCachedRouteReactor_;
  std::map<std::uint32_t, std::unique_ptr<TrieReactor>> trie_;
};

// Makes the state machine; handleInitialized() starts it.
std::shared_ptr<HwRouteSm> HwRouteSmIs(const HwRouteSmInputs& inputs, Platform::TaskScheduler& scheduler,
                                       Platform::TraceFacility& trace);

}  // namespace RouteCache
