#include "RouteCache/sw/AdjacencyIds.h"

#include <bit>

#include "platform/values/Assert.h"

namespace RouteCache {

namespace {

std::uint32_t numberOf(AdjId adjId) {
  return adjId.value() & AdjId::adjacencyIdMask;
}

}  // namespace

std::size_t AdjIdNumbers::count() const {
  std::size_t count = 0;
  for (const std::uint64_t word : words_) count += static_cast<std::size_t>(std::popcount(word));
  return count;
}

void FreeAdjIds::fill(const AdjIdNumbers& inUse) {
  freed_.clear();
  skipped_ = inUse;
  skipped_.insert(AdjId::adjacencyInvalid);
  sequence_ = AdjId::adjacencyIdMax + 1 - skipped_.count();
  next_ = AdjId::adjacencyIdStart;
  skip();
}

void FreeAdjIds::skip() {
  while (next_ <= AdjId::adjacencyIdMax && skipped_.has(next_)) ++next_;
}

void FreeAdjIds::freeAdjIdEnq(AdjId adjId) {
  const std::uint32_t number = numberOf(adjId);
  if (number != AdjId::adjacencyInvalid) freed_.push_back(AdjId(number));
}

AdjId FreeAdjIds::freeAdjIdDeq() {
  const AdjId front = freeAdjIdFront();
  if (next_ <= AdjId::adjacencyIdMax) {
    ++next_;
    --sequence_;
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
  while (last >= next_ && skipped_.has(last)) --last;
  return last >= next_ ? AdjId(last) : AdjId();
}

void FreeAdjIds::freeAdjIdDelAll() {
  next_ = AdjId::adjacencyIdMax + 1;
  sequence_ = 0;
  freed_.clear();
}

template <class Ref>
void NexthopAdjIds<Ref>::checkInvariants() const {
  for (const auto& [ref, adjId] : forward_) {
    const auto back = nexthop(adjId);
    PLATFORM_ASSERT_TEXT(back != nullptr && AdjRef(back) == ref, "a next hop's identifier leads back to it");
  }
}

void AdjacencyIds::freeAdjIdFill() {
  free_.fill(numbers_);
}

// The number stays in use while an identifier of another class has it.
void AdjacencyIds::erase(AdjId adjId) {
  const std::uint32_t number = numberOf(adjId);
  entries_.erase(adjId);
  for (const std::uint32_t classBits : {0U, AdjId::adjacencyV6Const, AdjId::adjacencyMixedConst}) {
    if (entries_.has(AdjId(number | classBits))) return;
  }
  numbers_.erase(number);
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
  Entry* const found = entries_.find(adjId);
  if (found == nullptr || found->count == 0) {
    trace_(6, " already 0 case, de-allocated id: ", adjId);
    adjIdRefCountDel(adjId);
    free_.freeAdjIdEnq(adjId);
    return 0;
  }
  if (--found->count > 0) return found->count;
  if (retainUnreferenced_) {
    unreferenced_.insert(adjId);
    return 0;
  }
  erase(adjId);
  trace_(6, "de-allocated id: ", adjId);
  free_.freeAdjIdEnq(adjId);
  return 0;
}

std::uint32_t AdjacencyIds::adjIdRefCount(AdjId adjId) const {
  const Entry* const found = entries_.find(adjId);
  return found == nullptr ? 0 : found->count;
}

void AdjacencyIds::adjIdRefCountIs(AdjId adjId, std::uint32_t count) {
  const auto [entry, isNew] = entries_.insert({adjId, 0, 0, false, {}});
  if (isNew) numbers_.insert(numberOf(adjId));
  if (count == 0) {
    unreferenced_.insert(adjId);
  } else if (!isNew && entry->count == 0) {
    unreferenced_.erase(adjId);
  }
  entry->count = count;
}

void AdjacencyIds::adjIdRefCountAdd(AdjId adjId) {
  Entry* const entry = entries_.find(adjId);
  if (entry == nullptr || entry->count == 0) return adjIdRefCountIs(adjId, 1);
  ++entry->count;
}

bool AdjacencyIds::adjIdRefCountAdd(AdjId adjId, const IpMixedNexthopRef& ref) {
  Entry* const entry = entries_.find(adjId);
  if (entry == nullptr || !entry->leadsHere || entry->parts != partsOf(ref)) return false;
  if (entry->count == 0) {
    adjIdRefCountIs(adjId, 1);
  } else {
    ++entry->count;
  }
  return true;
}

std::optional<AdjacencyIds::Parts> AdjacencyIds::adjIdRefCountSub(AdjId adjId) {
  Entry* const entry = entries_.find(adjId);
  if (entry == nullptr || entry->count < 2) return std::nullopt;
  --entry->count;
  return entry->parts;
}

void AdjacencyIds::adjIdRefCountDel(AdjId adjId) {
  if (entries_.has(adjId)) erase(adjId);
  unreferenced_.erase(adjId);
}

bool AdjacencyIds::current(AdjId adjId) const {
  const Entry* const found = entries_.find(adjId);
  return found != nullptr && found->current == generation_;
}

void AdjacencyIds::currentIs(AdjId adjId, bool current) {
  Entry* const found = entries_.find(adjId);
  if (found != nullptr) found->current = current ? generation_ : 0;
}

AdjId AdjacencyIds::adjId(const std::shared_ptr<IpMixedNexthopRef>& ref) const {
  if (ref->v4nh() && ref->v6nh()) return ipMixedNexthopToAdjId(ref);
  return ref->v6nh() ? ipv6NexthopToAdjId(ref->v6nh()) : ipv4NexthopToAdjId(ref->v4nh());
}

void AdjacencyIds::nexthopIs(const std::shared_ptr<IpMixedNexthopRef>& ref, AdjId adjId) {
  // An equal reference leads to this identifier from now on: one of its class, which says more than the parts that are
  // there where a mixed adjacency has lost one.
  const AdjId before = adjId.isAdjacencyMixed() ? ipMixedNexthopToAdjId(ref)
                       : adjId.isAdjacencyV6()  ? ipv6NexthopToAdjId(ref->v6nh())
                                                : ipv4NexthopToAdjId(ref->v4nh());
  if (Entry* const entry = entries_.find(before)) entry->leadsHere = false;
  if (Entry* const entry = entries_.find(adjId)) {
    entry->leadsHere = true;
    entry->parts = partsOf(*ref);
  }
  if (adjId.isAdjacencyMixed()) {
    mixed_.nexthopIs(ref, adjId);
  } else if (adjId.isAdjacencyV6()) {
    ipv6_.nexthopIs(ref->v6nh(), adjId);
  } else {
    ipv4_.nexthopIs(ref->v4nh(), adjId);
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
  if (Entry* const entry = entries_.find(adjId)) {
    entry->leadsHere = false;
    entry->parts = Parts();
  }
  if (adjId.isAdjacencyMixed()) {
    mixed_.nexthopDel(adjId);
  } else if (adjId.isAdjacencyV6()) {
    ipv6_.nexthopDel(adjId);
  } else {
    ipv4_.nexthopDel(adjId);
  }
}

void AdjacencyIds::checkInvariants() const {
  ipv4_.checkInvariants();
  ipv6_.checkInvariants();
  mixed_.checkInvariants();
  forEach([this](AdjId adjId, std::uint32_t count) {
    PLATFORM_ASSERT_TEXT((count == 0) == unreferenced_.contains(adjId), "count 0 is what unreferenced lists");
    PLATFORM_ASSERT_TEXT(numberInUse(adjId), "an identifier's number is in use");
    if (numberOf(adjId) == AdjId::adjacencyInvalid || count == 0) return;
    const auto ref = nexthop(adjId);
    PLATFORM_ASSERT_TEXT(ref != nullptr, "an identifier that is held has a next hop");
    const Entry& entry = *entries_.find(adjId);
    PLATFORM_ASSERT_TEXT(entry.parts == partsOf(*ref), "an identifier's parts are those of its next hop");
    PLATFORM_ASSERT_TEXT(entry.leadsHere == (this->adjId(ref) == adjId), "an identifier is found by its next hop");
    const bool known = ref->isV4() == (ref->v4nh() != nullptr) && ref->isV6() == (ref->v6nh() != nullptr) &&
                       (!ref->v4nh() || (ref->v4nh()->isV4() && !ref->v4nh()->isV6())) &&
                       (!ref->v6nh() || (ref->v6nh()->isV6() && !ref->v6nh()->isV4()));
    PLATFORM_ASSERT_TEXT(known, "a reference says of itself which families its end points are of");
  });
}

}  // namespace RouteCache
