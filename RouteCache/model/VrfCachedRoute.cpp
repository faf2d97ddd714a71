#include "RouteCache/model/VrfCachedRoute.h"

#include "RouteCache/model/Maps.h"
#include "platform/tables/Trie.h"

namespace RouteCache {

std::shared_ptr<VrfCachedRoute> vrfCachedRouteFactory(const std::string& name) {
  return std::make_shared<VrfCachedRoute>(name);
}

template <class T>
void VrfCachedRoute::set(Tries<T>& tries, std::uint32_t hwVrfId, std::shared_ptr<T> trie, Handler handler) {
  if (!insertOrReplace(tries, hwVrfId, std::move(trie))) return;
  notify<Reactor>([&](Reactor& reactor) { (reactor.*handler)(hwVrfId); });
}

template <class T>
void VrfCachedRoute::remove(Tries<T>& tries, std::uint32_t hwVrfId, Handler handler) {
  if (tries.erase(hwVrfId) != 0) notify<Reactor>([&](Reactor& reactor) { (reactor.*handler)(hwVrfId); });
}

template <class T>
void VrfCachedRoute::removeAll(Tries<T>& tries, Handler handler) {
  const auto removed = inOrder(std::exchange(tries, {}));
  for (const auto& [hwVrfId, trie] : removed) {
    notify<Reactor>([hwVrfId = hwVrfId, handler](Reactor& reactor) { (reactor.*handler)(hwVrfId); });
  }
}

std::shared_ptr<Routing::Trie> VrfCachedRoute::vrfTrie(std::uint32_t hwVrfId) const {
  return valueOrDefault(tries_, hwVrfId);
}
void VrfCachedRoute::vrfTrieIs(std::uint32_t hwVrfId, std::shared_ptr<Routing::Trie> trie) {
  set(tries_, hwVrfId, std::move(trie), &Reactor::handleVrfTrie);
}
void VrfCachedRoute::vrfTrieDel(std::uint32_t hwVrfId) {
  remove(tries_, hwVrfId, &Reactor::handleVrfTrie);
}
void VrfCachedRoute::vrfTrieDelAll() {
  removeAll(tries_, &Reactor::handleVrfTrie);
}
std::map<std::uint32_t, std::shared_ptr<Routing::Trie>> VrfCachedRoute::vrfTries() const {
  return inOrder(tries_);
}
std::vector<std::uint32_t> VrfCachedRoute::vrfTrieIds() const {
  return keysInOrder(tries_);
}

std::shared_ptr<Routing6::Trie> VrfCachedRoute::vrfTrie6(std::uint32_t hwVrfId) const {
  return valueOrDefault(tries6_, hwVrfId);
}
void VrfCachedRoute::vrfTrie6Is(std::uint32_t hwVrfId, std::shared_ptr<Routing6::Trie> trie) {
  set(tries6_, hwVrfId, std::move(trie), &Reactor::handleVrfTrie6);
}
void VrfCachedRoute::vrfTrie6Del(std::uint32_t hwVrfId) {
  remove(tries6_, hwVrfId, &Reactor::handleVrfTrie6);
}
void VrfCachedRoute::vrfTrie6DelAll() {
  removeAll(tries6_, &Reactor::handleVrfTrie6);
}
std::map<std::uint32_t, std::shared_ptr<Routing6::Trie>> VrfCachedRoute::vrfTries6() const {
  return inOrder(tries6_);
}
std::vector<std::uint32_t> VrfCachedRoute::vrfTrie6Ids() const {
  return keysInOrder(tries6_);
}

const Lattis::EntityType& VrfCachedRoute::entityType() const {
  using This = VrfCachedRoute;
  static const Lattis::EntityType type{typeName,
                                       {},
                                       {hashedChildField<This, &This::vrfTries, &This::vrfTrie>("vrfTrie"),
                                        hashedChildField<This, &This::vrfTries6, &This::vrfTrie6>("vrfTrie6")}};
  return type;
}

}  // namespace RouteCache
