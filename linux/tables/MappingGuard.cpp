#include "linux/tables/MappingGuard.h"

#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <mutex>
#include <vector>

namespace LinuxPlatform {

namespace {

using Place = MappingGuard::Place;

constexpr unsigned unitBits = 12;  // no machine's pages are smaller
constexpr unsigned countBits = 28;
constexpr std::uint64_t mostUnits = (std::uint64_t{1} << countBits) - 1;
constexpr std::uint64_t mostAddress = std::uint64_t{1} << (unitBits + 64 - countBits);

// The handler reads places without a lock, so they are never freed: blocks of them, each behind the one before.
struct Block {
  std::array<Place, 1024> places;
  std::atomic<Block*> next{nullptr};
};

struct Registry {
  std::mutex mutex;  // not the handler's
  std::vector<Place*> unused;
  Block* last = nullptr;
};
// Guards may be destroyed after everything else.
Registry& registry() {
  static Registry& all = *new Registry;
  return all;
}

// What the handler needs.
std::atomic<Block*> firstBlock{nullptr};
std::atomic<Place*> lastHit{nullptr};  // a file that was cut short is met page by page
std::uintptr_t pageMask = 0;
struct sigaction previous {};

struct Range {
  std::uintptr_t begin = 0;
  std::size_t size = 0;
};
Range rangeOf(const Place& place) {
  const std::uint64_t word = place.range.load(std::memory_order_acquire);
  return {static_cast<std::uintptr_t>(word >> countBits) << unitBits, (word & mostUnits) << unitBits};
}
bool holds(const Place& place, std::uintptr_t address) {
  const Range range = rangeOf(place);
  return address - range.begin < range.size;
}

Place* placeOf(std::uintptr_t address) {
  Place* const hit = lastHit.load(std::memory_order_relaxed);
  if (hit != nullptr && holds(*hit, address)) return hit;
  for (Block* block = firstBlock.load(std::memory_order_acquire); block != nullptr;
       block = block->next.load(std::memory_order_acquire)) {
    for (Place& place : block->places) {
      if (!holds(place, address)) continue;
      lastHit.store(&place, std::memory_order_relaxed);
      return &place;
    }
  }
  return nullptr;
}

// A bare system call. Each page of its own is a mapping of its own where the next one is good: when there may be no
// more of them, all of this one goes.
bool replace(const Place& place, std::byte* touched) {
  const int protection = place.writable.load(std::memory_order_relaxed) ? PROT_READ | PROT_WRITE : PROT_READ;
  const auto zeros = [&](std::byte* at, std::size_t size) {
    return mmap(at, size, protection, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0) != MAP_FAILED;
  };
  const auto address = reinterpret_cast<std::uintptr_t>(touched);
  const Range all = rangeOf(place);
  return zeros(touched - (address & ~pageMask), ~pageMask + 1) || zeros(touched - (address - all.begin), all.size);
}

void handOn(int signal, siginfo_t* info, void* context) {
  if ((previous.sa_flags & SA_SIGINFO) != 0) {
    previous.sa_sigaction(signal, info, context);
  } else if (previous.sa_handler != SIG_DFL && previous.sa_handler != SIG_IGN) {
    previous.sa_handler(signal);
  } else if (info->si_code > 0 || previous.sa_handler == SIG_DFL) {  // nobody may ignore an access that failed
    struct sigaction standard {};
    standard.sa_handler = SIG_DFL;
    sigaction(signal, &standard, nullptr);
    if (info->si_code <= 0) raise(signal);  // the access fails again by itself
  }
}

void handle(int signal, siginfo_t* info, void* context) {
  const int error = errno;
  const auto address = reinterpret_cast<std::uintptr_t>(info->si_addr);
  Place* const place = info->si_code == BUS_ADRERR || info->si_code == BUS_MCEERR_AR ? placeOf(address) : nullptr;
  if (place != nullptr && replace(*place, static_cast<std::byte*>(info->si_addr))) {
    place->broken.store(true, std::memory_order_relaxed);
  } else {
    handOn(signal, info, context);
  }
  errno = error;
}

void install() {
  pageMask = ~(static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE)) - 1);
  sigaction(SIGBUS, nullptr, &previous);  // before the first signal that is to be handed on
  struct sigaction ours {};
  ours.sa_sigaction = handle;
  ours.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_RESTART;
  sigaction(SIGBUS, &ours, nullptr);
}

Place* takePlace() {
  Registry& all = registry();
  const std::scoped_lock hold(all.mutex);
  if (all.unused.empty()) {
    auto* block = new Block;
    (all.last == nullptr ? firstBlock : all.last->next).store(block, std::memory_order_release);
    all.last = block;
    for (Place& place : block->places) all.unused.push_back(&place);
  }
  Place* const place = all.unused.back();
  all.unused.pop_back();
  return place;
}

}  // namespace

MappingGuard::MappingGuard(std::byte* base, std::size_t size, bool writable)
    : base_(base), size_(size), place_(takePlace()) {
  static const bool installed = (install(), true);
  static_cast<void>(installed);
  const std::uint64_t address = reinterpret_cast<std::uintptr_t>(base);
  const std::uint64_t units = (size + (std::size_t{1} << unitBits) - 1) >> unitBits;
  place_->writable.store(writable, std::memory_order_relaxed);
  place_->broken.store(false, std::memory_order_relaxed);
  if (address >= mostAddress || units > mostUnits) return;
  place_->range.store(address >> unitBits << countBits | units, std::memory_order_release);
}

MappingGuard::~MappingGuard() {
  place_->range.store(0, std::memory_order_release);
  munmap(base_, size_);
  const std::scoped_lock hold(registry().mutex);
  registry().unused.push_back(place_);
}

}  // namespace LinuxPlatform
