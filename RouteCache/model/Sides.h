// What stands once for each address family.
//
// A class that treats both families alike names what it keeps of one, as a struct template over Ipv4Family and
// Ipv6Family, and holds both in Sides. Its functions are templates over the family: of<Family>() is their half.
#pragma once

#include <type_traits>

#include "RouteCache/model/StatusTables.h"
#include "platform/tables/Trie.h"

namespace RouteCache {

// The one of two types that is the family's.
template <class Family, class OfIpv4, class OfIpv6>
using ByFamily = std::conditional_t<std::is_same_v<Family, Ipv4Family>, OfIpv4, OfIpv6>;

// The same for values.
template <class Family, class OfIpv4, class OfIpv6>
constexpr auto byFamily(OfIpv4 ofIpv4, OfIpv6 ofIpv6) {
  if constexpr (std::is_same_v<Family, Ipv4Family>) {
    return ofIpv4;
  } else {
    return ofIpv6;
  }
}

template <class Family>
using RouteStatus = ByFamily<Family, Ipv4RouteStatus, Ipv6RouteStatus>;
template <class Family>
using AdjacencyStatus = ByFamily<Family, Ipv4AdjacencyStatus, Ipv6AdjacencyStatus>;
template <class Family>
using CachedTrie = ByFamily<Family, Routing::Trie, Routing6::Trie>;

template <template <class Family> class Side>
struct Sides {
  Side<Ipv4Family> v4;
  Side<Ipv6Family> v6;

  template <class Family>
  auto& of() {
    if constexpr (std::is_same_v<Family, Ipv4Family>) {
      return v4;
    } else {
      return v6;
    }
  }
  template <class Family>
  const auto& of() const {
    return const_cast<Sides*>(this)->of<Family>();
  }
};

}  // namespace RouteCache
