#include "lib/tables/RadixOrder.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace LinuxPlatform {

namespace {

// Changes of the table during a search that are far too few to bring a node's version round.
constexpr std::uint64_t mostChanges = 4096;

}  // namespace

// --- Searching -------------------------------------------------------------------------------------------------------

// The low half of the root's word: the reference. Its high half is a check.
const std::uint32_t* RadixOrder::rootCell() const {
  const auto* halves = reinterpret_cast<const std::uint32_t*>(&image_.state().root);
  return std::endian::native == std::endian::little ? halves : halves + 1;
}

bool RadixOrder::collect(const KeyWords& from, bool inclusive, Batch& out) const {
  const std::uint64_t epoch = load(image_.state().epoch);
  const std::uint64_t head = loadNumber(image_.state().headSequence);
  const std::uint64_t root = load(image_.state().root);
  out.count = 0;
  out.passed.reset();
  if (!isSound(root)) return false;
  Search search{&from, inclusive, {}, &out};
  const auto ref = static_cast<NodeRef>(numberIn(root));
  if (ref != 0 && !visit(rootCell(), ref, 0, true, search)) return false;
  return loadNumber(image_.state().headSequence) - head < mostChanges && load(image_.state().epoch) == epoch;
}

bool RadixOrder::isBehind(const Batch& batch, const KeyWords& key) const {
  const unsigned last = batch.count - 1;
  return std::memcmp(key.bytes(), batch.paths[last].data(), batch.depths[last]) > 0;
}

void RadixOrder::add(std::uint32_t slot, unsigned depth, Search& search) const {
  image_.expectSlot(slot);
  Batch& out = *search.out;
  const unsigned number = out.count++;
  out.slots[number] = slot;
  out.depths[number] = static_cast<std::uint8_t>(depth);
  out.paths[number] = search.path.words;
}

bool RadixOrder::visit(const std::uint32_t* cell, NodeRef ref, unsigned depth, bool bounded, Search& search) const {
  if (isSlot(ref)) return visitSlot(cell, ref, depth, bounded, search);
  if (!isPlace(ref)) return false;
  Node node{nodeAt(ref), kindOf(ref), depth, 0, bounded, 0};
  const std::uint32_t head = load(node.words[0]);
  if (!isInUse(head) || load(*cell) != ref) return false;
  node.version = versionIn(head);
  if (!nodeIsWhole(node.words, node.kind)) return false;
  const unsigned length = prefixLengthIn(load(node.words[1]));
  if (length > longestPrefix || depth + length >= image_.geometry().keySize) return false;
  for (unsigned i = 0; i < length; ++i, ++node.depth) {
    const std::uint8_t byte = prefixByte(node.words, i);
    search.step(node.depth, byte);
    if (!node.bounded) continue;
    const std::uint8_t wanted = search.from->bytes()[node.depth];
    if (byte < wanted) return versionIn(load(node.words[0])) == node.version;  // all of it comes before
    node.bounded = byte == wanted;
  }
  node.firstByte = node.bounded ? search.from->bytes()[node.depth] : 0;
  const bool seen = node.kind <= 1 ? visitFew(node, search) : visitMany(node, search);
  return seen && versionIn(load(node.words[0])) == node.version;
}

// A key with these bytes that was there when the reference was read is the slot's: if it is none now that the search
// wants, there was none.
bool RadixOrder::visitSlot(const std::uint32_t* cell, NodeRef ref, unsigned depth, bool bounded, Search& search) const {
  const std::uint32_t slot = slotIn(ref);
  if (slot >= image_.geometry().slots) return false;
  if (bounded) {
    SlotImage here;
    const bool read = image_.readSlot(slot, here);
    if (load(*cell) != ref) return false;
    if (read) {
      if (here.version() == 0) return false;  // nothing leads to a slot that holds nothing
      const int order = image_.compare(image_.keyIn(here), *search.from);
      if (stateOf(here.version()) == SlotState::free || order < 0 || (order == 0 && !search.inclusive)) {
        search.out->passed = slot;
        return true;
      }
    }
  }
  add(slot, depth, search);
  return true;
}

bool RadixOrder::visitChild(const Node& node, std::uint8_t byte, const std::uint32_t* cell, Search& search) const {
  const NodeRef ref = load(*cell);
  if (versionIn(load(node.words[0])) != node.version) return false;
  search.step(node.depth, byte);
  return ref == 0 || visit(cell, ref, node.depth + 1, node.bounded && byte == node.firstByte, search);
}

void RadixOrder::expect(NodeRef ref) const {
  if (ref == 0 || isSlot(ref) || !isPlace(ref)) return;
  const std::uint32_t* words = nodeAt(ref);
  prefetch(words);
  if (kindOf(ref) == 1) prefetch(words + 16);
}

// Kinds 0 and 1: places in no order, which a set of bytes puts them in.
bool RadixOrder::visitFew(const Node& node, Search& search) const {
  const unsigned count = countIn(load(node.words[1]));
  if (count > nodePlaces[node.kind]) return false;
  const std::uint32_t* refs = node.words + firstRefWord[node.kind];
  std::array<std::uint64_t, 4> bytes{};
  std::array<std::uint8_t, 256> placeOf;  // of those in the set
  const bool manyWanted = search.out->max - search.out->count >= count;
  for (unsigned i = 0; i < count; i += 4) {
    const std::uint32_t four = load(node.words[keyByteWord + i / 4]);
    for (unsigned place = i; place < std::min(i + 4, count); ++place) {
      const std::uint8_t byte = byteIn(four, place % 4);
      bytes[byte / 64] |= std::uint64_t{1} << byte % 64;
      placeOf[byte] = static_cast<std::uint8_t>(place);
      if (manyWanted && byte >= node.firstByte) expect(load(refs[place]));
    }
  }
  bytes[node.firstByte / 64] &= ~std::uint64_t{0} << node.firstByte % 64;
  for (unsigned word = node.firstByte / 64; word < bytes.size(); ++word) {
    for (std::uint64_t left = bytes[word]; left != 0; left &= left - 1) {
      if (search.out->count == search.out->max) return true;
      const auto byte = static_cast<std::uint8_t>(word * 64 + static_cast<unsigned>(std::countr_zero(left)));
      if (!visitChild(node, byte, refs + placeOf[byte], search)) return false;
    }
  }
  return true;
}

// Kinds 2 and 3: by key byte, some at a time, so that what they lead to is on its way while the first is visited.
bool RadixOrder::visitMany(const Node& node, Search& search) const {
  constexpr unsigned ahead = 8;
  const std::uint32_t* refs = node.words + firstRefWord[node.kind];
  for (unsigned byte = node.firstByte; byte < 256 && search.out->count < search.out->max;) {
    std::array<std::uint32_t, ahead> next;  // byte << 8 | place
    unsigned count = 0;
    for (; byte < 256 && count < std::min(ahead, search.out->max - search.out->count); ++byte) {
      unsigned at = byte;
      if (node.kind == 2) {
        if (byte % 4 == 0 && load(node.words[keyByteWord + byte / 4]) == 0) {
          byte += 3;
          continue;
        }
        at = loadByte(node.words, keyByteWord, byte);
        if (at == 0) continue;
        if (at > nodePlaces[2]) return false;
        --at;
      }
      const NodeRef ref = load(refs[at]);
      if (ref == 0) continue;
      expect(ref);
      next[count++] = byte << 8 | at;
    }
    for (unsigned i = 0; i < count && search.out->count < search.out->max; ++i) {
      if (!visitChild(node, static_cast<std::uint8_t>(next[i] >> 8), refs + (next[i] & 0xff), search)) return false;
    }
  }
  return true;
}

}  // namespace LinuxPlatform
