#include "platform/state/Nexthop.h"

namespace Routing {

void NexthopVrfConfig::nexthopIs(const IpGenAddr& addr, bool watched) {
  if (!watched) return nexthopDel(addr);
  if (nexthops_.is(addr, true)) notify<Reactor>([&](Reactor& reactor) { reactor.handleNexthop(addr); });
}

void NexthopVrfConfig::nexthopDel(const IpGenAddr& addr) {
  if (nexthops_.del(addr)) notify<Reactor>([key = addr](Reactor& reactor) { reactor.handleNexthop(key); });
}

const Lattis::EntityType& NexthopVrfConfig::entityType() const {
  using This = NexthopVrfConfig;
  static const Lattis::EntityType type{
      "Routing::NexthopVrfConfig",
      {},
      {Lattis::mapField<This, static_cast<const Nexthops& (This::*)() const>(&This::nexthop), &This::nexthopIs,
                        &This::nexthopDel>("nexthop")}};
  return type;
}

std::shared_ptr<NexthopVrfConfig> NexthopConfig::vrf(const L3::VrfName& name) const {
  return vrfs_.find(name).value_or(nullptr);
}

std::shared_ptr<NexthopVrfConfig> NexthopConfig::vrfIs(const L3::VrfName& name) {
  auto found = vrf(name);
  if (found) return found;
  found = std::make_shared<NexthopVrfConfig>(name.text());
  vrfs_.is(name, found);
  notify<Reactor>([&](Reactor& reactor) { reactor.handleVrf(name); });
  return found;
}

void NexthopConfig::vrfDel(const L3::VrfName& name) {
  if (vrfs_.del(name)) notify<Reactor>([key = name](Reactor& reactor) { reactor.handleVrf(key); });
}

const Lattis::EntityType& NexthopConfig::entityType() const {
  using This = NexthopConfig;
  static const Lattis::EntityType type{
      "Routing::NexthopConfig",
      {},
      {Lattis::childField<This, static_cast<const Vrfs& (This::*)() const>(&This::vrf), &This::vrfIs, &This::vrfDel>(
          "vrf")}};
  return type;
}

void NexthopVrfStatus::nexthopIs(const IpGenAddr& addr, Fib::FecId fecId) {
  if (nexthops_.is(addr, fecId)) notify<Reactor>([&](Reactor& reactor) { reactor.handleNexthop(addr); });
}

void NexthopVrfStatus::nexthopDel(const IpGenAddr& addr) {
  if (nexthops_.del(addr)) notify<Reactor>([key = addr](Reactor& reactor) { reactor.handleNexthop(key); });
}

const Lattis::EntityType& NexthopVrfStatus::entityType() const {
  using This = NexthopVrfStatus;
  static const Lattis::EntityType type{
      "Routing::NexthopVrfStatus",
      {},
      {Lattis::mapField<This, static_cast<const Nexthops& (This::*)() const>(&This::nexthop), &This::nexthopIs,
                        &This::nexthopDel>("nexthop")}};
  return type;
}

std::shared_ptr<NexthopVrfStatus> NexthopStatus::vrf(const L3::VrfName& name) const {
  return vrfs_.find(name).value_or(nullptr);
}

std::shared_ptr<NexthopVrfStatus> NexthopStatus::vrfIs(const L3::VrfName& name) {
  auto found = vrf(name);
  if (found) return found;
  found = std::make_shared<NexthopVrfStatus>(name.text());
  vrfs_.is(name, found);
  notify<Reactor>([&](Reactor& reactor) { reactor.handleVrf(name); });
  return found;
}

void NexthopStatus::vrfDel(const L3::VrfName& name) {
  if (vrfs_.del(name)) notify<Reactor>([key = name](Reactor& reactor) { reactor.handleVrf(key); });
}

const Lattis::EntityType& NexthopStatus::entityType() const {
  using This = NexthopStatus;
  static const Lattis::EntityType type{
      "Routing::NexthopStatus",
      {},
      {Lattis::childField<This, static_cast<const Vrfs& (This::*)() const>(&This::vrf), &This::vrfIs, &This::vrfDel>(
          "vrf")}};
  return type;
}

void UnderlayRouteConfig::routeIs(const IpGenPrefix& prefix, Fib::FecId fecId) {
  if (routes_.is(prefix, fecId)) notify<Reactor>([&](Reactor& reactor) { reactor.handleRoute(prefix); });
}

void UnderlayRouteConfig::routeDel(const IpGenPrefix& prefix) {
  if (routes_.del(prefix)) notify<Reactor>([key = prefix](Reactor& reactor) { reactor.handleRoute(key); });
}

std::optional<Fib::FecId> UnderlayRouteConfig::longestMatch(const IpGenAddr& addr) const {
  const unsigned longest = addr.isV4() ? Prefix::maxLength : Ip6Prefix::maxLength;
  if (addr.isEmpty()) return std::nullopt;
  // The underlay has few prefixes: one exact lookup for each length is cheap enough.
  for (unsigned length = longest + 1; length-- > 0;) {
    const IpGenPrefix prefix =
        addr.isV4() ? IpGenPrefix(Prefix(addr.v4(), length)) : IpGenPrefix(Ip6Prefix(addr.v6(), length));
    if (const auto fecId = routes_.find(prefix)) return fecId;
  }
  return std::nullopt;
}

const Lattis::EntityType& UnderlayRouteConfig::entityType() const {
  using This = UnderlayRouteConfig;
  static const Lattis::EntityType type{
      "Routing::UnderlayRouteConfig",
      {},
      {Lattis::mapField<This, &This::route, &This::routeIs, &This::routeDel>("route")}};
  return type;
}

}  // namespace Routing
