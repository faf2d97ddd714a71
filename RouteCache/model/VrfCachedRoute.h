#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/state/Entity.h"
#include "platform/values/Net.h"

namespace Platform {
template <class P>
class BasicTrie;
}  // namespace Platform
namespace Routing {
using Trie = Platform::BasicTrie<Prefix>;
}  // namespace Routing
namespace Routing6 {
using Trie = Platform::BasicTrie<Ip6Prefix>;
}  // namespace Routing6

namespace RouteCache {

// The tries of cached FIB routes by hardware VRF id, one map for each family. Looked up for every route, so hashed.
class VrfCachedRoute final : public Lattis::Entity {
 public:
  static constexpr const char* typeName = "RouteCache::VrfCachedRoute";
  class Reactor : public Lattis::ReactorOf<VrfCachedRoute> {
   public:
    using ReactorOf::ReactorOf;
    virtual void handleVrfTrie(std::uint32_t /*hwVrfId*/) {}  // added, replaced by another object, or removed
    virtual void handleVrfTrie6(std::uint32_t /*hwVrfId*/) {}
  };

  using Entity::Entity;
  // Null when there is none.
  std::shared_ptr<Routing::Trie> vrfTrie(std::uint32_t hwVrfId) const;
  void vrfTrieIs(std::uint32_t hwVrfId, std::shared_ptr<Routing::Trie> trie);
  void vrfTrieDel(std::uint32_t hwVrfId);
  void vrfTrieDelAll();
  std::map<std::uint32_t, std::shared_ptr<Routing::Trie>> vrfTries() const;  // a copy, in order
  std::vector<std::uint32_t> vrfTrieIds() const;                             // hardware VRF ids, in order

  std::shared_ptr<Routing6::Trie> vrfTrie6(std::uint32_t hwVrfId) const;
  void vrfTrie6Is(std::uint32_t hwVrfId, std::shared_ptr<Routing6::Trie> trie);
  void vrfTrie6Del(std::uint32_t hwVrfId);
  void vrfTrie6DelAll();
  std::map<std::uint32_t, std::shared_ptr<Routing6::Trie>> vrfTries6() const;
  std::vector<std::uint32_t> vrfTrie6Ids() const;

  const Lattis::EntityType& entityType() const override;

 private:
  template <class T>
  using Tries = std::unordered_map<std::uint32_t, std::shared_ptr<T>>;
  using Handler = void (Reactor::*)(std::uint32_t);
  template <class T>
  void set(Tries<T>& tries, std::uint32_t hwVrfId, std::shared_ptr<T> trie, Handler handler);
  template <class T>
  void remove(Tries<T>& tries, std::uint32_t hwVrfId, Handler handler);
  template <class T>
  void removeAll(Tries<T>& tries, Handler handler);
  Tries<Routing::Trie> tries_;
  Tries<Routing6::Trie> tries6_;
};
std::shared_ptr<VrfCachedRoute> vrfCachedRouteFactory(const std::string& name);

}  // namespace RouteCache
