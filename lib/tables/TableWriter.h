// Writing a mapped table: the one process that holds its lock. Making a writer takes the table over from whoever wrote
// it last, whatever instruction that one died at.
//
// A change of the indexes is announced in the state's operation word, so that finishing a dead writer's last change
// costs little; an entry becomes visible or invisible with one store of its version word, in both indexes at once.
// Whatever does not agree with the slots is rebuilt from them; where the filesystem has no room for that, entries are
// found by looking at all slots, and none are added, until it has. Whether it does, and whether the entries are whole,
// is looked at after the take-over, some entries at a time (verify()): until then a key that the one index does not
// know is asked of the other as well. Indexes that a take-over has found to be wrong are rebuilt so, too, unless
// somebody is waiting for them (finishIndexes()): who reads the table meanwhile looks at all slots.
//
// A table that was much fuller gives its memory back, some places at a time (giveMemoryBack()): what lies at the end of
// a section moves to free places before it (TableFormat.h). A move is announced like any other change, in `operation`
// and `moving`, so the next writer either finds no trace of it or brings it to its end.
//
// What goes over the whole table in one go, and so holds the thread: a look at the version words of all slots when a
// writer is made, but not in parts (some 7 ms a million entries; some 20 where its state or a free slot is damaged, or
// values lie in the heap), at the order's nodes too when the last writer stopped in a change (some 10 ms), and all of
// it, with the indexes (some 100 ms), when damage shows while the table is written.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "lib/tables/HashIndex.h"
#include "lib/tables/PlacePool.h"
#include "lib/tables/RadixOrder.h"
#include "lib/tables/RadixOrderBuilder.h"
#include "lib/tables/TableFormat.h"
#include "lib/tables/TableView.h"
#include "platform/tables/SharedTable.h"

namespace LinuxPlatform {

class TableWriter {
 public:
  // Adopts what lies in the table: finishes the last change, drops damaged entries (reported), rebuilds the indexes
  // where they are known to be wrong. `reserve` makes room for what is about to be used; without it there always is
  // room. `release` takes it back; without it no memory is given back.
  TableWriter(const TableImage& image, std::uint32_t capacity, DamageReport report, Reserve reserve = {},
              Release release = {});
  // The same in parts: takeOver() looks at about so many more slots, and nothing else is asked of the writer before it
  // has come to the end (true).
  struct InParts {};
  TableWriter(const TableImage& image, std::uint32_t capacity, DamageReport report, Reserve reserve, Release release,
              InParts);
  bool takeOver(std::uint32_t slots);
  TableWriter(const TableWriter&) = delete;
  TableWriter& operator=(const TableWriter&) = delete;

  // See Pondra::SharedCollection. The value is at most maxValueSize bytes; `full`, too, when the filesystem is. Throws
  // TableError when the table is being damaged faster than it can be repaired.
  Pondra::WriteResult write(const KeyWords& key, Bytes value);
  bool erase(const KeyWords& key);
  // Takes all entries of another table, and goes on with its change sequence; this one is new and has the slots for it.
  // Throws TableError when the filesystem is full.
  void copyFrom(const TableView& other);

  // Compares the indexes with about so many more of the entries that were adopted; what does not agree is rebuilt
  // (reported). Or goes on by so many to build indexes that are known to be wrong. True: nothing is left to do.
  bool verify(std::uint32_t entries);
  bool verified() const { return !verification_ && !rebuild_; }
  // Builds the indexes to their end now; so does every change. What reads the table in the writer's process calls it,
  // for a search through all slots takes longer.
  void finishIndexes();
  // Begins again: a reader has met a contradiction.
  void verifyAgain() { verification_ = Verification{0, std::vector<bool>(slots_.used()), {}, false}; }

  // Whether less than half of what the table has memory for holds anything, in one of its sections, and there is much
  // to win: giveMemoryBack() is worth the while when nobody else has anything to do.
  bool isSparse() const;
  // Goes on giving memory back, by about so many places, and some hundred pages at the most. True: nothing is left to
  // do. Changes may come in between.
  bool giveMemoryBack(std::uint32_t places);
  // No more of it for now.
  void endGivingBack();

  std::uint64_t size() const { return liveCount_; }
  std::uint64_t sequence() const { return sequence_; }
  // Asserts that slots, indexes and free places agree with each other. Slow. Returns how many nodes of the order are
  // lost to this writer: none, unless bytes were damaged.
  std::uint32_t checkInvariants() const;

 private:
  // Of what was adopted: first whether the hash index leads to each slot, then whether the order does.
  struct Verification {
    std::uint32_t next;      // the slot that the hash index is asked for next
    std::vector<bool> seen;  // by slot: the order leads there
    KeyWords from;           // where the walk in order goes on
    bool begun;
  };
  // Of the indexes, when they are built anew: what comes next.
  struct Rebuild {
    RadixOrderBuilder order;
    enum class Stage : std::uint8_t { clear, collect, order, hash } stage = Stage::clear;
    std::uint32_t next = 0;  // slot
    std::uint32_t damaged = 0;
  };
  // How far it has come with giving memory back: section by section.
  struct GivingBack {
    enum class Stage : std::uint8_t { order, slots, values, heap, nodes } stage = Stage::order;
    unsigned number = 0;     // of heap class or kind of node
    std::uint32_t next = 0;  // slot whose value is looked at next
  };
  enum class Announced : std::uint8_t { change, move };
  enum class Look : std::uint8_t { quick, thorough };  // at the version words alone; at whole entries
  // What a walk over the slots has found.
  struct Survey {
    std::vector<std::uint32_t> damaged, free;
    std::vector<std::pair<std::uint64_t, std::uint32_t>> unannounced;  // (sequence, slot) after the head's sequence
    std::uint64_t newest = 0;                                          // sequence of any slot
    std::uint64_t live = 0;
    std::uint32_t usedEnd = 0;
  };
  // A take-over under way: the slots are looked at from `next` to `end`.
  struct Adoption {
    bool sound = false;  // the indexes need not be rebuilt
    std::optional<std::uint32_t> interrupted;
    std::uint32_t movedFrom = nowhere;  // where the interrupted slot's entry stands as well
    Look look = Look::quick;
    std::uint32_t next = 0, end = 0;
    Survey found;
  };

  // --- changes
  Pondra::WriteResult update(std::uint32_t slot, const KeyWords& key, Bytes value, Announced as = Announced::change);
  bool insert(const KeyWords& key, std::uint64_t hash, Bytes value);
  bool remove(const HashIndexWriter::Place& place, const KeyWords& key, std::uint64_t hash);
  bool hasRoom(std::size_t valueSize);
  bool eraseWithoutIndexes(const KeyWords& key);
  bool standAgain();
  bool indexesStand() const { return (load(image_.state().epoch) & 1) == 0; }
  std::uint32_t fillBuffer(SlotImage& slot, unsigned number, const KeyWords& key, Bytes value, std::uint64_t sequence);
  std::uint32_t storeShort(std::uint32_t slot, unsigned number, const KeyWords& key, Bytes value);
  void storeWords(std::uint32_t slot, const SlotImage& from, unsigned first, unsigned end);
  SlotImage loadWords(std::uint32_t slot) const;
  std::optional<HeapExtent> extentOf(std::uint32_t slot);
  void giveBack(const std::optional<HeapExtent>& extent);
  void publish(std::uint32_t slot, const KeyWords& key, std::uint64_t version, Announced as = Announced::change);
  void publish(std::uint32_t slot, std::uint64_t version) { publish(slot, image_.keyOf(slot), version); }
  void announce(std::uint32_t slot, const KeyWords& key, Announced as);
  void announce(std::uint32_t slot) { announce(slot, image_.keyOf(slot), Announced::change); }
  void liveCountIs(std::uint64_t count);
  [[noreturn]] void refuse(const char* what) const;

  // --- giving back
  template <class Visit>
  void forEachPool(Visit visit);
  bool putInOrder(std::uint32_t places);
  template <class Move>
  bool giveBackEnd(PlacePool& pool, std::uint32_t places, Move move);
  void giveBackPages(PlacePool& pool);
  std::optional<std::size_t> wholeValue(std::uint32_t slot);
  bool moveEntry(std::uint32_t from);
  bool moveValues(std::uint32_t places);
  void nextStage(GivingBack::Stage stage);

  // --- taking over
  void repair(const std::string& what);
  bool stateIsSound() const;
  bool adopt();
  void beginAdoption();
  void beginSurvey(Look look);
  bool surveyPart(std::uint32_t slots);
  bool endAdoption();
  void survey(std::uint32_t from, std::uint32_t to, std::optional<std::uint32_t> interrupted, Look look,
              Survey& found) const;
  bool isUntouched(std::uint32_t slot) const;
  bool entryIsWhole(std::uint32_t slot) const;
  void adoptHeap(Survey& found);
  void adoptSequence(const Survey& found);
  void finish(std::uint32_t interrupted, bool indexesStay);
  static constexpr std::uint32_t nowhere = ~std::uint32_t{0};
  std::uint32_t slotMovedFrom(std::uint32_t to) const;
  void finishMove(std::uint32_t from, std::uint32_t to, bool indexesStay);
  void discard(std::span<const std::uint32_t> damaged);
  void rebuildIndexes();
  void goOnRebuilding(std::uint32_t entries);
  void endRebuild();
  template <class Visit>
  bool forEachHash(std::uint32_t& next, std::uint32_t end, Visit visit) const;
  void collect(std::uint32_t slot);
  void drop(std::uint32_t slot);
  bool verifyEntries(std::uint32_t count);
  bool verifyOrder(std::uint32_t count);

  const Reserve reserve_;  // the pools refer to it
  const Release release_;
  TableImage image_;
  DamageReport report_;
  TableView view_;
  HashIndexWriter hash_;
  RadixOrderWriter order_;
  PlacePool slots_;
  std::vector<PlacePool> heap_;  // by class
  std::uint32_t capacity_;
  bool inserts_ = true;  // the last write did
  std::uint64_t liveCount_ = 0;
  std::uint64_t sequence_ = 0;
  std::optional<Adoption> adoption_;
  std::optional<Verification> verification_;
  std::optional<Rebuild> rebuild_;
  std::optional<GivingBack> givingBack_;
  bool keepsPages_ = false;  // the filesystem takes none back
  std::vector<std::byte> scratch_;
};

}  // namespace LinuxPlatform
