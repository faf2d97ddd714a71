// Keys in rings: each key stands in at most one of a number of ordered lists, and moves from one to another, or all of
// one list to the end of another, in constant time. What the work queues are made of.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <utility>
#include <vector>

#include "RouteCache/queues/FlatTable.h"

namespace RouteCache {

struct NoData {};

// `Data` is what the user keeps with each key. A ring is named by the number that ringIs() gave, a key by its node:
// both stay good until they are deleted. Memory grows by blocks, so that no single insertion pays for all keys, and is
// returned when the last key has gone.
//
// Invariant: a node is linked into one ring or into none; both neighbours of a linked one name it.
template <class Key, class Data = NoData>
class KeyRings {
 public:
  using Node = std::uint32_t;
  static constexpr Node none = 0xFFFFFFFF;

  KeyRings() : index_(KeyOf{&nodes_}) {}
  KeyRings(const KeyRings&) = delete;
  KeyRings& operator=(const KeyRings&) = delete;

  std::size_t size() const { return index_.size(); }
  bool empty() const { return index_.empty(); }
  const Key& key(Node node) const { return nodes_[node].key; }
  Data& data(Node node) { return nodes_[node].data; }
  const Data& data(Node node) const { return nodes_[node].data; }

  Node find(const Key& key) const {
    const Node* node = index_.find(key);
    return node == nullptr ? none : *node;
  }
  // The key's node; a new key is in no ring yet.
  Node insert(const Key& key) {
    if (const Node* present = index_.find(key)) return *present;
    const Node node = freeNodes_ == none ? nodes_.add() : std::exchange(freeNodes_, nodes_[freeNodes_].links.next);
    nodes_[node] = Entry{key, {}, {}};
    return *index_.add(node);
  }
  void erase(Node node) { eraseAt(index_.find(Key(nodes_[node].key))); }
  // What was kept with the key; nothing: there is no such key.
  std::optional<Data> eraseKey(const Key& key) {
    Node* const found = index_.find(key);
    if (found == nullptr) return std::nullopt;
    const Data data = nodes_[*found].data;
    eraseAt(found);
    return data;
  }
  // Every key; the rings stay.
  void clearKeys() {
    index_.clear();
    nodes_.clear();
    freeNodes_ = none;
    for (Node ring = 0; ring < heads_.size(); ++ring) heads_[ring] = {ring | headBit, ring | headBit};
  }

  // A new, empty ring.
  Node ringIs() {
    if (!freeHeads_.empty()) {
      const Node ring = freeHeads_.back();
      freeHeads_.pop_back();
      return ring;
    }
    const Node ring = static_cast<Node>(heads_.size()) | headBit;
    heads_.push_back({ring, ring});
    return ring;
  }
  // The ring is empty.
  void ringDel(Node ring) { freeHeads_.push_back(ring); }

  // The first key's node, or none.
  Node first(Node ring) const { return linked(links(ring).next); }
  // The node behind this one in its ring, or none.
  Node next(Node node) const { return linked(links(node).next); }
  // The ring's first keys, as many as there is room for; how many.
  std::size_t firstKeys(Node ring, std::span<Key> keys) const {
    std::size_t count = 0;
    for (Node node = first(ring); node != none && count < keys.size(); node = next(node)) keys[count++] = key(node);
    return count;
  }
  // Takes the node out of its ring, if it is in one, and puts it at this one's end.
  void append(Node ring, Node node) {
    unlink(node);
    const Node last = links(ring).previous;
    links(node) = {last, ring};
    links(last).next = node;
    links(ring).previous = node;
  }
  void unlink(Node node) {
    Links& gone = links(node);
    if (gone.next == none) return;
    links(gone.previous).next = gone.next;
    links(gone.next).previous = gone.previous;
    gone = {};
  }
  // Puts all of `from` behind all of `to`; `from` is empty then.
  void splice(Node from, Node to) {
    if (first(from) == none) return;
    const Links moved = links(from);
    const Node last = links(to).previous;
    links(last).next = moved.next;
    links(moved.next).previous = last;
    links(moved.previous).next = to;
    links(to).previous = moved.previous;
    links(from) = {from, from};
  }

 private:
  static constexpr Node headBit = 0x80000000;
  static constexpr Node worthReturning = 4096;
  struct Links {
    Node previous = none;
    Node next = none;
  };
  struct Entry {
    Key key;
    Links links;  // in the free list: the next free node in `next`
    [[no_unique_address]] Data data;
  };
  // Nodes in blocks, so that growing moves none of them.
  class Blocks {
   public:
    Entry& operator[](Node node) { return blocks_[node / blockSize][node % blockSize]; }
    const Entry& operator[](Node node) const { return blocks_[node / blockSize][node % blockSize]; }
    Node add() {
      if (size_ % blockSize == 0) blocks_.push_back(std::make_unique<Entry[]>(blockSize));
      return size_++;
    }
    Node size() const { return size_; }
    void clear() {
      blocks_.clear();
      size_ = 0;
    }

   private:
    static constexpr Node blockSize = 1024;
    std::vector<std::unique_ptr<Entry[]>> blocks_;
    Node size_ = 0;
  };

  struct KeyOf {
    const Blocks* nodes;
    const Key& operator()(Node node) const { return (*nodes)[node].key; }
  };

  void eraseAt(Node* place) {
    const Node node = *place;
    unlink(node);
    index_.eraseAt(place);
    nodes_[node].links.next = std::exchange(freeNodes_, node);
    if (index_.empty() && nodes_.size() > worthReturning) clearKeys();
  }
  static Node linked(Node node) { return (node & headBit) != 0 ? none : node; }
  Links& links(Node node) { return (node & headBit) != 0 ? heads_[node & ~headBit] : nodes_[node].links; }
  const Links& links(Node node) const { return const_cast<KeyRings*>(this)->links(node); }

  Blocks nodes_;
  Node freeNodes_ = none;
  FlatTable<Node, Key, KeyOf> index_;  // the keys lie in the nodes
  std::vector<Links> heads_;
  std::vector<Node> freeHeads_;
};

}  // namespace RouteCache
