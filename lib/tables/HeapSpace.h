// Which bytes of a table's heap are in use. Private to the writer: the file holds only the extents that entries name,
// and the next writer finds the gaps between them.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <utility>
#include <vector>

namespace LinuxPlatform {

// Offsets and sizes in bytes; sizes are rounded up to whole words. Free neighbours are one extent.
class HeapSpace {
 public:
  struct Extent {
    std::uint64_t offset = 0;
    std::uint64_t size = 0;
  };

  explicit HeapSpace(std::uint64_t size);
  // Starts again with everything free but these extents. Those that overlap one with a lower offset are not taken in;
  // their places in the list are returned.
  std::vector<std::size_t> reset(std::vector<Extent> used);
  // The smallest free extent that is large enough, so that the untouched end of the heap stays untouched.
  std::optional<std::uint64_t> take(std::uint64_t size);
  // Gives an extent back; false, and nothing done, when part of it is free already or lies outside.
  bool give(std::uint64_t offset, std::uint64_t size);
  std::uint64_t freeBytes() const { return freeBytes_; }

 private:
  void add(std::uint64_t offset, std::uint64_t size);
  void remove(std::map<std::uint64_t, std::uint64_t>::iterator extent);

  std::uint64_t size_;
  std::uint64_t freeBytes_ = 0;
  std::map<std::uint64_t, std::uint64_t> byOffset_;           // free: offset -> size
  std::set<std::pair<std::uint64_t, std::uint64_t>> bySize_;  // free: (size, offset)
};

}  // namespace LinuxPlatform
