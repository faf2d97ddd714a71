#include "RouteCache/RouteCacheAdjIds.h"

#include "platform/Assert.h"

namespace RouteCache {

namespace {

std::uint32_t numberOf(AdjId adjId) {
  return adjId.value() & AdjId::adjacencyIdMask;
}

}  // namespace

void FreeAdjIds::fill(std::set<std::uint32_t> inUse) {
  freed_.clear();
  skipped_ = std::move(inUse);
  skipped_.erase(AdjId::adjacencyInvalid);
  next_ = AdjId::adjacencyIdStart;
  skip();
}

void FreeAdjIds::skip() {
  while (!skipped_.empty() && *skipped_.begin() == next_) {
    skipped_.erase(skipped_.begin());
    ++next_;
  }
}

void FreeAdjIds::freeAdjIdEnq(AdjId adjId) {
  const std::uint32_t number = numberOf(adjId);
  if (number != AdjId::adjacencyInvalid) freed_.push_back(AdjId(number));
}

AdjId FreeAdjIds::freeAdjIdDeq() {
  const AdjId front = freeAdjIdFront();
  if (next_ <= AdjId::adjacencyIdMax) {
    ++next_;
    skip();
  } else if (!freed_.empty()) {
    freed_.pop_front();
  }
  return front;
}

AdjId FreeAdjIds::freeAdjIdFront() const {
  if (next_ <= AdjId::adjacencyIdMax) return AdjId(next_);
  return freed_.empty() ? AdjId() : freed_.front();
}

AdjId FreeAdjIds::freeAdjIdBack() const {
  if (!freed_.empty()) return freed_.back();
  std::uint32_t last = AdjId::adjacencyIdMax;
  while (last >= next_ && skipped_.contains(last)) --last;
  return last >= next_ ? AdjId(last) : AdjId();
}

void FreeAdjIds::freeAdjIdDelAll() {
  next_ = AdjId::adjacencyIdMax + 1;
  skipped_.clear();
  freed_.clear();
}

std::size_t FreeAdjIds::size() const {
  return AdjId::adjacencyIdMax + 1 - next_ - skipped_.size() + freed_.size();
}

template <class Ref>
void NexthopAdjIds<Ref>::checkInvariants() const {
  for (const auto& [ref, adjId] : forward_) {
    const auto back = nexthop(adjId);
    PLATFORM_ASSERT_TEXT(back != nullptr && AdjRef(back) == ref, "a next hop's identifier leads back to it");
  }
}

void AdjacencyIds::freeAdjIdFill() {
  std::set<std::uint32_t> inUse;
  for (const auto& entry : entries_) inUse.insert(numberOf(entry.first));
  free_.fill(std::move(inUse));
}

AdjId AdjacencyIds::allocateAdjId(bool v6Adj, bool v4Adj) {
  std::uint32_t value = free_.freeAdjIdDeq().value();
  if (v6Adj) value |= v4Adj ? AdjId::adjacencyMixedConst : AdjId::adjacencyV6Const;
  const AdjId adjId(value);
  adjIdRefCountIs(adjId, 1);
  trace_(6, "allocated id: ", adjId);
  return adjId;
}

std::uint32_t AdjacencyIds::deallocateAdjId(AdjId adjId) {
  const auto found = entries_.find(adjId);
  if (found == entries_.end() || found->second.count == 0) {
    trace_(6, " already 0 case, de-allocated id: ", adjId);
    adjIdRefCountDel(adjId);
    free_.freeAdjIdEnq(adjId);
    return 0;
  }
  if (--found->second.count > 0) return found->second.count;
  if (retainUnreferenced_) {
    unreferenced_.insert(adjId);
    return 0;
  }
  entries_.erase(found);
  trace_(6, "de-allocated id: ", adjId);
  free_.freeAdjIdEnq(adjId);
  return 0;
}

std::uint32_t AdjacencyIds::adjIdRefCount(AdjId adjId) const {
  const auto found = entries_.find(adjId);
  return found == entries_.end() ? 0 : found->second.count;
}

void AdjacencyIds::adjIdRefCountIs(AdjId adjId, std::uint32_t count) {
  const auto [entry, isNew] = entries_.try_emplace(adjId);
  if (count == 0) {
    unreferenced_.insert(adjId);
  } else if (!isNew && entry->second.count == 0) {
    unreferenced_.erase(adjId);
  }
  entry->second.count = count;
}

void AdjacencyIds::adjIdRefCountDel(AdjId adjId) {
  entries_.erase(adjId);
  unreferenced_.erase(adjId);
}

bool AdjacencyIds::current(AdjId adjId) const {
  const auto found = entries_.find(adjId);
  return found != entries_.end() && found->second.current;
}

void AdjacencyIds::currentIs(AdjId adjId, bool current) {
  const auto found = entries_.find(adjId);
  if (found != entries_.end()) found->second.current = current;
}

void AdjacencyIds::currentDelAll() {
  for (auto& entry : entries_) entry.second.current = false;
}

AdjId AdjacencyIds::adjId(const std::shared_ptr<IpMixedNexthopRef>& ref) const {
  if (ref->v4nh() && ref->v6nh()) return ipMixedNexthopToAdjId(ref);
  return ref->v6nh() ? ipv6NexthopToAdjId(ref->v6nh()) : ipv4NexthopToAdjId(ref->v4nh());
}

void AdjacencyIds::nexthopIs(const std::shared_ptr<IpMixedNexthopRef>& ref, AdjId adjId) {
  if (adjId.isAdjacencyMixed()) {
    ipMixedNexthopToAdjIdIs(ref, adjId);
    ipMixedAdjIdToNexthopIs(adjId, ref);
  } else if (adjId.isAdjacencyV6()) {
    ipv6NexthopToAdjIdIs(ref->v6nh(), adjId);
    ipv6AdjIdToNexthopIs(adjId, ref->v6nh());
  } else {
    ipv4NexthopToAdjIdIs(ref->v4nh(), adjId);
    ipv4AdjIdToNexthopIs(adjId, ref->v4nh());
  }
}

std::shared_ptr<IpMixedNexthopRef> AdjacencyIds::nexthop(AdjId adjId) const {
  if (adjId.isAdjacencyMixed()) return ipMixedAdjIdToNexthop(adjId);
  const auto v4nh = adjId.isAdjacencyV6() ? nullptr : ipv4AdjIdToNexthop(adjId);
  const auto v6nh = adjId.isAdjacencyV6() ? ipv6AdjIdToNexthop(adjId) : nullptr;
  if (!v4nh && !v6nh) return nullptr;
  auto ref = ipMixedNexthopRefFactory(v4nh != nullptr, v6nh != nullptr);
  ref->v4nhIs(v4nh);
  ref->v6nhIs(v6nh);
  return ref;
}

void AdjacencyIds::nexthopDel(AdjId adjId) {
  if (adjId.isAdjacencyMixed()) {
    if (const auto ref = ipMixedAdjIdToNexthop(adjId)) ipMixedNexthopToAdjIdDel(ref, adjId);
    ipMixedAdjIdToNexthopDel(adjId);
  } else if (adjId.isAdjacencyV6()) {
    if (const auto ref = ipv6AdjIdToNexthop(adjId)) ipv6NexthopToAdjIdDel(ref, adjId);
    ipv6AdjIdToNexthopDel(adjId);
  } else {
    if (const auto ref = ipv4AdjIdToNexthop(adjId)) ipv4NexthopToAdjIdDel(ref, adjId);
    ipv4AdjIdToNexthopDel(adjId);
  }
}

void AdjacencyIds::checkInvariants() const {
  ipv4_.checkInvariants();
  ipv6_.checkInvariants();
  mixed_.checkInvariants();
  for (const auto& [adjId, entry] : entries_) {
    PLATFORM_ASSERT_TEXT((entry.count == 0) == unreferenced_.contains(adjId), "count 0 is what unreferenced lists");
    if (numberOf(adjId) == AdjId::adjacencyInvalid) continue;
    PLATFORM_ASSERT_TEXT(nexthop(adjId) != nullptr, "an identifier in use has a next hop");
  }
}

}  // namespace RouteCache
