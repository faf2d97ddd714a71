// What SwRouteSm watches of the underlay: the resolver's answers in one VRF, and one VXLAN tunnel interface. Reactors
// know no policy: they hand on to their state machine, which makes and destroys them and outlives them.
#pragma once

#include <memory>

#include "RouteCache/model/Config.h"
#include "platform/state/Nexthop.h"
#include "platform/state/Vxlan.h"

namespace RouteCache {

class SwRouteSm;

// Follows the resolver's answers in one VRF: an answer that changes has the adjacencies that use its address rewritten.
class NexthopVrfStatusReactor final : public Routing::NexthopVrfStatus::Reactor {
 public:
  NexthopVrfStatusReactor(SwRouteSm& sm, std::shared_ptr<const Routing::NexthopVrfStatus> status);
  // Registers the VRF with the resolver and has what rests on answers decided again, if there are any. Answers are
  // ignored before this. RangeError for a VRF name over 100 bytes.
  void handleInitialized();
  void handleNexthop(const IpGenAddr& addr) override;
  // The VRF has gone from the answers: the routes are decided again. What was resolved stands until the resolver says
  // otherwise.
  void cleanup();

 private:
  SwRouteSm& sm_;
  bool initialized_ = false;
};

// Follows one tunnel interface, keeps the state machine's digest of it, and has all routes decided again when it
// changes.
class VtiStatusReactor final : public Vxlan::VtiStatus::Reactor {
 public:
  VtiStatusReactor(SwRouteSm& sm, std::shared_ptr<const Vxlan::VtiStatus> vti);
  // Takes over the interface as it stands.
  void handleInitialized();
  void handleOperStatus() override;
  // The addresses decide which families are up: the same question again.
  void handleIpv4Addr() override;
  void handleIpv6Addr() override;
  void handleExtendedVlanToVniMap(Bridging::ExtendedVlanId vlan) override;
  // Every VLAN of the interface, and those that the digest still has though they are gone.
  void handleExtendedVlanToVniMap();
  // The interface has gone: so does its digest.
  void cleanup();

 private:
  // Finds or creates the digest.
  SwRouteVtiStatus& digest();
  void updateOperStatus();
  void updateVlan(Bridging::ExtendedVlanId vlan);
  SwRouteSm& sm_;
};

}  // namespace RouteCache
