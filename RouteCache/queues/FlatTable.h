// Hash containers that keep their entries in one array: a million small keys cost their own size and little more, and
// no single insertion pays for all of them, but for clearing two bytes a slot when it makes the array grow.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>
#include <vector>

#include "platform/values/Prefetch.h"

namespace RouteCache {

// A set of small values that name their key by KeyOf: the key lies in the value, or where the value says. Open
// addressing with linear probing. Entries move when others come and go, so nothing points into it for longer than until
// the next insert or erase. Memory is returned when the set has become empty.
//
// Growing is spread out: the array that has become too small stays beside its successor, and every insertion carries a
// few of its slots over.
//
// Invariants: every entry is in exactly one of the two arrays; no probe path of the current one has a gap; a slot's
// mark says how far from the slot of its hash the entry lies.
template <class Value, class Key, class KeyOf>
class FlatTable {
  static_assert(std::is_trivially_copyable_v<Value>);

 public:
  explicit FlatTable(KeyOf keyOf = KeyOf()) : keyOf_(keyOf) {}

  std::size_t size() const { return current_.used + old_.used; }
  bool empty() const { return size() == 0; }

  Value* find(const Key& key) { return find(key, key.hash()); }
  const Value* find(const Key& key) const { return const_cast<FlatTable*>(this)->find(key); }
  bool has(const Key& key) const { return find(key) != nullptr; }
  // Asks memory for what finding, inserting or erasing the key takes.
  void expect(const Key& key) const {
    const std::uint64_t hash = key.hash();
    for (const Array* array : {&current_, &old_}) {
      if (array->size() == 0) continue;
      const std::size_t home = array->home(hash);
      Platform::prefetch(array->marks.data() + home);
      Platform::prefetch(array->values.get() + home);
    }
  }

  // Inserts unless the key is there; returns what is there then, and whether it is new.
  std::pair<Value*, bool> insert(const Value& value) {
    const std::uint64_t hash = keyOf_(value).hash();
    if (Value* found = find(keyOf_(value), hash)) return {found, false};
    return {add(value, hash), true};
  }
  // Inserts a value whose key is known not to be there.
  Value* add(const Value& value) { return add(value, keyOf_(value).hash()); }

  bool erase(const Key& key) {
    Value* found = find(key);
    if (found != nullptr) eraseAt(found);
    return found != nullptr;
  }
  // Takes out what find() has just found.
  void eraseAt(Value* found) {
    if (current_.has(found)) {
      closeGap(static_cast<std::size_t>(found - current_.values.get()));
      --current_.used;
    } else {
      old_.marks[static_cast<std::size_t>(found - old_.values.get())] = moved;
      --old_.used;
    }
    if (empty()) clear();
  }

  // Makes room for this many entries at once; for an empty set.
  void reserve(std::size_t entries) {
    std::size_t slots = 16;
    while (entries * 4 > slots * 3) slots *= 2;
    if (empty() && entries > 0) current_ = Array(slots);
  }

  void clear() {
    current_ = Array();
    old_ = Array();
    carried_ = 0;
  }

  // Calls visit(value) for every entry, in no order that means anything. Nothing may be inserted or erased meanwhile.
  template <class Visit>
  void forEach(Visit&& visit) const {
    for (const Array* array : {&current_, &old_}) {
      for (std::size_t i = 0; i < array->size(); ++i) {
        if (isFull(array->marks[i])) visit(array->values.get()[i]);
      }
    }
  }

 private:
  static constexpr unsigned slotsPerInsertion = 8;
  // What a slot holds: nothing, an entry, or, in the old array, what has been carried over, which probe paths go on
  // behind. Of an entry the low byte says how many slots behind that of its hash it lies, the high one are bits of the
  // hash: nearly all other entries on a path are told apart from the one looked for, and gaps closed, without a look at
  // any key.
  using Mark = std::uint16_t;
  static constexpr Mark vacant = 0;
  static constexpr Mark far = 254;  // 253 slots or more
  static constexpr Mark moved = 255;
  static bool isFull(Mark mark) { return mark != vacant && mark != moved; }
  static Mark markAt(std::size_t distance) { return distance < far - 1 ? static_cast<Mark>(distance + 1) : far; }
  static Mark markAt(std::size_t distance, std::uint64_t hash) {
    return static_cast<Mark>(hash >> 56 << 8 | markAt(distance));
  }
  struct Release {
    void operator()(Value* values) const { ::operator delete(values); }
  };
  // A power of two of slots, or none. Only the marks are initialised: untouched slots cost no memory.
  struct Array {
    Array() = default;
    explicit Array(std::size_t slots)
        : marks(slots), values(static_cast<Value*>(::operator new(slots * sizeof(Value)))) {}
    std::size_t size() const { return marks.size(); }
    bool has(const Value* value) const {
      return !std::less<>()(value, values.get()) && std::less<>()(value, values.get() + size());
    }
    std::size_t next(std::size_t i) const { return (i + 1) & (marks.size() - 1); }
    std::size_t home(std::uint64_t hash) const { return static_cast<std::size_t>(hash) & (marks.size() - 1); }
    // How many slots `to` lies behind `from`, around the end.
    std::size_t distance(std::size_t from, std::size_t to) const { return (to - from) & (marks.size() - 1); }
    std::vector<Mark> marks;
    std::unique_ptr<Value, Release> values;
    std::size_t used = 0;
  };

  Value* find(const Key& key, std::uint64_t hash) {
    if (Value* found = findIn(current_, key, hash)) return found;
    return findIn(old_, key, hash);
  }
  Value* findIn(Array& array, const Key& key, std::uint64_t hash) {
    if (array.used == 0) return nullptr;
    std::size_t distance = 0;
    for (std::size_t i = array.home(hash); array.marks[i] != vacant; i = array.next(i), ++distance) {
      if (array.marks[i] == markAt(distance, hash) && keyOf_(array.values.get()[i]) == key)
        return array.values.get() + i;
    }
    return nullptr;
  }

  Value* add(const Value& value, std::uint64_t hash) {
    carryOver(slotsPerInsertion);
    if ((current_.used + 1) * 4 > current_.size() * 3) grow(current_.size() == 0 ? 16 : current_.size() * 2);
    return place(value, hash);
  }
  Value* place(const Value& value, std::uint64_t hash) {
    std::size_t i = current_.home(hash);
    std::size_t distance = 0;
    for (; current_.marks[i] != vacant; i = current_.next(i)) ++distance;
    current_.marks[i] = markAt(distance, hash);
    ++current_.used;
    return new (current_.values.get() + i) Value(value);
  }

  void grow(std::size_t slots) {
    carryOver(old_.size());  // nothing is left there as a rule: insertions carry over faster than they fill
    old_ = std::exchange(current_, Array(slots));
    carried_ = 0;
  }

  void carryOver(std::size_t slots) {
    for (; slots > 0 && carried_ < old_.size(); --slots, ++carried_) {
      if (!isFull(old_.marks[carried_])) continue;
      const Value& value = old_.values.get()[carried_];
      place(value, keyOf_(value).hash());
      old_.marks[carried_] = moved;
      --old_.used;
    }
    if (carried_ == old_.size() && carried_ > 0) {
      old_ = Array();
      carried_ = 0;
    }
  }

  // Takes the entry out of the current array: each entry whose probe path crosses the hole moves into it.
  void closeGap(std::size_t hole) {
    for (std::size_t i = current_.next(hole); current_.marks[i] != vacant; i = current_.next(i)) {
      const Value& value = current_.values.get()[i];
      const unsigned near = current_.marks[i] & 0xffU;
      const std::size_t distance = near == far ? current_.distance(current_.home(keyOf_(value).hash()), i) : near - 1;
      const std::size_t gap = current_.distance(hole, i);
      if (distance < gap) continue;
      current_.values.get()[hole] = value;
      current_.marks[hole] = static_cast<Mark>((current_.marks[i] & 0xff00U) | markAt(distance - gap));
      hole = i;
    }
    current_.marks[hole] = vacant;
  }

  [[no_unique_address]] KeyOf keyOf_;
  Array current_;
  Array old_;
  std::size_t carried_ = 0;  // slots of old_ that have been carried over
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
