// The switch's next-hop resolver: answers an agent's requests from the underlay's routes.
#pragma once

#include <map>
#include <memory>
#include <set>
#include <utility>

#include "platform/services/TaskScheduler.h"
#include "platform/state/Nexthop.h"

namespace LinuxPlatform {

// For every address that is requested in a VRF the VRF's status holds one answer: the FEC of the longest underlay
// prefix that covers the address, or the empty FEC when none does. The underlay is one for all VRFs. A request that is
// withdrawn loses its answer; an underlay route that comes, changes or goes has the requests it covers answered again.
//
// Answers follow from a task, never from inside the agent's write. An answer depends on the routes and the address
// alone.
class UnderlayResolver {
 public:
  UnderlayResolver(std::shared_ptr<const Routing::NexthopConfig> requests,
                   std::shared_ptr<Routing::NexthopStatus> answers,
                   std::shared_ptr<const Routing::UnderlayRouteConfig> routes, Platform::TaskScheduler& scheduler);
  ~UnderlayResolver();

 private:
  class RequestsReactor;
  class VrfReactor;
  class RoutesReactor;
  using Request = std::pair<L3::VrfName, IpGenAddr>;

  void handleVrf(const L3::VrfName& name);
  void handleNexthop(const L3::VrfName& name, const IpGenAddr& addr);
  void handleRoute(const IpGenPrefix& prefix);
  void handleResolution();
  void resolve(const Request& request);

  std::shared_ptr<const Routing::NexthopConfig> requests_;
  std::shared_ptr<Routing::NexthopStatus> answers_;
  std::shared_ptr<const Routing::UnderlayRouteConfig> routes_;
  std::set<Request> toResolve_;
  std::unique_ptr<Platform::Task> resolutionTask_;
  std::map<L3::VrfName, std::unique_ptr<VrfReactor>> vrfReactors_;
  std::unique_ptr<RequestsReactor> requestsReactor_;
  std::unique_ptr<RoutesReactor> routesReactor_;
};

}  // namespace LinuxPlatform
