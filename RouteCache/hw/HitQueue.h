// The routes that traffic hits in software and that ask for a place in hardware: whoever was hit last is let in first.
//
// A key stands under the hit-bit value that the SFE reports, and among those of its value in the order in which they
// took it. As in every queue of this agent, a key is fresh until it has been decided, and waits for room from then on.
// The value counts down while a route stays idle and rises when it is hit again: the key then goes behind the others of
// the new value, and keeps whether it is fresh and how long it has been queued.
//
// A route that is hit less than others must not wait for ever: every so often it is the turn of the key that has been
// queued longest, whatever its value.
//
// Everything is done in constant time. 50 to 60 bytes a key.
//
// Invariants (checkInvariants): a queued key stands in the one ring of its value and kind, and once in the order of
// age; a value has its bit set as long as somebody stands under it.
#pragma once

#include <array>
#include <cstdint>
#include <optional>

#include "RouteCache/model/Values.h"
#include "RouteCache/queues/KeyRings.h"

namespace RouteCache {

class HitQueue {
 public:
  using Key = Ipv4RouteVrfKey;
  // One turn in so many is that of the key that has been queued longest.
  static constexpr unsigned turnsPerOldest = 16;

  HitQueue();

  std::size_t size() const { return rings_.size(); }
  bool empty() const { return rings_.empty(); }
  bool has(const Key& key) const { return rings_.find(key) != Rings::none; }
  bool hasFresh() const { return fresh_.top().has_value(); }
  bool hasWaiting() const { return waiting_.top().has_value(); }

  // Queues the key under this value; values over 255 count as 255. A new key is fresh.
  void keyIs(const Key& key, std::uint32_t value);
  // The same, and from now on it waits for room, behind the others of its value.
  void waitingKeyIs(const Key& key, std::uint32_t value);
  void keyDel(const Key& key);
  void keyDelAll();

  // The key whose turn it is while there is no room: those that wait are passed over. It stays queued.
  std::optional<Key> freshKey() const;
  // The key whose turn it is while there is room, fresh or not; among equal values those that wait come first. It stays
  // queued: whoever handles it deletes it or lets it wait. Counts as a turn.
  std::optional<Key> nextKey();
  // The key that has been queued longest, or nothing.
  std::optional<Key> oldestKey() const;
  // A key that is handled next, or the zero key.
  Key bookmark() const;

  void checkInvariants() const;

 private:
  static constexpr std::size_t values = 256;
  using Node = KeyRings<Key>::Node;
  struct Data {
    Node older = KeyRings<Key>::none;  // by when they were queued
    Node newer = KeyRings<Key>::none;
    std::uint8_t value = 0;
    bool queued = false;
    bool fresh = false;
  };
  using Rings = KeyRings<Key, Data>;
  // One kind of keys by value, and which values there are.
  struct Levels {
    std::optional<std::uint8_t> top() const;
    std::array<Node, values> rings{};
    std::array<std::uint64_t, values / 64> used{};
  };

  Levels& levelsOf(const Data& data) { return data.fresh ? fresh_ : waiting_; }
  std::optional<Key> keyAt(Node node) const;
  void enter(Node node, std::uint8_t value, bool fresh);
  void leave(Node node);

  Rings rings_;
  Levels fresh_;
  Levels waiting_;
  Node oldest_ = Rings::none;
  Node newest_ = Rings::none;
  unsigned turns_ = 0;
};

}  // namespace RouteCache
