#include "RouteCache/model/NexthopRef.h"

#include <algorithm>
#include <charconv>

namespace RouteCache {

template <class Family>
bool BasicNexthopRef<Family>::viaHas(const Nexthop& nexthop) const {
  return std::binary_search(via_.begin(), via_.end(), nexthop);
}

template <class Family>
const BasicNexthop<Family>& BasicNexthopRef<Family>::viaIs(const Nexthop& nexthop) {
  auto place = std::lower_bound(via_.begin(), via_.end(), nexthop);
  if (place == via_.end() || *place != nexthop) {
    place = via_.insert(place, nexthop);
    rehash();
  }
  return *place;
}

template <class Family>
void BasicNexthopRef<Family>::viaDel(const Nexthop& nexthop) {
  const auto place = std::lower_bound(via_.begin(), via_.end(), nexthop);
  if (place == via_.end() || *place != nexthop) return;
  via_.erase(place);
  rehash();
}

template <class Family>
void BasicNexthopRef<Family>::viaDelAll() {
  via_.clear();
  rehash();
}

// The array is sorted, so a hash in its order is a hash of the set.
template <class Family>
void BasicNexthopRef<Family>::rehash() {
  contentHash_ = emptyHash;
  for (const Nexthop& nexthop : via_) contentHash_ = Platform::hashMix(contentHash_, nexthop.hash());
}

template class BasicNexthopRef<Ipv4Family>;
template class BasicNexthopRef<Ipv6Family>;

namespace {

template <class Ref>
bool samePart(const std::shared_ptr<Ref>& a, const std::shared_ptr<Ref>& b) {
  return BasicAdjRef<Ref>(a) == BasicAdjRef<Ref>(b);
}

}  // namespace

bool IpMixedNexthopRef::sameContent(const IpMixedNexthopRef& other) const {
  return samePart(v4nh_, other.v4nh_) && samePart(v6nh_, other.v6nh_);
}

std::uint64_t IpMixedNexthopRef::contentHash() const {
  return Platform::hashMix(v4nh_ ? v4nh_->contentHash() : 0, v6nh_ ? v6nh_->contentHash() : 0);
}

std::shared_ptr<Ipv4NexthopRef> ipv4NexthopRefFactory(bool isV4, bool isV6) {
  return std::make_shared<Ipv4NexthopRef>(isV4, isV6);
}

std::shared_ptr<Ipv6NexthopRef> ipv6NexthopRefFactory(bool isV4, bool isV6) {
  return std::make_shared<Ipv6NexthopRef>(isV4, isV6);
}

std::shared_ptr<IpMixedNexthopRef> ipMixedNexthopRefFactory(bool isV4, bool isV6) {
  return std::make_shared<IpMixedNexthopRef>(isV4, isV6);
}

}  // namespace RouteCache

namespace Platform {

using RouteCache::BasicAdjRef;

template <class Ref>
std::string TextForm<BasicAdjRef<Ref>>::to(const BasicAdjRef<Ref>& value) {
  std::array<char, 2 * sizeof(std::uintptr_t)> digits;
  const auto end = std::to_chars(digits.data(), digits.data() + digits.size(),
                                 reinterpret_cast<std::uintptr_t>(value.ref().get()), 16);
  return "0x" + std::string(digits.data(), end.ptr);
}

template struct TextForm<RouteCache::Ipv4AdjRef>;
template struct TextForm<RouteCache::Ipv6AdjRef>;
template struct TextForm<RouteCache::IpMixedAdjRef>;

}  // namespace Platform
