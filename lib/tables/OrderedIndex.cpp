#include "lib/tables/OrderedIndex.h"

#include <algorithm>

namespace LinuxPlatform {

namespace {
// Levels of the last search's path that are tried before a search starts at the top.
constexpr unsigned pathLevels = 8;
}  // namespace

bool OrderedIndex::moveBelow(const KeyWords& key, bool inclusive, Position& at) const {
  SlotSnapshot next;
  for (unsigned level = order().levels; level-- > 0;) {
    for (;;) {
      const auto node = step(at, level, next);
      if (!node) return false;
      if (*node == 0) break;
      const int found = image_.compare(next.key, key);
      if (found > 0 || (found == 0 && inclusive)) break;
      at = {*node, next.version, next.key};
    }
  }
  return true;
}

// --- Changes ---------------------------------------------------------------------------------------------------------

// Moves `node` on to the last node below the key; false: the level is damaged.
bool OrderedIndexWriter::advance(unsigned level, std::uint32_t& node, const KeyWords& key) const {
  KeyWords here;
  for (std::uint32_t passed = 0;; ++passed) {
    const std::uint32_t next = load(link(level, node));
    if (next == 0) return true;
    if (next > image_.geometry().slots || height(next - 1) <= level) return false;
    const KeyWords nextKey = image_.loadKey(next - 1);
    if (image_.compare(nextKey, key) >= 0) return true;
    if (passed > 0 && image_.compare(nextKey, here) <= 0) return false;
    here = nextKey;
    node = next;
  }
}

// Whether the key belongs between the path's node of this level and the next one.
bool OrderedIndexWriter::brackets(unsigned level, const KeyWords& key) const {
  const std::uint32_t node = path_[level];
  if (node != 0 && image_.compare(image_.loadKey(node - 1), key) >= 0) return false;
  const std::uint32_t next = load(link(level, node));
  if (next > image_.geometry().slots) return false;
  return next == 0 || image_.compare(image_.loadKey(next - 1), key) >= 0;
}

bool OrderedIndexWriter::find(const KeyWords& key) {
  const unsigned levels = order().levels;
  unsigned level = 0;
  while (level < std::min(pathLevels, levels) && !brackets(level, key)) ++level;
  std::uint32_t node = 0;
  if (level < pathLevels && level < levels) {
    node = path_[level];  // this level's node is right, and so are those above it
  } else {
    level = levels;
  }
  while (level-- > 0) {
    if (!advance(level, node, key)) return false;
    path_[level] = node;
  }
  return true;
}

bool OrderedIndexWriter::isAtPlace(std::uint32_t slot) const {
  for (unsigned level = 0; level < height(slot); ++level) {
    if (load(link(level, path_[level])) != slot + 1) return false;
  }
  return true;
}

void OrderedIndexWriter::prepare(std::uint32_t slot) const {
  for (unsigned level = 0; level < height(slot); ++level) {
    store(link(level, slot + 1), load(link(level, path_[level])));
  }
}

void OrderedIndexWriter::insert(std::uint32_t slot) {
  for (unsigned level = 0; level < height(slot); ++level) {
    store(link(level, path_[level]), slot + 1);
    path_[level] = slot + 1;
  }
}

void OrderedIndexWriter::remove(std::uint32_t slot) const {
  for (unsigned level = height(slot); level-- > 0;) {
    store(link(level, path_[level]), load(link(level, slot + 1)));
  }
}

bool OrderedIndexWriter::takeOut(std::uint32_t slot, const KeyWords& key) {
  if (!find(key)) return false;
  for (unsigned level = height(slot); level-- > 0;) {
    std::uint32_t& before = link(level, path_[level]);
    if (load(before) == slot + 1) store(before, load(link(level, slot + 1)));
  }
  return true;
}

// --- All of it -------------------------------------------------------------------------------------------------------

bool OrderedIndexWriter::agrees(std::uint32_t end, std::uint64_t live) const {
  std::array<std::uint64_t, maxLevels> counts{};
  for (std::uint32_t slot = 0; slot < end; ++slot) {
    if (!isLive(load(image_.version(slot)))) continue;
    for (unsigned level = height(slot); level-- > 0;) ++counts[level];
  }
  if (counts[0] != live) return false;
  for (unsigned level = 0; level < order().levels; ++level) {
    if (!levelAgrees(level, counts[level])) return false;
  }
  return true;
}

// Whether the level leads through that many live nodes in key order.
bool OrderedIndexWriter::levelAgrees(unsigned level, std::uint64_t expected) const {
  KeyWords previous;
  std::uint64_t passed = 0;
  for (std::uint32_t node = load(link(level, 0)); node != 0; node = load(link(level, node)), ++passed) {
    if (node > image_.geometry().slots || passed == expected) return false;
    if (height(node - 1) <= level || !isLive(load(image_.version(node - 1)))) return false;
    const KeyWords key = image_.loadKey(node - 1);
    if (passed > 0 && image_.compare(previous, key) >= 0) return false;
    previous = key;
  }
  return passed == expected;
}

void OrderedIndexWriter::append(std::uint32_t slot) {
  for (unsigned level = height(slot); level-- > 0;) {
    store(link(level, path_[level]), slot + 1);
    path_[level] = slot + 1;
  }
}

void OrderedIndexWriter::endFilling() {
  for (unsigned level = 0; level < order().levels; ++level) store(link(level, path_[level]), std::uint32_t{0});
  path_.fill(0);
}

}  // namespace LinuxPlatform
