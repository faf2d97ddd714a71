#include "simulator/forwarding/RouteIndex.h"

namespace Simulator {

RouteHandle RouteIndex::hold(const Key& key, Holder holder) {
  RouteHandle route = find(key);
  const bool isNew = route == noRoute;
  if (isNew) {
    if (free_.empty()) {
      route = static_cast<RouteHandle>(routes_.size());
      routes_.emplace_back();
    } else {
      route = free_.back();
      free_.pop_back();
    }
    routes_[route].key = key;
    numbers_.insert({key, route});
    auto& trie = tries_[key.vrfId()];
    if (!trie) trie = std::make_unique<Routing::Trie>();
    trie->routeIs(key.prefix(), true);
  }
  routes_[route].holders |= static_cast<std::uint8_t>(holder);
  if (isNew && changed_) changed_(key);
  return route;
}

void RouteIndex::release(RouteHandle route, Holder holder) {
  if (!held(route, holder)) return;
  routes_[route].holders &= static_cast<std::uint8_t>(~static_cast<std::uint8_t>(holder));
  if (routes_[route].holders != 0) return;
  const Key key = routes_[route].key;
  numbers_.erase(key);
  free_.push_back(route);
  const auto trie = tries_.find(key.vrfId());
  trie->second->routeDel(key.prefix());
  if (trie->second->empty()) tries_.erase(trie);
  if (changed_) changed_(key);
}

RouteHandle RouteIndex::find(const Key& key) const {
  const Number* number = numbers_.find(key);
  return number == nullptr ? noRoute : number->route;
}

RouteHandle RouteIndex::longestMatch(const Destination& destination) const {
  const auto trie = tries_.find(destination.hwVrfId);
  if (trie == tries_.end()) return noRoute;
  const auto prefix = trie->second->longestMatch(Prefix(destination.addr, Prefix::maxLength));
  return prefix ? find(Key(*prefix, destination.hwVrfId)) : noRoute;
}

}  // namespace Simulator
