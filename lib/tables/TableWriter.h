// Writing a mapped table: the one process that holds its lock. Making a writer takes the table over from whoever wrote
// it last, whatever instruction that one died at.
//
// A change of the lists is announced in the state's operation word, so that finishing a dead writer's last change costs
// one search; an entry becomes visible or invisible with one store of its version word, in all lists at once. Whatever
// else does not agree with the slots is rebuilt from them.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "lib/tables/HeapSpace.h"
#include "lib/tables/OrderedIndex.h"
#include "lib/tables/TableFormat.h"
#include "lib/tables/TableView.h"
#include "platform/tables/SharedTable.h"

namespace LinuxPlatform {

class TableWriter {
 public:
  // Adopts what lies in the table: finishes the last change, drops damaged entries (reported), rebuilds the indexes
  // when they do not agree with the entries.
  TableWriter(const TableImage& image, std::uint32_t capacity, DamageReport report);
  TableWriter(const TableWriter&) = delete;
  TableWriter& operator=(const TableWriter&) = delete;

  // See Pondra::SharedCollection. The value is at most maxValueSize bytes. Throws std::runtime_error when the table is
  // being damaged faster than it can be repaired.
  Pondra::WriteResult write(const KeyWords& key, Bytes value);
  bool erase(const KeyWords& key);
  // Takes all entries of another table, and goes on with its change sequence; this one is new and has the slots for it.
  void copyFrom(const TableView& other);

  std::uint64_t size() const { return liveCount_; }
  std::uint64_t sequence() const { return sequence_; }
  // Asserts that slots, lists, free slots and heap agree with each other. Slow.
  void checkInvariants() const;

 private:
  enum class Found { yes, no, damaged };
  struct Place {
    std::uint32_t slot = 0;
    std::uint32_t* leader = nullptr;  // the word of the hash chain that leads to the slot
  };
  // What a walk over the slots has found.
  struct Survey {
    std::vector<std::uint32_t> live, damaged;
    std::vector<std::pair<std::uint64_t, std::uint32_t>> unannounced;  // (sequence, slot) after the head's sequence
    std::uint64_t newest = 0;                                          // sequence of a live slot
    std::uint32_t usedEnd = 0;
  };

  // --- changes
  Found locate(const KeyWords& key, Place& place) const;
  bool update(std::uint32_t slot, const KeyWords& key, Bytes value);
  bool insert(const KeyWords& key, Bytes value);
  bool remove(const Place& place, const KeyWords& key);
  std::optional<std::uint32_t> takeSlot();
  bool fillBuffer(std::uint32_t slot, unsigned number, const KeyWords& key, Bytes value, std::uint64_t sequence);
  std::optional<HeapSpace::Extent> extentOf(std::uint32_t slot);
  void giveBack(const std::optional<HeapSpace::Extent>& extent);
  void publish(std::uint32_t slot, std::uint64_t version);
  void announce(std::uint32_t slot);
  void liveCountIs(std::uint64_t count);

  // --- taking over
  void repair(const std::string& what);
  bool finishOperation();
  bool adoptSlots();
  void survey(std::uint32_t from, std::uint32_t to, Survey& found) const;
  bool entryIsWhole(std::uint32_t slot, std::uint64_t version) const;
  void adoptHeap(Survey& found);
  void adoptSequence(Survey& found);
  void discard(std::span<const std::uint32_t> damaged);
  bool indexesAgree() const;
  bool chainsAgree() const;
  void beginRebuild();
  void rebuildIndexes();
  std::vector<std::uint32_t> liveSlotsInOrder();

  TableImage image_;
  OrderedIndexWriter order_;
  DamageReport report_;
  std::uint32_t capacity_;
  std::uint64_t liveCount_ = 0;
  std::uint64_t sequence_ = 0;
  std::uint32_t highWater_ = 0;
  std::vector<std::uint32_t> freeSlots_;  // below highWater_; the last is taken first
  HeapSpace heap_;
  mutable std::vector<std::byte> scratch_;
};

}  // namespace LinuxPlatform
