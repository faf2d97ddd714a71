// The ordered index of a table: its slots in the order of their keys. What knows how that order is kept is here; its
// bytes are OrderGeometry and TableState::heads (lib/tables/TableFormat.h).
//
// It is a list of several levels. On how many of them a slot stands follows from its number alone, one in four slots
// being one higher; the links of a level then need no more places than there are slots to use them.
#pragma once

#include <array>
#include <bit>
#include <cstdint>
#include <optional>

#include "lib/tables/TableFormat.h"

namespace LinuxPlatform {

// What every process asks of it, while the writer may be at work.
class OrderedIndex {
 public:
  explicit OrderedIndex(const TableImage& image) : image_(image) {}

  struct Position {
    std::uint32_t node = 0;     // 0: before the first
    std::uint64_t version = 0;  // of the node when it was reached
    KeyWords key;
  };
  // Moves `at`, which stands before the first, to the last node below `key` (or at it, for an exclusive search). False:
  // the index contradicts itself.
  bool moveBelow(const KeyWords& key, bool inclusive, Position& at) const;
  // The node after `at`, read whole, or 0 at the end. Nothing: a contradiction.
  std::optional<std::uint32_t> next(const Position& at, SlotSnapshot& contents) const { return step(at, 0, contents); }
  // As far as the index says: whether `at` itself has stayed what it was, stillThere() tells.
  bool leadsTo(const Position& at, std::uint32_t node) const { return load(link(0, at.node)) == node; }
  bool stillThere(const Position& at) const { return at.node == 0 || load(image_.version(at.node - 1)) == at.version; }

 protected:
  // The node after `node` (0: the head) on this level; the node must be high enough.
  std::uint32_t& link(unsigned level, std::uint32_t node) const {
    if (node == 0) return image_.state().heads[level];
    const std::uint32_t slot = node - 1;
    return image_.word32(order().links[level], level == 0 ? slot : mix(slot) >> (2 * level));
  }
  // On how many levels the slot stands, 1 to all.
  unsigned height(std::uint32_t slot) const {
    const unsigned steps = static_cast<unsigned>(std::countr_zero(mix(slot))) / 2;
    return steps < order().levels ? steps + 1 : order().levels;
  }
  const OrderGeometry& order() const { return image_.geometry().order; }

  TableImage image_;

 private:
  // A bijection on the numbers of slotBits bits. It has to scatter: slots are taken in the order of insertion, and a
  // pattern in that order (two VRFs in turn, say) must not become a pattern of heights.
  std::uint32_t mix(std::uint32_t slot) const {
    const std::uint64_t mask = (std::uint64_t{1} << order().slotBits) - 1;
    const unsigned half = (order().slotBits + 1) / 2;
    std::uint64_t x = slot;
    x = (x ^ x >> half) * 0x9e3779b97f4a7c15 & mask;
    x = (x ^ x >> half) * 0xc2b2ae3d27d4eb4f & mask;
    return static_cast<std::uint32_t>(x ^ x >> half);
  }
  // The node after `at` on the level, read whole; 0 at the end. Nothing: a contradiction.
  std::optional<std::uint32_t> step(const Position& at, unsigned level, SlotSnapshot& next) const {
    const std::uint32_t node = load(link(level, at.node));
    if (node == 0) return stillThere(at) ? std::optional<std::uint32_t>(0) : std::nullopt;
    const std::uint32_t slot = node - 1;
    if (slot >= image_.geometry().slots || height(slot) <= level) return std::nullopt;
    if (!image_.readSlot(slot, next) || stateOf(next.version) == SlotState::free) return std::nullopt;
    // A link counts only if its node was in the list when the link was read.
    if (!stillThere(at) || (at.node != 0 && image_.compare(next.key, at.key) <= 0)) return std::nullopt;
    return node;
  }
};

// Its changes, by the one process that holds the table's lock. A change is a find() and what follows it; the writer
// says in between what the slot is, and nobody looks at the index while it is filled anew.
class OrderedIndexWriter : private OrderedIndex {
 public:
  using OrderedIndex::OrderedIndex;

  // Finds the key's place. False: the index contradicts itself.
  bool find(const KeyWords& key);
  // The place that was found is this slot's, on all levels.
  bool isAtPlace(std::uint32_t slot) const;
  // The slot leads on from the place, but nothing leads to it yet; then it is there for everybody.
  void prepare(std::uint32_t slot) const;
  void insert(std::uint32_t slot);
  // The slot of this place goes.
  void remove(std::uint32_t slot) const;
  // A slot that may stand in some of the levels, as a writer left it, goes. False: the index contradicts itself.
  bool takeOut(std::uint32_t slot, const KeyWords& key);

  // Whether it leads through the live ones of the slots below `end`, so many in number, and through nothing else, in
  // key order.
  bool agrees(std::uint32_t end, std::uint64_t live) const;
  // Fills it anew, in key order.
  void beginFilling() { path_.fill(0); }
  void append(std::uint32_t slot);
  void endFilling();

 private:
  bool brackets(unsigned level, const KeyWords& key) const;
  bool advance(unsigned level, std::uint32_t& node, const KeyWords& key) const;
  bool levelAgrees(unsigned level, std::uint64_t expected) const;

  // Per level the last node below the key of the last search. Every change of the list follows a search, so the path is
  // always a true one, and a key next to the last one is found from there: filling a table in key order costs no
  // search.
  std::array<std::uint32_t, maxLevels> path_{};
};

}  // namespace LinuxPlatform
