#include "host/FreeMemory.h"

#include <cstdlib>
#ifdef __GLIBC__
#include <malloc.h>
#endif

namespace Tools {

void giveFreeMemoryBack() {
#ifdef __GLIBC__
  malloc_trim(0);
#endif
}

}  // namespace Tools
