// When a table has hardly changed for a while: then its memory can be put in order without anybody waiting for it.
#pragma once

#include <chrono>
#include <cstdint>

namespace LinuxPlatform {

// Counts changes by the table's sequence.
class QuietClock {
 public:
  // A look from time to time: the table has not changed more than a few times for half a second. True once for each
  // half.
  bool takeQuiet(std::uint64_t sequence) {
    const auto now = std::chrono::steady_clock::now();
    const bool isBusy = !staysQuiet(sequence);
    if (!isBusy && now - since_ < quietTime) return false;
    seen_ = sequence;
    since_ = now;
    return !isBusy;
  }
  // Since the last look.
  bool staysQuiet(std::uint64_t sequence) const { return sequence - seen_ <= fewChanges; }
  // What putting it in order changes does not count.
  void ownChanges(std::uint64_t changes) { seen_ += changes; }

 private:
  static constexpr std::uint64_t fewChanges = 1024;
  static constexpr std::chrono::milliseconds quietTime{500};

  std::uint64_t seen_ = 0;
  std::chrono::steady_clock::time_point since_;
};

}  // namespace LinuxPlatform
