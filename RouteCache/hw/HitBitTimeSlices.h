// The hit-bit time slices of the hardware routes: which route has been idle for how long.
//
// A slice is the hit-bit value that hardware reported last: 255 was hit just now, and every 20 idle seconds take one
// off. Two more slices hold routes that hardware has not reported yet.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "RouteCache/model/Values.h"
#include "RouteCache/queues/FlatTable.h"

namespace RouteCache {

inline constexpr std::uint16_t timeSlice0 = 0;                    // the idlest
inline constexpr std::uint16_t timeSliceMax = 255;                // hit within the last 20 seconds
inline constexpr std::uint16_t timeSliceNewAdditions = 256;       // written to hardware, not reported yet
inline constexpr std::uint16_t timeSliceNewAdditionsToDel = 257;  // the same, and to go at the next ageing run
inline constexpr std::uint16_t timeSliceInvalid = 258;            // none; as the scan's position: the scan is complete

// Seconds by which the hardware's idle clock steps.
inline constexpr int secondsPerTimeSlice = 20;
// The slice of the routes that have been idle for so long: whole steps count. At most 5100 seconds.
constexpr std::uint16_t timeSliceOfIdle(std::uint16_t seconds) {
  return static_cast<std::uint16_t>(timeSliceMax - seconds / secondsPerTimeSlice);
}

// All slices over one index of keys. 20 to 30 bytes a route, returned when the last has gone.
//
// A slice is visited one key at a time: the visit takes the keys that are in the slice when it begins, each once, in
// the order of their filing, whatever is filed or removed meanwhile. One visit at a time.
//
// Keys lie in rows, so that a visit reads memory as it comes. A row whose keys have all had their turn goes back into
// its slice as a whole; but keys of a row that has lost most of its own move together, for that takes a look at the
// index for each.
//
// Invariants (checkInvariants):
//   - a key is in at most one slice, and the index says where it lies;
//   - a row is of one slice, and in its list, or among those of the visit that have not had their turn, or set aside;
//   - a row holds at least one key, or is free for the next slice that needs one;
//   - of the visit's first row the keys whose turn is to come are noted, and at least one is; of others none had it.
class HitBitTimeSlices {
 public:
  using Key = Ipv4RouteVrfKey;

  HitBitTimeSlices();
  HitBitTimeSlices(const HitBitTimeSlices&) = delete;
  HitBitTimeSlices& operator=(const HitBitTimeSlices&) = delete;

  // Takes the key out of the slice where it is, if any, and puts it at the end of this one.
  void file(const Key& key, std::uint16_t slice);
  void remove(const Key& key);
  void removeAll(std::uint16_t slice);
  // Asks memory for what filing, removing or finding the key takes.
  void expect(const Key& key) const { index_.expect(key); }
  // timeSliceInvalid when it is in none.
  std::uint16_t sliceOf(const Key& key) const;
  std::uint32_t size(std::uint16_t slice) const { return sizes_[slice]; }
  std::size_t size() const { return index_.size(); }
  // A copy, in the order of filing.
  std::vector<Key> keys(std::uint16_t slice) const;

  void beginVisit(std::uint16_t slice);
  bool visiting() const { return visited_ != timeSliceInvalid; }
  // The key whose turn it is, or nothing at the visit's end. Filing it elsewhere or removing it makes it the next one's
  // turn; so does passDue(), which leaves it in the slice.
  std::optional<Key> due() const;
  // The keys that due() would give one after the other, as many as there is room for; how many.
  std::size_t dueKeys(std::span<Key> keys) const;
  void passDue();
  // Those whose turn has not come stay in the slice, ahead of those that were passed.
  void endVisit();

  // Remembers which keys are in the slice now, for a visit that comes later: they stay in it, but what is filed there
  // from now on is told from them. One slice at a time; visitAside() or forgetAside() follows.
  void setAside(std::uint16_t slice);
  void visitAside();
  void forgetAside();

  // Aborts when an invariant does not hold. Walks everything.
  void checkInvariants() const;

 private:
  static constexpr unsigned rowSize = 32;
  struct Row {
    std::array<Key, rowSize> keys;
    std::uint32_t live = 0;  // a bit for each key that is there
    std::uint16_t slice = 0;
    std::uint8_t filled = 0;  // places that have been given out, from the first on
  };
  // Rows in blocks, so that growing moves none of them.
  class Rows {
   public:
    Row& operator[](std::uint32_t row) { return blocks_[row / blockSize][row % blockSize]; }
    const Row& operator[](std::uint32_t row) const { return blocks_[row / blockSize][row % blockSize]; }
    std::uint32_t add() {
      if (free_.empty() && size_ % blockSize == 0) blocks_.push_back(std::make_unique<Row[]>(blockSize));
      if (free_.empty()) return size_++;
      const std::uint32_t row = free_.back();
      free_.pop_back();
      return row;
    }
    void free(std::uint32_t row) { free_.push_back(row); }
    std::uint32_t size() const { return size_; }
    std::size_t taken() const { return size_ - free_.size(); }

   private:
    static constexpr std::uint32_t blockSize = 64;
    std::vector<std::unique_ptr<Row[]>> blocks_;
    std::vector<std::uint32_t> free_;
    std::uint32_t size_ = 0;
  };
  // A key's: its row's number and its number in the row.
  using Place = std::uint32_t;
  static constexpr std::uint32_t worthReturning = 128;  // rows
  struct KeyAt {
    const Rows* rows;
    const Key& operator()(Place place) const { return (*rows)[place / rowSize].keys[place % rowSize]; }
  };
  // A link is a list's head, by the number of the list, or a row's, by `lists` and the number of the row.
  using Link = std::uint32_t;
  static constexpr Link dueList = timeSliceInvalid;  // behind those of the slices
  static constexpr Link asideList = dueList + 1;
  static constexpr Link lists = asideList + 1;
  struct Links {
    Link previous = 0;
    Link next = 0;
  };

  const Row& rowAt(Link link) const { return rows_[link - lists]; }
  Row& rowAt(Link link) { return rows_[link - lists]; }
  Link first(Link list) const { return links_[list].next < lists ? 0 : links_[list].next; }  // 0: none
  Link next(Link row) const { return first(row); }
  void append(Link list, Link row);
  void unlink(Link row);
  void splice(Link from, Link to);
  void putBack(Link part, std::uint16_t slice);

  Place add(const Key& key, std::uint16_t slice);
  void take(Place place);
  void release(Link row);
  void returnMemory();
  void pour(Link row, std::uint32_t which);
  void beginTurn();
  void endTurn();
  void putPassedBack();
  std::uint32_t checkRow(Link link, std::uint16_t slice) const;

  Rows rows_;
  std::vector<Links> links_;
  FlatTable<Place, Key, KeyAt> index_;  // the keys lie in the rows
  std::array<std::uint32_t, timeSliceInvalid> sizes_{};
  std::uint16_t visited_ = timeSliceInvalid;
  std::uint32_t dueKeys_ = 0;  // of the visit's first row, the keys whose turn is to come
  std::uint16_t aside_ = timeSliceInvalid;
};

// One slice as a collection of its own. Shared by pointer; keeps the slices alive.
class HitBitTimeSliceColl {
 public:
  using Key = HitBitTimeSlices::Key;
  HitBitTimeSliceColl(std::shared_ptr<HitBitTimeSlices> slices, std::uint16_t slice)
      : slices_(std::move(slices)), slice_(slice) {}

  std::uint16_t slice() const { return slice_; }
  std::uint32_t size() const { return slices_->size(slice_); }
  std::vector<Key> route() const { return slices_->keys(slice_); }
  bool routeHas(const Key& key) const { return slices_->sliceOf(key) == slice_; }
  // The key leaves any other slice for this one.
  void routeIs(const Key& key) { slices_->file(key, slice_); }
  void routeDel(const Key& key) {
    if (routeHas(key)) slices_->remove(key);
  }
  void routeDelAll() { slices_->removeAll(slice_); }

 private:
  std::shared_ptr<HitBitTimeSlices> slices_;
  std::uint16_t slice_;
};
std::shared_ptr<HitBitTimeSliceColl> HitBitTimeSliceCollIs(std::shared_ptr<HitBitTimeSlices> slices,
                                                           std::uint16_t slice);

}  // namespace RouteCache
