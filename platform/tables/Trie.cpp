#include "platform/tables/Trie.h"

#include <algorithm>
#include <array>
#include <bit>

#include "platform/values/Assert.h"

namespace Platform {

namespace {

constexpr unsigned slots = 32;
constexpr unsigned places = 31;

// std::popcount is a call as long as the processor need not have the instruction.
constexpr unsigned countOf(std::uint32_t bits) {
  bits -= bits >> 1 & 0x55555555;
  bits = (bits & 0x33333333) + (bits >> 2 & 0x33333333);
  bits = (bits + (bits >> 4)) & 0x0F0F0F0F;
  return bits * 0x01010101 >> 24;
}

// All bits below this one, which may be 32.
constexpr std::uint32_t below(unsigned bit) {
  return static_cast<std::uint32_t>((std::uint64_t{1} << bit) - 1);
}

// What is asked of slots and places; it follows from how places are numbered.
struct PlaceTables {
  std::array<std::uint8_t, slots> ofSlot{};     // slot - popcount(slot)
  std::array<std::uint32_t, slots> covering{};  // a bit for the place of each prefix that covers the slot
  std::array<std::uint8_t, places> slot{};
  std::array<std::uint8_t, places> length{};

  constexpr PlaceTables() {
    for (unsigned at = 0; at < slots; ++at) {
      ofSlot[at] = static_cast<std::uint8_t>(at - countOf(at));
      for (unsigned bits = 0; bits < 5; ++bits) {
        const unsigned from = at & ~((slots - 1) >> bits);
        const unsigned place = from - countOf(from) + bits;
        covering[at] |= 1U << place;
        slot[place] = static_cast<std::uint8_t>(from);
        length[place] = static_cast<std::uint8_t>(bits);
      }
    }
  }
};
constexpr PlaceTables tables;

}  // namespace

template <class P>
BasicTrie<P>::BasicTrie(std::string name) : Lattis::Entity(std::move(name)) {}

template <class P>
BasicTrie<P>::~BasicTrie() {
  trieDelete();
  reactors_.notify([](Reactor& reactor) { reactor.trie_ = nullptr; });
}

template <class P>
void BasicTrie<P>::routeIs(const P& prefix, bool value) {
  if (insert(prefix, value)) changed(prefix);
}

template <class P>
void BasicTrie<P>::routeDel(const P& prefix) {
  if (remove(prefix)) changed(prefix);
}

template <class P>
void BasicTrie<P>::trieDelete() {
  const auto keepAlive = weak_from_this().lock();  // null in the destructor
  clear();
  reactors_.notify([](Reactor& reactor) { reactor.handleTrieDelete(); });
}

template <class P>
std::optional<bool> BasicTrie<P>::route(const P& prefix) const {
  const Node* node = find(prefix);
  if (node == nullptr) return std::nullopt;
  return (node->values & Spot(prefix).placeBit) != 0;
}

template <class P>
std::optional<P> BasicTrie<P>::longestMatch(const P& prefix) const {
  const Bits bits = Family::bits(prefix);
  const Node& first = start(bits, prefix.length());
  const Node& root = nodes_[rootIndex];
  unsigned length = longestMatchFrom(first, bits, prefix.length());
  // The few short prefixes are above the front.
  if (length == noMatch && &first != &root) length = longestMatchFrom(root, bits, prefix.length());
  if (length == noMatch) return std::nullopt;
  return Family::prefix(bits, length);
}

template <class P>
std::optional<P> BasicTrie<P>::prefix(std::uint32_t id) const {
  for (const Report* report = reports_; report != nullptr; report = report->around) {
    if (report->id == id) return report->prefix;
  }
  return std::nullopt;
}

template <class P>
BasicTrie<P>::Spot::Spot(const P& prefix)
    : bits(Family::bits(prefix)),
      depth(prefix.length() / stride * stride),
      placeBit(1U << (tables.ofSlot[Family::slot(bits, depth)] + prefix.length() - depth)) {}

template <class P>
std::uint32_t BasicTrie<P>::childIndex(const Node& node, unsigned slot) {
  return node.firstChild + countOf(node.children & below(slot));
}

// Where the search for a prefix of this length begins: what is above has only shorter ones.
template <class P>
const typename BasicTrie<P>::Node& BasicTrie<P>::start(const Bits& bits, unsigned length) const {
  if (front_.empty() || length < frontDepth) return nodes_[rootIndex];
  const std::uint32_t index = front_[region(bits)];
  return nodes_[index == Blocks::none ? rootIndex : index];
}

// How long the longest match is among the prefixes of this node and below it, or noMatch.
template <class P>
unsigned BasicTrie<P>::longestMatchFrom(const Node& top, const Bits& bits, unsigned length) const {
  std::uint32_t matches = 0;
  unsigned depthOfMatches = 0;
  const Node* node = &top;
  for (;;) {
    const unsigned depth = node->depth();
    if (depth > length || !Family::agree(node->bits, bits, depth)) break;
    const unsigned slot = Family::slot(bits, depth);
    const unsigned further = std::min(length - depth, stride);
    const std::uint32_t here = node->prefixes & tables.covering[slot] & below(tables.ofSlot[slot] + further + 1);
    if (here != 0) {
      matches = here;
      depthOfMatches = depth;
    }
    if (!hasChild(*node, slot)) break;
    node = &nodes_[childIndex(*node, slot)];
  }
  if (matches == 0) return noMatch;
  return depthOfMatches + tables.length[static_cast<unsigned>(std::bit_width(matches)) - 1];
}

// The node that has this prefix, or null. The nodes on the way are not compared: only the one at the end can be it.
template <class P>
const typename BasicTrie<P>::Node* BasicTrie<P>::find(const P& prefix) const {
  const Spot spot(prefix);
  const Node* node = &start(spot.bits, spot.depth);
  while (node->depth() < spot.depth) {
    const unsigned slot = Family::slot(spot.bits, node->depth());
    if (!hasChild(*node, slot)) return nullptr;
    node = &nodes_[childIndex(*node, slot)];
  }
  const bool isIt = node->depth() == spot.depth && Family::agree(node->bits, spot.bits, spot.depth);
  return isIt && (node->prefixes & spot.placeBit) != 0 ? node : nullptr;
}

// True when that has changed anything.
template <class P>
bool BasicTrie<P>::insert(const P& prefix, bool value) {
  const Spot spot(prefix);
  std::uint32_t index = rootIndex;
  while (nodes_[index].depth() < spot.depth) {
    const Node& node = nodes_[index];
    const unsigned slot = Family::slot(spot.bits, node.depth());
    if (!hasChild(node, slot)) {
      index = addChild(index, slot, emptyNode(spot.bits, spot.depth));
      break;
    }
    index = childIndex(node, slot);
    const Node& child = nodes_[index];
    const unsigned common = std::min({Family::commonBits(child.bits, spot.bits), child.depth(), spot.depth});
    if (common < child.depth()) putBetween(index, common / stride * stride);
  }
  Node& node = nodes_[index];
  if ((node.prefixes & spot.placeBit) == 0) {
    if (++size_ == frontSize) frontIs(true);
  } else if (((node.values & spot.placeBit) != 0) == value) {
    return false;
  }
  node.prefixes |= spot.placeBit;
  node.values = value ? node.values | spot.placeBit : node.values & ~spot.placeBit;
  return true;
}

// Takes the prefix out, and the nodes that nothing needs any more. False when there is no such prefix.
template <class P>
bool BasicTrie<P>::remove(const P& prefix) {
  const Spot spot(prefix);
  std::uint32_t index = rootIndex;
  std::uint32_t parentIndex = rootIndex;
  while (nodes_[index].depth() < spot.depth) {
    const Node& node = nodes_[index];
    const unsigned slot = Family::slot(spot.bits, node.depth());
    if (!hasChild(node, slot)) return false;
    parentIndex = std::exchange(index, childIndex(node, slot));
  }
  Node& node = nodes_[index];
  if (node.depth() != spot.depth || !Family::agree(node.bits, spot.bits, spot.depth)) return false;
  if ((node.prefixes & spot.placeBit) == 0) return false;
  node.prefixes &= ~spot.placeBit;
  node.values &= ~spot.placeBit;
  if (--size_ == 0) {
    clear();
    return true;
  }
  if (size_ <= frontSize / 4) frontIs(false);
  const unsigned children = countOf(node.children);
  if (index == rootIndex || node.prefixes != 0 || children > 1) return true;
  if (children == 1) {
    replaceByChild(index, node.firstChild);
    return true;
  }
  const Node& parent = nodes_[parentIndex];
  if (isInFront(parent, node)) front_[region(node.bits)] = Blocks::none;
  if (parentIndex == rootIndex || parent.prefixes != 0 || countOf(parent.children) > 2) {
    removeChild(parentIndex, Family::slot(spot.bits, parent.depth()));
  } else {
    replaceByChild(parentIndex, index == parent.firstChild ? index + 1 : parent.firstChild);
  }
  return true;
}

// The first route from this prefix on (`inclusive`) or behind it, in prefix order.
template <class P>
std::optional<typename BasicTrie<P>::Route> BasicTrie<P>::firstFrom(const P& from, bool inclusive) const {
  const Bits bits = Family::bits(from);
  const unsigned length = from.length();
  Rest behind;  // the nearest that is not empty
  const Node* node = &nodes_[rootIndex];
  for (;;) {
    const unsigned depth = node->depth();
    const unsigned slot = Family::slot(bits, depth);
    const bool ends = length < depth + stride;  // `from` has its place in this node
    const unsigned place = tables.ofSlot[slot] + (ends ? length - depth + (inclusive ? 0 : 1) : stride);
    const Rest rest{node, node->prefixes & ~below(place), node->children & ~below(ends ? slot : slot + 1)};
    if ((rest.prefixes | rest.children) != 0) behind = rest;
    if (ends || !hasChild(*node, slot)) break;
    node = &nodes_[childIndex(*node, slot)];
    if (node->depth() <= length && Family::agree(node->bits, bits, node->depth())) continue;
    // Inside `from`, or on one side of it with all that is below.
    if (node->bits >= bits) behind = {node, node->prefixes, node->children};
    break;
  }
  if (behind.node == nullptr) return std::nullopt;
  return first(behind);
}

// Of what is not empty.
template <class P>
typename BasicTrie<P>::Route BasicTrie<P>::first(Rest rest) const {
  for (;;) {
    const Node& node = *rest.node;
    const auto childSlot = static_cast<unsigned>(std::countr_zero(rest.children));
    const auto place = static_cast<unsigned>(std::countr_zero(rest.prefixes));
    if (rest.prefixes != 0 && tables.slot[place] <= childSlot) {
      const Bits bits = Family::withSlot(node.bits, node.depth(), tables.slot[place]);
      return {Family::prefix(bits, node.depth() + tables.length[place]), (node.values >> place & 1) != 0};
    }
    const Node& child = nodes_[childIndex(node, childSlot)];
    rest = {&child, child.prefixes, child.children};
  }
}

template <class P>
typename BasicTrie<P>::Node BasicTrie<P>::emptyNode(const Bits& bits, unsigned depth) {
  Node node;
  node.bits = Family::bits(Family::prefix(bits, depth));
  node.level = depth / stride & 31;
  return node;
}

// Where the child is from now on. No other index holds but that.
template <class P>
std::uint32_t BasicTrie<P>::addChild(std::uint32_t index, unsigned slot, const Node& child) {
  const unsigned count = countOf(nodes_[index].children);
  const unsigned at = countOf(nodes_[index].children & below(slot));
  const std::uint32_t before = nodes_[index].firstChild;
  const bool fits = count < Blocks::room(count);
  const std::uint32_t block = fits ? before : nodes_.take(count + 1);
  Node* const to = &nodes_[block];
  if (count != 0) {
    const Node* const from = &nodes_[before];
    std::copy_backward(from + at, from + count, to + count + 1);
    if (!fits) std::copy_n(from, at, to);
  }
  to[at] = child;
  nodes_[index].children |= 1U << slot;
  nodes_[index].firstChild = block & Blocks::none;
  childrenPlaced(index);
  if (!fits && count != 0) giveBack(before, count);
  return block + at;
}

// No index holds afterwards.
template <class P>
void BasicTrie<P>::removeChild(std::uint32_t index, unsigned slot) {
  const unsigned count = countOf(nodes_[index].children);
  const unsigned at = countOf(nodes_[index].children & below(slot));
  const std::uint32_t before = nodes_[index].firstChild;
  const bool fits = Blocks::room(count - 1) == Blocks::room(count);
  std::uint32_t block = Blocks::none;
  if (count > 1) {
    block = fits ? before : nodes_.take(count - 1);
    const Node* const from = &nodes_[before];
    Node* const to = &nodes_[block];
    if (!fits) std::copy_n(from, at, to);
    std::copy(from + at + 1, from + count, to + at);
  }
  nodes_[index].children &= ~(1U << slot);
  nodes_[index].firstChild = block & Blocks::none;
  childrenPlaced(index);
  if (!fits) giveBack(before, count);
}

// Gives the node's index to a new one of that depth, whose only child it becomes.
template <class P>
void BasicTrie<P>::putBetween(std::uint32_t index, unsigned depth) {
  const std::uint32_t block = nodes_.take(1);
  const Node child = nodes_[index];
  Node between = emptyNode(child.bits, depth);
  between.children = 1U << Family::slot(child.bits, depth);
  between.firstChild = block & Blocks::none;
  nodes_[block] = child;
  nodes_[index] = between;
  childrenPlaced(index);
}

// The node gives its index to one of its children and is gone with the others. No index holds afterwards.
template <class P>
void BasicTrie<P>::replaceByChild(std::uint32_t index, std::uint32_t child) {
  const Node gone = nodes_[index];
  nodes_[index] = nodes_[child];
  if (isInFront(gone, nodes_[index])) front_[region(nodes_[index].bits)] = index;
  giveBack(gone.firstChild, countOf(gone.children));
}

// Of a block that no node names any more. Another block may move for it: the node that names that one is found by what
// lies in it.
template <class P>
void BasicTrie<P>::giveBack(std::uint32_t block, unsigned nodes) {
  const std::uint32_t moved = nodes_.giveBack(block, nodes);
  if (moved == Blocks::none) return;
  const Bits bits = nodes_[block].bits;
  std::uint32_t index = rootIndex;
  while (nodes_[index].firstChild != moved) {
    index = childIndex(nodes_[index], Family::slot(bits, nodes_[index].depth()));
  }
  nodes_[index].firstChild = block & Blocks::none;
  childrenPlaced(index);
}

template <class P>
bool BasicTrie<P>::isInFront(const Node& parent, const Node& child) const {
  return !front_.empty() && parent.depth() < frontDepth && child.depth() >= frontDepth;
}

// Its children have come to other indexes, or there is one more.
template <class P>
void BasicTrie<P>::childrenPlaced(std::uint32_t index) {
  const Node& node = nodes_[index];
  if (front_.empty() || node.depth() >= frontDepth) return;
  const std::uint32_t end = node.firstChild + countOf(node.children);
  for (std::uint32_t child = node.firstChild; child < end; ++child) {
    if (isInFront(node, nodes_[child])) front_[region(nodes_[child].bits)] = child;
  }
}

template <class P>
void BasicTrie<P>::frontIs(bool wanted) {
  if (wanted == !front_.empty()) return;
  std::vector<std::uint32_t>(wanted ? std::size_t{1} << frontDepth : 0, Blocks::none).swap(front_);
  if (!wanted) return;
  std::vector<std::uint32_t> above{rootIndex};
  while (!above.empty()) {
    const std::uint32_t index = above.back();
    above.pop_back();
    childrenPlaced(index);
    const Node& node = nodes_[index];
    for (std::uint32_t child = node.firstChild; child < node.firstChild + countOf(node.children); ++child) {
      if (nodes_[child].depth() < frontDepth) above.push_back(child);
    }
  }
}

template <class P>
void BasicTrie<P>::clear() {
  nodes_.clear();
  frontIs(false);
  size_ = 0;
}

template <class P>
void BasicTrie<P>::changed(const P& prefix) {
  if (reactors_.empty()) return;
  const auto keepAlive = weak_from_this().lock();  // a reactor may let go of the trie
  const Report report{reportsBegun_++, prefix, reports_};
  reports_ = &report;
  reactors_.notify([&report](Reactor& reactor) { reactor.handleRouteCachePrefix(report.id); });
  reports_ = report.around;
}

template <class P>
std::size_t BasicTrie<P>::bytes() const {
  return sizeof(*this) + nodes_.bytes() + front_.capacity() * sizeof(std::uint32_t);
}

template <class P>
const Lattis::EntityType& BasicTrie<P>::entityType() const {
  static const Lattis::EntityType type = [] {
    const auto self = [](const Lattis::Entity& entity) -> const BasicTrie& {
      return static_cast<const BasicTrie&>(entity);
    };
    Lattis::CollectionField routes;
    routes.name = "route";
    routes.keys = [self](const Lattis::Entity& entity) {
      std::vector<std::string> keys;
      for (const Route& entry : self(entity)) keys.push_back(toText(entry.prefix));
      return keys;
    };
    routes.get = [self](const Lattis::Entity& entity, std::string_view key) -> std::optional<std::string> {
      const auto value = self(entity).route(fromText<P>(key));
      if (!value) return std::nullopt;
      return toText(*value);
    };
    return Lattis::EntityType{
        Family::typeName, {Lattis::readOnlyField<BasicTrie, &BasicTrie::size>("size")}, {std::move(routes)}};
  }();
  return type;
}

template <class P>
void BasicTrie<P>::assertInvariant() const {
  std::size_t routes = 0;
  std::size_t room = 1;
  auto front = std::vector<std::uint32_t>(front_.size(), Blocks::none);
  std::vector<bool> named(nodes_.limit());
  std::vector<std::uint32_t> left{rootIndex};
  while (!left.empty()) {
    const Node& node = nodes_[left.back()];
    const bool isRoot = left.back() == rootIndex;
    left.pop_back();
    const unsigned children = countOf(node.children);
    PLATFORM_ASSERT(!isRoot || node.level == 0);
    PLATFORM_ASSERT(isRoot || node.prefixes != 0 || children > 1);
    PLATFORM_ASSERT(node.bits == Family::bits(Family::prefix(node.bits, node.depth())));
    PLATFORM_ASSERT((node.values & ~node.prefixes) == 0);
    routes += countOf(node.prefixes);
    PLATFORM_ASSERT((node.prefixes & ~below(places)) == 0);
    for (std::uint32_t bits = node.prefixes; bits != 0; bits &= bits - 1) {
      const auto place = static_cast<unsigned>(std::countr_zero(bits));
      PLATFORM_ASSERT(node.depth() + tables.length[place] <= P::maxLength);
    }
    PLATFORM_ASSERT((children == 0) == (node.firstChild == Blocks::none));
    room += Blocks::room(children);
    for (std::uint32_t bits = node.children; bits != 0; bits &= bits - 1) {
      const auto slot = static_cast<unsigned>(std::countr_zero(bits));
      const std::uint32_t index = childIndex(node, slot);
      const Node& child = nodes_[index];
      PLATFORM_ASSERT(child.depth() > node.depth() && child.depth() <= P::maxLength);
      PLATFORM_ASSERT(Family::agree(child.bits, node.bits, node.depth()));
      PLATFORM_ASSERT(Family::slot(child.bits, node.depth()) == slot);
      PLATFORM_ASSERT(!named[index]);
      if (isInFront(node, child)) front[region(child.bits)] = index;
      named[index] = true;
      left.push_back(index);
    }
  }
  PLATFORM_ASSERT(room == nodes_.nodes());
  PLATFORM_ASSERT(front == front_);
  PLATFORM_ASSERT(routes == size_);
}

template class BasicTrie<Prefix>;
template class BasicTrie<Ip6Prefix>;

}  // namespace Platform
