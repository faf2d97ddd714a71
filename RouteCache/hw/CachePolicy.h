// The rule by which hardware caches routes: which cacheable routes are let in, and how many idle ones have to go.
//
// HwRouteSm does the work and asks: it counts the places, files the routes by how long they have been idle, lets in
// first who was hit last, takes out first who has been idle longest, and never takes out what is hit, not cacheable or
// still to be decided. It asks for decisions, a few in a route's turn, never at a look-up.
//
// Another rule is a class of its own in a file beside LevelsPolicy.cpp, and its line in cachePolicies
// (CachePolicy.cpp).
#pragma once

#include <memory>
#include <optional>
#include <string_view>

#include "RouteCache/model/StatusTables.h"

namespace RouteCache {

// A level of utilisation, and how far up in the time slices routes may go from there on.
struct CacheLevel {
  std::uint8_t hwUtilPercentage = 0;
  std::uint16_t idleTimeSlice = 0;
};

// What a policy decides by. HwRouteSm keeps it.
struct CacheState {
  // Places in use, in percent of the capacity, rounded down.
  std::uint32_t percentUsed() const;

  const std::uint32_t capacity;  // entries, at least 1
  std::uint32_t spaceLeft = 0;   // entries
  // The operator's levels.
  CacheLevel high{95, 250};
  CacheLevel medium{90, 240};
  CacheLevel low{85, 200};
};

// One run of ageing: routes are to go from slices 0 to `top` (at most timeSliceMax), the idlest first.
struct AgeingPlan {
  std::uint32_t toRemove = 0;  // routes, those included that earlier runs have released
  std::uint16_t top = 0;
};

// Made for one HwRouteSm, whose CacheState outlives it.
class CachePolicy {
 public:
  using Key = Ipv4RouteVrfKey;

  virtual ~CachePolicy() = default;

  // Places are scarce: changes are decided in batches, and whoever is let in has to be hit in hardware, or goes with
  // the second ageing run that follows.
  virtual bool isScarce() const = 0;
  // Whether a cacheable route that is not in hardware may come in; there is room. `sfeHitbit`: 0 when nobody has hit it
  // in software. One that may not comes again when its SFE entry or its hit bit changes.
  virtual bool admits(const Ipv4Route& sfeRoute, std::uint32_t sfeHitbit) const = 0;
  // The scan is complete: what is to go now, if any. `pending`: routes that have been hit in software.
  virtual std::optional<AgeingPlan> ageingPlan(std::uint32_t pending) = 0;

  // --- What it may want to remember of routes ---
  // A cacheable route was not let in, for want of room or because it was not admitted.
  virtual void handleLeftOut(const Ipv4Route& sfeRoute, std::uint32_t sfeHitbit) = 0;
  // Ageing has taken the route out of hardware, and it is not to come back like any other (HwRouteSm::admitAgedUnhit).
  virtual void handleAged(const Ipv4Route& hwRoute) = 0;
  // The route has come in, was withdrawn, has lost its adjacency, or is not cacheable: what ageing has done to it does
  // not matter any more.
  virtual void forget(const Key& key) = 0;
  virtual void forgetAll() = 0;

  // Aborts when what it remembers does not go with the hardware table.
  virtual void checkInvariants(const Ipv4RouteStatus& hwRoutes) const = 0;
};

// A policy by its name.
struct CachePolicyKind {
  std::string_view name;  // a literal
  std::unique_ptr<CachePolicy> (*make)(const CacheState& state);
};
inline constexpr std::string_view defaultCachePolicy = "levels";
// Throws BadText, which names those that there are.
CachePolicyKind cachePolicyKind(std::string_view name);

}  // namespace RouteCache
