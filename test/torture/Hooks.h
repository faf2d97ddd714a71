// What the tables' code calls before each access to shared memory; every source of this program is compiled with it.
#pragma once

#include <cstddef>
#include <cstdint>

namespace Torture {

// One thread, and in each process its own.
struct Hooks {
  void (*atLoad)() = nullptr;
  void (*atStore)() = nullptr;
  std::uint64_t loads = 0;                      // since they were last set to 0
  std::uint64_t mostLoads = ~std::uint64_t{0};  // more are thrown out as Endless
  // The store with this number of an operation, from 1, takes effect only after the one that follows it. 0: none.
  std::uint64_t delayed = 0;
  std::uint64_t stores = 0;  // of the operation under way
};
extern Hooks hooks;
struct Endless {};

void tooManyLoads();
void delayStore(void* word, std::size_t size);
// Between operations: a store that is still delayed takes effect.
void endOperation();

inline void beforeLoad() {
  if (++hooks.loads > hooks.mostLoads) tooManyLoads();
  if (hooks.atLoad != nullptr) hooks.atLoad();
}
inline void beforeStore(void* word, std::size_t size) {
  if (hooks.atStore == nullptr) return;
  ++hooks.stores;
  if (hooks.delayed != 0) delayStore(word, size);
  hooks.atStore();
}

}  // namespace Torture

#define SHARED_TABLE_BEFORE_LOAD() Torture::beforeLoad()
#define SHARED_TABLE_BEFORE_STORE(word) Torture::beforeStore(&(word), sizeof(word))
#define SHARED_TABLE_PAGE 64
