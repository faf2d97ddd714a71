// Some words for each slot of a table, in a process's own memory: in blocks, so that growing copies nothing, and that
// what is not needed any more goes back as it came.
#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>
#include <vector>

namespace LinuxPlatform {

class SlotMemory {
 public:
  explicit SlotMemory(unsigned wordsPerSlot) : words_(wordsPerSlot) {}

  std::uint32_t size() const { return size_; }
  // Of a slot below size(); zeros until something was stored there.
  std::uint64_t* operator[](std::uint32_t slot) { return place(slot); }
  const std::uint64_t* operator[](std::uint32_t slot) const { return place(slot); }
  void sizeIs(std::uint32_t size) {
    blocks_.resize((std::size_t{size} + slotsPerBlock - 1) / slotsPerBlock);
    for (auto block = blocks_.rbegin(); block != blocks_.rend() && !*block; ++block) {
      *block = std::make_unique<std::uint64_t[]>(std::size_t{slotsPerBlock} * words_);
    }
    for (std::uint32_t slot = size; slot < size_ && slot % slotsPerBlock != 0; ++slot) {
      std::fill_n(place(slot), words_, 0);
    }
    size_ = size;
  }

 private:
  static constexpr std::uint32_t slotsPerBlock = 2048;
  std::uint64_t* place(std::uint32_t slot) const {
    return &blocks_[slot / slotsPerBlock][std::size_t{slot % slotsPerBlock} * words_];
  }

  unsigned words_;
  std::uint32_t size_ = 0;
  std::vector<std::unique_ptr<std::uint64_t[]>> blocks_;
};

}  // namespace LinuxPlatform
