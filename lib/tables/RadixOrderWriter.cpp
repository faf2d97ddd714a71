#include <algorithm>
#include <bit>
#include <span>
#include <utility>

#include "lib/tables/RadixOrder.h"

namespace LinuxPlatform {

namespace {

// The most children with which a node of the kind is replaced by one of the next smaller kind: well below what that
// holds, so that one more does not bring the larger one back.
constexpr std::array<unsigned, nodeKinds> shrinksAt{1, 3, 12, 37};

// Changes words of a node that others read, and its check with them, in the end.
class NodeEdit {
 public:
  explicit NodeEdit(std::uint32_t* node) : node_(node) {}
  NodeEdit(const NodeEdit&) = delete;
  NodeEdit& operator=(const NodeEdit&) = delete;
  ~NodeEdit() { store(node_[0], load(node_[0]) ^ checkOfWord(changed_) << 16); }
  void wordIs(unsigned at, std::uint32_t word) {
    changed_ ^= load(node_[at]) ^ word;
    store(node_[at], word);
  }
  void byteIs(unsigned firstWord, unsigned at, std::uint8_t byte) {
    const unsigned word = firstWord + at / 4;
    wordIs(word, withByte(load(node_[word]), at % 4, byte));
  }

 private:
  std::uint32_t* node_;
  std::uint32_t changed_ = 0;
};

}  // namespace

RadixOrderWriter::RadixOrderWriter(const TableImage& image, const Reserve& reserve)
    : RadixOrder(image),
      pools_{PlacePool(image.geometry().nodes[0], image.state().nodesUsed[0], reserve),
             PlacePool(image.geometry().nodes[1], image.state().nodesUsed[1], reserve),
             PlacePool(image.geometry().nodes[2], image.state().nodesUsed[2], reserve),
             PlacePool(image.geometry().nodes[3], image.state().nodesUsed[3], reserve)} {}

bool RadixOrderWriter::ready() {
  // Keys that part late need a row of small nodes; a full node gives way to a larger one.
  const std::uint32_t small = image_.geometry().keySize / (longestPrefix + 1) + 2;
  const auto has = [this](unsigned kind, std::uint32_t wanted) { return pools_[kind].left() >= wanted; };
  if (has(0, small) && has(1, 1) && has(2, 1) && has(3, 1)) return true;
  std::uint32_t left = 0;  // larger ones that nobody needs
  for (unsigned kind = nodeKinds; kind-- > 0;) {
    const std::uint32_t wanted = kind == 0 ? small : 1;
    pools_[kind].ready(wanted);
    if (pools_[kind].left() + left < wanted) return false;
    left = pools_[kind].left() + left - wanted;
  }
  return true;
}

bool RadixOrderWriter::isLoose() const {
  return loadNumber(image_.state().looseOrder) != 0 &&
         std::any_of(pools_.begin(), pools_.end(), [](const PlacePool& pool) { return pool.isUsedUp(); });
}

// --- Nodes -----------------------------------------------------------------------------------------------------------

bool RadixOrderWriter::isSane(NodeRef ref, unsigned depth) const {
  if (isSlot(ref)) return slotIn(ref) < image_.geometry().slots;
  if (ref == 0 || (ref & 0x1fffffff) == 0 || nodeNumber(ref) >= pools_[kindOf(ref)].used()) return false;
  const std::uint32_t* node = nodeAt(ref);
  const std::uint32_t word1 = load(node[1]);
  return isInUse(load(node[0])) && prefixLengthIn(word1) <= longestPrefix &&
         depth + prefixLengthIn(word1) < image_.geometry().keySize &&
         (kindOf(ref) == 3 || countIn(word1) <= nodePlaces[kindOf(ref)]);
}

RadixOrderWriter::Prefix RadixOrderWriter::prefixOf(NodeRef ref) const {
  const std::uint32_t* node = nodeAt(ref);
  Prefix prefix;
  prefix.length = std::min(prefixLengthIn(load(node[1])), longestPrefix);
  for (unsigned i = 0; i < prefix.length; ++i) prefix.bytes[i] = prefixByte(node, i);
  return prefix;
}

std::uint32_t* RadixOrderWriter::place(NodeRef ref, std::uint8_t byte) const {
  std::uint32_t* node = nodeAt(ref);
  const unsigned kind = kindOf(ref);
  std::uint32_t* refs = node + firstRefWord[kind];
  if (kind == 3) return refs + byte;
  if (kind == 2) {
    const unsigned at = loadByte(node, keyByteWord, byte);
    return at == 0 || at > nodePlaces[2] ? nullptr : refs + at - 1;
  }
  const unsigned count = countIn(load(node[1]));
  for (unsigned first = 0; first < count; first += 4) {
    const unsigned at = first + byteAmong(load(node[keyByteWord + first / 4]), byte);
    if (at < std::min(first + 4, count)) return refs + at;
  }
  return nullptr;
}

template <class Visit>
void RadixOrderWriter::forEachChild(NodeRef ref, Visit visit) const {
  const std::uint32_t* node = nodeAt(ref);
  const unsigned kind = kindOf(ref);
  const std::uint32_t* refs = node + firstRefWord[kind];
  const unsigned end = kind <= 1 ? countIn(load(node[1])) : 256;
  for (unsigned i = 0; i < end; ++i) {
    unsigned at = i;
    if (kind == 2) {
      at = loadByte(node, keyByteWord, i);
      if (at == 0 || at > nodePlaces[2]) continue;
      --at;
    }
    const auto byte = kind <= 1 ? loadByte(node, keyByteWord, i) : static_cast<std::uint8_t>(i);
    if (const NodeRef child = load(refs[at]); child != 0) visit(byte, child);
  }
}

unsigned RadixOrderWriter::liveCount(NodeRef ref) const {
  const std::uint32_t* node = nodeAt(ref);
  const unsigned kind = kindOf(ref);
  if (liveWord[kind] != 0) return load(node[liveWord[kind]]);
  unsigned live = 0;
  const unsigned count = countIn(load(node[1]));
  for (unsigned i = 0; i < count; ++i) live += load(node[firstRefWord[kind] + i]) != 0 ? 1 : 0;
  return live;
}

NodeRef RadixOrderWriter::make(unsigned kind, const Prefix& prefix) {
  for (; kind + 1 < nodeKinds && !pools_[kind].ready(1); ++kind) looseIs(true);
  const NodeRef ref = refOfNode(kind, pools_[kind].take());
  std::uint32_t* node = nodeAt(ref);
  store(node[0], (load(node[0]) & 0xffff) | 1);
  for (unsigned i = 1; i < nodeWords[kind]; ++i) store(node[i], std::uint32_t{0});
  std::uint32_t words[2] = {withByte(0, 1, static_cast<std::uint8_t>(prefix.length)), 0};
  for (unsigned i = 0; i < prefix.length; ++i)
    words[(i + 2) / 4] = withByte(words[(i + 2) / 4], (i + 2) % 4, prefix.bytes[i]);
  store(node[1], words[0]);
  store(node[2], words[1]);
  return ref;
}

void RadixOrderWriter::fill(NodeRef ref, std::uint8_t byte, NodeRef child) {
  std::uint32_t* node = nodeAt(ref);
  const unsigned kind = kindOf(ref);
  if (kind == 3) {
    store(node[firstRefWord[3] + byte], child);
  } else {
    const unsigned at = countIn(load(node[1]));
    if (at >= nodePlaces[kind]) return;  // of a damaged node's children
    store(node[firstRefWord[kind] + at], child);
    const unsigned keyByte = kind == 2 ? byte : at;
    std::uint32_t& word = node[keyByteWord + keyByte / 4];
    store(word, withByte(load(word), keyByte % 4, kind == 2 ? static_cast<std::uint8_t>(at + 1) : byte));
    store(node[1], withByte(load(node[1]), 0, static_cast<std::uint8_t>(at + 1)));
  }
  if (liveWord[kind] != 0) store(node[liveWord[kind]], load(node[liveWord[kind]]) + 1);
}

void RadixOrderWriter::finish(NodeRef ref) {
  std::uint32_t* node = nodeAt(ref);
  store(node[0], nodeHead(node, kindOf(ref), versionIn(load(node[0])) + 1));
}

NodeRef RadixOrderWriter::copy(NodeRef ref, unsigned kind, const Prefix& prefix) {
  const NodeRef fresh = make(kind, prefix);
  forEachChild(ref, [&](std::uint8_t byte, NodeRef child) { fill(fresh, byte, child); });
  return fresh;
}

void RadixOrderWriter::retire(NodeRef ref) {
  std::uint32_t* node = nodeAt(ref);
  store(node[0], load(node[0]) | 1);
  pools_[kindOf(ref)].give(nodeNumber(ref));
}

// --- Changes ---------------------------------------------------------------------------------------------------------

void RadixOrderWriter::refIs(const Cell& cell, NodeRef ref) {
  at_.reset();
  if (cell.owner == 0) {
    storeNumber(image_.state().root, ref);
    return;
  }
  std::uint32_t* node = nodeAt(cell.owner);
  const unsigned live = liveWord[kindOf(cell.owner)];
  const NodeRef old = refOf(cell);
  NodeEdit edit(node);
  edit.wordIs(static_cast<unsigned>(cell.at - node), ref);
  if (live != 0 && (old == 0) != (ref == 0)) edit.wordIs(live, ref != 0 ? load(node[live]) + 1 : load(node[live]) - 1);
}

// A place's reference and key byte stand before the count, or the place's number, shows them.
void RadixOrderWriter::append(NodeRef ref, std::uint8_t byte, NodeRef child) {
  std::uint32_t* node = nodeAt(ref);
  const unsigned kind = kindOf(ref);
  const std::uint32_t word1 = load(node[1]);
  const unsigned at = kind == 3 ? byte : countIn(word1);
  NodeEdit edit(node);
  edit.wordIs(firstRefWord[kind] + at, child);
  if (liveWord[kind] != 0) edit.wordIs(liveWord[kind], load(node[liveWord[kind]]) + 1);
  if (kind <= 1) edit.byteIs(keyByteWord, at, byte);
  if (kind <= 2) edit.wordIs(1, withByte(word1, 0, static_cast<std::uint8_t>(at + 1)));
  if (kind == 2) edit.byteIs(keyByteWord, byte, static_cast<std::uint8_t>(at + 1));
}

void RadixOrderWriter::expect(const KeyWords& key) {
  expected_ = key;
  way_.clear();
  at_ = follow(key, &way_);
}

RadixOrderWriter::Spot RadixOrderWriter::follow(const KeyWords& key, std::vector<Cell>* way) const {
  Cell cell = root();
  for (unsigned depth = 0;; ++depth) {
    const Spot spot{cell, depth};
    const NodeRef ref = refOf(cell);
    if (ref == 0 || isSlot(ref) || !isSane(ref, depth)) return spot;
    const std::uint32_t* node = nodeAt(ref);
    const unsigned length = prefixLengthIn(load(node[1]));
    for (unsigned i = 0; i < length; ++i, ++depth) {
      if (prefixByte(node, i) != key.bytes()[depth]) return spot;
    }
    if (way != nullptr) way->push_back(cell);
    std::uint32_t* next = place(ref, key.bytes()[depth]);
    if (next == nullptr) return spot;
    cell = {ref, next};
    if (const NodeRef child = load(*next); isSlot(child)) {
      image_.expectSlot(slotIn(child));
    } else {
      expectNode(child, key, depth + 1);
    }
  }
}

// A node's head, and the line that the key's byte leads to if the node has no prefix.
void RadixOrderWriter::expectNode(NodeRef ref, const KeyWords& key, unsigned depth) const {
  if (ref == 0 || !isPlace(ref) || depth >= image_.geometry().keySize) return;
  const std::uint32_t* words = nodeAt(ref);
  const unsigned kind = kindOf(ref);
  const std::uint8_t byte = key.bytes()[depth];
  prefetch(words);
  if (kind == 1) prefetch(words + 16);
  if (kind == 2) prefetch(words + keyByteWord + byte / 4);
  if (kind == 3) prefetch(words + firstRefWord[3] + byte);
}

RadixOrderWriter::Spot RadixOrderWriter::goTo(const KeyWords& key) {
  if (!at_ || image_.compare(expected_, key) != 0) expect(key);
  return *std::exchange(at_, std::nullopt);  // whatever changes now
}

bool RadixOrderWriter::insert(const KeyWords& key, std::uint32_t slot) {
  const auto [cell, depth] = goTo(key);
  const NodeRef ref = refOf(cell);
  if (ref == 0) {
    refIs(cell, refOfSlot(slot));
    return true;
  }
  if (!isSane(ref, depth)) return false;
  if (isSlot(ref)) return splitSlot(cell, ref, depth, key, slot);
  const std::uint32_t* node = nodeAt(ref);
  const unsigned length = prefixLengthIn(load(node[1]));
  unsigned same = 0;
  while (same < length && prefixByte(node, same) == key.bytes()[depth + same]) ++same;
  // What is copied gets a new check: damage would not show any more. And a damaged reference that is left alone may
  // come to lead to a node that has been filled anew.
  if (!nodeIsWhole(node, kindOf(ref))) return false;
  if (same < length) {
    splitPrefix(cell, ref, same, key.bytes()[depth + same], slot);
    if (!way_.empty()) joinAbove(way_.back());
  } else {
    addChild(cell, ref, key.bytes()[depth + length], slot);
  }
  return true;
}

// Nodes for two keys in the place of one: several in a row, each with one child, when they share more than a prefix
// holds.
bool RadixOrderWriter::splitSlot(Cell cell, NodeRef ref, unsigned depth, const KeyWords& key, std::uint32_t slot) {
  const KeyWords other = image_.keyOf(slotIn(ref));
  const unsigned keySize = image_.geometry().keySize;
  unsigned parting = depth;
  while (parting < keySize && key.bytes()[parting] == other.bytes()[parting]) ++parting;
  if (parting == keySize) return false;
  for (bool parted = false; !parted; ++depth) {
    Prefix prefix;
    prefix.length = std::min(parting - depth, longestPrefix);
    std::copy_n(key.bytes() + depth, prefix.length, prefix.bytes.begin());
    depth += prefix.length;
    parted = depth == parting;
    const NodeRef fresh = make(0, prefix);
    fill(fresh, other.bytes()[depth], ref);
    if (parted) fill(fresh, key.bytes()[depth], refOfSlot(slot));
    finish(fresh);
    refIs(cell, fresh);
    cell = {fresh, place(fresh, other.bytes()[depth])};
  }
  return true;
}

// The key leaves the node's prefix after `same` bytes: a node before it for both.
void RadixOrderWriter::splitPrefix(const Cell& cell, NodeRef ref, unsigned same, std::uint8_t byte,
                                   std::uint32_t slot) {
  const Prefix whole = prefixOf(ref);
  Prefix before = whole, behind;
  before.length = same;
  behind.length = whole.length - same - 1;
  std::copy_n(whole.bytes.begin() + same + 1, behind.length, behind.bytes.begin());
  const NodeRef shorter = copy(ref, kindOf(ref), behind);
  finish(shorter);
  const NodeRef fresh = make(0, before);
  fill(fresh, whole.bytes[same], shorter);
  fill(fresh, byte, refOfSlot(slot));
  finish(fresh);
  refIs(cell, fresh);
  retire(ref);
  if (std::uint32_t* const at = place(fresh, whole.bytes[same]); at != nullptr) joinAbove({fresh, at});
}

bool RadixOrderWriter::isFull(NodeRef ref) const {
  return kindOf(ref) != 3 && countIn(load(nodeAt(ref)[1])) >= nodePlaces[kindOf(ref)];
}

void RadixOrderWriter::addChild(const Cell& cell, NodeRef ref, std::uint8_t byte, std::uint32_t slot) {
  if (!isFull(ref)) {
    append(ref, byte, refOfSlot(slot));
    return;
  }
  const unsigned kind = kindOf(ref);
  // Places of entries that have gone are left out.
  const NodeRef fresh = copy(ref, liveCount(ref) < nodePlaces[kind] ? kind : kind + 1, prefixOf(ref));
  fill(fresh, byte, refOfSlot(slot));
  finish(fresh);
  refIs(cell, fresh);
  retire(ref);
}

bool RadixOrderWriter::erase(const KeyWords& key, std::uint32_t slot) {
  const Spot spot = goTo(key);
  if (refOf(spot.cell) != refOfSlot(slot)) return false;
  refIs(spot.cell, 0);
  while (!way_.empty() && shrink(way_.back())) way_.pop_back();
  if (way_.size() > 1) joinAbove(way_[way_.size() - 2]);
  return true;
}

// Keeps what is said of the number of nodes (TableGeometry): a node has two children, or its only one is a node whose
// prefix does not fit into one with its own; a large node has many.
bool RadixOrderWriter::shrink(const Cell& cell) {
  const NodeRef ref = refOf(cell);
  const unsigned kind = kindOf(ref);
  const unsigned live = liveCount(ref);
  if (live > shrinksAt[kind] || !nodeIsWhole(nodeAt(ref), kind)) return false;
  NodeRef only = 0;
  std::uint8_t byte = 0;
  forEachChild(ref, [&](std::uint8_t keyByte, NodeRef child) {
    only = child;
    byte = keyByte;
  });
  if (live <= 1 && (only == 0 || isSlot(only))) {
    refIs(cell, only);
    retire(ref);
    return true;
  }
  if (live == 1 && join(cell, byte, only)) return false;
  if (kind > 0) {
    replaceBySmaller(cell);
  } else if (std::uint32_t* const at = place(ref, byte); at != nullptr) {
    joinAbove({ref, at});  // a writer that stopped between two changes may have left the same below
  }
  return false;
}

void RadixOrderWriter::replaceBySmaller(const Cell& cell) {
  const NodeRef ref = refOf(cell);
  if (!pools_[kindOf(ref) - 1].ready(1)) {
    looseIs(true);
    return;
  }
  const NodeRef smaller = copy(ref, kindOf(ref) - 1, prefixOf(ref));
  finish(smaller);
  refIs(cell, smaller);
  retire(ref);
}

// The cell's node and its only child become one, if one prefix holds what leads to both.
bool RadixOrderWriter::join(const Cell& cell, std::uint8_t byte, NodeRef only) {
  const NodeRef ref = refOf(cell);
  if (!isSane(only, 0) || !nodeIsWhole(nodeAt(only), kindOf(only))) return false;
  Prefix prefix = prefixOf(ref);
  const Prefix behind = prefixOf(only);
  if (prefix.length + 1 + behind.length > longestPrefix) return false;
  if (!pools_[kindOf(only)].ready(1)) {
    looseIs(true);
    return false;
  }
  prefix.bytes[prefix.length++] = byte;
  std::copy_n(behind.bytes.begin(), behind.length, prefix.bytes.begin() + prefix.length);
  prefix.length += behind.length;
  const NodeRef joined = copy(only, kindOf(only), prefix);
  finish(joined);
  refIs(cell, joined);
  retire(ref);
  retire(only);
  return true;
}

// The node below this one has got another prefix: they may be one now.
void RadixOrderWriter::joinAbove(const Cell& cell) {
  if (kindOf(refOf(cell)) == 0 && liveCount(refOf(cell)) == 1) shrink(cell);
}

bool RadixOrderWriter::redirect(const KeyWords& key, std::uint32_t from, std::uint32_t to) {
  const Cell cell = follow(key, nullptr).cell;
  if (refOf(cell) != refOfSlot(from)) return false;
  refIs(cell, refOfSlot(to));
  return true;
}

// --- Giving back -----------------------------------------------------------------------------------------------------

std::optional<std::uint32_t> RadixOrderWriter::slotBelow(NodeRef ref) const {
  for (unsigned depth = 0; isSane(ref, depth); ++depth) {
    if (isSlot(ref)) return slotIn(ref);
    depth += prefixLengthIn(load(nodeAt(ref)[1]));
    NodeRef below = 0;
    forEachChild(ref, [&](std::uint8_t, NodeRef child) { below = child; });
    ref = below;
  }
  return std::nullopt;
}

// A node does not know what leads to it: the keys below it do. One of them is named as being changed meanwhile, so that
// the next writer takes back what this one has filled or left.
bool RadixOrderWriter::move(unsigned kind, std::uint32_t number) {
  const NodeRef ref = refOfNode(kind, number);
  const auto slot = slotBelow(ref);
  if (!slot || !nodeIsWhole(nodeAt(ref), kind)) return false;
  std::vector<Cell> way;
  follow(image_.keyOf(*slot), &way);
  const auto cell = std::find_if(way.begin(), way.end(), [&](const Cell& at) { return refOf(at) == ref; });
  if (cell == way.end()) return false;
  if (pools_[kind].isFullBefore(number)) return true;
  TableState& state = image_.state();
  storeNumber(state.operation, std::uint64_t{*slot} + 1);
  const NodeRef moved = copy(ref, kind, prefixOf(ref));
  finish(moved);
  refIs(*cell, moved);
  retire(ref);
  storeNumber(state.nodesMoved, numberIn(loadNumber(state.nodesMoved) + 1));
  storeNumber(state.operation, 0);
  return true;
}

bool RadixOrderWriter::leadsTo(const KeyWords& key, std::uint32_t slot) const {
  return refOf(follow(key, nullptr).cell) == refOfSlot(slot);
}

std::optional<std::uint32_t> RadixOrderWriter::find(const KeyWords& key) const {
  const NodeRef ref = refOf(follow(key, nullptr).cell);
  if (!isSlot(ref) || slotIn(ref) >= image_.geometry().slots) return std::nullopt;
  return image_.holds(image_.slot(slotIn(ref)), key, image_.geometry().keyWordCount) ? std::optional(slotIn(ref))
                                                                                     : std::nullopt;
}

// --- Taking over -----------------------------------------------------------------------------------------------------

bool RadixOrderWriter::adopt(const KeyWords* interrupted) {
  at_.reset();
  const TableState& state = image_.state();
  if (!isSound(load(state.root))) return false;
  for (unsigned kind = 0; kind < nodeKinds; ++kind) {
    const std::uint64_t used = load(state.nodesUsed[kind]);
    if (!isSound(used) || numberIn(used) > image_.geometry().nodes[kind].count) return false;
    std::vector<std::uint32_t> freed;
    for (auto number = static_cast<std::uint32_t>(numberIn(used)); number-- > 0;) {
      if (!isInUse(load(*image_.node(kind, number)))) freed.push_back(number);
    }
    pools_[kind].adopt(static_cast<std::uint32_t>(numberIn(used)), std::move(freed));
  }
  if (interrupted == nullptr) return true;
  // The node that was being changed is one on the way to the key.
  std::vector<Cell> way;
  follow(*interrupted, &way);
  for (const Cell& passed : way) {
    if (!nodeIsWhole(nodeAt(refOf(passed)), kindOf(refOf(passed)))) recount(refOf(passed));
  }
  if (!sweep()) return false;
  for (auto passed = way.rbegin(); passed != way.rend(); ++passed) shrink(*passed);
  return true;
}

// A writer stopped between two words of the node: what is derived from its places is put right.
void RadixOrderWriter::recount(NodeRef ref) {
  std::uint32_t* node = nodeAt(ref);
  const unsigned kind = kindOf(ref);
  std::uint32_t live = 0;
  forEachChild(ref, [&](std::uint8_t, NodeRef) { ++live; });
  if (liveWord[kind] != 0) store(node[liveWord[kind]], live);
  store(node[0], nodeHead(node, kind, versionIn(load(node[0]))));
}

// Takes back nodes that a writer had filled and not yet shown, or replaced and not yet given up.
bool RadixOrderWriter::sweep() {
  std::array<std::vector<bool>, nodeKinds> seen;
  for (unsigned kind = 0; kind < nodeKinds; ++kind) seen[kind].resize(pools_[kind].used());
  const NodeRef ref = refOf(root());
  if (ref != 0 && !markReachable(ref, 0, seen)) return false;
  for (unsigned kind = 0; kind < nodeKinds; ++kind) {
    for (std::uint32_t number = 0; number < seen[kind].size(); ++number) {
      if (!seen[kind][number] && isInUse(load(*image_.node(kind, number)))) retire(refOfNode(kind, number));
    }
  }
  return true;
}

bool RadixOrderWriter::markReachable(NodeRef ref, unsigned depth,
                                     std::array<std::vector<bool>, nodeKinds>& seen) const {
  if (!isSane(ref, depth)) return false;
  if (isSlot(ref)) return true;
  if (seen[kindOf(ref)][nodeNumber(ref)]) return false;
  seen[kindOf(ref)][nodeNumber(ref)] = true;
  depth += prefixLengthIn(load(nodeAt(ref)[1])) + 1;
  bool good = true;
  forEachChild(ref, [&](std::uint8_t, NodeRef child) { good = good && markReachable(child, depth, seen); });
  return good;
}

void RadixOrderWriter::clear() {
  at_.reset();
  looseIs(false);
  storeNumber(image_.state().root, 0);
  for (unsigned kind = 0; kind < nodeKinds; ++kind) {
    // What the mark says may be damaged; nodes beyond what has room were never used.
    const std::uint64_t mark = load(image_.state().nodesUsed[kind]);
    const std::uint64_t used =
        isSound(mark) && numberIn(mark) <= image_.geometry().nodes[kind].count ? numberIn(mark) : 0;
    std::vector<std::uint32_t> freed;
    for (auto number = static_cast<std::uint32_t>(used); number-- > 0;) {
      std::uint32_t& head = *image_.node(kind, number);
      store(head, load(head) | 1);
      freed.push_back(number);
    }
    pools_[kind].adopt(static_cast<std::uint32_t>(used), std::move(freed));
  }
}

// --- Checks ----------------------------------------------------------------------------------------------------------

struct RadixOrderWriter::Survey {
  std::array<std::uint32_t, nodeKinds> nodes{};
  std::uint64_t entries = 0;
  KeyWords last;
};

bool RadixOrderWriter::survey(NodeRef ref, unsigned depth, Survey& found) const {
  if (!isSane(ref, depth)) return false;
  if (isSlot(ref)) {
    const KeyWords key = image_.keyOf(slotIn(ref));
    if (!isLive(load(image_.version(slotIn(ref)))) || !leadsTo(key, slotIn(ref))) return false;
    if (found.entries++ > 0 && image_.compare(found.last, key) >= 0) return false;
    found.last = key;
    return true;
  }
  ++found.nodes[kindOf(ref)];
  std::vector<std::pair<std::uint8_t, NodeRef>> children;
  forEachChild(ref, [&](std::uint8_t byte, NodeRef child) { children.emplace_back(byte, child); });
  std::sort(children.begin(), children.end());
  const bool oneIsEnough = children.size() == 1 && !isSlot(children.front().second);
  if (!nodeIsWhole(nodeAt(ref), kindOf(ref)) || children.size() != liveCount(ref)) return false;
  const bool loose = loadNumber(image_.state().looseOrder) != 0;
  if (!loose && children.size() <= shrinksAt[kindOf(ref)] && !(oneIsEnough && kindOf(ref) == 0)) return false;
  if (!loose && oneIsEnough && prefixOf(ref).length + 1 + prefixOf(children.front().second).length <= longestPrefix)
    return false;
  depth += prefixLengthIn(load(nodeAt(ref)[1])) + 1;
  return std::all_of(children.begin(), children.end(),
                     [&](const auto& child) { return survey(child.second, depth, found); });
}

bool RadixOrderWriter::agrees(std::uint64_t live, std::uint32_t& lost) const {
  Survey found;
  const NodeRef ref = refOf(root());
  if (ref != 0 && !survey(ref, 0, found)) return false;
  lost = 0;
  for (unsigned kind = 0; kind < nodeKinds; ++kind) {
    const std::size_t known = std::size_t{found.nodes[kind]} + pools_[kind].free();
    if (known > pools_[kind].used()) return false;
    lost += pools_[kind].used() - static_cast<std::uint32_t>(known);
  }
  return found.entries == live;
}

}  // namespace LinuxPlatform
