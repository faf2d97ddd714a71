// What a running `routecache kernel` is asked by other processes.
#pragma once

#include <span>
#include <string>
#include <vector>

#include "netlink/fpm/RouteFeedback.h"

namespace Tools::KernelAnswers {

inline constexpr const char* forwardedOp = "kernelForwards";
std::string controlPath(const std::string& runDir);
// Stays when the process ends: where it is not, none has ever run.
std::string lockPath(const std::string& runDir);

// Which of the routes the kernel forwards; none of them while the process does not answer. Nothing: there has never
// been one in this run directory.
std::vector<bool> forwarded(const std::string& runDir, std::span<const Netlink::ForwardedRoute> routes);

}  // namespace Tools::KernelAnswers
