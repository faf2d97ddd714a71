// Routes that wait for an adjacency to be written. When it is, they are ready, and are taken one by one.
//
// Everything in constant time, however many wait.
//
// Invariant: a key waits for one adjacency or is ready; an adjacency has a ring as long as somebody waits for it.
#pragma once

#include <optional>
#include <unordered_map>

#include "RouteCache/model/Values.h"
#include "RouteCache/queues/KeyRings.h"

namespace RouteCache {

class AdjacencyWait {
 public:
  using Key = Ipv4RouteVrfKey;

  AdjacencyWait() : ready_(rings_.ringIs()) {}

  bool empty() const { return rings_.empty(); }
  bool has(const Key& key) const { return rings_.find(key) != Rings::none; }
  // The key waits for this adjacency, and for no other.
  void keyIs(const Key& key, AdjId adjId) {
    keyDel(key);
    const auto node = rings_.insert(key);
    rings_.data(node) = adjId;
    const auto [ring, isNew] = waiting_.try_emplace(adjId, Rings::none);
    if (isNew) ring->second = rings_.ringIs();
    rings_.append(ring->second, node);
  }
  void keyDel(const Key& key) {
    const auto node = rings_.find(key);
    if (node == Rings::none) return;
    const auto ring = waiting_.find(rings_.data(node));
    rings_.unlink(node);
    if (ring != waiting_.end() && rings_.first(ring->second) == Rings::none) ringDel(ring);
    rings_.erase(node);
  }
  // The adjacency stands: whoever waits for it is ready.
  void adjacencyIs(AdjId adjId) {
    const auto ring = waiting_.find(adjId);
    if (ring == waiting_.end()) return;
    rings_.splice(ring->second, ready_);
    ringDel(ring);
  }
  // The key that has been ready longest, which stays.
  std::optional<Key> readyKey() const {
    const auto node = rings_.first(ready_);
    if (node == Rings::none) return std::nullopt;
    return rings_.key(node);
  }

 private:
  using Rings = KeyRings<Key, AdjId>;
  using Waiting = std::unordered_map<AdjId, Rings::Node, Platform::Hasher>;
  void ringDel(Waiting::iterator ring) {
    rings_.ringDel(ring->second);
    waiting_.erase(ring);
  }

  Rings rings_;  // each key with the adjacency that it waits for, or waited for
  Rings::Node ready_;
  Waiting waiting_;
};

}  // namespace RouteCache
