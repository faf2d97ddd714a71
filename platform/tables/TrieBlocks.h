// The memory of a trie's nodes: blocks of one to 32 nodes side by side, named by the index of their first node.
//
// A block has the least room of `sizes` that holds what was asked for. Blocks of one size lie behind one another, in
// chunks of 256 nodes of which only a size's last one is not full: a block that is given back is filled with the last
// one of its size. So memory is taken and returned a chunk at a time, there is never a hole, and no call moves more
// than one block or the chunk that it grows. A size's first chunk begins small and doubles, as most tries are small.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "platform/values/Assert.h"

namespace Platform {

template <class Node>
class TrieBlocks {
 public:
  static constexpr std::uint32_t none = (1U << 27) - 1;  // no block; as many nodes can be named
  static constexpr unsigned most = 32;                   // nodes of a block

  TrieBlocks() { clear(); }

  // Node 0 is always there and in no block.
  Node& operator[](std::uint32_t index) { return chunks_[index / chunkNodes].nodes[index % chunkNodes]; }
  const Node& operator[](std::uint32_t index) const { return chunks_[index / chunkNodes].nodes[index % chunkNodes]; }

  // How many nodes fit where there is room for so many, which may be 0.
  static unsigned room(unsigned nodes) { return nodes == 0 ? 0 : sizes[sizeOf[nodes]]; }

  // The first of so many nodes, not 0, whose content is anything. References to nodes end here.
  std::uint32_t take(unsigned nodes) {
    const unsigned size = sizes[sizeOf[nodes]];
    std::uint32_t& last = last_[sizeOf[nodes]];
    if (last == none || chunks_[last].nodes.size() + size > chunkNodes) last = newChunk(last);
    auto& chunk = chunks_[last].nodes;
    if (chunk.size() + size > chunk.capacity()) {
      chunk.reserve(std::clamp<std::size_t>(2 * chunk.capacity(), size, chunkNodes));
    }
    const auto block = static_cast<std::uint32_t>(last * chunkNodes + chunk.size());
    chunk.resize(chunk.size() + size);
    return block;
  }

  // Returns a block that was taken for so many nodes. Answers which block lies in its place from now on, or none.
  // References to nodes end here.
  std::uint32_t giveBack(std::uint32_t block, unsigned nodes) {
    const unsigned size = sizes[sizeOf[nodes]];
    std::uint32_t& last = last_[sizeOf[nodes]];
    auto& chunk = chunks_[last].nodes;
    const auto moved = static_cast<std::uint32_t>(last * chunkNodes + chunk.size() - size);
    if (moved != block) std::copy_n(&(*this)[moved], size, &(*this)[block]);
    chunk.resize(chunk.size() - size);
    if (chunk.empty()) {
      last = dropChunk(last);
    } else if (chunks_[last].previous == none && chunk.size() <= chunk.capacity() / 4) {
      std::vector<Node> smaller;
      smaller.reserve(chunk.capacity() / 2);
      smaller.assign(chunk.begin(), chunk.end());
      chunk.swap(smaller);
    }
    return moved == block ? none : moved;
  }

  // Node 0 alone is left, as good as new.
  void clear() {
    last_.fill(none);
    chunks_.clear();
    chunks_.shrink_to_fit();
    unused_.clear();
    unused_.shrink_to_fit();
    chunks_.emplace_back().nodes.resize(1);
  }

  // Nodes that blocks have room for, and node 0.
  std::size_t nodes() const {
    std::size_t sum = 0;
    for (const Chunk& chunk : chunks_) sum += chunk.nodes.size();
    return sum;
  }
  // Every index is below this.
  std::size_t limit() const { return chunks_.size() * chunkNodes; }
  // What it has from the allocator, in bytes.
  std::size_t bytes() const {
    std::size_t sum = chunks_.capacity() * sizeof(Chunk) + unused_.capacity() * sizeof(std::uint32_t);
    for (const Chunk& chunk : chunks_) sum += chunk.nodes.capacity() * sizeof(Node);
    return sum;
  }

 private:
  static constexpr std::uint32_t chunkNodes = 256;
  static constexpr std::array<std::uint8_t, 10> sizes{1, 2, 3, 4, 6, 8, 12, 16, 24, most};
  // Which of the sizes is the least for so many nodes.
  static constexpr std::array<std::uint8_t, most + 1> sizeOf = [] {
    std::array<std::uint8_t, most + 1> of{};
    for (unsigned nodes = 1, size = 0; nodes <= most; ++nodes) {
      if (sizes[size] < nodes) ++size;
      of[nodes] = static_cast<std::uint8_t>(size);
    }
    return of;
  }();

  struct Chunk {
    std::vector<Node> nodes;        // empty: it is in `unused_`
    std::uint32_t previous = none;  // of the same size
  };

  std::uint32_t newChunk(std::uint32_t previous) {
    std::uint32_t chunk = static_cast<std::uint32_t>(chunks_.size());
    if (unused_.empty()) {
      PLATFORM_ASSERT((chunk + 1) * chunkNodes < none);
      chunks_.emplace_back();
    } else {
      chunk = unused_.back();
      unused_.pop_back();
    }
    chunks_[chunk].previous = previous;
    if (previous != none) chunks_[chunk].nodes.reserve(chunkNodes);
    return chunk;
  }
  std::uint32_t dropChunk(std::uint32_t chunk) {
    std::vector<Node>().swap(chunks_[chunk].nodes);
    unused_.push_back(chunk);
    return chunks_[chunk].previous;
  }

  std::vector<Chunk> chunks_;
  std::vector<std::uint32_t> unused_;             // chunks that have been dropped
  std::array<std::uint32_t, sizes.size()> last_;  // chunk of each size
};

}  // namespace Platform
