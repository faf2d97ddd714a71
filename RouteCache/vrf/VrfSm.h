// The VRF state machine: keeps the agent's VRF id map in step with what the switch says of VRFs, and makes for each VRF
// its cached-route tries and the state machine that fills them.
//
// A VRF is complete when its name stands both in the platform's name-to-id map (which gives the pi id) and among the
// hardware's VRFs (which give the hardware id). Hardware id 0 is the default VRF's; for any other name it means that
// none is assigned yet, and the update is ignored.
//
// Invariants: the two directions of VrfIdMap are each other's inverse; each pair in it belongs to one name; a name that
// has a pair has its tries. When two names claim one id, the one heard of last has it, and the other gets it back when
// it is free again. Each event costs the same however many VRFs there are.
//
// What stands at the start is walked a time slice at a time; what changes meanwhile is brought at once, by its own
// reaction, wherever the walk stands. A VRF that the walk has not come to yet has no pair.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>

#include "RouteCache/model/VrfCachedRoute.h"
#include "RouteCache/model/VrfIdMap.h"
#include "RouteCache/queues/DeferredTask.h"
#include "RouteCache/vrf/VrfCachedRouteSm.h"
#include "platform/state/Hardware.h"
#include "platform/state/Vrf.h"
#include "platform/tables/Fib.h"
#include "platform/tables/Trie.h"
#include "platform/trace/Trace.h"

namespace RouteCache {

// The pi id of a name that the platform does not know.
inline constexpr std::uint32_t missingPiVrfId = 16777215;

class VrfSm {
 public:
  VrfSm(std::shared_ptr<const Routing::Hardware::RouteStatus> hwRouteStatus,
        std::shared_ptr<const Vrf::VrfIdMap::NameToIdMap> piVrfIdMap, std::shared_ptr<VrfIdMap> vrfIdMap,
        std::shared_ptr<VrfCachedRoute> vrfCachedRoute, Pondra::TableService& tables,
        Platform::TaskScheduler& scheduler, Platform::TraceFacility& trace);
  VrfSm(const VrfSm&) = delete;
  VrfSm& operator=(const VrfSm&) = delete;
  // Releases the reactors, the VRFs' state machines and the FIB tables; the id map and the tries stay as they are.
  ~VrfSm();

  // All VRFs of the start have been walked.
  void handleInitialized();
  bool initialized() const { return initialized_; }
  // Called when it becomes so, from a task.
  void initializedHandlerIs(std::function<void()> handler) { initializedHandler_ = std::move(handler); }

  // The same rule for all: the name is complete or it is not.
  void handleHwVrfCreation(const L3::VrfName& name);
  void handlePIVrfCreation(const std::string& name);
  // The one place that changes VrfIdMap. `add`: the VRF is complete.
  void updateVrfMap(const L3::VrfName& name, bool add);

  // Mounts the FIB tables of the name, and makes tries and a state machine for the id unless it has them.
  void createVrfCachedRouteSm(const L3::VrfName& name, std::uint32_t hwVrfId);
  // The IPv6 trie stays until the id is used again.
  void deleteVrfCachedRouteSm(std::uint32_t hwVrfId);

  // Null when the id has none.
  std::shared_ptr<const VrfCachedRouteSm> vrfCachedRouteSm(std::uint32_t hwVrfId) const;
  void vrfCachedRouteSmIs(std::shared_ptr<const Pondra::Fib::RouteStatus> routeStatus,
                          std::shared_ptr<const Pondra::Fib6::RouteStatus> route6Status, std::uint32_t hwVrfId,
                          std::shared_ptr<Routing::Trie> vrfTrie, std::shared_ptr<Routing6::Trie> vrfTrie6);
  // The tries stay, filled as they are.
  void vrfCachedRouteSmDel(std::uint32_t hwVrfId);
  void vrfCachedRouteSmDelAll();

  void hwVrfStatusIs(const std::shared_ptr<const Routing::Hardware::VrfStatus>& status);
  void hwVrfStatusDel(const L3::VrfName& name);
  void hwVrfStatusDelAll();

 private:
  class HwVrfReactor;
  class PiVrfReactor;
  class HwVrfStatusReactor;

  struct Ids {
    std::uint32_t piVrfId = missingPiVrfId;
    std::uint32_t hwVrfId = 0;
    bool operator==(const Ids&) const = default;
  };
  using Claims = std::set<std::pair<std::uint32_t, L3::VrfName>>;
  using NamesById = std::unordered_map<std::uint32_t, L3::VrfName>;

  // What the walk of the start goes over, in this order.
  enum class Stage : std::uint8_t { hardware, platform, reactors };

  void handleVrfWalk();
  bool walkStage();
  // For all names of that source, from where the last slice stopped. False: the walk's task should yield.
  bool handleHwVrfCreation();
  bool handlePIVrfCreation();
  template <class Map, class Visit>
  bool walkOn(const Map& vrfs, Visit&& visit);
  bool followHwVrfs();
  bool isComplete(const L3::VrfName& name) const;
  void applyRule(const L3::VrfName& name);
  Ids idsOf(const L3::VrfName& name) const;
  void addVrf(const L3::VrfName& name);
  void removeVrf(const L3::VrfName& name);
  void dropStalePairs();
  void mapPair(const L3::VrfName& name, const Ids& ids);
  // Takes the name's pair out of VrfIdMap and returns it.
  Ids unmapPair(const L3::VrfName& name);
  void claimIs(const L3::VrfName& name, const Ids& ids);
  void claimDel(const L3::VrfName& name);
  // Gives ids that have become free to complete VRFs that claim them.
  void restoreClaims(const Ids& freed);
  std::shared_ptr<Pondra::TableEntity> mountFibTable(const std::string& path, const char* typeName);

  std::shared_ptr<const Routing::Hardware::RouteStatus> hwRouteStatus_;
  std::shared_ptr<const Vrf::VrfIdMap::NameToIdMap> piVrfIdMap_;
  std::shared_ptr<VrfIdMap> vrfIdMap_;
  std::shared_ptr<VrfCachedRoute> vrfCachedRoute_;
  Pondra::TableService& tables_;
  Platform::TaskScheduler& scheduler_;
  Platform::TraceFacility& traceFacility_;
  Platform::TraceHandle trace_;
  std::map<L3::VrfName, Ids> mapped_;  // the pairs in VrfIdMap by the name they belong to
  NamesById nameOfPi_, nameOfHw_;      // the same by their ids
  std::map<L3::VrfName, Ids> claims_;  // names that lost their pair to another, and the ids that they wait for
  Claims claimsOnPi_, claimsOnHw_;     // the same by their ids
  std::map<std::uint32_t, std::shared_ptr<VrfCachedRouteSm>> vrfCachedRouteSm_;
  std::map<std::uint32_t, L3::VrfName> fibOf_;  // the name whose FIB tables are mounted for a hardware id
  bool initialized_ = false;
  std::function<void()> initializedHandler_;
  std::unique_ptr<DeferredTask> walkTask_;  // null: the walk is over
  Stage walkStage_ = Stage::hardware;
  std::optional<std::string> walkBookmark_;  // the name where it goes on; nothing: at the beginning
  bool walkPaused_ = false;                  // something may have changed since a name was walked first

  // Last: they call back into all of the above.
  std::unique_ptr<HwVrfReactor> hwVrfReactor_;
  std::unique_ptr<PiVrfReactor> piVrfReactor_;
  std::map<L3::VrfName, std::unique_ptr<HwVrfStatusReactor>> hwVrfStatus_;
};

// Makes the state machine; the first time slice of its walk is done when this returns, the rest in runs of
// "vrfWalkTask".
std::shared_ptr<VrfSm> VrfSmIs(std::shared_ptr<const Routing::Hardware::RouteStatus> hwRouteStatus,
                               std::shared_ptr<const Vrf::VrfIdMap::NameToIdMap> piVrfIdMap,
                               std::shared_ptr<VrfIdMap> vrfIdMap, std::shared_ptr<VrfCachedRoute> vrfCachedRoute,
                               Pondra::TableService& tables, Platform::TaskScheduler& scheduler,
                               Platform::TraceFacility& trace);

}  // namespace RouteCache
