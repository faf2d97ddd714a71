// Damage that a fuzzer thinks up; scripts/fuzz builds and runs it.
#include <cstdlib>

#include "test/torture/Torture.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Torture::damageAs({data, size});
  if (Torture::counts.failures != 0) std::abort();
  return 0;
}
