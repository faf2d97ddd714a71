// Routing tries: sets of prefixes, each with a flag, that answer exact and longest-prefix-match lookups and can be
// walked in prefix order. `Routing::Trie` holds IPv4 prefixes, `Routing6::Trie` IPv6 prefixes; both are one template.
// Made for a million prefixes: a node costs 16 bytes (IPv4) or 32 (IPv6), and a prefix at most two nodes.
//
// Shape: a binary trie whose chains of single children are folded away. Every node is a prefix longer than its parent's
// and inside it; bit number "length of the parent" says which child it is. A node either holds a route or exists
// because two routes part below it, so, the root aside, a node without a route has two children. Walking a node before
// its children and the 0 child before the 1 child gives the order of the prefixes. Nodes lie in one array and name each
// other by index; an index is also the id of the prefix that the node holds.
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
#include "platform/values/Net.h"

namespace Platform {

// What differs between the families: how a node keeps its address. `Bits` compares as the address does.
template <class P>
struct TrieFamily;

template <>
struct TrieFamily<Prefix> {
  using Bits = std::uint32_t;
  static constexpr const char* typeName = "Routing::Trie";
  static constexpr const char* trieName = "CachedRouteTrie";
  static Bits bits(const Prefix& prefix) { return prefix.addr().value(); }
  static Prefix prefix(Bits bits, unsigned length) { return {IpAddr(bits), length}; }
  static bool bit(Bits bits, unsigned index) { return (bits >> (31 - index) & 1) != 0; }
  static unsigned commonBits(Bits a, Bits b) { return static_cast<unsigned>(std::countl_zero(a ^ b)); }
};

template <>
struct TrieFamily<Ip6Prefix> {
  struct Bits {
    std::uint64_t high = 0;
    std::uint64_t low = 0;
  };
  static constexpr const char* typeName = "Routing6::Trie";
  static constexpr const char* trieName = "CachedRouteTrie6";
  static Bits bits(const Ip6Prefix& prefix) { return {prefix.addr().high(), prefix.addr().low()}; }
  static Ip6Prefix prefix(Bits bits, unsigned length) { return {Ip6Addr(bits.high, bits.low), length}; }
  static bool bit(Bits bits, unsigned index) {
    return ((index < 64 ? bits.high >> (63 - index) : bits.low >> (127 - index)) & 1) != 0;
  }
  static unsigned commonBits(Bits a, Bits b) {
    if (a.high != b.high) return static_cast<unsigned>(std::countl_zero(a.high ^ b.high));
    return 64 + static_cast<unsigned>(std::countl_zero(a.low ^ b.low));
  }
};

// Held by shared_ptr. One thread.
template <class P>
class BasicTrie final : public Lattis::Entity {
 public:
  using PrefixType = P;

  struct Route {
    P prefix;
    bool value = false;
    std::uint32_t id = 0;
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
    // The prefix with this id was added, got another value or was removed: a lookup tells which. Called once the change
    // is visible. prefix(id) answers until the call returns, whatever other reactors do to the trie meanwhile.
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
  bool has(const P& prefix) const { return find(prefix) != none; }
  // The longest prefix in the trie that covers this one, which may be itself; nothing when none does.
  std::optional<P> longestMatch(const P& prefix) const;

  // Every prefix has an id while it is in the trie; a later prefix may get the id of one that is gone.
  std::optional<std::uint32_t> id(const P& prefix) const;
  // The prefix with this id, or nothing. While a change of the prefix is being reported it also answers for one that
  // has left the trie.
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
  // Nodes in use, the root included.
  std::size_t nodeCount() const { return nodes_.size() - freeCount_ - released_.size(); }

 private:
  using Family = TrieFamily<P>;
  using Bits = typename Family::Bits;

  struct Node {
    Bits bits{};
    // Children for a next bit of 0 and 1. In the free list: the next free node in children[0].
    std::array<std::uint32_t, 2> children{};
    std::uint8_t length = 0;
    bool present = false;  // holds a route
    bool value = false;    // the route's
  };
  static_assert(sizeof(Node) == (sizeof(Bits) == 4 ? 16 : 32), "a million prefixes lie in these nodes");

  static constexpr std::uint32_t rootIndex = 0;  // the empty prefix; always there
  // No node. The root is nobody's child, so its index can stand for "no child" in a node.
  static constexpr std::uint32_t none = 0xFFFFFFFF;
  static constexpr std::uint32_t noChild = rootIndex;

  static bool covers(const Node& node, Bits bits, unsigned length) {
    return node.length <= length && Family::commonBits(node.bits, bits) >= node.length;
  }
  std::uint32_t childTowards(const Node& node, Bits bits) const {
    return node.children[Family::bit(bits, node.length)];
  }
  static P prefixOf(const Node& node) { return Family::prefix(node.bits, node.length); }

  std::uint32_t find(const P& prefix) const;
  std::uint32_t insert(const P& prefix);
  bool remove(const P& prefix, std::uint32_t& id);
  std::optional<Route> firstFrom(const P& from, bool inclusive) const;
  Route firstWithin(std::uint32_t index) const;
  std::uint32_t makeNode(Bits bits, unsigned length);
  void releaseNode(std::uint32_t index);
  void replaceChild(std::uint32_t parent, std::uint32_t child, std::uint32_t replacement);
  void changed(std::uint32_t id);
  void freeReleased();
  void clear();

  std::vector<Node> nodes_;
  std::size_t size_ = 0;
  std::uint32_t freeHead_ = none;
  std::size_t freeCount_ = 0;
  // Nodes taken out of the trie while a notification runs: no other prefix may get their ids before it is over.
  std::vector<std::uint32_t> released_;
  std::vector<std::uint32_t> beingReported_;  // one id for each running notification
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
