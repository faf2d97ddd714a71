// Adjacency identifiers: which are free, how many routes hold each one in use, and which next-hop reference each one
// stands for. Bookkeeping only: tables and resolver requests are SwRouteSm's.
//
// Invariants:
//   - an identifier is in adjIdRefCount from its allocation (count 1) or its adoption (count 0) until it is freed;
//   - forward and reverse maps agree: forward(ref) == id implies reverse(id) equals ref, which knows its families;
//   - an identifier's parts are those of reverse(id), which keeps them; it leads here if forward(reverse(id)) == id;
//   - no number is in the free list while an identifier of that number is in use.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <set>
#include <unordered_map>
#include <vector>

#include "RouteCache/model/NexthopRef.h"
#include "RouteCache/queues/FlatTable.h"
#include "platform/trace/Trace.h"

namespace RouteCache {

// A set of identifier numbers, one bit each: 256 KiB, whatever is in it.
class AdjIdNumbers {
 public:
  AdjIdNumbers() : words_((AdjId::adjacencyIdMax + 1) / 64) {}
  bool has(std::uint32_t number) const { return (words_[number / 64] >> (number % 64) & 1) != 0; }
  void insert(std::uint32_t number) { words_[number / 64] |= std::uint64_t{1} << (number % 64); }
  void erase(std::uint32_t number) { words_[number / 64] &= ~(std::uint64_t{1} << (number % 64)); }
  std::size_t count() const;

 private:
  std::vector<std::uint64_t> words_;
};

// Free identifier numbers, class bits clear, oldest first. The initial sequence of two million numbers is not stored
// but counted up, leaving out the numbers that were in use when the list was filled.
class FreeAdjIds {
 public:
  // Starts the initial sequence: every number from 1 up but those in use now.
  void fill(const AdjIdNumbers& inUse);

  // Appends the identifier's number. 0 is no number and is not taken.
  void freeAdjIdEnq(AdjId adjId);
  // Takes the front; the invalid identifier when there is none.
  AdjId freeAdjIdDeq();
  AdjId freeAdjIdFront() const;
  AdjId freeAdjIdBack() const;
  void freeAdjIdDelAll();
  std::size_t size() const { return sequence_ + freed_.size(); }

 private:
  void skip();
  std::uint32_t next_ = AdjId::adjacencyIdMax + 1;  // front of the initial sequence; past the end: used up
  std::size_t sequence_ = 0;                        // numbers left in the initial sequence
  AdjIdNumbers skipped_;                            // numbers that the sequence leaves out
  std::deque<AdjId> freed_;                         // behind the initial sequence
};

// One class of next-hop references, both ways.
template <class Ref>
class NexthopAdjIds {
 public:
  using AdjRef = BasicAdjRef<Ref>;
  // The invalid identifier when there is none.
  AdjId adjId(const AdjRef& ref) const {
    const auto found = forward_.find(ref);
    return found == forward_.end() ? AdjId() : found->second;
  }
  // Null when there is none.
  std::shared_ptr<Ref> nexthop(AdjId adjId) const {
    const auto found = reverse_.find(adjId);
    return found == reverse_.end() ? nullptr : found->second;
  }
  // Enters both ways; where an equal reference has an identifier already, this one is what it leads to from now on.
  void nexthopIs(const std::shared_ptr<Ref>& ref, AdjId adjId) {
    forward_[ref] = adjId;
    reverse_[adjId] = ref;
  }
  // Of the way there only an entry that leads to this identifier goes: an equal reference may have found another since.
  void nexthopDel(AdjId adjId) {
    const auto ref = nexthop(adjId);
    const auto found = ref ? forward_.find(ref) : forward_.end();
    if (found != forward_.end() && found->second == adjId) forward_.erase(found);
    reverse_.erase(adjId);
  }
  std::size_t size() const { return reverse_.size(); }
  // Asserts that both directions agree.
  void checkInvariants() const;

 private:
  std::unordered_map<AdjRef, AdjId, Platform::Hasher> forward_;
  std::unordered_map<AdjId, std::shared_ptr<Ref>, Platform::Hasher> reverse_;
};

class AdjacencyIds {
 public:
  explicit AdjacencyIds(const Platform::TraceHandle& trace) : trace_(trace) {}

  // --- Allocation and reference counts ---
  // Fills the free list with every number that no identifier uses now.
  void freeAdjIdFill();
  // A new identifier with count 1. IPv6 alone, mixed when v4Adj is set too, else a plain IPv4 one. From an empty free
  // list: number 0 with the class bits asked for.
  AdjId allocateAdjId(bool v6Adj, bool v4Adj);
  // Releases one reference and returns how many remain. At 0 the number goes back to the free list; while
  // retainUnreferenced is set the identifier stays instead, with count 0.
  std::uint32_t deallocateAdjId(AdjId adjId);
  // While set, an identifier that nobody holds stays in use: routes that are not accounted for may name it.
  bool retainUnreferenced() const { return retainUnreferenced_; }
  void retainUnreferencedIs(bool retain) { retainUnreferenced_ = retain; }

  bool adjIdRefCountHas(AdjId adjId) const { return entries_.has(adjId); }
  std::uint32_t adjIdRefCount(AdjId adjId) const;  // 0 when absent
  // Asks memory for what counting references to this one takes.
  void expect(AdjId adjId) const { entries_.expect(adjId); }
  void adjIdRefCountIs(AdjId adjId, std::uint32_t count);
  void adjIdRefCountAdd(AdjId adjId);  // one more
  // One more, if the identifier stands for the very parts of this reference, and an equal one leads to it. False:
  // nothing has been counted.
  bool adjIdRefCountAdd(AdjId adjId, const IpMixedNexthopRef& ref);
  // What an identifier stands for: the parts of its reference, kept by the maps; null where one is missing.
  struct Parts {
    const Ipv4NexthopRef* v4nh = nullptr;
    const Ipv6NexthopRef* v6nh = nullptr;
    bool operator==(const Parts&) const = default;
  };
  // One less of several, as most are. Nothing: it would be the last one, and has not been counted.
  std::optional<Parts> adjIdRefCountSub(AdjId adjId);
  void adjIdRefCountDel(AdjId adjId);
  // The identifiers with count 0, in order: what a clean-up walks.
  const std::set<AdjId>& unreferenced() const { return unreferenced_; }
  std::size_t inUse() const { return entries_.size(); }
  template <class Visit>
  void forEach(Visit&& visit) const {
    entries_.forEach([&](const Entry& entry) { visit(entry.adjId, entry.count); });
  }

  // True while the adjacency in the tables is known to be what its reference and the resolver say.
  bool current(AdjId adjId) const;
  void currentIs(AdjId adjId, bool current);
  void currentDelAll() { ++generation_; }
  // True when some identifier in use has this one's number, whatever its class.
  bool numberInUse(AdjId adjId) const { return numbers_.has(adjId.value() & AdjId::adjacencyIdMask); }

  void freeAdjIdEnq(AdjId adjId) { free_.freeAdjIdEnq(adjId); }
  AdjId freeAdjIdDeq() { return free_.freeAdjIdDeq(); }
  AdjId freeAdjIdFront() const { return free_.freeAdjIdFront(); }
  AdjId freeAdjIdBack() const { return free_.freeAdjIdBack(); }
  void freeAdjIdDelAll() { free_.freeAdjIdDelAll(); }
  const FreeAdjIds& freeAdjId() const { return free_; }

  // --- Next-hop maps ---
  // The identifier of an equal reference, or the invalid one. The class follows from the parts that the reference has.
  AdjId adjId(const std::shared_ptr<IpMixedNexthopRef>& ref) const;
  // Records reference and identifier in the maps of the reference's class, both ways.
  void nexthopIs(const std::shared_ptr<IpMixedNexthopRef>& ref, AdjId adjId);
  // The reference behind the identifier, in mixed form (one part may be missing), or null.
  std::shared_ptr<IpMixedNexthopRef> nexthop(AdjId adjId) const;
  void nexthopDel(AdjId adjId);

  AdjId ipv4NexthopToAdjId(const Ipv4AdjRef& ref) const { return ipv4_.adjId(ref); }
  std::shared_ptr<Ipv4NexthopRef> ipv4AdjIdToNexthop(AdjId adjId) const { return ipv4_.nexthop(adjId); }
  AdjId ipv6NexthopToAdjId(const Ipv6AdjRef& ref) const { return ipv6_.adjId(ref); }
  std::shared_ptr<Ipv6NexthopRef> ipv6AdjIdToNexthop(AdjId adjId) const { return ipv6_.nexthop(adjId); }
  AdjId ipMixedNexthopToAdjId(const IpMixedAdjRef& ref) const { return mixed_.adjId(ref); }
  std::shared_ptr<IpMixedNexthopRef> ipMixedAdjIdToNexthop(AdjId adjId) const { return mixed_.nexthop(adjId); }

  // Asserts the invariants above. Walks everything.
  void checkInvariants() const;

 private:
  struct Entry {
    AdjId adjId;
    std::uint32_t count = 0;
    std::uint32_t current = 0;  // the generation in which the adjacency was known to be right
    bool leadsHere = false;     // a reference like its parts
    Parts parts;                // none: it has no reference
  };
  struct AdjIdOf {
    const AdjId& operator()(const Entry& entry) const { return entry.adjId; }
  };
  void erase(AdjId adjId);
  static Parts partsOf(const IpMixedNexthopRef& ref) { return {ref.v4nh().get(), ref.v6nh().get()}; }
  const Platform::TraceHandle& trace_;
  FreeAdjIds free_;
  FlatTable<Entry, AdjId, AdjIdOf> entries_;
  AdjIdNumbers numbers_;  // of entries_
  std::uint32_t generation_ = 1;
  std::set<AdjId> unreferenced_;
  bool retainUnreferenced_ = false;
  NexthopAdjIds<Ipv4NexthopRef> ipv4_;
  NexthopAdjIds<Ipv6NexthopRef> ipv6_;
  NexthopAdjIds<IpMixedNexthopRef> mixed_;
};

}  // namespace RouteCache
