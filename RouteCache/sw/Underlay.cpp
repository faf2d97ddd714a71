#include "RouteCache/sw/Underlay.h"

#include <set>

#include "platform/values/Assert.h"

namespace RouteCache {

using Routing::Rib::RouteCache::Evpn::ViaNexthop;

// --- What is watched -------------------------------------------------------------------------------------------------

// Follows the resolver's answers in one VRF.
class NexthopVrfStatusReactor final : public Routing::NexthopVrfStatus::Reactor {
 public:
  NexthopVrfStatusReactor(Underlay& underlay, Underlay::User& user,
                          std::shared_ptr<const Routing::NexthopVrfStatus> status, const Platform::TraceHandle& trace)
      : Reactor(std::move(status)), underlay_(underlay), user_(user), trace_(trace) {}

  // Registers the VRF with the resolver. Answers are ignored before this. RangeError for a VRF name over 100 bytes.
  void handleInitialized(Routing::NexthopConfig& requests) {
    trace_(9, __PRETTY_FUNCTION__);
    requests.vrfIs(L3::VrfName(watched().name()));
    initialized_ = true;
    if (L3::VrfName(watched().name()).isDefault() && !watched().nexthop().empty()) user_.handleAnswers();
  }
  void handleNexthop(const IpGenAddr& addr) override {
    trace_(9, __PRETTY_FUNCTION__);
    if (initialized_) underlay_.handleNexthop(addr);
  }
  // The VRF has gone from the answers: the routes are decided again. What was resolved stands until the resolver says
  // otherwise.
  void cleanup() {
    trace_(9, __PRETTY_FUNCTION__);
    user_.handleUnderlay();
  }

 private:
  Underlay& underlay_;
  Underlay::User& user_;
  const Platform::TraceHandle& trace_;
  bool initialized_ = false;
};

// Follows one tunnel interface, and keeps the digest of it.
class VtiStatusReactor final : public Vxlan::VtiStatus::Reactor {
 public:
  VtiStatusReactor(Underlay::User& user, std::shared_ptr<const Vxlan::VtiStatus> vti,
                   const Platform::TraceHandle& trace)
      : Reactor(std::move(vti)), user_(user), trace_(trace) {}
  const std::shared_ptr<SwRouteVtiStatus>& digest() const { return digest_; }

  // Takes over the interface as it stands.
  void handleInitialized();
  void handleOperStatus() override;
  // The addresses decide which families are up: the same question again.
  void handleIpv4Addr() override;
  void handleIpv6Addr() override;
  void handleExtendedVlanToVniMap(Bridging::ExtendedVlanId vlan) override;
  // Every VLAN of the interface, and those that the digest still has though they are gone.
  void handleExtendedVlanToVniMap();
  // The interface has gone.
  void cleanup();

 private:
  void updateOperStatus();
  void updateVlan(Bridging::ExtendedVlanId vlan);
  Underlay::User& user_;
  const Platform::TraceHandle& trace_;
  const std::shared_ptr<SwRouteVtiStatus> digest_ = std::make_shared<SwRouteVtiStatus>(watched().intfId());
};

class Underlay::NexthopConfigReactor final : public Routing::NexthopConfig::Reactor {
 public:
  NexthopConfigReactor(Underlay& underlay, std::shared_ptr<const Routing::NexthopConfig> config)
      : Reactor(std::move(config)), underlay_(underlay) {}
  void handleVrf(const L3::VrfName& name) override {
    if (name.isDefault()) underlay_.nexthopVrfConfigIs();
  }

 private:
  Underlay& underlay_;
};

class Underlay::NexthopStatusReactor final : public Routing::NexthopStatus::Reactor {
 public:
  NexthopStatusReactor(Underlay& underlay, std::shared_ptr<const Routing::NexthopStatus> status)
      : Reactor(std::move(status)), underlay_(underlay) {}
  void handleVrf(const L3::VrfName& name) override { underlay_.handleNexthopVrf(name); }

 private:
  Underlay& underlay_;
};

class Underlay::VtiStatusDirReactor final : public Vxlan::VtiStatusDir::Reactor {
 public:
  VtiStatusDirReactor(Underlay& underlay, std::shared_ptr<const Vxlan::VtiStatusDir> dir)
      : Reactor(std::move(dir)), underlay_(underlay) {}
  void handleVtiStatus(IntfId intfId) override { underlay_.handleVti(intfId); }

 private:
  Underlay& underlay_;
};

// --- Life ------------------------------------------------------------------------------------------------------------

Underlay::Underlay(User& user, std::shared_ptr<Routing::NexthopConfig> nexthopConfig,
                   std::shared_ptr<const Routing::NexthopStatus> nexthopStatus,
                   std::shared_ptr<const Vxlan::VtiStatusDir> vtiStatusDir, const Platform::TraceHandle& trace)
    : user_(user),
      nexthopConfig_(std::move(nexthopConfig)),
      nexthopStatus_(std::move(nexthopStatus)),
      vtiStatusDir_(std::move(vtiStatusDir)),
      trace_(trace) {}

Underlay::~Underlay() = default;

void Underlay::handleInitialized() {
  nexthopVrfConfigIs();
  nexthopConfigReactor_ = std::make_unique<NexthopConfigReactor>(*this, nexthopConfig_);
  nexthopStatusReactor_ = std::make_unique<NexthopStatusReactor>(*this, nexthopStatus_);
  for (const auto& vrf : nexthopStatus_->vrf()) nexthopVrfStatusIs(vrf.first);
  vtiStatusDirReactor_ = std::make_unique<VtiStatusDirReactor>(*this, vtiStatusDir_);
  for (const auto& vti : vtiStatusDir_->vtiStatus()) vtiStatusIs(vti.first);
}

void Underlay::stop() {
  nexthopVrfStatusDelAll();
  vtiStatusDelAll();
  nexthopConfigReactor_.reset();
  nexthopStatusReactor_.reset();
  vtiStatusDirReactor_.reset();
}

void Underlay::nexthopVrfConfigIs() {
  const auto registered = nexthopConfig_->vrfIs(L3::VrfName());
  if (registered == nexthopVrfConfig_) return;
  nexthopVrfConfig_ = registered;
  const auto request = [this](const auto& vtep) { nexthopVrfConfig_->nexthopIs(vtep.addr); };
  vteps_.v4.refCounts().forEach(request);
  vteps_.v6.refCounts().forEach(request);
}

void Underlay::handleNexthopVrf(const L3::VrfName& name) {
  nexthopVrfStatusDel(name);
  if (nexthopStatus_->vrf(name)) nexthopVrfStatusIs(name);
}

void Underlay::nexthopVrfStatusIs(const L3::VrfName& name) {
  const auto status = nexthopStatus_->vrf(name);
  if (name.isDefault()) nexthopVrfStatus_ = status;
  auto& reactor = nexthopVrfStatusReactors_[name];
  reactor = std::make_unique<NexthopVrfStatusReactor>(*this, user_, status, trace_);
  reactor->handleInitialized(*nexthopConfig_);
}

void Underlay::nexthopVrfStatusDel(const L3::VrfName& name) {
  const auto found = nexthopVrfStatusReactors_.find(name);
  if (found == nexthopVrfStatusReactors_.end()) return;
  if (name.isDefault()) nexthopVrfStatus_ = nullptr;
  found->second->cleanup();
  nexthopVrfStatusReactors_.erase(found);
}

void Underlay::nexthopVrfStatusDelAll() {
  while (!nexthopVrfStatusReactors_.empty()) nexthopVrfStatusDel(L3::VrfName(nexthopVrfStatusReactors_.begin()->first));
}

void Underlay::handleVti(IntfId intfId) {
  vtiStatusDel(intfId);
  if (vtiStatusDir_->vtiStatus(intfId)) vtiStatusIs(intfId);
}

void Underlay::vtiStatusIs(IntfId intfId) {
  auto& reactor = vtiStatusReactors_[intfId];
  reactor = std::make_unique<VtiStatusReactor>(user_, vtiStatusDir_->vtiStatus(intfId), trace_);
  reactor->handleInitialized();
}

void Underlay::vtiStatusDel(IntfId intfId) {
  const auto found = vtiStatusReactors_.find(intfId);
  if (found == vtiStatusReactors_.end()) return;
  const auto gone = std::move(found->second);
  vtiStatusReactors_.erase(found);
  gone->cleanup();
}

void Underlay::vtiStatusDelAll() {
  while (!vtiStatusReactors_.empty()) vtiStatusDel(vtiStatusReactors_.begin()->first);
}

// --- Tunnel interfaces -----------------------------------------------------------------------------------------------

void VtiStatusReactor::handleInitialized() {
  trace_(9, __PRETTY_FUNCTION__);
  updateOperStatus();
  handleExtendedVlanToVniMap();
}

void VtiStatusReactor::updateOperStatus() {
  SwRouteVtiStatus& status = *digest_;
  const bool up = watched().operStatus() == Vxlan::OperStatus::up;
  status.v4OperStatusUpIs(up && !watched().ipv4Addr().isZero());
  status.v6OperStatusUpIs(up && !watched().ipv6Addr().isZero());
  status.operStatusUpIs(up);
  if (up) {
    trace_(5, " vti ", watched().name(), " oper status is up ", " schedule sync ");
  } else {
    trace_(5, " vti ", watched().name(), " oper status is down ");
  }
}

void VtiStatusReactor::handleOperStatus() {
  trace_(9, __PRETTY_FUNCTION__);
  updateOperStatus();
  user_.handleUnderlay();
}

void VtiStatusReactor::handleIpv4Addr() {
  trace_(9, __PRETTY_FUNCTION__);
  handleOperStatus();
}

void VtiStatusReactor::handleIpv6Addr() {
  trace_(9, __PRETTY_FUNCTION__);
  handleOperStatus();
}

void VtiStatusReactor::updateVlan(Bridging::ExtendedVlanId vlan) {
  SwRouteVtiStatus& status = *digest_;
  // Two VLANs may carry one VNI, but its inverse names one of them: when that one lets go, another takes its place.
  if (status.extendedVlanToVniMapHas(vlan)) {
    const Vxlan::Vni oldVni = status.extendedVlanToVniMap(vlan);
    status.extendedVlanToVniMapDel(vlan);
    if (status.vniToExtendedVlanMapHas(oldVni) && status.vniToExtendedVlanMap(oldVni) == vlan) {
      status.vniToExtendedVlanMapDel(oldVni);
      for (const auto& [otherVlan, otherVni] : status.extendedVlanToVniMap()) {
        if (otherVni == oldVni) status.vniToExtendedVlanMapIs(oldVni, otherVlan);
      }
    }
  }
  const auto& vlans = watched().extendedVlanToVniMap();
  const auto found = vlans.find(vlan);
  if (found == vlans.end()) return;
  status.extendedVlanToVniMapIs(vlan, found->second);
  if (found->second.isPresent()) status.vniToExtendedVlanMapIs(found->second, vlan);
}

void VtiStatusReactor::handleExtendedVlanToVniMap(Bridging::ExtendedVlanId vlan) {
  trace_(9, __PRETTY_FUNCTION__);
  updateVlan(vlan);
  trace_(5, "Vti ", watched().name(), " extendedVlanId ", vlan, " schedule sync ");
  user_.handleUnderlay();
}

void VtiStatusReactor::handleExtendedVlanToVniMap() {
  trace_(9, __PRETTY_FUNCTION__);
  std::set<Bridging::ExtendedVlanId> vlans;
  for (const auto& entry : watched().extendedVlanToVniMap()) vlans.insert(entry.first);
  for (const auto& entry : digest_->extendedVlanToVniMap()) vlans.insert(entry.first);
  for (const auto vlan : vlans) updateVlan(vlan);
  trace_(5, "Vti ", watched().name(), " schedule sync ");
  user_.handleUnderlay();
}

void VtiStatusReactor::cleanup() {
  trace_(9, __PRETTY_FUNCTION__);
  user_.handleUnderlay();
}

std::shared_ptr<SwRouteVtiStatus> Underlay::swRouteVtiStatusColl(IntfId intfId) const {
  const auto found = vtiStatusReactors_.find(intfId);
  return found == vtiStatusReactors_.end() ? nullptr : found->second->digest();
}

// --- Next hops -------------------------------------------------------------------------------------------------------

std::shared_ptr<IpMixedNexthopRef> Underlay::createNexthopRefFromViaConfig(const Via& via) const {
  if (via.nexthops().size() > Via::maxNexthops) throw RangeError("a via spreads over at most 32 next hops");
  std::shared_ptr<Ipv4NexthopRef> v4nh;
  std::shared_ptr<Ipv6NexthopRef> v6nh;
  bool partial = false;
  bool ready = false;
  for (const ViaNexthop& nexthop : via.nexthops()) {
    const auto found = vtiStatusReactors_.find(nexthop.vti);
    const SwRouteVtiStatus* vti = found == vtiStatusReactors_.end() ? nullptr : found->second->digest().get();
    if (vti == nullptr || nexthop.remoteVtep.isEmpty() ||
        (nexthop.vni.isPresent() && !vti->vniToExtendedVlanMapHas(nexthop.vni))) {
      partial = true;
      continue;
    }
    ready = true;
    const Bridging::ExtendedVlanId vlan =
        nexthop.vni.isPresent() ? vti->vniToExtendedVlanMap(nexthop.vni) : nexthop.extendedVlanId;
    // A VTEP is reached only from an interface that has a source address of its family.
    if (nexthop.remoteVtep.isV4() && vti->v4OperStatusUp()) {
      if (!v4nh) v4nh = ipv4NexthopRefFactory(true, false);
      v4nh->viaIs(Ipv4Nexthop(nexthop.vti, vlan, nexthop.routerMac, nexthop.remoteVtep.v4()));
    } else if (nexthop.remoteVtep.isV6() && vti->v6OperStatusUp()) {
      if (!v6nh) v6nh = ipv6NexthopRefFactory(false, true);
      v6nh->viaIs(Ipv6Nexthop(nexthop.vti, vlan, nexthop.routerMac, nexthop.remoteVtep.v6()));
    }
  }
  if (!ready) return nullptr;
  auto ref = ipMixedNexthopRefFactory(v4nh != nullptr, v6nh != nullptr);
  ref->partialIs(partial);
  ref->v4nhIs(std::move(v4nh));
  ref->v6nhIs(std::move(v6nh));
  return ref;
}

// --- Registrations ---------------------------------------------------------------------------------------------------

template <class Addr>
void Underlay::addMonitoring(const Addr& vtep) {
  trace_(7, "ip: ", vtep, " vtepResolutionNeeded: ", vtepResolutionNeeded_);
  monitor(vtep).add(vtep, *nexthopVrfConfig_);
}
template void Underlay::addMonitoring(const IpAddr& vtep);
template void Underlay::addMonitoring(const Ip6Addr& vtep);

template <class Addr>
void Underlay::removeMonitoring(const Addr& vtep) {
  trace_(7, "ip: ", vtep, " vtepResolutionNeeded: ", vtepResolutionNeeded_);
  monitor(vtep).remove(vtep, *nexthopVrfConfig_);
}
template void Underlay::removeMonitoring(const IpAddr& vtep);
template void Underlay::removeMonitoring(const Ip6Addr& vtep);

void Underlay::addMonitoring(const Ipv4NexthopRef* v4nh, const Ipv6NexthopRef* v6nh) {
  if (v6nh != nullptr) forEachVtep(*v6nh, [this](const Ip6Addr& vtep) { addMonitoring(vtep); });
  if (v4nh != nullptr) forEachVtep(*v4nh, [this](const IpAddr& vtep) { addMonitoring(vtep); });
}

void Underlay::removeMonitoring(const Ipv4NexthopRef* v4nh, const Ipv6NexthopRef* v6nh) {
  if (v6nh != nullptr) forEachVtep(*v6nh, [this](const Ip6Addr& vtep) { removeMonitoring(vtep); });
  if (v4nh != nullptr) forEachVtep(*v4nh, [this](const IpAddr& vtep) { removeMonitoring(vtep); });
}

void Underlay::expect(const IpMixedNexthopRef& ref) const {
  const auto expectEach = [](const auto& vteps, const auto& part) {
    if (!part) return;
    for (const auto& nexthop : part->via()) vteps.expect(nexthop.remoteVtepIp());
  };
  expectEach(vteps_.v4, ref.v4nh());
  expectEach(vteps_.v6, ref.v6nh());
}

bool Underlay::cleanUpRequests(DeferredTask& task) {
  const auto& requests = nexthopVrfConfig_->nexthop();
  std::uint64_t handled = 0;
  const auto next = visitUntilYield(task, requests.lower_bound(vtepCleanupBookmark_), requests.end(), handled,
                                    [this](const auto& request) {
                                      if (refCount(request.first) > 0) return;
                                      trace_(5, "deleting: ", request.first);
                                      nexthopVrfConfig_->nexthopDel(request.first);
                                    });
  vtepCleanupBookmark_ = next == requests.end() ? IpGenAddr() : next->first;
  task.report(handled, 0);
  return vtepCleanupBookmark_.isEmpty();
}

// --- Answers ---------------------------------------------------------------------------------------------------------

std::optional<Fib::FecId> Underlay::answerOf(const IpGenAddr& vtep) const {
  return nexthopVrfStatus_ ? nexthopVrfStatus_->nexthop(vtep) : std::nullopt;
}

void Underlay::handleNexthop(const IpGenAddr& vtep) {
  trace_(7, " nexthop: ", vtep);
  const auto adjIds = vtep.isV4() ? vteps_.v4.adjIds(vtep.v4()) : vteps_.v6.adjIds(vtep.v6());
  if (!adjIds) return;
  // Kept now: the answer may be gone again before the adjacencies' turn comes.
  if (const auto answer = answerOf(vtep)) {
    vtep.isV4() ? vteps_.v4.lastFecIs(vtep.v4(), *answer) : vteps_.v6.lastFecIs(vtep.v6(), *answer);
  }
  user_.handleAnswer(*adjIds);
}

bool Underlay::resolutionNeeded(const IpMixedNexthopRef& ref) const {
  const auto unanswered = [this](const auto& nexthopRef) {
    if (!nexthopRef) return false;
    for (const auto& nexthop : nexthopRef->via()) {
      if (answerOf(nexthop.remoteVtepIp()).value_or(Fib::FecId()).isEmpty()) return true;
    }
    return false;
  };
  return unanswered(ref.v4nh()) || unanswered(ref.v6nh());
}

// --- Invariants ------------------------------------------------------------------------------------------------------

void Underlay::checkInvariants(const std::map<IpGenAddr, std::uint32_t>& registrations) const {
  PLATFORM_ASSERT_TEXT(registrations.size() == vteps_.v4.refCounts().size() + vteps_.v6.refCounts().size(),
                       "the VTEPs monitored are those of held routes");
  for (const auto& [vtep, count] : registrations) {
    PLATFORM_ASSERT_TEXT(refCount(vtep) == count, "registrations are the routes whose next hops name the VTEP");
    PLATFORM_ASSERT_TEXT(nexthopVrfConfig_->nexthop().contains(vtep), "a registered VTEP is requested");
  }
}

}  // namespace RouteCache
