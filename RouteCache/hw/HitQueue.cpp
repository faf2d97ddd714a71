#include "RouteCache/hw/HitQueue.h"

#include <algorithm>
#include <bit>

#include "platform/values/Assert.h"

namespace RouteCache {

namespace {

constexpr std::uint64_t bitOf(std::uint8_t value) {
  return std::uint64_t{1} << (value % 64);
}

std::uint8_t levelOf(std::uint32_t value) {
  return static_cast<std::uint8_t>(std::min<std::uint32_t>(value, 255));
}

}  // namespace

HitQueue::HitQueue() {
  for (Levels* levels : {&fresh_, &waiting_}) {
    for (Node& ring : levels->rings) ring = rings_.ringIs();
  }
}

std::optional<std::uint8_t> HitQueue::Levels::top() const {
  for (std::size_t word = used.size(); word-- > 0;) {
    if (used[word] != 0) return static_cast<std::uint8_t>(word * 64 + std::bit_width(used[word]) - 1);
  }
  return std::nullopt;
}

// Into the ring of its value and kind, from wherever it stands.
void HitQueue::enter(Node node, std::uint8_t value, bool fresh) {
  Data& data = rings_.data(node);
  if (data.queued) {
    leave(node);
  } else {
    data.queued = true;
    data.older = newest_;
    (newest_ == Rings::none ? oldest_ : rings_.data(newest_).newer) = node;
    newest_ = node;
  }
  data.value = value;
  data.fresh = fresh;
  Levels& levels = levelsOf(data);
  rings_.append(levels.rings[value], node);
  levels.used[value / 64] |= bitOf(value);
}

void HitQueue::leave(Node node) {
  const Data& data = rings_.data(node);
  Levels& levels = levelsOf(data);
  rings_.unlink(node);
  if (rings_.first(levels.rings[data.value]) == Rings::none) levels.used[data.value / 64] &= ~bitOf(data.value);
}

void HitQueue::keyIs(const Key& key, std::uint32_t value) {
  const Node node = rings_.insert(key);
  const Data& data = rings_.data(node);
  const std::uint8_t level = levelOf(value);
  if (!data.queued || data.value != level) enter(node, level, !data.queued || data.fresh);
}

void HitQueue::waitingKeyIs(const Key& key, std::uint32_t value) {
  enter(rings_.insert(key), levelOf(value), false);
}

void HitQueue::keyDel(const Key& key) {
  const Node node = rings_.find(key);
  if (node == Rings::none) return;
  leave(node);
  const Data data = rings_.data(node);
  (data.older == Rings::none ? oldest_ : rings_.data(data.older).newer) = data.newer;
  (data.newer == Rings::none ? newest_ : rings_.data(data.newer).older) = data.older;
  rings_.erase(node);
}

void HitQueue::keyDelAll() {
  rings_.clearKeys();
  fresh_.used.fill(0);
  waiting_.used.fill(0);
  oldest_ = newest_ = Rings::none;
}

std::optional<HitQueue::Key> HitQueue::keyAt(Node node) const {
  if (node == Rings::none) return std::nullopt;
  return rings_.key(node);
}

std::optional<HitQueue::Key> HitQueue::freshKey() const {
  const auto top = fresh_.top();
  if (!top) return std::nullopt;
  return keyAt(rings_.first(fresh_.rings[*top]));
}

std::optional<HitQueue::Key> HitQueue::nextKey() {
  if (++turns_ % turnsPerOldest == 0) return oldestKey();
  const auto fresh = fresh_.top();
  const auto waiting = waiting_.top();
  if (!waiting || (fresh && *fresh > *waiting)) return freshKey();
  return keyAt(rings_.first(waiting_.rings[*waiting]));
}

std::optional<HitQueue::Key> HitQueue::oldestKey() const {
  return keyAt(oldest_);
}

HitQueue::Key HitQueue::bookmark() const {
  return freshKey().value_or(oldestKey().value_or(Key()));
}

void HitQueue::checkInvariants() const {
  std::size_t standing = 0;
  for (const Levels* levels : {&fresh_, &waiting_}) {
    for (std::size_t value = 0; value < values; ++value) {
      const bool used = (levels->used[value / 64] & bitOf(static_cast<std::uint8_t>(value))) != 0;
      PLATFORM_ASSERT_TEXT(used == (rings_.first(levels->rings[value]) != Rings::none),
                           "a value has its bit set as long as somebody stands under it");
      for (Node node = rings_.first(levels->rings[value]); node != Rings::none; node = rings_.next(node)) {
        const Data& data = rings_.data(node);
        PLATFORM_ASSERT_TEXT(data.value == value && data.fresh == (levels == &fresh_),
                             "a queued key stands in the ring of its value and kind");
        ++standing;
      }
    }
  }
  std::size_t aged = 0;
  for (Node node = oldest_; node != Rings::none; node = rings_.data(node).newer) ++aged;
  PLATFORM_ASSERT_TEXT(standing == size() && aged == size(), "a queued key stands once in the order of age");
}

}  // namespace RouteCache
