// A priority queue whose members can be found, moved and taken out.
#pragma once

#include <cstdint>
#include <limits>
#include <utility>
#include <vector>

namespace Simulator {

// Members are numbers 0 to members - 1, each there at most once, under a key. Every operation but lookups takes time in
// the logarithm of the members present. The same operations give the same order, ties of keys included. A value.
template <class Key>
class IndexedHeap {
 public:
  explicit IndexedHeap(std::uint32_t members) : positions_(members, absent) {}

  std::uint32_t size() const { return static_cast<std::uint32_t>(heap_.size()); }
  bool contains(std::uint32_t member) const { return positions_[member] != absent; }
  // The member of the smallest key, and that key; there must be one.
  std::uint32_t first() const { return heap_.front().member; }
  const Key& firstKey() const { return heap_.front().key; }

  // Adds the member, or gives it another key.
  void keyIs(std::uint32_t member, const Key& key) {
    if (!contains(member)) {
      positions_[member] = size();
      heap_.push_back({key, member});
    } else {
      heap_[positions_[member]].key = key;
    }
    settle(positions_[member]);
  }
  // Takes out the member of the smallest key; there must be one.
  void firstDel() {
    positions_[first()] = absent;
    const Node last = heap_.back();
    heap_.pop_back();
    if (heap_.empty()) return;
    put(0, last);
    settle(0);
  }

 private:
  static constexpr std::uint32_t absent = std::numeric_limits<std::uint32_t>::max();
  struct Node {
    Key key;
    std::uint32_t member;
  };

  void put(std::uint32_t position, const Node& node) {
    heap_[position] = node;
    positions_[node.member] = position;
  }
  // Moves the one node that may stand wrong to its place.
  void settle(std::uint32_t position) {
    const Node node = heap_[position];
    while (position > 0 && node.key < heap_[(position - 1) / 2].key) {
      put(position, heap_[(position - 1) / 2]);
      position = (position - 1) / 2;
    }
    for (std::uint64_t child = 2 * std::uint64_t{position} + 1; child < size(); child = 2 * child + 1) {
      if (child + 1 < size() && heap_[child + 1].key < heap_[child].key) ++child;
      if (!(heap_[child].key < node.key)) break;
      put(position, heap_[child]);
      position = static_cast<std::uint32_t>(child);
    }
    put(position, node);
  }

  std::vector<Node> heap_;
  std::vector<std::uint32_t> positions_;  // in heap_, by member
};

}  // namespace Simulator
