// The underlay, as overlay routes need it: which tunnel interfaces can send, and what the resolver says of the tunnels'
// far ends (VTEPs).
//
// What goes in: the tunnel interfaces and the resolver's answers. What comes out: the resolver's requests, one for each
// VTEP that routes register. Owned by SwRouteSm, which is told when something changes and does the rest.
//
// Invariant (checkInvariants): a VTEP with registrations is requested. One without is not, once the leftovers of a
// predecessor are cleaned up.
#pragma once

#include <map>
#include <memory>
#include <optional>

#include "RouteCache/model/NexthopRef.h"
#include "RouteCache/model/Sides.h"
#include "RouteCache/model/SwRouteVtiStatus.h"
#include "RouteCache/queues/DeferredTask.h"
#include "RouteCache/sw/VtepMonitor.h"
#include "platform/state/Nexthop.h"
#include "platform/state/Vxlan.h"
#include "platform/tables/Rib.h"

namespace RouteCache {

class NexthopVrfStatusReactor;
class VtiStatusReactor;

class Underlay {
 public:
  using Via = Routing::Rib::RouteCache::Evpn::Via;

  // Who is told, from within the change. Reactions: they queue.
  class User {
   public:
    virtual ~User() = default;
    // A tunnel interface, or the VRF that the resolver answers in, has come, gone or changed: any route may come to
    // something else now.
    virtual void handleUnderlay() = 0;
    // Answers are there that are not told one by one.
    virtual void handleAnswers() = 0;
    // The answer for a VTEP has changed, and these adjacencies use it.
    virtual void handleAnswer(const AdjIdColl& adjIds) = 0;
  };

  // User and trace outlive it. Nothing happens before handleInitialized().
  Underlay(User& user, std::shared_ptr<Routing::NexthopConfig> nexthopConfig,
           std::shared_ptr<const Routing::NexthopStatus> nexthopStatus,
           std::shared_ptr<const Vxlan::VtiStatusDir> vtiStatusDir, const Platform::TraceHandle& trace);
  ~Underlay();
  // Registers the VRF "default" with the resolver, and follows answers and interfaces from now on.
  void handleInitialized();
  // Stops to follow them, as if they had gone. The user does so before anything that its reactions touch goes.
  void stop();

  // --- Reactions -------------------------------------------------------------------------------------------------
  // The resolver answers in this VRF, or does so no more; the VRF "default" is the one that counts.
  void handleNexthopVrf(const L3::VrfName& name);
  // The answer for this address has changed.
  void handleNexthop(const IpGenAddr& vtep);
  void handleVti(IntfId intfId);  // has come, been replaced, or gone

  // --- Next hops -------------------------------------------------------------------------------------------------
  // What the via's next hops come to with the tunnel interfaces as they are: null when none is usable yet (unknown
  // interface, VNI without a VLAN), neither part when the interfaces are down. Throws RangeError over 32 next hops.
  std::shared_ptr<IpMixedNexthopRef> createNexthopRefFromViaConfig(const Via& via) const;
  std::shared_ptr<SwRouteVtiStatus> swRouteVtiStatusColl(IntfId intfId) const;  // null: unknown interface

  // --- Registrations ---------------------------------------------------------------------------------------------
  // One more, or one less, for each VTEP of the next hops, once however many of them name it. Null is none.
  void addMonitoring(const Ipv4NexthopRef* v4nh, const Ipv6NexthopRef* v6nh);
  void removeMonitoring(const Ipv4NexthopRef* v4nh, const Ipv6NexthopRef* v6nh);
  template <class Addr>
  void addMonitoring(const Addr& vtep);
  template <class Addr>
  void removeMonitoring(const Addr& vtep);
  // Asks memory for what registering these next hops takes.
  void expect(const IpMixedNexthopRef& ref) const;
  // Withdraws requests that nobody has registered, in slices. False: to be continued in the task's next run.
  bool cleanUpRequests(DeferredTask& task);
  IpGenAddr vtepCleanupBookmark() const { return vtepCleanupBookmark_; }

  // --- Answers ---------------------------------------------------------------------------------------------------
  // The resolver's answer for a VTEP: nothing when there is none yet, the empty FEC when it is unreachable.
  std::optional<Fib::FecId> answerOf(const IpGenAddr& vtep) const;
  // The resolver has no FEC for one of the VTEPs.
  bool resolutionNeeded(const IpMixedNexthopRef& ref) const;
  // As the last route processed had it, for traces.
  bool vtepResolutionNeeded() const { return vtepResolutionNeeded_; }
  void vtepResolutionNeededIs(bool needed) { vtepResolutionNeeded_ = needed; }

  template <class Family>
  VtepMonitor<typename Family::Addr>& vteps() {
    return vteps_.of<Family>();
  }
  template <class Family>
  const VtepMonitor<typename Family::Addr>& vteps() const {
    return vteps_.of<Family>();
  }
  std::uint32_t refCount(const IpGenAddr& vtep) const {
    return vtep.isV4() ? vteps_.v4.refCount(vtep.v4()) : vteps_.v6.refCount(vtep.v6());
  }
  const std::shared_ptr<Routing::NexthopVrfConfig>& nexthopVrfConfig() const { return nexthopVrfConfig_; }
  const std::shared_ptr<const Routing::NexthopVrfStatus>& nexthopVrfStatus() const { return nexthopVrfStatus_; }

  // Asserts that these are the registrations, and the invariant above.
  void checkInvariants(const std::map<IpGenAddr, std::uint32_t>& registrations) const;

 private:
  class NexthopConfigReactor;
  class NexthopStatusReactor;
  class VtiStatusDirReactor;
  template <class Family>
  using Vteps = VtepMonitor<typename Family::Addr>;

  // Registers the underlay's VRF with the resolver, and again if somebody else has withdrawn it.
  void nexthopVrfConfigIs();
  void nexthopVrfStatusIs(const L3::VrfName& name);
  void nexthopVrfStatusDel(const L3::VrfName& name);
  void nexthopVrfStatusDelAll();
  void vtiStatusIs(IntfId intfId);
  void vtiStatusDel(IntfId intfId);
  void vtiStatusDelAll();
  VtepMonitor<IpAddr>& monitor(const IpAddr&) { return vteps_.v4; }
  VtepMonitor<Ip6Addr>& monitor(const Ip6Addr&) { return vteps_.v6; }

  User& user_;
  const std::shared_ptr<Routing::NexthopConfig> nexthopConfig_;
  const std::shared_ptr<const Routing::NexthopStatus> nexthopStatus_;
  const std::shared_ptr<const Vxlan::VtiStatusDir> vtiStatusDir_;
  const Platform::TraceHandle& trace_;

  Sides<Vteps> vteps_;
  std::shared_ptr<Routing::NexthopVrfConfig> nexthopVrfConfig_;
  std::shared_ptr<const Routing::NexthopVrfStatus> nexthopVrfStatus_;  // of the VRF "default"; null: no answers yet
  bool vtepResolutionNeeded_ = false;
  IpGenAddr vtepCleanupBookmark_;

  // Last: they call back into all of the above.
  std::unique_ptr<NexthopConfigReactor> nexthopConfigReactor_;
  std::unique_ptr<NexthopStatusReactor> nexthopStatusReactor_;
  std::unique_ptr<VtiStatusDirReactor> vtiStatusDirReactor_;
  std::map<L3::VrfName, std::unique_ptr<NexthopVrfStatusReactor>> nexthopVrfStatusReactors_;
  std::map<IntfId, std::unique_ptr<VtiStatusReactor>> vtiStatusReactors_;  // each with its interface's digest
};

// Calls use(address) for each VTEP of the reference, once however many of its next hops name it.
template <class Ref, class Use>
void forEachVtep(const Ref& ref, Use&& use) {
  const auto& nexthops = ref.via();
  for (std::size_t i = 0; i < nexthops.size(); ++i) {
    const auto& addr = nexthops[i].remoteVtepIp();
    bool first = true;
    for (std::size_t j = 0; j < i && first; ++j) first = !(nexthops[j].remoteVtepIp() == addr);
    if (first) use(addr);
  }
}

}  // namespace RouteCache
