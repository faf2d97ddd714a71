// Walks over a route table that are owed to some of its VRFs, or to all: because what decides their routes has changed.
// Asking costs nothing; the keys are handed out one by one to the task that decides them.
//
// All requests share one walk, which goes round the table in key order: each VRF that is asked for gets one whole lap
// from where the walk stands then. Asking again before that lap is over moves its end, so that a hundred thousand
// requests during one lap make it two at most.
//
// Invariant: every key of an owed VRF that was there at the latest request and has not been handed out since is still
// to come.
#pragma once

#include <cstdint>
#include <optional>
#include <unordered_map>

namespace RouteCache {

template <class Table>
class RouteStatusWalk {
 public:
  using Key = typename Table::Key;

  // The table outlives the walk.
  explicit RouteStatusWalk(const Table& table) : table_(table) {}

  void allIs() {
    last_ = mark();
    all_ = last_;
  }
  void vrfIs(std::uint32_t hwVrfId) {
    last_ = mark();
    vrfs_[hwVrfId] = *last_;
  }
  bool pending() const { return last_.has_value(); }
  // True when the key is still to come, if it is in the table.
  bool willMeet(const Key& key) const {
    return (all_ && isAhead(*all_, key)) || (vrfs_.contains(key.vrfId()) && isAhead(vrfs_.at(key.vrfId()), key));
  }

  // Looks at one entry of a pending walk. Returns its key when it is owed; nothing for any other, and at a lap's end.
  std::optional<Key> step() {
    if (!begun_) at_ = table_.begin();
    begun_ = true;
    if (at_ == table_.end()) {
      ++lap_;
      begun_ = false;
      // Where the last lap was to end there may be no entry any more.
      if (lap_ > last_->lap + (last_->from ? 1 : 0)) end();
      return std::nullopt;
    }
    const Key key = at_->key();
    if (isOver(*last_, key)) {
      end();
      return std::nullopt;
    }
    ++at_;
    return isOwed(key) ? std::optional(key) : std::nullopt;
  }

 private:
  // Where the walk stood when somebody asked: their lap is over when it comes there again.
  struct Mark {
    std::optional<Key> from;  // the next key then; nothing: a lap's beginning
    std::uint64_t lap = 0;
  };

  Mark mark() const {
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
  bool isOwed(const Key& key) {
    if (all_ && !isOver(*all_, key)) return true;
    const auto found = vrfs_.find(key.vrfId());
    if (found == vrfs_.end()) return false;
    if (!isOver(found->second, key)) return true;
    vrfs_.erase(found);
    return false;
  }
  void end() {
    begun_ = false;
    lap_ = 0;
    all_.reset();
    last_.reset();
    vrfs_.clear();
  }

  const Table& table_;
  typename Table::Iterator at_;  // the entry that is looked at next
  bool begun_ = false;           // else the lap's first entry is
  std::uint64_t lap_ = 0;
  std::optional<Mark> all_;
  std::optional<Mark> last_;  // of the latest request: with it everything is over
  std::unordered_map<std::uint32_t, Mark> vrfs_;
};

}  // namespace RouteCache
