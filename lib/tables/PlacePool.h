// Places of one size in a table file: which are taken. Private to the writer, but for the high-water mark, which stands
// in the file: places from there on hold nothing. Places below it that are free are known to the writer alone; the next
// one finds them by what no index leads to.
//
// A place has room on the filesystem before it is handed out. More than one is asked for at a time: a little for a
// small table, some megabytes for one that grows by millions.
//
// Of a pool that was much fuller the room is given back: its free places are put in order, so that the lowest are
// handed out first; whoever owns the places moves what lies in the last ones there; free places at the end are let go
// of, and then the pages beyond.
#pragma once

#include <cstdint>
#include <vector>

#include "lib/tables/TableFormat.h"

namespace LinuxPlatform {

class PlacePool {
 public:
  // What is asked for ahead, in bytes: an eighth of what is used, within these bounds. Less is asked for only where so
  // much is not to be had, or where the section ends.
  static constexpr std::size_t leastAhead = 16 * tablePage;
  static constexpr std::size_t mostAhead = 512 * tablePage;
  // What makes a pool worth the while, and what is let go of at a time, in bytes: the kernel has to take the pages from
  // every process.
  static constexpr std::size_t leastSurplus = 64 * tablePage;
  static constexpr std::size_t mostLetGo = 256 * tablePage;

  // `mark` is the high-water mark in the file. `reserve` outlives the pool; empty: there always is room.
  PlacePool(const PlaceSection& section, std::uint64_t& mark, const Reserve& reserve)
      : section_(section), mark_(&mark), reserve_(&reserve) {}

  // Goes on where another writer stopped: `used` places were used at one time or another, and have their room; those of
  // `freed` are free.
  void adopt(std::uint32_t used, std::vector<std::uint32_t> freed);
  // Makes sure that so many places can be taken. False: there are not so many, or the filesystem is full.
  bool ready(std::uint32_t count) { return left() >= count || extend(count); }
  // After ready(), or the process stops: there is no room for it. What was given back last is taken first: its bytes
  // are at hand. The lowest first of those that are in order.
  std::uint32_t take();
  void give(std::uint32_t place);

  // Places that can be taken without anybody being asked.
  std::uint32_t left() const { return free() + (reserved_ - used_); }
  // Every place there is has been used, and none is free.
  bool isUsedUp() const { return used_ == section_.count && free() == 0; }
  std::uint32_t used() const { return used_; }
  std::size_t placeSize() const { return section_.size; }  // bytes
  // Of the used ones.
  std::uint32_t free() const { return static_cast<std::uint32_t>(freed_.size()) + inOrder_; }

  // --- giving back
  // Whether less than half of the room that there is holds anything, and much is to be had.
  bool isSparse() const;
  // Puts free places in order, about so many, and from now on those that are given. True: all are.
  bool putInOrder(std::uint32_t places);
  // Those that are given are not put in order any more.
  void endOrder();
  // All places before this one are taken.
  bool isFullBefore(std::uint32_t place);
  // Lets go of free places at the end, when all are in order, up to mostLetGo. False: there are more.
  bool letGo();
  // Bytes that have room beyond what is wanted ahead.
  std::size_t surplus() const { return reservedEnd() - keptEnd(); }
  // Gives them back; after TableState::epoch has moved. False: the filesystem keeps them.
  bool giveBack(const Release& release);

 private:
  bool extend(std::uint32_t count);
  bool reserveTo(std::uint64_t places);
  std::uint64_t ahead(std::uint32_t used) const;
  // Ends of pages, as offsets in the file.
  std::size_t keptEnd() const;
  std::size_t reservedEnd() const;
  bool isInOrder(std::uint32_t place) const {
    return place / 64 < order_.size() && (order_[place / 64] >> place % 64 & 1) != 0;
  }

  PlaceSection section_;
  std::uint64_t* mark_;
  const Reserve* reserve_;
  std::uint32_t used_ = 0;      // never more than reserved_
  std::uint32_t reserved_ = 0;  // places that have room on the filesystem
  std::vector<std::uint32_t> freed_;
  std::vector<std::uint64_t> order_;  // free places, a bit each; none of them is in freed_
  bool ordering_ = false;
  bool knowsEnd_ = false;  // otherwise another writer may have asked for more than `reserved_` says
  std::uint32_t inOrder_ = 0;
  std::size_t firstWord_ = 0;  // of order_ that may not be 0
};

}  // namespace LinuxPlatform
