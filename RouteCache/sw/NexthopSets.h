// What vias come to, worked out once for all the routes that leave by one: its next hops with the tunnel interfaces as
// they are, and the identifier that they had last.
//
// Nobody tells of changes of vias, so each route asks: while no via at all has changed, a set is as it was, and after
// that for as long as its own via's bytes are. Kept while routes are being decided, and dropped when none has been
// for a while: sets cost no memory in an agent at rest.
//
// Of a set that was looked up viaKey, readAt and bytes are right; what follows underlayChange is once bringUpToDate()
// has seen to it, and a hint before. adjId is a hint always: the adjacency is asked whether it still is its own.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <unordered_map>
#include <vector>

#include "RouteCache/queues/ReadAhead.h"
#include "RouteCache/sw/Underlay.h"
#include "platform/tables/Rib.h"
#include "platform/values/Assert.h"

namespace RouteCache {

struct NexthopSet {
  Routing::Rib::ViaKey viaKey = 0;
  std::uint64_t readAt = 0;                // the table's last change when the via was read
  std::vector<std::byte> bytes;            // of the via, as they lie in its table
  std::uint64_t underlayChange = 0;        // after which of the tunnel interfaces what follows was made; 0: not yet
  bool isVia = false;                      // the bytes are those of a via that routes can leave by
  std::string fault;                       // why not, where there is more to say; else empty
  std::shared_ptr<IpMixedNexthopRef> ref;  // null: not ready
  AdjId adjId;                             // a guess: what its next hops were known by last
};

// Looked up in as a table is (see lookUp()).
class NexthopSets {
 public:
  using Key = Routing::Rib::ViaKey;
  // Stays where it is while others come; until dropSome(), which is for the time between two runs.
  using Value = NexthopSet*;
  // A stream of changes that never ends brings ever new ones: beyond so many some are dropped in between.
  static constexpr std::size_t most = 65536;

  // Underlay outlives it.
  NexthopSets(std::shared_ptr<const Routing::Rib::RouteCache::Evpn::ViaConfig> viaConfig, const Underlay& underlay)
      : viaConfig_(std::move(viaConfig)), underlay_(underlay) {}

  // The set of a via that stands in the table, not made yet or as it was; nothing: there is no such via.
  std::optional<NexthopSet*> entry(Key viaKey);
  // Of a group that is read ahead: at most readAheadGroup of them.
  template <class Visit>
  void entries(std::span<const Key> viaKeys, Visit visit) {
    PLATFORM_ASSERT(viaKeys.size() <= readAheadGroup);
    const std::uint64_t now = viaConfig_->lastChange();
    std::array<Key, readAheadGroup> unknown;
    std::array<std::size_t, readAheadGroup> numbers;
    std::size_t count = 0;
    for (std::size_t i = 0; i < viaKeys.size(); ++i) {
      const auto found = sets_.find(viaKeys[i]);
      if (found != sets_.end() && found->second.readAt == now) {
        visit(i, std::optional(&found->second));
      } else {
        numbers[count] = i;
        unknown[count++] = viaKeys[i];
      }
    }
    viaConfig_->encodedEntries(std::span<const Key>(unknown).first(count),
                               [&](std::size_t i, const std::optional<Pondra::Bytes>& via) {
                                 visit(numbers[i], via ? std::optional(setOf(unknown[i], *via, now)) : std::nullopt);
                               });
  }
  // Makes the set, or makes it anew after a change of the tunnel interfaces, when it is needed.
  void bringUpToDate(NexthopSet& set) const {
    if (set.underlayChange != underlayChanges_) make(set);
  }
  // The tunnel interfaces have changed: every set is made anew before it is used again.
  void handleUnderlay() { ++underlayChanges_; }

  std::size_t size() const { return sets_.size(); }
  // So many that it takes no noticeable time. Those that stay are as good as before.
  void dropSome();

 private:
  // Read after the table's change of this number.
  NexthopSet* setOf(Key viaKey, Pondra::Bytes via, std::uint64_t readAt);
  void make(NexthopSet& set) const;

  const std::shared_ptr<const Routing::Rib::RouteCache::Evpn::ViaConfig> viaConfig_;
  const Underlay& underlay_;
  std::uint64_t underlayChanges_ = 1;
  std::unordered_map<Key, NexthopSet> sets_;
};

}  // namespace RouteCache
