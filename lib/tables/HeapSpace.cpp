#include "lib/tables/HeapSpace.h"

#include <algorithm>
#include <numeric>

namespace LinuxPlatform {

namespace {
// An empty value takes a word too: every extent is somewhere.
constexpr std::uint64_t rounded(std::uint64_t size) {
  return size == 0 ? 8 : (size + 7) / 8 * 8;
}
}  // namespace

HeapSpace::HeapSpace(std::uint64_t size) : size_(size) {
  if (size_ > 0) add(0, size_);
}

std::vector<std::size_t> HeapSpace::reset(std::vector<Extent> used) {
  byOffset_.clear();
  bySize_.clear();
  freeBytes_ = 0;
  std::vector<std::size_t> order(used.size());
  std::iota(order.begin(), order.end(), std::size_t{0});
  std::sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) { return used[a].offset < used[b].offset; });
  std::vector<std::size_t> overlapping;
  std::uint64_t end = 0;
  for (const std::size_t index : order) {
    const Extent& extent = used[index];
    if (extent.offset < end) {
      overlapping.push_back(index);
      continue;
    }
    if (extent.offset > end) add(end, extent.offset - end);
    end = std::min(extent.offset + rounded(extent.size), size_);
  }
  if (end < size_) add(end, size_ - end);
  return overlapping;
}

std::optional<std::uint64_t> HeapSpace::take(std::uint64_t size) {
  const std::uint64_t wanted = rounded(size);
  const auto found = bySize_.lower_bound({wanted, 0});
  if (found == bySize_.end()) return std::nullopt;
  const auto [available, offset] = *found;
  remove(byOffset_.find(offset));
  if (available > wanted) add(offset + wanted, available - wanted);
  return offset;
}

bool HeapSpace::give(std::uint64_t offset, std::uint64_t size) {
  std::uint64_t length = rounded(size);
  if (offset > size_ || size_ - offset < length) return false;
  auto after = byOffset_.lower_bound(offset);
  if (after != byOffset_.end() && after->first < offset + length) return false;
  if (after != byOffset_.begin()) {
    const auto before = std::prev(after);
    const std::uint64_t beforeEnd = before->first + before->second;
    if (beforeEnd > offset) return false;
    if (beforeEnd == offset) {
      offset = before->first;
      length += before->second;
      remove(before);
    }
  }
  if (after != byOffset_.end() && after->first == offset + length) {
    length += after->second;
    remove(after);
  }
  add(offset, length);
  return true;
}

void HeapSpace::add(std::uint64_t offset, std::uint64_t size) {
  byOffset_.emplace(offset, size);
  bySize_.emplace(size, offset);
  freeBytes_ += size;
}

void HeapSpace::remove(std::map<std::uint64_t, std::uint64_t>::iterator extent) {
  bySize_.erase({extent->second, extent->first});
  freeBytes_ -= extent->second;
  byOffset_.erase(extent);
}

}  // namespace LinuxPlatform
