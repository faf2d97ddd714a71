// The routes that forwarding is about, numbered: a route key has one small number for as long as one of the two planes
// holds it, so that what is known of routes lies in arrays and a packet costs no search.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <vector>

#include "RouteCache/FlatTable.h"
#include "RouteCache/RouteCache.h"
#include "platform/tables/Trie.h"
#include "simulator/traffic/TrafficSource.h"

namespace Simulator {

// Small. The number of a route that nobody holds any more may become that of another.
using RouteHandle = std::uint32_t;
inline constexpr RouteHandle noRoute = 0xFFFFFFFF;

// Who holds a route. Bits.
enum class Holder : std::uint8_t { hardware = 1, sfe = 2 };

class RouteIndex {
 public:
  using Key = RouteCache::Ipv4RouteVrfKey;

  // Called for every key that comes or goes, once longestMatch() knows.
  void changedIs(std::function<void(const Key&)> changed) { changed_ = std::move(changed); }

  // The route's number, a new one when nobody held it. Holding twice is holding once.
  RouteHandle hold(const Key& key, Holder holder);
  // The number stays while the other plane holds the route. Nothing happens when this one does not.
  void release(RouteHandle route, Holder holder);
  // noRoute when nobody holds it.
  RouteHandle find(const Key& key) const;
  bool held(RouteHandle route, Holder holder) const {
    return route < routes_.size() && (routes_[route].holders & static_cast<std::uint8_t>(holder)) != 0;
  }
  const Key& key(RouteHandle route) const { return routes_[route].key; }
  // The longest of the held prefixes that covers the destination in its VRF.
  RouteHandle longestMatch(const Destination& destination) const;

 private:
  struct Route {
    Key key;
    std::uint8_t holders = 0;
  };
  struct Number {
    Key key;
    RouteHandle route = noRoute;
  };
  struct KeyOf {
    const Key& operator()(const Number& number) const { return number.key; }
  };

  std::vector<Route> routes_;
  std::vector<RouteHandle> free_;
  RouteCache::FlatTable<Number, Key, KeyOf> numbers_;
  std::map<std::uint32_t, std::unique_ptr<Routing::Trie>> tries_;  // by hardware VRF id
  std::function<void(const Key&)> changed_;
};

// One value for each route number, the default where nothing was set.
template <class T>
class PerRoute {
 public:
  T& operator[](RouteHandle route) {
    if (route >= values_.size()) values_.resize(route + 1 + route / 2);
    return values_[route];
  }
  const T& at(RouteHandle route) const { return route < values_.size() ? values_[route] : none_; }

 private:
  std::vector<T> values_;
  T none_{};
};

}  // namespace Simulator
