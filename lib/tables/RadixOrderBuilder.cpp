#include "lib/tables/RadixOrderBuilder.h"

#include <algorithm>
#include <array>
#include <bit>
#include <utility>

namespace LinuxPlatform {

namespace {
// From so many items on it is cheaper to deal them out by one byte than to sort them by eight.
constexpr std::uint32_t manyItems = 256;
// Slots that are read in no order are asked for so many ahead.
constexpr std::uint32_t ahead = 16;
}  // namespace

RadixOrderBuilder::RadixOrderBuilder(RadixOrderWriter& order, std::uint32_t entries)
    : order_(&order), image_(order.image_) {
  items_.reserve(entries);
}

void RadixOrderBuilder::add(std::uint32_t slot) {
  items_.push_back({bytesOf(slot, 0), slot});
}

std::uint64_t RadixOrderBuilder::bytesOf(std::uint32_t slot, unsigned word) const {
  const TableGeometry& geometry = image_.geometry();
  const std::uint64_t bytes = load(image_.slot(slot)[1 + word]);
  return Platform::bigEndian(word + 1 == geometry.keyWordCount ? bytes & geometry.lastKeyWord : bytes);
}

RadixOrderBuilder::Progress RadixOrderBuilder::build(std::uint32_t entries) {
  const auto all = static_cast<std::uint32_t>(items_.size());
  if (all == 0) return Progress::done;
  if (!std::exchange(begun_, true)) open({0, all, 0, 0, false}, 0);
  while (!way_.empty() && entries > 0) {
    Open& last = way_.back();
    if (last.node == 0) {
      if (!last.chained && !part(last.left, entries)) break;
      if (!make(last)) return Progress::noRoom;
    } else if (last.left.begin == last.left.end) {
      order_->finish(last.node);
      const Open closed = last;
      way_.pop_back();
      close(closed.node, closed.byte);
    } else {
      --entries;
      const Item& first = items_[last.left.begin];
      const unsigned depth = last.left.depth;
      const std::uint8_t byte = last.chained ? image_.keyOf(first.slot).bytes()[depth] : byteOf(first, depth);
      open(nextChild(last), byte);
    }
  }
  return way_.empty() ? Progress::done : Progress::more;
}

// Takes the items of the node's next child, those with the same byte, out of what is left.
RadixOrderBuilder::Range RadixOrderBuilder::nextChild(Open& node) const {
  Range& left = node.left;
  Range child = left;
  child.depth = left.depth + 1;
  if (!node.chained) {
    const std::uint8_t byte = byteOf(items_[left.begin], left.depth);
    child.end = left.begin + 1;
    while (child.end < left.end && byteOf(items_[child.end], left.depth) == byte) ++child.end;
  }
  left.begin = child.end;
  return child;
}

// Puts these items where the byte leads to, in the node that is filled at the time: one at once, more behind a node of
// their own, which comes next.
void RadixOrderBuilder::open(Range range, std::uint8_t byte) {
  const unsigned parting = range.end - range.begin == 1 ? image_.geometry().keySize : partingOf(range);
  if (parting == image_.geometry().keySize) {
    close(refOfSlot(latest(range)), byte);
    return;
  }
  Open node{byte, range, parting - range.depth > longestPrefix, {}, 0};
  node.prefix.length = std::min(parting - range.depth, longestPrefix);
  const KeyWords key = node.prefix.length > 0 ? image_.keyOf(items_[range.begin].slot) : KeyWords();
  std::copy_n(key.bytes() + range.depth, node.prefix.length, node.prefix.bytes.begin());
  node.left.depth = range.depth + node.prefix.length;
  way_.push_back(node);
}

// The node, as large as it has to be. False: there is no room.
bool RadixOrderBuilder::make(Open& node) {
  if (!order_->ready()) return false;
  unsigned children = 1;
  for (std::uint32_t i = node.left.begin + 1; i < node.left.end && !node.chained; ++i) {
    children += byteOf(items_[i], node.left.depth) != byteOf(items_[i - 1], node.left.depth) ? 1 : 0;
  }
  unsigned kind = 0;
  while (nodePlaces[kind] < children) ++kind;
  node.node = order_->make(kind, node.prefix);
  return true;
}

// The first byte of their keys that is not the same in all; the size of a key: there is none. The items have the eight
// bytes that it is among when it is known.
unsigned RadixOrderBuilder::partingOf(Range& range) {
  for (;; ++range.word, range.sorted = false, loadBytes(range)) {
    const Item* const first = items_.data() + range.begin;
    std::uint64_t differing = 0;
    for (std::uint32_t i = 1; i < range.end - range.begin; ++i) differing |= first[i].bytes ^ first->bytes;
    if (differing != 0) return 8 * range.word + static_cast<unsigned>(std::countl_zero(differing)) / 8;
    if (range.word + 1 == image_.geometry().keyWordCount) return image_.geometry().keySize;
  }
}

void RadixOrderBuilder::loadBytes(const Range& range) {
  for (std::uint32_t i = range.begin; i < range.end; ++i) {
    if (i + ahead < range.end) image_.expectSlot(items_[i + ahead].slot);
    items_[i].bytes = bytesOf(items_[i].slot, range.word);
  }
}

// Those with the same byte at the range's depth come together, in the order of their bytes; false: not all yet.
bool RadixOrderBuilder::part(Range& range, std::uint32_t& entries) {
  if (range.sorted) return true;
  if (range.end - range.begin < manyItems) {
    std::sort(items_.begin() + range.begin, items_.begin() + range.end,
              [](const Item& a, const Item& b) { return a.bytes < b.bytes; });
    range.sorted = true;
    return true;
  }
  if (!dealing_) beginDealing(range);
  return deal(range.depth, entries);
}

void RadixOrderBuilder::beginDealing(const Range& range) {
  dealing_.emplace();
  std::array<std::uint32_t, 256>& ends = dealing_->ends;
  ends.fill(0);
  for (std::uint32_t i = range.begin; i < range.end; ++i) ++ends[byteOf(items_[i], range.depth)];
  std::uint32_t at = range.begin;
  for (unsigned byte = 0; byte < ends.size(); ++byte) {
    dealing_->next[byte] = at;
    ends[byte] = at += ends[byte];
  }
}

// Each item goes to the next place of its byte, in exchange for the one that was there.
bool RadixOrderBuilder::deal(unsigned depth, std::uint32_t& entries) {
  auto& [next, ends, byte] = *dealing_;
  for (; byte < ends.size(); ++byte) {
    for (; next[byte] < ends[byte]; --entries) {
      if (entries == 0) return false;
      Item& item = items_[next[byte]];
      const std::uint8_t to = byteOf(item, depth);
      std::swap(item, items_[next[to]++]);
    }
  }
  dealing_.reset();
  return true;
}

void RadixOrderBuilder::close(NodeRef ref, std::uint8_t byte) {
  if (way_.empty()) {
    order_->refIs(order_->root(), ref);
  } else {
    order_->fill(way_.back().node, byte, ref);
  }
}

std::uint32_t RadixOrderBuilder::latest(const Range& range) {
  std::uint32_t kept = items_[range.begin].slot;
  for (std::uint32_t i = range.begin + 1; i < range.end; ++i) {
    const std::uint32_t other = items_[i].slot;
    const bool isLater = load(image_.version(other)) > load(image_.version(kept));
    losers_.push_back(isLater ? kept : other);
    if (isLater) kept = other;
  }
  return kept;
}

}  // namespace LinuxPlatform
