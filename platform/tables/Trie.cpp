#include "platform/tables/Trie.h"

#include <algorithm>

#include "platform/values/Assert.h"

namespace Platform {

template <class P>
BasicTrie<P>::BasicTrie(std::string name) : Lattis::Entity(std::move(name)), nodes_(1) {}

template <class P>
BasicTrie<P>::~BasicTrie() {
  trieDelete();
  reactors_.notify([](Reactor& reactor) { reactor.trie_ = nullptr; });
}

template <class P>
void BasicTrie<P>::routeIs(const P& prefix, bool value) {
  const std::uint32_t index = insert(prefix);
  Node& node = nodes_[index];
  if (node.present && node.value == value) return;
  if (!node.present) ++size_;
  node.present = true;
  node.value = value;
  changed(index);
}

template <class P>
void BasicTrie<P>::routeDel(const P& prefix) {
  std::uint32_t id = none;
  if (remove(prefix, id)) changed(id);
}

template <class P>
void BasicTrie<P>::trieDelete() {
  const auto keepAlive = weak_from_this().lock();  // null in the destructor
  clear();
  reactors_.notify([](Reactor& reactor) { reactor.handleTrieDelete(); });
}

template <class P>
std::optional<bool> BasicTrie<P>::route(const P& prefix) const {
  const std::uint32_t index = find(prefix);
  if (index == none) return std::nullopt;
  return nodes_[index].value;
}

template <class P>
std::optional<P> BasicTrie<P>::longestMatch(const P& prefix) const {
  const Bits bits = Family::bits(prefix);
  const unsigned length = prefix.length();
  std::uint32_t best = none;
  std::uint32_t index = rootIndex;
  do {
    const Node& node = nodes_[index];
    if (!covers(node, bits, length)) break;
    if (node.present) best = index;
    if (node.length == length) break;
    index = childTowards(node, bits);
  } while (index != noChild);
  if (best == none) return std::nullopt;
  return prefixOf(nodes_[best]);
}

template <class P>
std::optional<std::uint32_t> BasicTrie<P>::id(const P& prefix) const {
  const std::uint32_t index = find(prefix);
  if (index == none) return std::nullopt;
  return index;
}

template <class P>
std::optional<P> BasicTrie<P>::prefix(std::uint32_t id) const {
  if (id >= nodes_.size()) return std::nullopt;
  const bool known =
      nodes_[id].present || std::find(beingReported_.begin(), beingReported_.end(), id) != beingReported_.end();
  if (!known) return std::nullopt;
  return prefixOf(nodes_[id]);
}

// The node that holds a route under exactly this prefix, or none. The nodes on the way are not compared: only the one
// at the end can be it.
template <class P>
std::uint32_t BasicTrie<P>::find(const P& prefix) const {
  const Bits bits = Family::bits(prefix);
  std::uint32_t index = rootIndex;
  while (nodes_[index].length < prefix.length()) {
    index = childTowards(nodes_[index], bits);
    if (index == noChild) return none;
  }
  const Node& node = nodes_[index];
  return node.present && node.length == prefix.length() && covers(node, bits, prefix.length()) ? index : none;
}

// The node of this prefix, made when there is none. It need not hold a route yet.
template <class P>
std::uint32_t BasicTrie<P>::insert(const P& prefix) {
  const Bits bits = Family::bits(prefix);
  const unsigned length = prefix.length();
  std::uint32_t index = rootIndex;
  while (nodes_[index].length != length) {
    const std::uint32_t child = childTowards(nodes_[index], bits);
    if (child == noChild) {
      const std::uint32_t leaf = makeNode(bits, length);
      nodes_[index].children[Family::bit(bits, nodes_[index].length)] = leaf;
      return leaf;
    }
    if (!covers(nodes_[child], bits, length)) {
      // The child shares only its first bits with the prefix: a node for those comes between. It is the prefix's own
      // node when the child lies inside the prefix.
      const unsigned common = std::min(length, Family::commonBits(nodes_[child].bits, bits));
      const std::uint32_t between = makeNode(Family::bits(Family::prefix(bits, common)), common);
      nodes_[between].children[Family::bit(nodes_[child].bits, common)] = child;
      replaceChild(index, child, between);
      index = between;
    } else {
      index = child;
    }
  }
  return index;
}

// Takes the route out, and the nodes that nothing needs any more. False when there is no such route.
template <class P>
bool BasicTrie<P>::remove(const P& prefix, std::uint32_t& id) {
  const Bits bits = Family::bits(prefix);
  std::uint32_t index = rootIndex;
  std::uint32_t parent = rootIndex;
  std::uint32_t grandparent = rootIndex;
  while (nodes_[index].length < prefix.length()) {
    grandparent = std::exchange(parent, index);
    index = childTowards(nodes_[index], bits);
    if (index == noChild) return false;
  }
  Node& node = nodes_[index];
  if (!node.present || node.length != prefix.length() || !covers(node, bits, prefix.length())) return false;
  node.present = false;
  --size_;
  id = index;

  const auto onlyChild = [this](std::uint32_t of) {  // noChild when it has none
    return std::max(nodes_[of].children[0], nodes_[of].children[1]);
  };
  const auto branches = [this](std::uint32_t of) {
    return nodes_[of].children[0] != noChild && nodes_[of].children[1] != noChild;
  };
  if (index == rootIndex || branches(index)) return true;
  replaceChild(parent, index, onlyChild(index));
  const bool wasLeaf = onlyChild(index) == noChild;
  releaseNode(index);
  if (wasLeaf && parent != rootIndex && !nodes_[parent].present) {
    replaceChild(grandparent, parent, onlyChild(parent));
    releaseNode(parent);
  }
  return true;
}

// The first route from this prefix on (`inclusive`) or behind it, in prefix order.
template <class P>
std::optional<typename BasicTrie<P>::Route> BasicTrie<P>::firstFrom(const P& from, bool inclusive) const {
  const Bits bits = Family::bits(from);
  const unsigned length = from.length();
  std::uint32_t behind = noChild;  // the nearest subtree that lies behind `from` as a whole
  std::uint32_t index = rootIndex;
  do {
    const Node& node = nodes_[index];
    const unsigned common = Family::commonBits(node.bits, bits);
    if (common < node.length && common < length) {  // they part: the node lies on one side with all that is below it
      if (Family::bit(node.bits, common)) behind = index;
      break;
    }
    if (node.length > length || (node.length == length && inclusive && node.present)) return firstWithin(index);
    if (node.length == length) {  // what is below comes next
      const auto child = node.children[0] != noChild ? node.children[0] : node.children[1];
      if (child != noChild) behind = child;
      break;
    }
    const bool one = Family::bit(bits, node.length);
    if (!one && node.children[1] != noChild) behind = node.children[1];
    index = node.children[one];
  } while (index != noChild);
  if (behind == noChild) return std::nullopt;
  return firstWithin(behind);
}

// The first route of a subtree: it has one, because a node without children holds a route.
template <class P>
typename BasicTrie<P>::Route BasicTrie<P>::firstWithin(std::uint32_t index) const {
  while (!nodes_[index].present) index = nodes_[index].children[0];
  const Node& node = nodes_[index];
  return {prefixOf(node), node.value, index};
}

template <class P>
std::uint32_t BasicTrie<P>::makeNode(Bits bits, unsigned length) {
  std::uint32_t index = freeHead_;
  if (index != none) {
    freeHead_ = nodes_[index].children[0];
    --freeCount_;
  } else {
    PLATFORM_ASSERT(nodes_.size() < none);
    index = static_cast<std::uint32_t>(nodes_.size());
    nodes_.emplace_back();
  }
  nodes_[index] = Node{bits, {noChild, noChild}, static_cast<std::uint8_t>(length), false, false};
  return index;
}

template <class P>
void BasicTrie<P>::releaseNode(std::uint32_t index) {
  nodes_[index].present = false;
  released_.push_back(index);
}

template <class P>
void BasicTrie<P>::replaceChild(std::uint32_t parent, std::uint32_t child, std::uint32_t replacement) {
  auto& children = nodes_[parent].children;
  children[children[0] == child ? 0 : 1] = replacement;
}

template <class P>
void BasicTrie<P>::changed(std::uint32_t id) {
  const auto keepAlive = reactors_.empty() ? nullptr : weak_from_this().lock();  // a reactor may let go of the trie
  beingReported_.push_back(id);
  reactors_.notify([id](Reactor& reactor) { reactor.handleRouteCachePrefix(id); });
  beingReported_.pop_back();
  freeReleased();
}

template <class P>
void BasicTrie<P>::freeReleased() {
  if (released_.empty() || !beingReported_.empty()) return;
  for (const std::uint32_t index : released_) {
    nodes_[index].children[0] = std::exchange(freeHead_, index);
    ++freeCount_;
  }
  released_.clear();
  if (size_ != 0) return;
  // Nothing but the root is left: an emptied trie gives its memory back.
  nodes_.resize(1);
  nodes_.shrink_to_fit();
  released_.shrink_to_fit();
  freeHead_ = none;
  freeCount_ = 0;
}

template <class P>
void BasicTrie<P>::clear() {
  Node& root = nodes_[rootIndex];
  std::vector<std::uint32_t> left(root.children.begin(), root.children.end());
  root = Node{};
  size_ = 0;
  while (!left.empty()) {
    const std::uint32_t index = left.back();
    left.pop_back();
    if (index == noChild) continue;
    left.insert(left.end(), nodes_[index].children.begin(), nodes_[index].children.end());
    releaseNode(index);
  }
  freeReleased();
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
  std::size_t nodes = 0;
  std::size_t routes = 0;
  std::vector<std::uint32_t> left{rootIndex};
  while (!left.empty()) {
    const std::uint32_t index = left.back();
    left.pop_back();
    const Node& node = nodes_[index];
    ++nodes;
    routes += node.present;
    unsigned children = 0;
    for (const unsigned bit : {0U, 1U}) {
      const std::uint32_t child = node.children[bit];
      if (child == noChild) continue;
      PLATFORM_ASSERT(child < nodes_.size());
      PLATFORM_ASSERT(nodes_[child].length > node.length);
      PLATFORM_ASSERT(covers(node, nodes_[child].bits, nodes_[child].length));
      PLATFORM_ASSERT(Family::bit(nodes_[child].bits, node.length) == (bit == 1));
      left.push_back(child);
      ++children;
    }
    PLATFORM_ASSERT(index == rootIndex || node.present || children == 2);
  }
  PLATFORM_ASSERT(nodes == nodeCount());
  PLATFORM_ASSERT(routes == size_);
}

template class BasicTrie<Prefix>;
template class BasicTrie<Ip6Prefix>;

}  // namespace Platform
