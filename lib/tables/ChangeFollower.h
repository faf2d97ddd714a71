// Following a table's changes: a reader's own cursor in the change ring, and its own memory of what it knows.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "lib/tables/TableFormat.h"
#include "lib/tables/TableView.h"

namespace LinuxPlatform {

// The ring names the key of every change. A follower that the ring has overrun looks at all slots instead: it remembers
// per slot the key that its process last knew to be there and the change it was told of last, so the difference between
// memory and slot is what has changed. What the process finds out by reading ahead of the changes it was told of counts
// as known, too: a key that it saw must not go unnoticed because its slot was given away before its turn came.
class ChangeFollower {
 public:
  // `sequence` is that of the key's latest change. False: stop here.
  using Tell = std::function<bool(const KeyWords& key, std::uint64_t sequence)>;

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
  // Tells of the changes up to now until there are no more (true) or `tell` says stop (false).
  bool deliver(const Tell& tell);

 private:
  // The change that was told last: its sequence, and whether the slot was an entry; as the version words have them.
  static std::uint64_t told(std::uint64_t version) { return sequenceOf(version) << 1 | (isLive(version) ? 1 : 0); }
  static constexpr std::uint64_t seenOnly = 1;  // known to be an entry; no change of it was told
  void remember(std::uint32_t slot, std::uint64_t toldNow, const KeyWords& key);
  bool knownLive(std::uint32_t slot) const { return slot < told_.size() && (told_[slot] & 1) != 0; }
  KeyWords knownKey(std::uint32_t slot) const { return keyAt(keys_, slot); }
  KeyWords keyAt(const std::vector<std::uint64_t>& keys, std::uint32_t slot) const;
  bool same(const KeyWords& a, const KeyWords& b) const { return view_->image().compare(a, b) == 0; }
  // The table that this one has replaced, and what was known of it.
  struct Predecessor {
    TableView view;
    std::shared_ptr<const void> keep;
    std::vector<std::uint64_t> told;
    std::vector<std::uint64_t> keys;
    std::uint32_t next = 0;  // the slot that is looked at next for a key that has gone
    bool comparable = true;  // false: an index is damaged, and everything is told
    std::vector<std::byte> value, oldValue;
  };
  bool tellDeparted(const Tell& tell);
  bool tellGone(const Tell& tell);
  bool isAsBefore(const KeyWords& key);
  bool tellSlots(const Tell& tell);
  bool tellRing(std::uint64_t until, const Tell& tell);
  // Tells what has become of a slot since it was last told. With the key of a ring entry: of this key in any case,
  // unless it has been told since its change.
  bool tellSlot(std::uint32_t slot, const KeyWords* changed, const Tell& tell);
  void scanAll();
  void forgetAll();

  const DamageReport* report_;
  std::optional<TableView> view_;
  std::uint64_t cursor_ = 0;                  // sequence of the last change taken from the ring
  std::vector<std::uint64_t> told_;           // by slot
  std::vector<std::uint64_t> keys_;           // by slot, keyWordCount words each
  std::vector<KeyWords> departed_;            // known keys that are still to be told and no slot's any more
  std::optional<Predecessor> old_;            // until both tables have been looked through
  std::uint32_t scanNext_ = 0, scanEnd_ = 0;  // slots that are still to be looked at
};

}  // namespace LinuxPlatform
