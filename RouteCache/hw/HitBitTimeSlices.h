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
#include "RouteCache/queues/KeyRings.h"

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

// All slices over one index of keys. 30 to 40 bytes a route.
//
// A slice is visited one key at a time: the visit takes the keys that are in the slice when it begins, each once, in
// the order of their filing, whatever is filed or removed meanwhile. One visit at a time.
//
// Invariant: a key is in at most one slice; every key of a slice is in its ring, or due, or set aside.
class HitBitTimeSlices {
 public:
  using Key = Ipv4RouteVrfKey;

  HitBitTimeSlices();

  // Takes the key out of the slice where it is, if any, and puts it at the end of this one.
  void file(const Key& key, std::uint16_t slice);
  void remove(const Key& key);
  void removeAll(std::uint16_t slice);
  // timeSliceInvalid when it is in none.
  std::uint16_t sliceOf(const Key& key) const;
  std::uint32_t size(std::uint16_t slice) const { return sizes_[slice]; }
  std::size_t size() const { return rings_.size(); }
  // A copy, in the order of filing.
  std::vector<Key> keys(std::uint16_t slice) const;

  void beginVisit(std::uint16_t slice);
  bool visiting() const { return visited_ != timeSliceInvalid; }
  // The key whose turn it is, or nothing at the visit's end. Filing it elsewhere or removing it makes it the next one's
  // turn; so does passDue(), which leaves it in the slice.
  std::optional<Key> due() const;
  // The keys that due() would give one after the other, as many as there is room for; how many.
  std::size_t dueKeys(std::span<Key> keys) const { return rings_.firstKeys(dueRing_, keys); }
  void passDue();
  // Those whose turn has not come stay in the slice, ahead of those that were passed.
  void endVisit();

  // Remembers which keys are in the slice now, for a visit that comes later: they stay in it, but what is filed there
  // from now on is told from them. One slice at a time; visitAside() or forgetAside() follows.
  void setAside(std::uint16_t slice);
  void visitAside();
  void forgetAside();

 private:
  // Puts what is in `part` ahead of what is in the slice.
  void putBack(std::uint32_t part, std::uint16_t slice);
  struct Data {
    std::uint16_t slice = timeSliceInvalid;
  };
  using Rings = KeyRings<Key, Data>;

  Rings rings_;
  std::array<Rings::Node, timeSliceInvalid> ringOf_{};
  std::array<std::uint32_t, timeSliceInvalid> sizes_{};
  Rings::Node dueRing_;  // of the visited slice: whose turn is to come
  std::uint16_t visited_ = timeSliceInvalid;
  Rings::Node asideRing_;
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
