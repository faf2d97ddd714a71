#include "lib/tables/PlacePool.h"

#include <algorithm>
#include <bit>
#include <utility>

#include "platform/values/Assert.h"

namespace LinuxPlatform {

namespace {
std::size_t pageEnd(std::size_t offset) {
  return (offset + tablePage - 1) / tablePage * tablePage;
}
}  // namespace

// Places up to the last writer's mark have their room, too.
void PlacePool::adopt(std::uint32_t used, std::vector<std::uint32_t> freed) {
  const std::uint64_t mark = load(*mark_);
  const bool known = isSound(mark) && numberIn(mark) <= section_.count;
  used_ = used;
  freed_ = std::move(freed);
  order_ = std::vector<std::uint64_t>();
  inOrder_ = 0;
  ordering_ = false;
  reserved_ = std::max({used_, reserved_, known ? static_cast<std::uint32_t>(numberIn(mark)) : 0});
  knowsEnd_ = false;
  storeNumber(*mark_, used_);
}

std::uint32_t PlacePool::take() {
  if (!freed_.empty()) {
    const std::uint32_t place = freed_.back();
    freed_.pop_back();
    return place;
  }
  if (inOrder_ != 0) {
    while (order_[firstWord_] == 0) ++firstWord_;
    std::uint64_t& word = order_[firstWord_];
    const auto place = static_cast<std::uint32_t>(firstWord_ * 64 + static_cast<unsigned>(std::countr_zero(word)));
    word &= word - 1;
    --inOrder_;
    return place;
  }
  PLATFORM_ASSERT(used_ < reserved_);
  storeNumber(*mark_, std::uint64_t{used_} + 1);
  return used_++;
}

void PlacePool::give(std::uint32_t place) {
  if (!ordering_) {
    freed_.push_back(place);
    return;
  }
  const std::size_t word = place / 64;
  if (word >= order_.size()) order_.resize(word + 1);
  order_[word] |= std::uint64_t{1} << place % 64;
  firstWord_ = std::min(firstWord_, word);
  ++inOrder_;
}

std::uint64_t PlacePool::ahead(std::uint32_t used) const {
  return std::clamp(std::size_t{used} * section_.size / 8, leastAhead, mostAhead) / section_.size;
}

bool PlacePool::extend(std::uint32_t count) {
  const std::uint64_t wanted = std::uint64_t{used_} + count - std::min(count, free());
  if (wanted > section_.count) return false;
  return reserveTo(std::min<std::uint64_t>(wanted + ahead(used_), section_.count)) || reserveTo(wanted);
}

bool PlacePool::reserveTo(std::uint64_t places) {
  if (places > reserved_ && *reserve_ && !(*reserve_)(section_.at(reserved_), section_.at(places))) return false;
  reserved_ = std::max(reserved_, static_cast<std::uint32_t>(places));
  return true;
}

// --- Giving back -----------------------------------------------------------------------------------------------------

std::size_t PlacePool::keptEnd() const {
  return std::min(pageEnd(section_.at(used_) + leastAhead), pageEnd(section_.end()));
}

std::size_t PlacePool::reservedEnd() const {
  const std::size_t end = pageEnd(section_.at(reserved_)) + (knowsEnd_ ? 0 : mostAhead);
  return std::max(std::min(end, pageEnd(section_.end())), keptEnd());
}

bool PlacePool::isSparse() const {
  const std::uint32_t taken = used_ - free();
  return taken < reserved_ / 2 && std::size_t{reserved_ - taken} * section_.size >= leastAhead + leastSurplus;
}

bool PlacePool::putInOrder(std::uint32_t places) {
  ordering_ = true;
  for (; places > 0 && !freed_.empty(); --places) {
    const std::uint32_t place = freed_.back();
    freed_.pop_back();
    give(place);
  }
  if (!freed_.empty()) return false;
  freed_ = std::vector<std::uint32_t>();
  return true;
}

void PlacePool::endOrder() {
  ordering_ = false;
  if (inOrder_ == 0) order_ = std::vector<std::uint64_t>();
}

bool PlacePool::isFullBefore(std::uint32_t place) {
  if (inOrder_ == 0) return true;
  while (order_[firstWord_] == 0) ++firstWord_;
  return firstWord_ * 64 + static_cast<unsigned>(std::countr_zero(order_[firstWord_])) >= place;
}

bool PlacePool::letGo() {
  const std::uint32_t before = used_;
  const auto least = static_cast<std::uint32_t>(std::max<std::size_t>(1, mostLetGo / section_.size));
  while (used_ > 0 && isInOrder(used_ - 1) && before - used_ < least) {
    --used_;
    order_[used_ / 64] &= ~(std::uint64_t{1} << used_ % 64);
    --inOrder_;
  }
  if (used_ != before) storeNumber(*mark_, used_);
  if (order_.size() > 2 * (used_ / 64 + 1)) {
    order_.resize(used_ / 64 + 1);
    order_.shrink_to_fit();
  }
  return used_ == 0 || !isInOrder(used_ - 1);
}

bool PlacePool::giveBack(const Release& release) {
  const std::size_t begin = keptEnd();
  if (!release(begin, reservedEnd())) return false;
  knowsEnd_ = true;
  reserved_ = std::min(reserved_, static_cast<std::uint32_t>((begin - section_.begin) / section_.size));
  return true;
}

}  // namespace LinuxPlatform
