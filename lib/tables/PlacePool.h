// Places of one size in a table file: which are taken. Private to the writer, but for the high-water mark, which stands
// in the file: places from there on have never been used. Places below it that are free are known to the writer alone;
// the next one finds them by what no index leads to.
//
// A place has room on the filesystem before it is handed out. More than one is asked for at a time: a little for a
// small table, some megabytes for one that grows by millions.
#pragma once

#include <cstdint>
#include <vector>

#include "lib/tables/TableFormat.h"

namespace LinuxPlatform {

class PlacePool {
 public:
  // What is asked for ahead, in bytes: an eighth of what is used, within these bounds. Less is asked for only where so
  // much is not to be had, or where the section ends.
  static constexpr std::size_t leastAhead = std::size_t{64} << 10;
  static constexpr std::size_t mostAhead = std::size_t{2} << 20;

  // `mark` is the high-water mark in the file. `reserve` outlives the pool; empty: there always is room.
  PlacePool(const PlaceSection& section, std::uint64_t& mark, const Reserve& reserve)
      : section_(section), mark_(&mark), reserve_(&reserve) {}

  // Goes on where another writer stopped: `used` places were used at one time or another, and have their room; those of
  // `freed` are free.
  void adopt(std::uint32_t used, std::vector<std::uint32_t> freed);
  // Makes sure that so many places can be taken. False: there are not so many, or the filesystem is full.
  bool ready(std::uint32_t count) { return left() >= count || extend(count); }
  // After ready(), or the process stops: there is no room for it. What was given back last is taken first: its bytes
  // are at hand.
  std::uint32_t take();
  void give(std::uint32_t place) { freed_.push_back(place); }

  // Places that can be taken without anybody being asked.
  std::uint32_t left() const { return static_cast<std::uint32_t>(freed_.size()) + (reserved_ - used_); }
  // Every place there is has been used, and none is free.
  bool isUsedUp() const { return used_ == section_.count && freed_.empty(); }
  std::uint32_t used() const { return used_; }
  const std::vector<std::uint32_t>& freed() const { return freed_; }

 private:
  bool extend(std::uint32_t count);
  bool reserveTo(std::uint64_t places);

  PlaceSection section_;
  std::uint64_t* mark_;
  const Reserve* reserve_;
  std::uint32_t used_ = 0;      // never more than reserved_
  std::uint32_t reserved_ = 0;  // places that have room on the filesystem
  std::vector<std::uint32_t> freed_;
};

}  // namespace LinuxPlatform
