// What tables say of the keys that a task handles next, looked up in groups: a group of lookups waits for memory once,
// where one by one each waits for itself.
//
// What has been read ahead must stay right until its key's turn comes. So it is forgotten at the end of a run: what
// other processes and other tasks change is told between runs, and queues the key again. And what the task itself
// changes in a run must concern the key at hand alone, in each table that is read ahead: its user says why that is so.
//
// Invariant: at most readAheadGroup facts since clear(). A key that comes in between costs the rest of the group, which
// is then looked up one by one: who has two streams of keys that take turns has a ReadAhead for each.
#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <span>
#include <utility>

#include "platform/values/Assert.h"

namespace RouteCache {

// Enough for lookups to overlap, few enough that what they bring stays in the cache until it is used.
inline constexpr std::size_t readAheadGroup = 32;

// `Facts` is what is known of one key, which it holds as `key`.
template <class Facts>
class ReadAhead {
 public:
  using Key = decltype(Facts::key);
  // The facts of this key, whose turn it is. What was read ahead for others before it is dropped; a key that has not
  // been read ahead is looked up by itself. `look` fills in what the tables say of facts that have their keys.
  template <class Look>
  const Facts& of(const Key& key, Look&& look) {
    while (next_ < count_ && !(facts_[next_].key == key)) ++next_;
    if (next_ == count_) read(std::span(&key, 1), look);
    return facts_[next_++];
  }
  bool empty() const { return next_ == count_; }
  // For the keys whose turns come next: `next` fills in those that there is room for, in this order, and says how many.
  template <class Next, class Look>
  void readNext(Next&& next, Look&& look) {
    std::array<Key, readAheadGroup> keys;
    const std::size_t count = next(std::span<Key>(keys));
    read(std::span<const Key>(keys).first(count), look);
  }
  // Goes on by one entry of a walk in groups, and reads ahead when the walk does: note(facts, entry) fills in what the
  // entry says, `look` the rest. Null where the walk hands out nothing.
  template <class Walk, class Note, class Look>
  const Facts* step(Walk& walk, Note&& note, Look&& look) {
    bool isNew = false;
    const auto key = walk.step([&](const auto& entry) {
      if (!std::exchange(isNew, true)) clear();
      note(add(entry.key()), entry);
    });
    if (isNew) look(all());
    return key ? &of(*key, look) : nullptr;
  }
  // A group that is put together one by one: what is known of the key already may be filled in. Whoever does so looks
  // up the rest for all().
  Facts& add(const Key& key) {
    PLATFORM_ASSERT(count_ < readAheadGroup);
    Facts& facts = facts_[count_++] = Facts();
    facts.key = key;
    return facts;
  }
  std::span<Facts> all() { return std::span(facts_).first(count_); }
  void clear() { next_ = count_ = 0; }

 private:
  template <class Look>
  void read(std::span<const Key> keys, Look&& look) {
    clear();
    for (const Key& key : keys) add(key);
    look(all());
  }

  std::array<Facts, readAheadGroup> facts_;
  std::size_t next_ = 0;
  std::size_t count_ = 0;
};

// Looks up in the table what `keyOf` names for each of the facts (nothing: it needs no lookup) and hands it on:
// put(facts, value), the value moved.
template <class Facts, class Table, class KeyOf, class Put>
void lookUp(std::span<Facts> facts, Table& table, KeyOf&& keyOf, Put&& put) {
  if (facts.size() == 1) {
    if (const auto key = keyOf(facts[0])) put(facts[0], table.entry(*key));
    return;
  }
  std::array<typename Table::Key, readAheadGroup> keys;
  std::array<Facts*, readAheadGroup> whose;
  std::size_t count = 0;
  for (Facts& each : facts) {
    if (const std::optional<typename Table::Key> key = keyOf(each)) {
      whose[count] = &each;
      keys[count++] = *key;
    }
  }
  if (count == 0) return;
  table.entries(
      std::span<const typename Table::Key>(keys).first(count),
      [&](std::size_t number, std::optional<typename Table::Value>&& value) { put(*whose[number], std::move(value)); });
}

}  // namespace RouteCache
