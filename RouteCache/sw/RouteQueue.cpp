#include "RouteCache/sw/RouteQueue.h"

#include <utility>

#include "platform/values/Assert.h"

namespace RouteCache {

void RouteQueue::append(Node ring, Node node) {
  unlink(node);
  rings_.append(ring, node);
  rings_.data(node).leftover = ring == leftover_;
  rings_.data(node).told = ring == fresh_;
  if (ring == leftover_) ++leftovers_;
  if (ring == fresh_) ++told_;
}

void RouteQueue::unlink(Node node) {
  rings_.unlink(node);
  if (std::exchange(rings_.data(node).leftover, false)) --leftovers_;
  if (std::exchange(rings_.data(node).told, false)) --told_;
}

std::optional<std::uint8_t> RouteQueue::flags(const RouteKey& key) const {
  const Node node = rings_.find(key);
  if (node == none) return std::nullopt;
  return rings_.data(node).flags;
}

void RouteQueue::routeToProcessIs(const RouteKey& key, std::uint8_t flags) {
  const Node node = isVisited(key) ? visited_ : rings_.insert(key);
  rings_.data(node).flags = flags;
  if (node != visited_) append(fresh_, node);
}

void RouteQueue::routeToProcessAdd(const RouteKey& key, std::uint8_t flags) {
  const Node node = rings_.insert(key);
  if (rings_.data(node).flags == 0) rings_.data(node).flags = flags;  // those of a new one are
  if (node != visited_) append(fresh_, node);
}

void RouteQueue::routeToProcessDel(const RouteKey& key) {
  const Node node = isVisited(key) ? visited_ : rings_.find(key);
  if (node == none) return;
  unlink(node);
  if (node == visited_) visited_ = none;
  rings_.erase(node);
}

void RouteQueue::routeToProcessDelAll() {
  rings_.clearKeys();
  for (const auto& vrf : vrfRings_) rings_.ringDel(vrf.second);
  vrfRings_.clear();
  leftovers_ = 0;
  told_ = 0;
  visited_ = none;
}

RouteQueue::RouteKey RouteQueue::routeToProcessBookmark() const {
  for (const Node ring : {fresh_, leftover_}) {
    if (rings_.first(ring) != none) return rings_.key(rings_.first(ring));
  }
  return {};
}

std::optional<RouteQueue::Visit> RouteQueue::visit(Node ring) {
  PLATFORM_ASSERT(visited_ == none);
  const Node node = rings_.first(ring);
  if (node == none) return std::nullopt;
  visited_ = node;
  visitedGoesTo_ = leftover_;
  unlink(node);
  return Visit{rings_.key(node), rings_.data(node).flags};
}

std::optional<RouteQueue::Visit> RouteQueue::visitFresh() {
  return visit(fresh_);
}
std::optional<RouteQueue::Visit> RouteQueue::visitLeftover() {
  return visit(leftover_);
}
std::optional<RouteQueue::Visit> RouteQueue::visitWaitingForRoom(AddressFamily family) {
  return visit(roomRing(family));
}

void RouteQueue::waitForVrf(std::uint32_t piVrfId) {
  if (visited_ == none) return;
  const auto [entry, isNew] = vrfRings_.try_emplace(piVrfId, none);
  if (isNew) entry->second = rings_.ringIs();
  visitedGoesTo_ = entry->second;
}

void RouteQueue::waitForRoom(AddressFamily family) {
  if (visited_ != none) visitedGoesTo_ = roomRing(family);
}

void RouteQueue::visitEnded() {
  if (visited_ == none) return;
  append(visitedGoesTo_, visited_);
  visited_ = none;
}

bool RouteQueue::hasFresh() const {
  return rings_.first(fresh_) != none;
}
bool RouteQueue::isWaitingForRoom(AddressFamily family) const {
  return rings_.first(roomRing(family)) != none;
}

void RouteQueue::wakeVrf(std::uint32_t piVrfId) {
  const auto found = vrfRings_.find(piVrfId);
  if (found == vrfRings_.end()) return;
  const Node ring = found->second;
  vrfRings_.erase(found);
  rings_.splice(ring, fresh_);
  if (visitedGoesTo_ == ring) visitedGoesTo_ = fresh_;  // what the key being visited waits for has come
  rings_.ringDel(ring);
}

}  // namespace RouteCache
