// Routing tries: sets of prefixes, each with a flag, that answer exact and longest-prefix-match lookups and can be
// walked in prefix order. `Routing::Trie` holds IPv4 prefixes, `Routing6::Trie` IPv6 prefixes; both are one template.
// Made for a million prefixes, and for thousands of tries that hold few or none: a node costs 20 bytes (IPv4) or 32
// (IPv6), there are about half as many nodes as prefixes of a routing table, and a change touches what is near it.
//
// Shape: five bits a node. A node stands for all addresses that begin with its first `depth` bits, depth being a
// multiple of five, and keeps which of the 31 prefixes of zero to four further bits are there, by place, and which of
// the 32 continuations of five further bits lead to a child, by slot. Children lie side by side in the order of their
// slots, so one index and a count of bits find each. What only leads on is left out: the root aside, which has no bits,
// every node holds a prefix or has two children, and a child may be any number of levels deeper than its parent. So the
// same prefixes make the same nodes, whatever came before.
//
// A trie of many prefixes also has a front: for each of the 2^15 combinations of an address's first bits the topmost
// node of at least that depth, so that a lookup begins there. What the front knows follows from the nodes.
//
// Places are numbered in prefix order (an address's shorter prefix first): a prefix of `length` further bits has place
// slot - popcount(slot) + length, its slot being its bits with zeroes behind. Of the prefixes that cover one address
// the longest has the highest place, and behind a place come in turn the next place and the next child, the place first
// when both begin at one slot.
#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/state/Entity.h"
#include "platform/tables/TrieBlocks.h"
#include "platform/values/Net.h"

namespace Platform {

// What differs between the families: how a node keeps its address.
template <class P>
struct TrieFamily;

template <>
struct TrieFamily<Prefix> {
  using Bits = std::uint32_t;
  static constexpr const char* typeName = "Routing::Trie";
  static constexpr const char* trieName = "CachedRouteTrie";
  static Bits bits(const Prefix& prefix) { return prefix.addr().value(); }
  static Prefix prefix(Bits bits, unsigned length) { return {IpAddr(bits), length}; }
  // Five bits from this one on, those beyond the address being 0: of the last five, at depth 30, these are three.
  static unsigned slot(Bits bits, unsigned depth) {
    return static_cast<unsigned>(std::uint64_t{bits} << 3 >> (30 - depth)) & 31;
  }
  // The same bits with these five, where they were 0.
  static Bits withSlot(Bits bits, unsigned depth, unsigned slot) {
    return bits | static_cast<Bits>(std::uint64_t{slot} << (30 - depth) >> 3);
  }
  // Whether the first so many bits are the same.
  static bool agree(Bits a, Bits b, unsigned length) { return ((a ^ b) & Prefix::mask(length)) == 0; }
  static unsigned commonBits(Bits a, Bits b) { return static_cast<unsigned>(std::countl_zero(a ^ b)); }
  static std::size_t firstBits(Bits bits, unsigned count) { return bits >> (32 - count); }
};

template <>
struct TrieFamily<Ip6Prefix> {
  struct Bits {
    std::uint64_t high = 0;
    std::uint64_t low = 0;
    bool operator==(const Bits&) const = default;
    auto operator<=>(const Bits&) const = default;
  };
  static constexpr const char* typeName = "Routing6::Trie";
  static constexpr const char* trieName = "CachedRouteTrie6";
  static Bits bits(const Ip6Prefix& prefix) { return {prefix.addr().high(), prefix.addr().low()}; }
  static Ip6Prefix prefix(Bits bits, unsigned length) { return {Ip6Addr(bits.high, bits.low), length}; }
  // As above. `low` is shifted in two steps, for one by 64 bits, at depth 0, is undefined; so is `top` below.
  static unsigned slot(const Bits& bits, unsigned depth) {
    const std::uint64_t from =
        depth < 64 ? bits.high << depth | bits.low >> 1 >> (63 - depth) : bits.low << (depth - 64);
    return static_cast<unsigned>(from >> 59);
  }
  static Bits withSlot(const Bits& bits, unsigned depth, unsigned slot) {
    const std::uint64_t top = std::uint64_t{slot} << 59;
    if (depth >= 64) return {bits.high, bits.low | top >> (depth - 64)};
    return {bits.high | top >> depth, bits.low | top << 1 << (63 - depth)};
  }
  static bool agree(const Bits& a, const Bits& b, unsigned length) {
    return (((a.high ^ b.high) & Ip6Prefix::highMask(length)) | ((a.low ^ b.low) & Ip6Prefix::lowMask(length))) == 0;
  }
  static unsigned commonBits(Bits a, Bits b) {
    if (a.high != b.high) return static_cast<unsigned>(std::countl_zero(a.high ^ b.high));
    return 64 + static_cast<unsigned>(std::countl_zero(a.low ^ b.low));
  }
  static std::size_t firstBits(const Bits& bits, unsigned count) { return bits.high >> (64 - count); }
};

// Held by shared_ptr. One thread.
template <class P>
class BasicTrie final : public Lattis::Entity {
 public:
  using PrefixType = P;

  struct Route {
    P prefix;
    bool value = false;
  };

  // Hears of the trie's changes while it exists; registers and deregisters itself, also from inside a notification.
  // Does not keep the trie alive.
  class Reactor {
   public:
    explicit Reactor(const std::shared_ptr<const BasicTrie>& trie) : trie_(trie.get()) { trie_->reactors_.add(this); }
    Reactor(const Reactor&) = delete;
    Reactor& operator=(const Reactor&) = delete;
    virtual ~Reactor() {
      if (trie_ != nullptr) trie_->reactors_.remove(this);
    }
    // A prefix was added, got another value or was removed: a lookup tells which. Called once the change is visible.
    // prefix(id) tells which prefix until the call returns, whatever other reactors do to the trie meanwhile.
    virtual void handleRouteCachePrefix(std::uint32_t id) = 0;
    // The trie was deleted (trieDelete) or is being destroyed; it is empty. The prefixes that it held are not reported
    // one by one.
    virtual void handleTrieDelete() {}
    // Null once the trie has been destroyed.
    const BasicTrie* trie() const { return trie_; }

   private:
    friend class BasicTrie;
    const BasicTrie* trie_;
  };

  // Walks the routes in prefix order. Holds a copy of its route, so the trie may change in any way meanwhile: ++ goes
  // to the first route behind that prefix which is there then.
  class Iterator {
   public:
    using iterator_category = std::input_iterator_tag;
    using value_type = Route;
    using difference_type = std::ptrdiff_t;
    using pointer = const Route*;
    using reference = const Route&;
    Iterator() = default;
    const Route& operator*() const { return *route_; }
    const Route* operator->() const { return &*route_; }
    Iterator& operator++() {
      route_ = trie_->firstFrom(route_->prefix, false);
      return *this;
    }
    // All ends are equal; others are equal on the same prefix.
    bool operator==(const Iterator& other) const {
      return route_.has_value() == other.route_.has_value() && (!route_ || route_->prefix == other.route_->prefix);
    }

   private:
    friend class BasicTrie;
    Iterator(const BasicTrie* trie, std::optional<Route> route) : trie_(trie), route_(std::move(route)) {}
    const BasicTrie* trie_ = nullptr;
    std::optional<Route> route_;
  };

  explicit BasicTrie(std::string name = Family::trieName);
  ~BasicTrie() override;

  // Adds the prefix or sets its value. Nobody is told of a value that it has already.
  void routeIs(const P& prefix, bool value);
  // Removes the prefix if it is there.
  void routeDel(const P& prefix);
  // The trie goes out of use while others may still hold it: it becomes empty and every reactor hears
  // handleTrieDelete().
  void trieDelete();

  // The value under exactly this prefix, or nothing.
  std::optional<bool> route(const P& prefix) const;
  bool has(const P& prefix) const { return find(prefix) != nullptr; }
  // The longest prefix in the trie that covers this one, which may be itself; nothing when none does.
  std::optional<P> longestMatch(const P& prefix) const;

  // The prefix whose change is being reported under this id, or nothing.
  std::optional<P> prefix(std::uint32_t id) const;

  std::size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  Iterator begin() const { return lowerBound(P()); }
  Iterator end() const { return {this, std::nullopt}; }
  // The first route whose prefix is not below this one.
  Iterator lowerBound(const P& from) const { return {this, firstFrom(from, true)}; }

  // Attribute "size" and collection "route" (prefix to value), both read only.
  const Lattis::EntityType& entityType() const override;

  // Asserts the shape described at the top of this file, node by node.
  void assertInvariant() const;
  // Its own size and what its prefixes have from the allocator.
  std::size_t bytes() const;

 private:
  using Family = TrieFamily<P>;
  using Bits = typename Family::Bits;

  struct Node;
  using Blocks = TrieBlocks<Node>;

  static constexpr unsigned stride = 5;  // bits of an address that a node takes
  static constexpr unsigned noMatch = ~0U;
  static constexpr std::uint32_t rootIndex = 0;  // in no block: nobody's child
  static constexpr unsigned frontDepth = 3 * stride;
  // The front takes 128 KiB: it comes with so many prefixes and goes with a quarter of them.
  static constexpr std::size_t frontSize = 16384;

  struct alignas(sizeof(Bits) == 4 ? 4 : 32) Node {
    Bits bits{};                                   // 0 from the depth on
    std::uint32_t prefixes = 0;                    // a bit for each place
    std::uint32_t values = 0;                      // of these; 0 where there is no prefix
    std::uint32_t children = 0;                    // a bit for each slot
    std::uint32_t firstChild : 27 = Blocks::none;  // none when there is no child
    std::uint32_t level : 5 = 0;

    unsigned depth() const { return level * stride; }
  };
  static_assert(sizeof(Node) == (sizeof(Bits) == 4 ? 20 : 32), "a million prefixes lie in these nodes");

  // Where a prefix stands: in the node of this depth at this place.
  struct Spot {
    explicit Spot(const P& prefix);
    Bits bits;
    unsigned depth;
    std::uint32_t placeBit;
  };
  // What is still to be walked of a node and what is below it.
  struct Rest {
    const Node* node = nullptr;
    std::uint32_t prefixes = 0;
    std::uint32_t children = 0;
  };

  static bool hasChild(const Node& node, unsigned slot) { return (node.children >> slot & 1) != 0; }
  // Of the child at this slot, or of the next one when there is none.
  static std::uint32_t childIndex(const Node& node, unsigned slot);

  const Node& start(const Bits& bits, unsigned length) const;
  unsigned longestMatchFrom(const Node& top, const Bits& bits, unsigned length) const;
  const Node* find(const P& prefix) const;
  bool insert(const P& prefix, bool value);
  bool remove(const P& prefix);
  std::optional<Route> firstFrom(const P& from, bool inclusive) const;
  Route first(Rest rest) const;

  static Node emptyNode(const Bits& bits, unsigned depth);
  std::uint32_t addChild(std::uint32_t index, unsigned slot, const Node& child);
  void removeChild(std::uint32_t index, unsigned slot);
  void putBetween(std::uint32_t index, unsigned depth);
  void replaceByChild(std::uint32_t index, std::uint32_t child);
  void giveBack(std::uint32_t block, unsigned nodes);
  static std::size_t region(const Bits& bits) { return Family::firstBits(bits, frontDepth); }
  bool isInFront(const Node& parent, const Node& child) const;
  void childrenPlaced(std::uint32_t index);
  void frontIs(bool wanted);
  void clear();
  void changed(const P& prefix);

  // One running notification; the innermost is at hand.
  struct Report {
    std::uint32_t id;
    P prefix;
    const Report* around;
  };

  Blocks nodes_;
  std::vector<std::uint32_t> front_;  // by the first frontDepth bits; none where there is no such node; may be empty
  std::size_t size_ = 0;
  std::uint32_t reportsBegun_ = 0;
  const Report* reports_ = nullptr;
  mutable ReactorList<Reactor> reactors_;
};

extern template class BasicTrie<Prefix>;
extern template class BasicTrie<Ip6Prefix>;

}  // namespace Platform

namespace Routing {
using Trie = Platform::BasicTrie<Prefix>;
}  // namespace Routing

namespace Routing6 {
using Trie = Platform::BasicTrie<Ip6Prefix>;
}  // namespace Routing6
