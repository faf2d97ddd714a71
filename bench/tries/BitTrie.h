// What one would write first: a binary trie, one node for each bit of a prefix.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "platform/values/Net.h"

namespace Bench {

template <class P>
class BitTrie {
 public:
  static constexpr unsigned noMatch = 255;

  explicit BitTrie(std::size_t /*prefixes*/) {}
  void add(const P& prefix) {
    std::uint32_t node = 0;
    for (unsigned bit = 0; bit < prefix.length(); ++bit) {
      if (nodes_[node].children[prefix.bit(bit)] == 0) {
        const std::uint32_t made = newNode();
        nodes_[node].children[prefix.bit(bit)] = made;
      }
      node = nodes_[node].children[prefix.bit(bit)];
    }
    nodes_[node].present = true;
  }
  void remove(const P& prefix) {
    std::array<std::uint32_t, P::maxLength + 1> way{};
    for (unsigned bit = 0; bit < prefix.length(); ++bit) {
      way[bit + 1] = nodes_[way[bit]].children[prefix.bit(bit)];
      if (way[bit + 1] == 0) return;
    }
    nodes_[way[prefix.length()]].present = false;
    for (unsigned bit = prefix.length(); bit > 0; --bit) {
      Node& node = nodes_[way[bit]];
      if (node.present || node.children[0] != 0 || node.children[1] != 0) return;
      node.children[0] = std::exchange(free_, way[bit]);
      nodes_[way[bit - 1]].children[prefix.bit(bit - 1)] = 0;
    }
  }
  bool has(const P& prefix) const {
    std::uint32_t node = 0;
    for (unsigned bit = 0; bit < prefix.length(); ++bit) {
      node = nodes_[node].children[prefix.bit(bit)];
      if (node == 0) return false;
    }
    return nodes_[node].present;
  }
  // The length of the longest match, or noMatch.
  unsigned match(const typename P::Addr& addr) const {
    const P host(addr, P::maxLength);
    unsigned longest = noMatch;
    std::uint32_t node = 0;
    for (unsigned bit = 0;; ++bit) {
      if (nodes_[node].present) longest = bit;
      if (bit == P::maxLength) return longest;
      node = nodes_[node].children[host.bit(bit)];
      if (node == 0) return longest;
    }
  }

 private:
  struct Node {
    std::array<std::uint32_t, 2> children{};  // 0: none
    bool present = false;
  };

  std::uint32_t newNode() {
    if (free_ == 0) {
      nodes_.emplace_back();
      return static_cast<std::uint32_t>(nodes_.size() - 1);
    }
    const std::uint32_t node = std::exchange(free_, nodes_[free_].children[0]);
    nodes_[node] = Node{};
    return node;
  }

  std::vector<Node> nodes_{1};
  std::uint32_t free_ = 0;  // a list by the first child
};

}  // namespace Bench
