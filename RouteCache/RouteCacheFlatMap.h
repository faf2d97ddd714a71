// Hash containers that keep their entries in one array: a million small keys cost their own size and little more.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

namespace RouteCache {

// A set of values that name their key by KeyOf. Open addressing with linear probing; entries move when the set grows or
// one is erased, so nothing points into it. Key has hash() and ==; memory is returned when the set has become empty.
template <class Value, class Key, class KeyOf>
class FlatTable {
 public:
  std::size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }

  Value* find(const Key& key) {
    if (size_ == 0) return nullptr;
    for (std::size_t i = home(key);; i = next(i)) {
      if (!slots_[i]) return nullptr;
      if (KeyOf()(*slots_[i]) == key) return &*slots_[i];
    }
  }
  const Value* find(const Key& key) const { return const_cast<FlatTable*>(this)->find(key); }
  bool has(const Key& key) const { return find(key) != nullptr; }

  // Inserts unless the key is there; returns what is there then, and whether it is new.
  std::pair<Value*, bool> insert(const Value& value) {
    if ((size_ + 1) * 4 > slots_.size() * 3) grow();
    std::size_t i = home(KeyOf()(value));
    for (; slots_[i]; i = next(i)) {
      if (KeyOf()(*slots_[i]) == KeyOf()(value)) return {&*slots_[i], false};
    }
    slots_[i] = value;
    ++size_;
    return {&*slots_[i], true};
  }

  bool erase(const Key& key) {
    Value* found = find(key);
    if (found == nullptr) return false;
    std::size_t hole = home(key);
    while (!slots_[hole] || &*slots_[hole] != found) hole = next(hole);
    // Close the gap: an entry whose probe path crosses the hole moves into it.
    for (std::size_t i = next(hole); slots_[i]; i = next(i)) {
      const std::size_t wanted = home(KeyOf()(*slots_[i]));
      const bool crosses = hole <= i ? (wanted <= hole || wanted > i) : (wanted <= hole && wanted > i);
      if (!crosses) continue;
      slots_[hole] = slots_[i];
      hole = i;
    }
    slots_[hole].reset();
    if (--size_ == 0) clear();
    return true;
  }

  void clear() {
    std::vector<std::optional<Value>>().swap(slots_);
    size_ = 0;
  }

  // Calls visit(value) for every entry, in no order that means anything. Nothing may be inserted or erased meanwhile.
  template <class Visit>
  void forEach(Visit&& visit) const {
    for (const auto& slot : slots_) {
      if (slot) visit(*slot);
    }
  }

 private:
  std::size_t home(const Key& key) const { return static_cast<std::size_t>(key.hash()) & (slots_.size() - 1); }
  std::size_t next(std::size_t i) const { return (i + 1) & (slots_.size() - 1); }
  void grow() {
    std::vector<std::optional<Value>> old(slots_.empty() ? 16 : slots_.size() * 2);
    old.swap(slots_);
    for (auto& slot : old) {
      if (!slot) continue;
      std::size_t i = home(KeyOf()(*slot));
      while (slots_[i]) i = next(i);
      slots_[i] = std::move(slot);
    }
  }
  std::vector<std::optional<Value>> slots_;  // a power of two, or none
  std::size_t size_ = 0;
};

struct FlatSelf {
  template <class Key>
  const Key& operator()(const Key& key) const {
    return key;
  }
};

template <class Key>
using FlatSet = FlatTable<Key, Key, FlatSelf>;

}  // namespace RouteCache
