#include "RouteCache/RouteCacheRouteQueue.h"

#include <utility>

#include "platform/Assert.h"

namespace RouteCache {

std::uint32_t RouteQueue::Nodes::add() {
  if (size_ % blockSize == 0) blocks_.push_back(std::make_unique<Node[]>(blockSize));
  return size_++;
}

void RouteQueue::Nodes::clear() {
  blocks_.clear();
  size_ = 0;
}

RouteQueue::RouteQueue() {
  routeToProcessDelAll();
}

void RouteQueue::routeToProcessDelAll() {
  nodes_.clear();
  freeNodes_ = none;
  index_.clear();
  vrfLists_.clear();
  leftovers_ = 0;
  visited_ = none;
  for (std::uint32_t list = 0; list < fixedLists; ++list) newList();
}

std::uint32_t RouteQueue::newNode() {
  if (freeNodes_ == none) return nodes_.add();
  return std::exchange(freeNodes_, nodes_[freeNodes_].next);
}

void RouteQueue::freeNode(std::uint32_t node) {
  nodes_[node].next = freeNodes_;
  freeNodes_ = node;
}

std::uint32_t RouteQueue::newList() {
  const std::uint32_t list = newNode();
  nodes_[list] = Node{};
  nodes_[list].previous = nodes_[list].next = list;
  return list;
}

void RouteQueue::append(std::uint32_t list, std::uint32_t node) {
  const std::uint32_t last = nodes_[list].previous;
  nodes_[node].previous = last;
  nodes_[node].next = list;
  nodes_[last].next = node;
  nodes_[list].previous = node;
  nodes_[node].leftover = list == leftoverList;
  if (list == leftoverList) ++leftovers_;
}

void RouteQueue::unlink(std::uint32_t node) {
  Node& gone = nodes_[node];
  if (gone.next == none) return;
  nodes_[gone.previous].next = gone.next;
  nodes_[gone.next].previous = gone.previous;
  gone.previous = gone.next = none;
  if (gone.leftover) --leftovers_;
  gone.leftover = false;
}

std::optional<std::uint8_t> RouteQueue::flags(const RouteKey& key) const {
  const NodeRef* ref = index_.find(key);
  if (ref == nullptr) return std::nullopt;
  return nodes_[ref->node].flags;
}

void RouteQueue::routeToProcessIs(const RouteKey& key, std::uint8_t flags) {
  const auto [ref, isNew] = index_.insert({key, none});
  if (isNew) {
    const std::uint32_t node = newNode();
    ref->node = node;
    nodes_[node] = Node{};
    nodes_[node].key = key;
  }
  const std::uint32_t node = ref->node;
  nodes_[node].flags = flags;
  if (node == visited_) return;
  unlink(node);
  append(freshList, node);
}

void RouteQueue::routeToProcessAdd(const RouteKey& key, std::uint8_t flags) {
  const auto present = this->flags(key);
  routeToProcessIs(key, present && *present != 0 ? *present : flags);
}

void RouteQueue::routeToProcessDel(const RouteKey& key) {
  const NodeRef* ref = index_.find(key);
  if (ref == nullptr) return;
  const std::uint32_t node = ref->node;
  unlink(node);
  if (node == visited_) visited_ = none;
  index_.erase(key);
  freeNode(node);
  // A queue that has run empty gives its memory back: the start-up of a million routes is over once.
  constexpr std::uint32_t worthReturning = 4096;
  if (index_.empty() && nodes_.size() > worthReturning) routeToProcessDelAll();
}

RouteQueue::RouteKey RouteQueue::routeToProcessBookmark() const {
  for (const std::uint32_t list : {freshList, leftoverList}) {
    if (!isEmptyList(list)) return nodes_[nodes_[list].next].key;
  }
  return {};
}

std::optional<RouteQueue::Visit> RouteQueue::visit(std::uint32_t list) {
  PLATFORM_ASSERT(visited_ == none);
  if (isEmptyList(list)) return std::nullopt;
  visited_ = nodes_[list].next;
  visitedGoesTo_ = leftoverList;
  unlink(visited_);
  return Visit{nodes_[visited_].key, nodes_[visited_].flags};
}

std::optional<RouteQueue::Visit> RouteQueue::visitFresh() {
  return visit(freshList);
}
std::optional<RouteQueue::Visit> RouteQueue::visitLeftover() {
  return visit(leftoverList);
}
std::optional<RouteQueue::Visit> RouteQueue::visitWaitingForRoom(AddressFamily family) {
  return visit(roomList(family));
}

void RouteQueue::waitForVrf(std::uint32_t piVrfId) {
  if (visited_ == none) return;
  const auto [entry, isNew] = vrfLists_.try_emplace(piVrfId, none);
  if (isNew) entry->second = newList();
  visitedGoesTo_ = entry->second;
}

void RouteQueue::waitForRoom(AddressFamily family) {
  if (visited_ != none) visitedGoesTo_ = roomList(family);
}

void RouteQueue::visitEnded() {
  if (visited_ == none) return;
  append(visitedGoesTo_, visited_);
  visited_ = none;
}

bool RouteQueue::hasFresh() const {
  return !isEmptyList(freshList);
}
bool RouteQueue::hasLeftovers() const {
  return !isEmptyList(leftoverList);
}
bool RouteQueue::isWaitingForRoom(AddressFamily family) const {
  return !isEmptyList(roomList(family));
}

void RouteQueue::wakeVrf(std::uint32_t piVrfId) {
  const auto found = vrfLists_.find(piVrfId);
  if (found == vrfLists_.end()) return;
  const std::uint32_t list = found->second;
  vrfLists_.erase(found);
  if (!isEmptyList(list)) {
    Node& head = nodes_[list];
    Node& fresh = nodes_[freshList];
    nodes_[fresh.previous].next = head.next;
    nodes_[head.next].previous = fresh.previous;
    nodes_[head.previous].next = freshList;
    fresh.previous = head.previous;
  }
  if (visitedGoesTo_ == list) visitedGoesTo_ = freshList;  // what the key being visited waits for has come
  freeNode(list);
}

}  // namespace RouteCache
