#include "RouteCache/sw/RouteConfigWalk.h"

namespace RouteCache {

void RouteConfigWalk::allIs(std::uint8_t flags) {
  const std::uint8_t ofVrfs = nextVrfs_.empty() ? 0 : RouteQueue::vtepFlag;
  nextAll_ = static_cast<std::uint8_t>(nextAll_.value_or(0) | ofVrfs | flags);
  nextVrfs_.clear();
}

void RouteConfigWalk::vrfIs(std::uint32_t piVrfId) {
  if (nextAll_) {
    *nextAll_ |= RouteQueue::vtepFlag;
  } else {
    nextVrfs_.insert(piVrfId);
  }
}

bool RouteConfigWalk::willMeet(const RouteKey& key) const {
  if (nextAll_ || nextVrfs_.contains(key.vrfId())) return true;
  if (!current_ || (current_->vrf && *current_->vrf != key.vrfId())) return false;
  const unsigned family = key.prefix().isV4() ? 0 : 1;
  if (family != current_->family) return family > current_->family;
  return !current_->from || !(key < *current_->from);
}

bool RouteConfigWalk::beginNext() {
  if (nextAll_) {
    current_ = Walk{*nextAll_, std::nullopt, 0, std::nullopt};
    nextAll_.reset();
  } else if (!nextVrfs_.empty()) {
    const std::uint32_t vrf = *nextVrfs_.begin();
    current_ = Walk{RouteQueue::vtepFlag, vrf, 0, RouteKey(vrf, IpGenPrefix())};
    nextVrfs_.erase(nextVrfs_.begin());
  }
  return current_.has_value();
}

}  // namespace RouteCache
