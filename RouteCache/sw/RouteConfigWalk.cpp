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

std::size_t RouteConfigWalk::step(RouteQueue& queue, std::span<Routing::Rib::Route> met) {
  if (!current_ && !beginNext()) return 0;
  std::size_t count = 0;
  const Routing::Rib::RouteConfig& config = *configs_[current_->family];
  auto route = current_->from ? config.lowerBound(*current_->from) : config.begin();
  for (; route != config.end() && count < met.size(); ++route) {
    if (current_->vrf && route->key().vrfId() != *current_->vrf) break;
    queue.routeToProcessAdd(route->key(), current_->flags);
    met[count++] = *route;
  }
  if (route != config.end() && count == met.size()) {
    current_->from = route->key();
  } else if (current_->family == 0) {
    current_->family = 1;
    current_->from = current_->vrf ? std::optional(RouteKey(*current_->vrf, IpGenPrefix())) : std::nullopt;
  } else {
    current_.reset();
  }
  return count;
}

}  // namespace RouteCache
