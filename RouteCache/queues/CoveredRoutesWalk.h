// Walks over a published route table that cached prefixes ask for when they come and go: each owes a look at the routes
// that it covers, or may have covered.
//
// In key order the routes under a prefix stand together, so a prefix that covers few is looked after at the price of
// those few, however large the table. One that covers many, those of all VRFs counted, has its VRF's whole lap of a
// RouteStatusWalk instead, where it shares one walk with all others.
//
// Invariant: every route of the table that has been asked for, and has not been handed out since, is still to come.
#pragma once

#include <cstdint>
#include <optional>

#include "RouteCache/queues/KeyQueue.h"
#include "RouteCache/queues/RouteStatusWalk.h"

namespace RouteCache {

template <class Table>
class CoveredRoutesWalk {
 public:
  using Key = typename Table::Key;

  // The table outlives the walk.
  explicit CoveredRoutesWalk(const Table& table) : table_(table), laps_(table) {}

  void allIs() { laps_.allIs(); }
  void vrfIs(std::uint32_t hwVrfId) { laps_.vrfIs(hwVrfId); }
  // The routes of the key's VRF that its prefix covers.
  void coveredIs(const Key& cover) { covers_.keyIs(cover); }
  bool pending() const { return covering_ || !covers_.empty() || laps_.pending(); }

  // Looks at one entry of a pending walk. Returns its key when somebody has asked for it; nothing for any other.
  // With news of the entries that it has read ahead; rest() follows. See RouteStatusWalk.
  template <class OnEntry>
  std::optional<Key> step(OnEntry&& onEntry) {
    if (!covering_ && covers_.empty()) return laps_.step(onEntry);
    if (!covering_) beginCover(*covers_.freshKey());
    return stepCover();
  }
  void rest() { laps_.rest(); }

  // True when the key is still to come, if it is in the table. Slow: for checks.
  bool willMeet(const Key& key) const {
    if (laps_.willMeet(key)) return true;
    if (covering_ && isCovered(key) && at_ != table_.end() && !(key < at_->key())) return true;
    for (unsigned length = 0; length <= key.prefix().length(); ++length) {
      if (covers_.has(Key(typename Key::Prefix(key.prefix().addr(), length), key.vrfId()))) return true;
    }
    return false;
  }

 private:
  // Entries that are looked at for one prefix before its VRF gets a lap.
  static constexpr unsigned coverLimit = 64;

  bool isCovered(const Key& key) const {
    return key.vrfId() == covering_->vrfId() && covering_->prefix().covers(key.prefix());
  }
  void beginCover(const Key& cover) {
    covers_.keyDel(cover);  // it may be asked for again meanwhile
    covering_ = cover;
    lookedAt_ = 0;
    at_ = table_.lowerBound(Key(Key::FamilyType::firstCovered(cover.prefix()), 0));
  }
  std::optional<Key> stepCover() {
    if (at_ == table_.end() || !covering_->prefix().covers(at_->key().prefix())) {
      covering_.reset();
      return std::nullopt;
    }
    if (++lookedAt_ > coverLimit) {
      laps_.vrfIs(covering_->vrfId());
      covering_.reset();
      return std::nullopt;
    }
    const Key key = at_->key();
    ++at_;
    return key.vrfId() == covering_->vrfId() ? std::optional(key) : std::nullopt;
  }

  const Table& table_;
  RouteStatusWalk<Table> laps_;
  KeyQueue<Key> covers_;
  std::optional<Key> covering_;  // the prefix that is being looked after
  typename Table::Iterator at_;  // its next entry
  unsigned lookedAt_ = 0;
};

}  // namespace RouteCache
