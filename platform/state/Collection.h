// An ordered map that knows whether a write changed it: the storage behind the collections of entities.
#pragma once

#include <map>
#include <optional>
#include <utility>

namespace Lattis {

template <class K, class V>
class Collection {
 public:
  using Map = std::map<K, V>;
  const Map& entries() const { return entries_; }
  bool has(const K& key) const { return entries_.contains(key); }
  // The value, or nothing.
  std::optional<V> find(const K& key) const {
    const auto found = entries_.find(key);
    return found == entries_.end() ? std::nullopt : std::optional<V>(found->second);
  }
  // True when the entry is new or had another value.
  bool is(const K& key, V value) {
    const auto [entry, inserted] = entries_.try_emplace(key, value);
    if (inserted) return true;
    if (entry->second == value) return false;
    entry->second = std::move(value);
    return true;
  }
  // True when there was an entry.
  bool del(const K& key) { return entries_.erase(key) != 0; }

 private:
  Map entries_;
};

}  // namespace Lattis
