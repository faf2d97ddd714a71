// What a running `routecache kernel` is asked by other processes.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <vector>

#include "netlink/fpm/RouteFeedback.h"

namespace Tools::KernelAnswers {

inline constexpr const char* forwardedOp = "kernelForwards";
std::string controlPath(const std::string& runDir);
// Stays when the process ends: where it is not, none has ever run.
std::string lockPath(const std::string& runDir);

// Which of the routes the kernel forwards. Empty: there has never been a mirror in this run directory; nothing: there
// is one, and it does not answer.
std::optional<std::vector<bool>> forwarded(const std::string& runDir, std::span<const Netlink::ForwardedRoute> routes);

}  // namespace Tools::KernelAnswers
