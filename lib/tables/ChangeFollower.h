// Following a table's changes: a reader's own cursor in the change ring, and its own memory of what it knows.
#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "lib/tables/SlotMemory.h"
#include "lib/tables/TableFormat.h"
#include "lib/tables/TableView.h"
#include "platform/tables/SharedTable.h"

namespace LinuxPlatform {

// The ring names the key of every change. A follower that the ring has overrun looks at all slots instead: it remembers
// per slot the key that its process last knew to be there and the change it was told of last, so the difference between
// memory and slot is what has changed. What the process finds out by reading ahead of the changes it was told of counts
// as known, too: a key that it saw must not go unnoticed because its slot was given away before its turn came.
//
// Who is told may have too much to do to take everything: entries that are new to him are then passed over in the ring
// and found by looking at their slots, later and in the order of these. So the ring is not overrun by a load that he is
// slower than, and what happens beside it to an entry that he knows is told before the load is.
//
// An entry that moves to another slot is remembered in both, and nobody is told; unless the slots were being looked at
// meanwhile, for the new one may have been passed before the entry came.
//
// While a table that was replaced is compared with its successor the ring waits, whoever is busy: what it tells would
// have to be known to the comparison. That is one round through the slots, in which each delivery gets further; who has
// gone with the old table comes at its end.
//
// Invariant: each key under which the table holds something else than the listener was told
//   - is among departed_; or
//   - is in a slot, or known to have been in one, of scan_ or nextRound_, whose version is not the one remembered; or
//   - is named by the ring behind cursor_; or
//   - stands in old_ as known, in a slot from old_->next on.
// nextRound_ lies before scan_.next, and is empty when scan_ is.
class ChangeFollower {
 public:
  class Listener {
   public:
    virtual ~Listener() = default;
    // `sequence` is that of the key's latest change.
    virtual void keyChanged(const KeyWords& key, std::uint64_t sequence) = 0;
    // How much of what has changed it is to be told now: asked before each.
    virtual Pondra::Appetite appetite() = 0;
  };

  explicit ChangeFollower(const DamageReport& report) : report_(&report) {}

  // Changes from now on; what the table holds is taken as known.
  void start(const TableView& view);
  // The table has appeared: all keys that are there are to be told.
  void restart(const TableView& view);
  // The table has been replaced: the keys under which the two do not hold the same are to be told, and those of changes
  // that the old one had not told yet. `keep` holds the old table's mapping until they have been compared.
  void restart(const TableView& view, const TableView& old, std::shared_ptr<const void> keep);
  // This process has read an entry of the table.
  void seen(const Entry& entry);
  bool pending() const;
  // Tells of the changes up to now until there are no more, or the listener wants no more of them.
  void deliver(Listener& listener);
  // Whether much of the memory has been freed since this was last asked.
  bool takeForgotten() { return std::exchange(forgotten_, false); }

 private:
  // The change that was told last: its sequence, and whether the slot was an entry; as the version words have them.
  static std::uint64_t told(std::uint64_t version) { return sequenceOf(version) << 1 | (isLive(version) ? 1 : 0); }
  static constexpr std::uint64_t seenOnly = 1;  // known to be an entry; no change of it was told
  void remember(std::uint32_t slot, std::uint64_t toldNow, const KeyWords& key);
  std::uint64_t toldOf(std::uint32_t slot) const { return slot < known_.size() ? *known_[slot] : 0; }
  bool knownLive(std::uint32_t slot) const { return (toldOf(slot) & 1) != 0; }
  KeyWords knownKey(std::uint32_t slot) const { return keyIn(known_, slot); }
  static bool isLiveIn(const SlotMemory& known, std::uint32_t slot) { return (*known[slot] & 1) != 0; }
  KeyWords keyIn(const SlotMemory& known, std::uint32_t slot) const;
  bool same(const KeyWords& a, const KeyWords& b) const { return view_->image().compare(a, b) == 0; }
  // The table that this one has replaced, and what was known of it.
  struct Predecessor {
    TableView view;
    std::shared_ptr<const void> keep;
    SlotMemory known;
    std::uint32_t next = 0;  // the slot that is looked at next for a key that has gone
    bool comparable = true;  // false: an index is damaged, and everything is told
    std::vector<std::byte> value, oldValue;
  };
  // Slots that are still to be looked at.
  struct Slots {
    std::uint32_t next = 0, end = 0;
    bool empty() const { return next >= end; }
    void add(std::uint32_t slot) {
      *this = empty() ? Slots{slot, slot + 1} : Slots{std::min(next, slot), std::max(end, slot + 1)};
    }
  };
  // Each tells until there is nothing of its kind left; false: the listener wants no more.
  bool tellDeparted(Listener& listener);
  bool tellGone(Listener& listener);
  bool isAsBefore(const KeyWords& key);
  bool tellSlots(Listener& listener);
  void tellRing(std::uint64_t until, Listener& listener);
  // Tells what has become of a slot since it was last told. With the key of a ring entry: of this key in any case,
  // unless it has been told since its change.
  void tellSlot(std::uint32_t slot, const KeyWords* changed, Listener& listener);
  // The slot has changed since it was told. (That its entry moved there from another is in the ring: isMove().)
  bool isUntold(std::uint32_t slot) const { return told(versionOf(slot)) != toldOf(slot); }
  bool isNew(std::uint32_t slot, const KeyWords& changed) const;
  bool moveIsNoted(std::uint32_t slot, const KeyWords& key);
  bool look(std::uint32_t slot, SlotImage& contents) const;
  std::uint64_t versionOf(std::uint32_t slot) const;
  bool isTooLong() const;
  void forgetBeyond();
  void slotsAreSeen() { scannedUntil_ = view_->headSequence() + 1; }
  void scanLater(std::uint32_t slot);
  void scanAll();
  void forgetAll();

  const DamageReport* report_;
  std::optional<TableView> view_;
  std::uint64_t cursor_ = 0;        // sequence of the last change taken from the ring
  SlotMemory known_{1};             // by slot: what was told, and the key's words
  std::vector<KeyWords> departed_;  // known keys that are still to be told and no slot's any more
  std::optional<Predecessor> old_;  // until both tables have been looked through
  Slots scan_;                      // in this round
  Slots nextRound_;                 // that the round has passed by already; empty when it is
  bool forgotten_ = false;
  // Moves up to this sequence are told: a look at all slots may have missed the entry between two of them. It is the
  // table's last change when slots were looked at, and one more, which may have been under way.
  std::uint64_t scannedUntil_ = 0;
};

}  // namespace LinuxPlatform
