#pragma once

namespace Platform {

// Asks memory for what will be read soon; the address may be any. Compilers take a function that does nothing else for
// one without effect, and leave its calls out: the empty statement has one.
inline void prefetch(const void* address) {
  __builtin_prefetch(address);
  asm volatile("");
}

}  // namespace Platform
