// Torture of the shared tables: writers that stop before any store, readers that a writer overtakes at any load, bytes
// that are damaged, files that are cut, processes that are killed.
//
//   routecache_torture PART [FIRST-]LAST [--break N]    each part with these seeds; "all": one part after the other
//
// --break lets the N-th store of every operation take effect after the one behind it. A part that does not notice for
// any N has lost its teeth.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "test/torture/Torture.h"

int main(int count, char** arguments) {
  using namespace Torture;
  constexpr struct {
    const char* name;
    void (*run)(unsigned seed);
  } parts[] = {{"operations", stopOperations}, {"adoptions", stopAdoptions},
               {"rebuilds", stopRebuilds},     {"migrations", stopMigrations},
               {"interleavings", interleave},  {"damage", damageBytes},
               {"rooms", fillDisks},           {"files", cutFiles},
               {"kills", killWriters},         {"crowds", crowd}};
  if (count < 3) {
    std::fprintf(stderr, "usage: routecache_torture PART|all [FIRST-]LAST [--break N]\nparts:");
    for (const auto& part : parts) std::fprintf(stderr, " %s", part.name);
    std::fprintf(stderr, "\n");
    return 2;
  }
  setvbuf(stdout, nullptr, _IOLBF, 0);
  const char* const dash = std::strchr(arguments[2], '-');
  const unsigned first = dash == nullptr ? 1 : static_cast<unsigned>(std::atoi(arguments[2]));
  const unsigned last = static_cast<unsigned>(std::atoi(dash == nullptr ? arguments[2] : dash + 1));
  if (count == 5 && std::strcmp(arguments[3], "--break") == 0)
    hooks.delayed = static_cast<std::uint64_t>(std::atoi(arguments[4]));
  bool known = false;
  for (const auto& part : parts) {
    if (std::strcmp(arguments[1], part.name) != 0 && std::strcmp(arguments[1], "all") != 0) continue;
    known = true;
    counts.of.clear();
    const auto begin = std::chrono::steady_clock::now();
    for (unsigned seed = first; seed <= last; ++seed) part.run(seed);
    const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - begin;
    std::printf("%s, seeds %u to %u:", part.name, first, last);
    for (const auto& [what, number] : counts.of)
      std::printf(" %llu %s,", static_cast<unsigned long long>(number), what.c_str());
    std::printf(" %llu failures, %.1f s\n", static_cast<unsigned long long>(counts.failures), taken.count());
  }
  if (!known) std::fprintf(stderr, "no part is called %s\n", arguments[1]);
  return !known ? 2 : counts.failures == 0 ? 0 : 1;
}
