// A note about each of some keys, in the order in which the notes were made.
#pragma once

#include <optional>

#include "RouteCache/queues/KeyRings.h"

namespace RouteCache {

// Everything in constant time; nothing is looked up while there is no note.
template <class Key, class Note>
class KeyNotes {
 public:
  KeyNotes() : ring_(rings_.ringIs()) {}

  std::size_t size() const { return rings_.size(); }
  bool empty() const { return rings_.empty(); }
  bool has(const Key& key) const { return find(key) != nullptr; }
  // Null when there is none; good until the next change.
  Note* find(const Key& key) {
    const auto node = rings_.find(key);
    return node == Rings::none ? nullptr : &rings_.data(node);
  }
  const Note* find(const Key& key) const { return const_cast<KeyNotes*>(this)->find(key); }
  // Makes a note, the newest one; an older one about the key is gone.
  void noteIs(const Key& key, const Note& note) {
    const auto node = rings_.insert(key);
    rings_.data(node) = note;
    rings_.append(ring_, node);
  }
  void noteDel(const Key& key) { rings_.eraseKey(key); }
  void noteDelAll() { rings_.clearKeys(); }
  std::optional<Key> oldestKey() const {
    const auto node = rings_.first(ring_);
    if (node == Rings::none) return std::nullopt;
    return rings_.key(node);
  }
  // Calls visit(key, note) for every note, the oldest first. No note may be made or deleted meanwhile.
  template <class Visit>
  void forEach(Visit&& visit) const {
    for (auto node = rings_.first(ring_); node != Rings::none; node = rings_.next(node)) {
      visit(rings_.key(node), rings_.data(node));
    }
  }

 private:
  using Rings = KeyRings<Key, Note>;
  Rings rings_;
  typename Rings::Node ring_;
};

}  // namespace RouteCache
