// Everything that this program has put into a kernel, away.
#pragma once

#include <cstddef>

namespace Netlink {

struct Flushed {
  std::size_t routes = 0;
  std::size_t nexthops = 0;
  std::size_t neighbours = 0;
};

// Removes it from the network namespace that the process is in. Throws std::system_error, and std::runtime_error when
// something could not be removed.
Flushed flushKernel();

}  // namespace Netlink
