#include "RouteCache/hw/HitBitTimeSlices.h"

#include "platform/values/Assert.h"

namespace RouteCache {

HitBitTimeSlices::HitBitTimeSlices() : dueRing_(rings_.ringIs()), asideRing_(rings_.ringIs()) {
  for (auto& ring : ringOf_) ring = rings_.ringIs();
}

void HitBitTimeSlices::file(const Key& key, std::uint16_t slice) {
  PLATFORM_ASSERT(slice < timeSliceInvalid);
  const auto node = rings_.insert(key);
  Data& data = rings_.data(node);
  if (data.slice != timeSliceInvalid) --sizes_[data.slice];
  data.slice = slice;
  ++sizes_[slice];
  rings_.append(ringOf_[slice], node);
}

void HitBitTimeSlices::remove(const Key& key) {
  const auto node = rings_.find(key);
  if (node == Rings::none) return;
  --sizes_[rings_.data(node).slice];
  rings_.erase(node);
}

void HitBitTimeSlices::removeAll(std::uint16_t slice) {
  if (visited_ == slice) endVisit();
  if (aside_ == slice) forgetAside();
  for (auto node = rings_.first(ringOf_[slice]); node != Rings::none; node = rings_.first(ringOf_[slice])) {
    --sizes_[slice];
    rings_.erase(node);
  }
}

std::uint16_t HitBitTimeSlices::sliceOf(const Key& key) const {
  const auto node = rings_.find(key);
  return node == Rings::none ? timeSliceInvalid : rings_.data(node).slice;
}

std::vector<HitBitTimeSlices::Key> HitBitTimeSlices::keys(std::uint16_t slice) const {
  std::vector<Key> keys;
  const auto add = [&](Rings::Node ring) {
    for (auto node = rings_.first(ring); node != Rings::none; node = rings_.next(node))
      keys.push_back(rings_.key(node));
  };
  if (visited_ == slice) add(dueRing_);
  if (aside_ == slice) add(asideRing_);
  add(ringOf_[slice]);
  return keys;
}

void HitBitTimeSlices::beginVisit(std::uint16_t slice) {
  PLATFORM_ASSERT(!visiting() && slice < timeSliceInvalid);
  visited_ = slice;
  rings_.splice(ringOf_[slice], dueRing_);
}

std::optional<HitBitTimeSlices::Key> HitBitTimeSlices::due() const {
  const auto node = rings_.first(dueRing_);
  if (node == Rings::none) return std::nullopt;
  return rings_.key(node);
}

void HitBitTimeSlices::passDue() {
  rings_.append(ringOf_[visited_], rings_.first(dueRing_));
}

void HitBitTimeSlices::endVisit() {
  PLATFORM_ASSERT(visiting());
  putBack(dueRing_, visited_);
  visited_ = timeSliceInvalid;
}

void HitBitTimeSlices::putBack(std::uint32_t part, std::uint16_t slice) {
  rings_.splice(ringOf_[slice], part);
  rings_.splice(part, ringOf_[slice]);
}

void HitBitTimeSlices::setAside(std::uint16_t slice) {
  PLATFORM_ASSERT(aside_ == timeSliceInvalid && visited_ != slice && slice < timeSliceInvalid);
  aside_ = slice;
  rings_.splice(ringOf_[slice], asideRing_);
}

void HitBitTimeSlices::visitAside() {
  PLATFORM_ASSERT(!visiting() && aside_ != timeSliceInvalid);
  visited_ = aside_;
  aside_ = timeSliceInvalid;
  rings_.splice(asideRing_, dueRing_);
}

void HitBitTimeSlices::forgetAside() {
  PLATFORM_ASSERT(aside_ != timeSliceInvalid);
  putBack(asideRing_, aside_);
  aside_ = timeSliceInvalid;
}

std::shared_ptr<HitBitTimeSliceColl> HitBitTimeSliceCollIs(std::shared_ptr<HitBitTimeSlices> slices,
                                                           std::uint16_t slice) {
  return std::make_shared<HitBitTimeSliceColl>(std::move(slices), slice);
}

}  // namespace RouteCache
