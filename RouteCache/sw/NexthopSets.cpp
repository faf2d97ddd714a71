#include "RouteCache/sw/NexthopSets.h"

#include <algorithm>

namespace RouteCache {

std::optional<NexthopSet*> NexthopSets::entry(Key viaKey) {
  std::optional<NexthopSet*> set;
  entries(std::span(&viaKey, 1), [&](std::size_t, std::optional<NexthopSet*> found) { set = found; });
  return set;
}

NexthopSet* NexthopSets::setOf(Key viaKey, Pondra::Bytes via, std::uint64_t readAt) {
  NexthopSet& set = sets_[viaKey];
  if (set.bytes.empty() || !std::ranges::equal(set.bytes, via)) {
    set = NexthopSet();
    set.viaKey = viaKey;
    set.bytes.assign(via.begin(), via.end());
  }
  set.readAt = readAt;
  return &set;
}

void NexthopSets::dropSome() {
  constexpr unsigned atOnce = 4096;  // about a millisecond
  for (unsigned i = 0; i < atOnce && !sets_.empty(); ++i) sets_.erase(sets_.begin());
  if (sets_.empty()) sets_ = {};
}

void NexthopSets::make(NexthopSet& set) const {
  set.underlayChange = underlayChanges_;
  set.fault.clear();
  set.ref = nullptr;
  const auto via = viaConfig_->decoded(set.viaKey, set.bytes);
  set.isVia = via.has_value();
  if (!via) return;
  try {
    set.ref = underlay_.createNexthopRefFromViaConfig(*via);
  } catch (const RangeError& error) {
    set.isVia = false;
    set.fault = error.what();
  }
}

}  // namespace RouteCache
