// Places are given away up to the low level, and to routes that are hit from there on; idle routes go by the level.
//
// Below the low level nothing is scarce: every cacheable route comes in unasked, but for what ageing took out, and none
// has to go. At or above it a route comes in once traffic has hit it in software, and as many idle ones go as are above
// the level, or as have been hit in software. How idle they must be says the level that is reached: the low one's slice
// at least, and where routes wait to come in that of the highest level reached.
//
// What ageing has taken out is remembered, the capacity's number of keys at most, the oldest forgotten first. Such a
// route is not admitted unasked: without a hit it would come and go with every scan, for its SFE entry changes when it
// goes. It is forgotten when traffic hits it in software, when it gets another adjacency identifier or loses its
// adjacency, when the SFE does not have it any more, and when it is found not to be cacheable.
//
// Invariant: what is remembered is not in the hardware table, and no more of it than the capacity.
#pragma once

#include "RouteCache/hw/CachePolicy.h"
#include "RouteCache/queues/KeyNotes.h"

namespace RouteCache {

class LevelsPolicy final : public CachePolicy {
 public:
  explicit LevelsPolicy(const CacheState& state) : state_(state) {}

  bool isScarce() const override;
  bool admits(const Ipv4Route& sfeRoute, std::uint32_t sfeHitbit) const override;
  std::optional<AgeingPlan> ageingPlan(std::uint32_t pending) override;
  void handleLeftOut(const Ipv4Route& sfeRoute, std::uint32_t sfeHitbit) override;
  void handleAged(const Ipv4Route& hwRoute) override;
  void forget(const Key& key) override { agedOut_.noteDel(key); }
  void forgetAll() override { agedOut_.noteDelAll(); }
  void checkInvariants(const Ipv4RouteStatus& hwRoutes) const override;

 private:
  const CacheState& state_;
  KeyNotes<Key, AdjId> agedOut_;  // with the identifier that it had
};

}  // namespace RouteCache
