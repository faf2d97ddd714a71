#include "lib/tables/PlacePool.h"

#include <algorithm>
#include <utility>

#include "platform/values/Assert.h"

namespace LinuxPlatform {

void PlacePool::adopt(std::uint32_t used, std::vector<std::uint32_t> freed) {
  used_ = used;
  freed_ = std::move(freed);
  reserved_ = used_;
  storeNumber(*mark_, used_);
}

std::uint32_t PlacePool::take() {
  if (!freed_.empty()) {
    const std::uint32_t place = freed_.back();
    freed_.pop_back();
    return place;
  }
  PLATFORM_ASSERT(used_ < reserved_);
  storeNumber(*mark_, std::uint64_t{used_} + 1);
  return used_++;
}

bool PlacePool::extend(std::uint32_t count) {
  const std::uint64_t wanted = std::uint64_t{used_} + count - std::min<std::size_t>(count, freed_.size());
  if (wanted > section_.count) return false;
  const std::size_t ahead = std::clamp(std::size_t{used_} * section_.size / 8, leastAhead, mostAhead) / section_.size;
  return reserveTo(std::min<std::uint64_t>(wanted + ahead, section_.count)) || reserveTo(wanted);
}

bool PlacePool::reserveTo(std::uint64_t places) {
  if (places > reserved_ && *reserve_ && !(*reserve_)(section_.at(reserved_), section_.at(places))) return false;
  reserved_ = std::max(reserved_, static_cast<std::uint32_t>(places));
  return true;
}

}  // namespace LinuxPlatform
