// A work queue of keys in which those that wait for room are set apart: a fresh key never stands behind them, and they
// cost nothing while there is no room. There may be several kinds of room to wait for.
//
// Invariant: every queued key is fresh or waiting for one kind of room.
#pragma once

#include <array>
#include <optional>
#include <span>
#include <utility>

#include "RouteCache/queues/KeyRings.h"

namespace RouteCache {

// A kind is a number below `kinds`.
template <class Key, unsigned kinds = 1>
class KeyQueue {
 public:
  KeyQueue() : fresh_(rings_.ringIs()) {
    for (auto& ring : waiting_) ring = rings_.ringIs();
  }

  std::size_t size() const { return rings_.size(); }
  bool empty() const { return rings_.empty(); }
  bool has(const Key& key) const { return rings_.find(key) != Rings::none; }
  bool hasFresh() const { return freshCount_ != 0; }
  std::size_t freshCount() const { return freshCount_; }
  bool hasWaiting(unsigned kind = 0) const { return rings_.first(waiting_[kind]) != Rings::none; }

  // Queues the key, fresh; behind the other fresh ones, where one that was queued fresh keeps its place.
  void keyIs(const Key& key) {
    const auto node = rings_.insert(key);
    if (std::exchange(rings_.data(node).fresh, true)) return;
    ++freshCount_;
    rings_.append(fresh_, node);
  }
  // Queues the key, or keeps it queued, among those that wait for room.
  void waitingKeyIs(const Key& key, unsigned kind = 0) {
    const auto node = rings_.insert(key);
    if (std::exchange(rings_.data(node).fresh, false)) --freshCount_;
    rings_.append(waiting_[kind], node);
  }
  // All that wait for one kind wait for the other now, behind those that do already.
  void waitingKindIs(unsigned from, unsigned to) { rings_.splice(waiting_[from], waiting_[to]); }
  // False: it was not queued.
  bool keyDel(const Key& key) {
    const auto gone = rings_.eraseKey(key);
    if (gone && gone->fresh) --freshCount_;
    return gone.has_value();
  }
  void keyDelAll() {
    rings_.clearKeys();
    freshCount_ = 0;
  }

  // The oldest key of its kind, which stays queued. Whoever handles it deletes it or lets it wait.
  std::optional<Key> freshKey() const { return keyAt(rings_.first(fresh_)); }
  std::optional<Key> waitingKey(unsigned kind = 0) const { return keyAt(rings_.first(waiting_[kind])); }
  // The keys that freshKey() would give one after the other, as many as there is room for; how many.
  std::size_t freshKeys(std::span<Key> keys) const { return rings_.firstKeys(fresh_, keys); }
  // The key that is handled next, or the zero key: where the work resumes.
  Key bookmark() const {
    auto next = freshKey();
    for (unsigned kind = 0; kind < kinds && !next; ++kind) next = waitingKey(kind);
    return next.value_or(Key());
  }

 private:
  struct Data {
    bool fresh = false;
  };
  using Rings = KeyRings<Key, Data>;
  std::optional<Key> keyAt(typename Rings::Node node) const {
    if (node == Rings::none) return std::nullopt;
    return rings_.key(node);
  }

  Rings rings_;
  typename Rings::Node fresh_;
  std::array<typename Rings::Node, kinds> waiting_;
  std::size_t freshCount_ = 0;
};

}  // namespace RouteCache
