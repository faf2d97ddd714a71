#include "RouteCache/vrf/VrfSm.h"

#include <vector>

namespace RouteCache {

class VrfSm::HwVrfReactor final : public Routing::Hardware::RouteStatus::Reactor {
 public:
  HwVrfReactor(VrfSm& sm, std::shared_ptr<const Routing::Hardware::RouteStatus> status)
      : Reactor(std::move(status)), sm_(sm) {}
  void handleVrfStatus(const L3::VrfName& name) override {
    sm_.handleHwVrfCreation(name);
    if (const auto status = watched().vrfStatus(name)) {
      sm_.hwVrfStatusIs(status);
    } else {
      sm_.hwVrfStatusDel(name);
    }
  }

 private:
  VrfSm& sm_;
};

class VrfSm::PiVrfReactor final : public Vrf::VrfIdMap::NameToIdMap::Reactor {
 public:
  PiVrfReactor(VrfSm& sm, std::shared_ptr<const Vrf::VrfIdMap::NameToIdMap> map) : Reactor(std::move(map)), sm_(sm) {}
  void handleNameToId(const std::string& name) override { sm_.handlePIVrfCreation(name); }

 private:
  VrfSm& sm_;
};

// Follows the hardware id of one VRF.
class VrfSm::HwVrfStatusReactor final : public Routing::Hardware::VrfStatus::Reactor {
 public:
  HwVrfStatusReactor(VrfSm& sm, std::shared_ptr<const Routing::Hardware::VrfStatus> status)
      : Reactor(std::move(status)), sm_(sm) {}
  L3::VrfName vrfName() const { return watched().vrfName(); }
  void handleHwVrfId() override {
    sm_.trace_(9, __PRETTY_FUNCTION__);
    sm_.applyRule(vrfName());
  }

 private:
  VrfSm& sm_;
};

VrfSm::VrfSm(std::shared_ptr<const Routing::Hardware::RouteStatus> hwRouteStatus,
             std::shared_ptr<const Vrf::VrfIdMap::NameToIdMap> piVrfIdMap, std::shared_ptr<VrfIdMap> vrfIdMap,
             std::shared_ptr<VrfCachedRoute> vrfCachedRoute, Pondra::TableService& tables,
             Platform::TaskScheduler& scheduler, Platform::TraceFacility& trace)
    : hwRouteStatus_(std::move(hwRouteStatus)),
      piVrfIdMap_(std::move(piVrfIdMap)),
      vrfIdMap_(std::move(vrfIdMap)),
      vrfCachedRoute_(std::move(vrfCachedRoute)),
      tables_(tables),
      scheduler_(scheduler),
      traceFacility_(trace),
      trace_(trace, "RouteCacheVrfSm") {
  hwVrfReactor_ = std::make_unique<HwVrfReactor>(*this, hwRouteStatus_);
  piVrfReactor_ = std::make_unique<PiVrfReactor>(*this, piVrfIdMap_);
  dropStalePairs();
  // Ahead of the tasks that decide routes: theirs wait for their VRFs.
  walkTask_ = std::make_unique<DeferredTask>(scheduler_, trace_, "vrfWalkTask", Platform::TaskPriority::delivery,
                                             [this] { handleVrfWalk(); });
  handleVrfWalk();
}

VrfSm::~VrfSm() {
  vrfCachedRouteSmDelAll();
}

std::shared_ptr<VrfSm> VrfSmIs(std::shared_ptr<const Routing::Hardware::RouteStatus> hwRouteStatus,
                               std::shared_ptr<const Vrf::VrfIdMap::NameToIdMap> piVrfIdMap,
                               std::shared_ptr<VrfIdMap> vrfIdMap, std::shared_ptr<VrfCachedRoute> vrfCachedRoute,
                               Pondra::TableService& tables, Platform::TaskScheduler& scheduler,
                               Platform::TraceFacility& trace) {
  return std::make_shared<VrfSm>(std::move(hwRouteStatus), std::move(piVrfIdMap), std::move(vrfIdMap),
                                 std::move(vrfCachedRoute), tables, scheduler, trace);
}

void VrfSm::handleInitialized() {
  trace_(9, __PRETTY_FUNCTION__);
  initialized_ = true;
  if (initializedHandler_) initializedHandler_();
}

// --- The walk of the start -------------------------------------------------------------------------------------------

void VrfSm::handleVrfWalk() {
  while (walkStage()) {
    walkBookmark_.reset();
    if (walkStage_ == Stage::reactors) {
      walkTask_.reset();
      handleInitialized();
      return;
    }
    walkStage_ = walkStage_ == Stage::hardware ? Stage::platform : Stage::reactors;
  }
  walkPaused_ = true;
  walkTask_->schedule(0);
}

bool VrfSm::walkStage() {
  switch (walkStage_) {
    case Stage::hardware:
      return handleHwVrfCreation();
    case Stage::platform:
      return handlePIVrfCreation();
    case Stage::reactors:
      return followHwVrfs();
  }
  return true;
}

namespace {
const std::string& textOf(const L3::VrfName& name) {
  return name.text();
}
const std::string& textOf(const std::string& name) {
  return name;
}
}  // namespace

template <class Map, class Visit>
bool VrfSm::walkOn(const Map& vrfs, Visit&& visit) {
  using Name = typename Map::key_type;
  auto at = walkBookmark_ ? vrfs.lower_bound(Name(*walkBookmark_)) : vrfs.begin();
  while (at != vrfs.end()) {
    visit(*at);
    ++at;
    if (at == vrfs.end() || !walkTask_->shouldYield()) continue;
    walkBookmark_ = textOf(at->first);
    return false;
  }
  return true;
}

bool VrfSm::followHwVrfs() {
  return walkOn(hwRouteStatus_->vrfStatus(), [this](const auto& entry) {
    hwVrfStatusIs(entry.second);
    // Until now nobody would have heard of another hardware id.
    if (walkPaused_) applyRule(entry.first);
  });
}

// --- Events ----------------------------------------------------------------------------------------------------------

bool VrfSm::handleHwVrfCreation() {
  trace_(9, __PRETTY_FUNCTION__);
  return walkOn(hwRouteStatus_->vrfStatus(), [this](const auto& entry) { handleHwVrfCreation(entry.first); });
}

void VrfSm::handleHwVrfCreation(const L3::VrfName& name) {
  trace_(9, __PRETTY_FUNCTION__);
  applyRule(name);
}

bool VrfSm::handlePIVrfCreation() {
  trace_(9, __PRETTY_FUNCTION__);
  trace_(8, "piVrf ", piVrfIdMap_->name());
  const bool done = walkOn(piVrfIdMap_->nameToId(), [this](const auto& entry) { handlePIVrfCreation(entry.first); });
  if (done) trace_(8, "done");
  return done;
}

void VrfSm::handlePIVrfCreation(const std::string& name) {
  trace_(9, __PRETTY_FUNCTION__);
  if (name.size() > L3::VrfName::maxLength) {
    trace_(2, "VRF name over 100 bytes, ignored: ", name);  // hardware cannot have it: it is never complete
    return;
  }
  applyRule(name);
}

bool VrfSm::isComplete(const L3::VrfName& name) const {
  return piVrfIdMap_->nameToId(name.text()).has_value() && hwRouteStatus_->vrfStatus(name) != nullptr;
}

void VrfSm::applyRule(const L3::VrfName& name) {
  updateVrfMap(name, isComplete(name));
}

void VrfSm::hwVrfStatusIs(const std::shared_ptr<const Routing::Hardware::VrfStatus>& status) {
  hwVrfStatus_[status->vrfName()] = std::make_unique<HwVrfStatusReactor>(*this, status);
}

void VrfSm::hwVrfStatusDel(const L3::VrfName& name) {
  hwVrfStatus_.erase(name);
}

void VrfSm::hwVrfStatusDelAll() {
  hwVrfStatus_.clear();
}

// --- The id map ------------------------------------------------------------------------------------------------------

void VrfSm::updateVrfMap(const L3::VrfName& name, bool add) {
  if (add) {
    addVrf(name);
  } else {
    removeVrf(name);
  }
}

VrfSm::Ids VrfSm::idsOf(const L3::VrfName& name) const {
  return {piVrfIdMap_->nameToId(name.text()).value_or(missingPiVrfId), hwRouteStatus_->vrfStatus(name)->hwVrfId()};
}

// The map outlives the state machine: what it holds that no complete VRF claims goes before anything is added.
void VrfSm::dropStalePairs() {
  if (vrfIdMap_->hwVrfIdToGlobalVrfIds().empty() && vrfIdMap_->globalVrfIdToHwVrfIds().empty()) return;
  std::map<std::uint32_t, std::uint32_t> claimed;  // hardware id -> pi id
  for (const auto& entry : hwRouteStatus_->vrfStatus()) {
    if (isComplete(entry.first)) claimed[idsOf(entry.first).hwVrfId] = idsOf(entry.first).piVrfId;
  }
  const auto isClaimed = [&](std::uint32_t hwVrfId, std::uint32_t piVrfId) {
    const auto found = claimed.find(hwVrfId);
    return found != claimed.end() && found->second == piVrfId;
  };
  for (const auto& [hwVrfId, piVrfId] : vrfIdMap_->hwVrfIdToGlobalVrfIds()) {
    if (!isClaimed(hwVrfId, piVrfId)) vrfIdMap_->hwVrfIdToGlobalVrfIdDel(hwVrfId);
  }
  for (const auto& [piVrfId, hwVrfId] : vrfIdMap_->globalVrfIdToHwVrfIds()) {
    if (!isClaimed(hwVrfId, piVrfId)) vrfIdMap_->globalVrfIdToHwVrfIdDel(piVrfId);
  }
}

void VrfSm::mapPair(const L3::VrfName& name, const Ids& ids) {
  mapped_[name] = ids;
  nameOfPi_.insert_or_assign(ids.piVrfId, name);
  nameOfHw_.insert_or_assign(ids.hwVrfId, name);
  vrfIdMap_->hwVrfIdToGlobalVrfIdIs(ids.hwVrfId, ids.piVrfId);
  vrfIdMap_->globalVrfIdToHwVrfIdIs(ids.piVrfId, ids.hwVrfId);
}

VrfSm::Ids VrfSm::unmapPair(const L3::VrfName& name) {
  const auto found = mapped_.find(name);
  const Ids ids = found->second;
  mapped_.erase(found);
  nameOfPi_.erase(ids.piVrfId);
  nameOfHw_.erase(ids.hwVrfId);
  vrfIdMap_->hwVrfIdToGlobalVrfIdDel(ids.hwVrfId);
  vrfIdMap_->globalVrfIdToHwVrfIdDel(ids.piVrfId);
  return ids;
}

void VrfSm::claimIs(const L3::VrfName& name, const Ids& ids) {
  claims_[name] = ids;
  claimsOnPi_.emplace(ids.piVrfId, name);
  claimsOnHw_.emplace(ids.hwVrfId, name);
}

void VrfSm::claimDel(const L3::VrfName& name) {
  const auto found = claims_.find(name);
  if (found == claims_.end()) return;
  claimsOnPi_.erase({found->second.piVrfId, name});
  claimsOnHw_.erase({found->second.hwVrfId, name});
  claims_.erase(found);
}

void VrfSm::addVrf(const L3::VrfName& name) {
  const Ids ids = idsOf(name);
  trace_(6, "add hwVrfId: ", ids.hwVrfId, " piVrfId: ", ids.piVrfId);
  const auto own = mapped_.find(name);
  if (own == mapped_.end()) claimDel(name);  // what it claimed before
  if (ids.hwVrfId == 0 && !name.isDefault()) return;
  if (own != mapped_.end() && own->second == ids) return;

  // Whoever has one of these ids loses its pair; this name's own old pair goes as well.
  std::set<L3::VrfName> stale;
  if (own != mapped_.end()) stale.insert(name);
  if (const auto other = nameOfPi_.find(ids.piVrfId); other != nameOfPi_.end()) stale.insert(other->second);
  if (const auto other = nameOfHw_.find(ids.hwVrfId); other != nameOfHw_.end()) stale.insert(other->second);
  std::vector<Ids> freed;
  for (const L3::VrfName& other : stale) {
    freed.push_back(unmapPair(other));
    // Another name reads another FIB; the same name under a new pi id goes on as it is.
    if (other != name || freed.back().hwVrfId != ids.hwVrfId) deleteVrfCachedRouteSm(freed.back().hwVrfId);
    if (other != name) claimIs(other, idsOf(other));
  }
  createVrfCachedRouteSm(name, ids.hwVrfId);
  mapPair(name, ids);
  for (const Ids& pair : freed) restoreClaims(pair);
}

void VrfSm::removeVrf(const L3::VrfName& name) {
  const auto piVrfId = piVrfIdMap_->nameToId(name.text());
  const auto status = hwRouteStatus_->vrfStatus(name);
  const auto own = mapped_.find(name);
  // Told in the order in which the VRF was found out to be incomplete.
  if (piVrfId && !status) {
    trace_(6, "del piVrfId: ", *piVrfId);
    if (own != mapped_.end()) trace_(6, "del hwVrfId: ", own->second.hwVrfId);
  } else if (!piVrfId && status) {
    trace_(6, "del hwVrfId: ", status->hwVrfId());
    if (own != mapped_.end()) trace_(6, "del piVrfId: ", own->second.piVrfId);
  }
  claimDel(name);
  if (own == mapped_.end()) return;
  const Ids ids = unmapPair(name);
  deleteVrfCachedRouteSm(ids.hwVrfId);
  restoreClaims(ids);
}

// The first claimant by name has each id, unless the other id that it claims is another's.
void VrfSm::restoreClaims(const Ids& freed) {
  const auto give = [this](const Claims& claims, const NamesById& taken, std::uint32_t id) {
    for (auto at = claims.lower_bound({id, L3::VrfName("")}); at != claims.end() && at->first == id;) {
      if (taken.contains(id)) return;
      const L3::VrfName name = at->second;
      ++at;  // before the claim may go
      const Ids& claim = claims_.at(name);
      if (isComplete(name) && !nameOfPi_.contains(claim.piVrfId) && !nameOfHw_.contains(claim.hwVrfId)) addVrf(name);
    }
  };
  give(claimsOnPi_, nameOfPi_, freed.piVrfId);
  give(claimsOnHw_, nameOfHw_, freed.hwVrfId);
}

// --- FIB tables and tries --------------------------------------------------------------------------------------------

// A table that is missing or bad is empty until there is a good one.
std::shared_ptr<Pondra::TableEntity> VrfSm::mountFibTable(const std::string& path, const char* typeName) {
  tables_.mountWhenReadable(path, typeName);
  return tables_.entity(path);
}

void VrfSm::createVrfCachedRouteSm(const L3::VrfName& name, std::uint32_t hwVrfId) {
  trace_(6, name, " vrfId: ", hwVrfId);
  if (vrfCachedRouteSm_.contains(hwVrfId)) {
    trace_(6, "Sm already exists, returning");
    return;
  }
  const Pondra::FibTablePaths paths = Pondra::fibTablePaths(name);
  fibOf_.insert_or_assign(hwVrfId, name);
  auto routeStatus = std::dynamic_pointer_cast<const Pondra::Fib::RouteStatus>(
      mountFibTable(paths.ipv4, Pondra::Fib::RouteStatus::typeName));
  auto route6Status = std::dynamic_pointer_cast<const Pondra::Fib6::RouteStatus>(
      mountFibTable(paths.ipv6, Pondra::Fib6::RouteStatus::typeName));
  // Where others find them before the first prefix is in them.
  auto trie = std::make_shared<Routing::Trie>("CachedRouteTrie");
  auto trie6 = std::make_shared<Routing6::Trie>("CachedRouteTrie6");
  vrfCachedRoute_->vrfTrieIs(hwVrfId, trie);
  vrfCachedRoute_->vrfTrie6Is(hwVrfId, trie6);
  vrfCachedRouteSmIs(std::move(routeStatus), std::move(route6Status), hwVrfId, std::move(trie), std::move(trie6));
}

void VrfSm::deleteVrfCachedRouteSm(std::uint32_t hwVrfId) {
  trace_(6, " vrfId: ", hwVrfId);
  vrfCachedRouteSmDel(hwVrfId);
  vrfCachedRoute_->vrfTrieDel(hwVrfId);
}

std::shared_ptr<const VrfCachedRouteSm> VrfSm::vrfCachedRouteSm(std::uint32_t hwVrfId) const {
  const auto found = vrfCachedRouteSm_.find(hwVrfId);
  return found == vrfCachedRouteSm_.end() ? nullptr : found->second;
}

void VrfSm::vrfCachedRouteSmIs(std::shared_ptr<const Pondra::Fib::RouteStatus> routeStatus,
                               std::shared_ptr<const Pondra::Fib6::RouteStatus> route6Status, std::uint32_t hwVrfId,
                               std::shared_ptr<Routing::Trie> vrfTrie, std::shared_ptr<Routing6::Trie> vrfTrie6) {
  vrfCachedRouteSm_[hwVrfId] = VrfCachedRouteSmIs(std::move(routeStatus), std::move(route6Status), hwVrfId,
                                                  std::move(vrfTrie), std::move(vrfTrie6), scheduler_, traceFacility_);
}

// The tables go after the state machine that reads them.
void VrfSm::vrfCachedRouteSmDel(std::uint32_t hwVrfId) {
  vrfCachedRouteSm_.erase(hwVrfId);
  const auto fib = fibOf_.find(hwVrfId);
  if (fib == fibOf_.end()) return;
  const Pondra::FibTablePaths paths = Pondra::fibTablePaths(fib->second);
  fibOf_.erase(fib);
  tables_.unmount(paths.ipv4);
  tables_.unmount(paths.ipv6);
}

void VrfSm::vrfCachedRouteSmDelAll() {
  while (!vrfCachedRouteSm_.empty()) vrfCachedRouteSmDel(vrfCachedRouteSm_.begin()->first);
}

}  // namespace RouteCache
