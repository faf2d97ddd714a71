// Fills an empty order with all entries of a table at once, some entries at a time: they are parted by one byte of
// their keys after the other, and each node is made when it is known what it has to hold. That takes a fraction of what
// as many insertions would, and leaves the smallest nodes.
//
// Nobody reads the order meanwhile (TableState::epoch), and nobody else changes it; a writer that stops anywhere leaves
// nodes that the next one clears away.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <vector>

#include "lib/tables/RadixOrder.h"

namespace LinuxPlatform {

class RadixOrderBuilder {
 public:
  enum class Progress : std::uint8_t { more, done, noRoom };

  // `order` is empty, and outlives the builder.
  explicit RadixOrderBuilder(RadixOrderWriter& order, std::uint32_t entries);
  // An entry that is to be put in order; before the first call of build().
  void add(std::uint32_t slot);
  // Goes on by about so many entries, but for a look at all of those that are to be parted next. `noRoom`: the
  // filesystem has none for the nodes; that is the end.
  Progress build(std::uint32_t entries);
  // Entries whose key is a later one's, too, which damage alone can bring about. They are not in the order.
  const std::vector<std::uint32_t>& losers() const { return losers_; }

 private:
  // With eight bytes of its key, as a number that orders as they do: which eight, its range knows.
  struct Item {
    std::uint64_t bytes;
    std::uint32_t slot;
  };
  // Items whose keys have their first `depth` bytes in common.
  struct Range {
    std::uint32_t begin, end;
    unsigned depth;
    unsigned word;  // of the key: which eight bytes the items have
    bool sorted;    // by these bytes
  };
  // A node that is being filled, and what is still to come.
  struct Open {
    std::uint8_t byte;  // that leads to it
    Range left;         // by the byte at this depth
    bool chained;       // its one child takes all of them
    RadixOrderWriter::Prefix prefix;
    NodeRef node = 0;  // until they are parted
  };
  // How far the items of the last node of the way have been dealt out by their bytes.
  struct Dealing {
    std::array<std::uint32_t, 256> next, ends;
    unsigned byte;
  };
  std::uint64_t bytesOf(std::uint32_t slot, unsigned word) const;
  std::uint8_t byteOf(const Item& item, unsigned depth) const {
    return static_cast<std::uint8_t>(item.bytes >> (56 - 8 * (depth % 8)));
  }
  void open(Range range, std::uint8_t byte);
  bool make(Open& node);
  unsigned partingOf(Range& range);
  void loadBytes(const Range& range);
  bool part(Range& range, std::uint32_t& entries);
  void beginDealing(const Range& range);
  bool deal(unsigned depth, std::uint32_t& entries);
  void close(NodeRef ref, std::uint8_t byte);
  Range nextChild(Open& node) const;
  std::uint32_t latest(const Range& range);

  RadixOrderWriter* order_;
  TableImage image_;
  std::vector<Item> items_;
  std::optional<Dealing> dealing_;
  std::vector<Open> way_;  // from the root
  std::vector<std::uint32_t> losers_;
  bool begun_ = false;
};

}  // namespace LinuxPlatform
