// A look at the whole of a mapped table, beside a writer at work or without one: whether everything in it agrees, and
// how it is filled. Reads what has been used and nothing else, and stores nothing.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "lib/tables/HashIndex.h"
#include "lib/tables/RadixOrder.h"
#include "lib/tables/TableFormat.h"
#include "lib/tables/TableView.h"

namespace LinuxPlatform {

// What a table is filled with. Numbers of a table that is being written are of no one moment.
struct TableShape {
  std::uint64_t entries = 0;    // live slots
  std::uint32_t slotsUsed = 0;  // at one time or another
  std::uint32_t slots = 0;
  std::uint32_t slotSize = 0;        // bytes
  std::uint32_t bucketLines = 0;     // of the hash index
  std::uint32_t linesOverflown = 0;  // that have entries behind them
  std::uint32_t longestWay = 0;      // lines that a search for an entry looks at, at most
  double meanWay = 0;
  std::array<std::uint32_t, nodeKinds> nodes{};  // of the order, in use
  struct Places {
    std::uint32_t size = 0;   // bytes
    std::uint32_t used = 0;   // at one time or another
    std::uint32_t taken = 0;  // by entries
  };
  std::vector<Places> heap;       // empty: values lie in the slots
  std::uint64_t bytesInUse = 0;   // header, indexes and all places ever used
  std::uint64_t largestFile = 0;  // bytes, of which the filesystem gives room to what has been used
};

// What does not agree.
struct TableFindings {
  std::vector<std::string> faults;  // in words, the first of them; empty: none
  std::uint64_t more = 0;           // faults that are not told
  std::vector<std::string> notes;   // what is no fault: a change that a dead writer has left for the next one
  std::uint64_t entries = 0;        // whole ones
  bool changing = false;            // somebody wrote meanwhile: sums were not compared, entries one by one
};

class TableInspection {
 public:
  using Step = std::function<void()>;  // called for each slot; may be empty

  explicit TableInspection(const TableImage& image) : image_(image), hash_(image), order_(image) {}

  TableShape shape(const Step& step = {}) const;
  // Entries and their checks, whether both indexes lead to each of them and to nothing else, the order, the counts, the
  // places in the heap. Not the record of changes: whoever follows it notices what is missing there.
  TableFindings check(const Step& step = {});

 private:
  struct Totals {
    std::uint64_t live = 0;
    std::uint64_t ordered = 0;
    std::uint64_t hashed = 0;
  };

  void fault(const std::string& what);
  std::uint64_t head() const { return load(image_.state().headSequence); }
  // What moves when a writer is at work.
  std::array<std::uint64_t, 4> activity() const {
    const TableState& state = image_.state();
    return {head(), load(state.operation), load(state.epoch), load(state.nodesMoved)};
  }
  template <class Holds>
  bool comesToHold(Holds holds) const;
  bool checkState();
  // A writer is in a change, or has stopped in one: a line's or a node's check may not fit, and nothing is wrong.
  bool isInterrupted() const { return loadNumber(image_.state().operation) != 0; }
  bool isUntouched(const SlotImage& slot) const;
  void checkSlot(std::uint32_t slot, bool byIndexes);
  void checkIndexed(std::uint32_t slot, const SlotImage& here);
  bool orderLeadsTo(std::uint32_t slot, const KeyWords& key) const;
  void checkLines();
  void checkOrder();
  void checkHeap();
  void checkSums(std::uint64_t headBefore);
  std::optional<HeapExtent> extentOf(std::uint32_t slot) const;

  TableImage image_;
  HashIndex hash_;
  RadixOrder order_;
  TableFindings found_;
  Totals totals_;
};

}  // namespace LinuxPlatform
