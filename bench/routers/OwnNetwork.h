// A network of the benchmark's own, in which kernels and routing daemons may be given any routes.
#pragma once

#include <cstddef>
#include <string>

namespace Bench {

// Puts this process, and those that it starts from now on, into a network namespace of their own with one interface to
// all next hops of a workload, and a VXLAN device "vx". Returns why that cannot be; empty: it is done.
std::string enterOwnNetwork();
// Its number, which the kernel knows it by.
int ownInterface();
// The interface anew: the kernel forgets every route over it.
void resetOwnInterface();
// Prefixes in the kernel's main IPv4 table. It counts them for the asking.
std::size_t kernelRoutes();

}  // namespace Bench
