// The ordered index of a table: its slots in the order of their keys, as a radix tree over the bytes of the keys. Its
// nodes' bytes are drawn in RadixNode.h.
//
// A node branches by one byte of the key: the one behind the bytes that led to it and its prefix, which all keys under
// it share. A reference leads to a node or to the slot of the one key below. Nothing above a slot says its key: that
// stands in the slot. Every change that others may see is one store: of a reference, of a count, of the byte that names
// a place. What has to change otherwise is copied, the copy filled while nobody knows it, and the one reference that
// led to the old node stored. A node that has been replaced is nobody's (odd version) until it is filled again as
// another. A writer may stop anywhere: the tree is whole, one node's check may not fit and a node may be lost to the
// next writer until it has swept.
//
// Reading: the node's version, the reference that led there once more, the bytes, and the version again, after
// everything below has been read. So what was read is what the node held while it was in the tree, and whatever key was
// there all the time was met. A version counts to 2^15, and from its beginning where pages were given back: a search
// during which the table changed thousands of times, or its epoch has moved, starts again.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <optional>
#include <vector>

#include "lib/tables/PlacePool.h"
#include "lib/tables/RadixNode.h"
#include "lib/tables/TableFormat.h"

namespace LinuxPlatform {

// What every process asks of it, while the writer may be at work.
class RadixOrder {
 public:
  explicit RadixOrder(const TableImage& image) : image_(image) {}

  // Slots that a search has led to, in the order of the keys that they held then, and the first bytes of these keys. A
  // key with these bytes that was in the table when the search was made is this slot's: a slot that holds another one
  // by now stands for a key that has gone.
  struct Batch {
    static constexpr unsigned most = 32;
    unsigned count = 0;
    unsigned max = most;
    std::array<std::uint32_t, most> slots;
    std::array<std::uint8_t, most> depths;  // bytes of the key that are known
    std::array<std::array<std::uint64_t, maxKeyWords>, most> paths;
    // A slot on the way of the key that was searched for, which does not hold what was wanted.
    std::optional<std::uint32_t> passed;
  };
  // Up to out.max slots from the key on (`inclusive`), or behind it. False: overtaken by the writer, or damaged, or a
  // node's check does not fit.
  bool collect(const KeyWords& from, bool inclusive, Batch& out) const;
  // Whether the key, or the slot's, has the bytes that led to the batch's slot of this number.
  static bool hasPath(const Batch& batch, unsigned number, const std::uint64_t* key) {
    unsigned left = batch.depths[number];
    for (unsigned i = 0; left > 0; ++i) {
      const unsigned here = std::min(left, 8U);
      if (((key[i] ^ batch.paths[number][i]) & firstBytes(here)) != 0) return false;
      left -= here;
    }
    return true;
  }
  static bool hasPath(const Batch& batch, unsigned number, const SlotImage& slot) {
    return hasPath(batch, number, &slot.words[1]);
  }
  // Whether the key comes after all of the batch's, which is not empty.
  bool isBehind(const Batch& batch, const KeyWords& key) const;

 protected:
  struct Search {
    const KeyWords* from;
    bool inclusive;
    KeyWords path;
    Batch* out;
    void step(unsigned depth, std::uint8_t byte) { reinterpret_cast<unsigned char*>(path.words.data())[depth] = byte; }
  };
  struct Node {
    const std::uint32_t* words;
    unsigned kind, depth;  // behind the prefix
    std::uint32_t version;
    bool bounded;  // the search's key leads through here
    std::uint8_t firstByte;
  };
  const std::uint32_t* rootCell() const;
  bool isPlace(NodeRef ref) const { return nodeNumber(ref) < image_.geometry().nodes[kindOf(ref)].count; }
  std::uint32_t* nodeAt(NodeRef ref) const { return image_.node(kindOf(ref), nodeNumber(ref)); }

  TableImage image_;

 private:
  bool visit(const std::uint32_t* cell, NodeRef ref, unsigned depth, bool bounded, Search& search) const;
  bool visitSlot(const std::uint32_t* cell, NodeRef ref, unsigned depth, bool bounded, Search& search) const;
  bool visitFew(const Node& node, Search& search) const;
  bool visitMany(const Node& node, Search& search) const;
  bool visitChild(const Node& node, std::uint8_t byte, const std::uint32_t* cell, Search& search) const;
  void expect(NodeRef ref) const;
  void add(std::uint32_t slot, unsigned depth, Search& search) const;
};

// Its changes, by the one process that holds the table's lock.
class RadixOrderWriter : private RadixOrder {
 public:
  using RadixOrder::Batch;
  using RadixOrder::collect;
  using RadixOrder::hasPath;

  RadixOrderWriter(const TableImage& image, const Reserve& reserve);

  // Takes over the nodes of another writer; `interrupted`: it stopped in a change of this key. False: what stands there
  // is damaged and has to be cleared and filled.
  bool adopt(const KeyWords* interrupted);
  // Whether there are nodes for any insertion; a larger one can stand in for a smaller one. An erasure needs none:
  // without them it leaves nodes larger than need be.
  bool ready();
  // Whether it is not ready because nodes of a kind have come to an end, and would be if all were as small as can be:
  // filling it anew makes them so.
  bool isLoose() const;
  // Goes down to the key's place, from where the next insert() or erase() of it goes on; asks memory for what they will
  // look at.
  void expect(const KeyWords& key);
  // False: the tree contradicts itself, or holds the key.
  bool insert(const KeyWords& key, std::uint32_t slot);
  // Takes the slot out, under its key. False: it does not stand there.
  bool erase(const KeyWords& key, std::uint32_t slot);
  // Whether the key leads to the slot. A contradiction leads nowhere.
  bool leadsTo(const KeyWords& key, std::uint32_t slot) const;
  // The slot that stands under this very key; nothing: none.
  std::optional<std::uint32_t> find(const KeyWords& key) const;
  // The key's slot is this one from now on, and not the other. False: that does not stand there.
  bool redirect(const KeyWords& key, std::uint32_t from, std::uint32_t to);
  // Empties it.
  void clear();

  // --- giving back; see PlacePool.h
  std::array<PlacePool, nodeKinds>& pools() { return pools_; }
  const std::array<PlacePool, nodeKinds>& pools() const { return pools_; }
  // Moves a node to a free place before it, where there is one. False: nothing leads to it.
  bool move(unsigned kind, std::uint32_t number);
  // Whether it leads to so many live slots, each under its key, in order and from whole nodes; for checks. `lost`:
  // nodes that are neither in it nor free, which damage alone can bring about.
  bool agrees(std::uint64_t live, std::uint32_t& lost) const;

 private:
  friend class RadixOrderBuilder;
  // A reference in the tree: in a node, or the root.
  struct Cell {
    NodeRef owner = 0;  // 0: the root
    std::uint32_t* at = nullptr;
  };
  struct Prefix {
    std::array<std::uint8_t, longestPrefix> bytes;
    unsigned length = 0;
  };
  // Where nodes lead a key no further.
  struct Spot {
    Cell cell;
    unsigned depth;
  };

  Cell root() const { return {0, const_cast<std::uint32_t*>(rootCell())}; }
  NodeRef refOf(const Cell& cell) const { return load(*cell.at); }
  void refIs(const Cell& cell, NodeRef ref);
  bool isSane(NodeRef ref, unsigned depth) const;
  Prefix prefixOf(NodeRef ref) const;
  // Where the byte's reference is; null: nowhere.
  std::uint32_t* place(NodeRef ref, std::uint8_t byte) const;
  template <class Visit>
  void forEachChild(NodeRef ref, Visit visit) const;
  unsigned liveCount(NodeRef ref) const;
  // Nodes that nobody knows yet.
  NodeRef make(unsigned kind, const Prefix& prefix);
  void fill(NodeRef ref, std::uint8_t byte, NodeRef child);
  void finish(NodeRef ref);
  NodeRef copy(NodeRef ref, unsigned kind, const Prefix& prefix);
  void retire(NodeRef ref);
  // Changes of nodes that others read.
  void append(NodeRef ref, std::uint8_t byte, NodeRef child);
  Spot goTo(const KeyWords& key);
  bool splitSlot(Cell cell, NodeRef ref, unsigned depth, const KeyWords& key, std::uint32_t slot);
  void splitPrefix(const Cell& cell, NodeRef ref, unsigned same, std::uint8_t byte, std::uint32_t slot);
  bool isFull(NodeRef ref) const;
  void addChild(const Cell& cell, NodeRef ref, std::uint8_t byte, std::uint32_t slot);
  // After a reference of the cell's node has gone. True: the node has, too.
  bool shrink(const Cell& cell);
  void replaceBySmaller(const Cell& cell);
  // Whether a node may be larger than need be, for there was no room for another.
  void looseIs(bool loose) { storeNumber(image_.state().looseOrder, loose ? 1 : 0); }
  bool join(const Cell& cell, std::uint8_t byte, NodeRef only);
  std::optional<std::uint32_t> slotBelow(NodeRef ref) const;
  // Goes down with the key as far as it is led. `way` gets the cells of the nodes that are its, from the root.
  Spot follow(const KeyWords& key, std::vector<Cell>* way) const;
  void expectNode(NodeRef ref, const KeyWords& key, unsigned depth) const;
  bool sweep();
  void recount(NodeRef ref);
  bool markReachable(NodeRef ref, unsigned depth, std::array<std::vector<bool>, nodeKinds>& seen) const;
  struct Survey;
  void joinAbove(const Cell& cell);
  bool survey(NodeRef ref, unsigned depth, Survey& found) const;

  std::array<PlacePool, nodeKinds> pools_;
  std::optional<Spot> at_;  // of the key expected last, while the tree has not changed
  KeyWords expected_;
  std::vector<Cell> way_;  // to it
};

}  // namespace LinuxPlatform
