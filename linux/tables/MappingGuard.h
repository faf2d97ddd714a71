// A file that others may cut short or punch while it is mapped: to touch what has gone from under the mapping raises
// SIGBUS, and so does a hole that a full disk has no page for. Here that kills nobody: the page that was touched
// becomes one of zero bytes, private to this process, and the mapping is known to be broken from then on.
//
// The first guard installs a handler for SIGBUS, which stays to the end of the process: code that holds guards must not
// be unloaded. What lies in no guarded mapping goes to the handler that was there before, or ends the process as it
// would have. What cannot be had: whoever installs another handler later has to call ours, or does without; a system
// call that is handed bytes of a broken mapping fails with EFAULT; a thread that blocks SIGBUS is killed by it.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace LinuxPlatform {

// One shared mapping, unmapped in the end. Any number of them, in any thread.
class MappingGuard {
 public:
  // `base` is what mmap gave for `size` bytes. Beyond 2^40 bytes, or addresses of 48 bits, it stays unguarded.
  MappingGuard(std::byte* base, std::size_t size, bool writable);
  MappingGuard(const MappingGuard&) = delete;
  MappingGuard& operator=(const MappingGuard&) = delete;
  ~MappingGuard();

  std::byte* base() const { return base_; }
  // A page has been replaced: what is read here may be zero bytes, and what is written may reach nobody. It stays so;
  // who needs the file maps it anew.
  bool broken() const { return place_->broken.load(std::memory_order_relaxed); }

  // Where the signal's handler finds the mapping: a word that it can read in one go.
  struct Place {
    std::atomic<std::uint64_t> range{0};  // address in units of 4 KiB, 36 bits; size in such units, 28 bits; 0: unused
    std::atomic<bool> writable{false};
    std::atomic<bool> broken{false};
  };

 private:
  std::byte* base_;
  std::size_t size_;
  Place* place_;
};

}  // namespace LinuxPlatform
