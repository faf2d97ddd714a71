// Walks over a route table that are owed to some of its VRFs, or to all: because what decides their routes has changed.
// Asking costs nothing; the keys are handed out one by one to the task that decides them.
//
// All requests share one walk, which goes round the table in key order: each VRF that is asked for gets one whole lap
// from where the walk stands then. Asking again before that lap is over moves its end, so that a hundred thousand
// requests during one lap make it two at most.
//
// Whoever has something to look up for each key may take the entries in groups (step(onEntry)): the walk has read those
// of a group before the first one's turn, and forgets them at rest().
//
// Invariant: every key of an owed VRF that was there at the latest request and has not been handed out since is still
// to come: it is among the entries that have been read and not handed out, or from at_ on in this lap, or in the next.
// At rest none is read ahead, and at_ is the entry that is looked at next.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <unordered_map>
#include <utility>

#include "RouteCache/queues/ReadAhead.h"
#include "platform/values/Assert.h"

namespace RouteCache {

template <class Table>
class RouteStatusWalk {
 public:
  using Key = typename Table::Key;
  using Value = typename Table::Value;

  // The table outlives the walk.
  explicit RouteStatusWalk(const Table& table) : table_(table) {}

  void allIs() {
    rest();
    last_ = mark();
    all_ = last_;
  }
  void vrfIs(std::uint32_t hwVrfId) {
    rest();
    last_ = mark();
    vrfs_[hwVrfId] = *last_;
  }
  bool pending() const { return last_.has_value(); }
  // True when the key is still to come, if it is in the table. Of those that are read ahead it says false, too.
  bool willMeet(const Key& key) const {
    return (all_ && isAhead(*all_, key)) || (vrfs_.contains(key.vrfId()) && isAhead(vrfs_.at(key.vrfId()), key));
  }

  // Looks at one entry of a pending walk. Returns its key when it is owed; nothing for any other, and at a lap's end.
  // Leaves the walk at rest.
  std::optional<Key> step() {
    return next(1, [](const Value&) {});
  }
  // The same, and when it has read the next group of entries: calls onEntry for each of them that will be handed out,
  // in their order. rest() follows before anybody else may change the table.
  template <class OnEntry>
  std::optional<Key> step(OnEntry&& onEntry) {
    return next(readAheadGroup, onEntry);
  }
  // Forgets what it has read and not handed out: it reads that again.
  void rest() {
    if (next_ < count_) at_ = table_.lowerBound(entries_[next_].key());
    next_ = count_ = 0;
    mayBeOld_ = true;
  }

 private:
  // Where the walk stood when somebody asked: their lap is over when it comes there again.
  struct Mark {
    std::optional<Key> from;  // the next key then; nothing: a lap's beginning
    std::uint64_t lap = 0;
  };

  template <class OnEntry>
  std::optional<Key> next(std::size_t group, OnEntry&& onEntry) {
    if (!begun_) at_ = table_.begin();
    begun_ = true;
    if (next_ == count_) readGroup(group, onEntry);
    if (count_ == 0) {
      ++lap_;
      begun_ = false;
      // Where the last lap was to end there may be no entry any more.
      if (lap_ > last_->lap + (last_->from ? 1 : 0)) end();
      return std::nullopt;
    }
    const Key key = entries_[next_].key();
    if (isOver(*last_, key)) {
      end();
      return std::nullopt;
    }
    ++next_;
    return owes(key) ? std::optional(key) : std::nullopt;
  }
  template <class OnEntry>
  void readGroup(std::size_t group, OnEntry&& onEntry) {
    next_ = count_ = 0;
    // Between groups the table may have changed. Of an entry that is gone the key is still good to find the next by.
    if (std::exchange(mayBeOld_, false) && at_ != table_.end()) at_ = table_.lowerBound(at_->key());
    for (; count_ < group && at_ != table_.end(); ++at_) {
      entries_[count_++] = *at_;
      const Key key = at_->key();
      if (isOver(*last_, key)) break;
      if (owes(key)) onEntry(*at_);
    }
  }
  Mark mark() const {
    PLATFORM_ASSERT(next_ == count_);  // behind those that are read ahead it would pass them over
    if (!begun_) return {std::nullopt, lap_};
    return at_ == table_.end() ? Mark{std::nullopt, lap_ + 1} : Mark{at_->key(), lap_};
  }
  static bool isBefore(const Key& key, const Mark& mark) { return mark.from && key < *mark.from; }
  bool isOver(const Mark& mark, const Key& key) const { return lap_ > mark.lap && !isBefore(key, mark); }
  bool isAhead(const Mark& mark, const Key& key) const {
    const bool passed = begun_ && (at_ == table_.end() || key < at_->key());
    const std::uint64_t lap = passed ? lap_ + 1 : lap_;
    return lap <= mark.lap || isBefore(key, mark);
  }
  bool owes(const Key& key) const {
    if (all_ && !isOver(*all_, key)) return true;
    if (vrfs_.empty()) return false;
    const auto vrf = vrfs_.find(key.vrfId());
    return vrf != vrfs_.end() && !isOver(vrf->second, key);
  }
  void end() {
    begun_ = false;
    next_ = count_ = 0;
    lap_ = 0;
    all_.reset();
    last_.reset();
    vrfs_.clear();
  }

  const Table& table_;
  typename Table::Iterator at_;  // the entry that is looked at next, behind those that have been read; once begun_
  bool begun_ = false;           // the lap
  bool mayBeOld_ = false;        // the entry that at_ has a copy of may have changed since
  std::array<Value, readAheadGroup> entries_;  // read ahead: those from next_ to count_ are to come
  std::size_t next_ = 0;
  std::size_t count_ = 0;
  std::uint64_t lap_ = 0;
  std::optional<Mark> all_;
  std::optional<Mark> last_;  // of the latest request: with it everything is over
  std::unordered_map<std::uint32_t, Mark> vrfs_;
};

}  // namespace RouteCache
