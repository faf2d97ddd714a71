#include "lib/resolver/UnderlayResolver.h"

#include <utility>

namespace LinuxPlatform {

class UnderlayResolver::RequestsReactor final : public Routing::NexthopConfig::Reactor {
 public:
  RequestsReactor(UnderlayResolver& resolver, std::shared_ptr<const Routing::NexthopConfig> requests)
      : Reactor(std::move(requests)), resolver_(resolver) {}
  void handleVrf(const L3::VrfName& name) override { resolver_.handleVrf(name); }

 private:
  UnderlayResolver& resolver_;
};

class UnderlayResolver::VrfReactor final : public Routing::NexthopVrfConfig::Reactor {
 public:
  VrfReactor(UnderlayResolver& resolver, std::shared_ptr<const Routing::NexthopVrfConfig> requests)
      : Reactor(std::move(requests)), resolver_(resolver) {}
  void handleNexthop(const IpGenAddr& addr) override { resolver_.handleNexthop(watched().name(), addr); }

 private:
  UnderlayResolver& resolver_;
};

class UnderlayResolver::RoutesReactor final : public Routing::UnderlayRouteConfig::Reactor {
 public:
  RoutesReactor(UnderlayResolver& resolver, std::shared_ptr<const Routing::UnderlayRouteConfig> routes)
      : Reactor(std::move(routes)), resolver_(resolver) {}
  void handleRoute(const IpGenPrefix& prefix) override { resolver_.handleRoute(prefix); }

 private:
  UnderlayResolver& resolver_;
};

namespace {

bool covers(const IpGenPrefix& prefix, const IpGenAddr& addr) {
  if (prefix.family() != addr.family()) return false;
  return prefix.isV4() ? prefix.v4().covers(Prefix(addr.v4(), Prefix::maxLength))
                       : prefix.v6().covers(Ip6Prefix(addr.v6(), Ip6Prefix::maxLength));
}

}  // namespace

UnderlayResolver::UnderlayResolver(std::shared_ptr<const Routing::NexthopConfig> requests,
                                   std::shared_ptr<Routing::NexthopStatus> answers,
                                   std::shared_ptr<const Routing::UnderlayRouteConfig> routes,
                                   Platform::TaskScheduler& scheduler)
    : requests_(std::move(requests)),
      answers_(std::move(answers)),
      routes_(std::move(routes)),
      resolutionTask_(scheduler.taskIs("underlayResolutionTask", Platform::TaskPriority::processing,
                                       [this] { handleResolution(); })),
      requestsReactor_(std::make_unique<RequestsReactor>(*this, requests_)),
      routesReactor_(std::make_unique<RoutesReactor>(*this, routes_)) {
  for (const auto& [name, vrf] : requests_->vrf()) handleVrf(name);
}

UnderlayResolver::~UnderlayResolver() = default;

void UnderlayResolver::handleVrf(const L3::VrfName& name) {
  const auto vrf = requests_->vrf(name);
  vrfReactors_.erase(name);
  if (!vrf) {
    answers_->vrfDel(name);
    return;
  }
  answers_->vrfIs(name);
  vrfReactors_[name] = std::make_unique<VrfReactor>(*this, vrf);
  for (const auto& [addr, watched] : vrf->nexthop()) handleNexthop(name, addr);
}

void UnderlayResolver::handleNexthop(const L3::VrfName& name, const IpGenAddr& addr) {
  toResolve_.emplace(name, addr);
  resolutionTask_->scheduleWithin(0);
}

// The addresses that a prefix covers lie next to each other, from its own on.
void UnderlayResolver::handleRoute(const IpGenPrefix& prefix) {
  for (const auto& [name, vrf] : requests_->vrf()) {
    auto request = vrf->nexthop().lower_bound(prefix.addr());
    for (; request != vrf->nexthop().end() && covers(prefix, request->first); ++request) {
      handleNexthop(name, request->first);
    }
  }
}

void UnderlayResolver::handleResolution() {
  std::uint64_t handled = 0;
  while (!toResolve_.empty()) {
    resolve(toResolve_.extract(toResolve_.begin()).value());
    ++handled;
    if (resolutionTask_->shouldYield()) break;
  }
  resolutionTask_->workCountIs(handled);
  resolutionTask_->workPendingIs(toResolve_.size());
  if (!toResolve_.empty()) resolutionTask_->scheduleWithin(0);
}

void UnderlayResolver::resolve(const Request& request) {
  const auto& [name, addr] = request;
  const auto requested = requests_->vrf(name);
  if (requested && requested->nexthop().contains(addr)) {
    answers_->vrfIs(name)->nexthopIs(addr, routes_->longestMatch(addr).value_or(Fib::FecId()));
  } else if (const auto vrf = answers_->vrf(name)) {
    vrf->nexthopDel(addr);
  }
}

}  // namespace LinuxPlatform
