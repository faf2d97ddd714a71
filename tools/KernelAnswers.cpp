#include "tools/KernelAnswers.h"

#include <unistd.h>

#include <exception>

#include "linux/control/ControlClient.h"
#include "platform/values/Text.h"

namespace Tools::KernelAnswers {

std::string controlPath(const std::string& runDir) {
  return runDir + "/kernel.control";
}

std::string lockPath(const std::string& runDir) {
  return runDir + "/kernel.lock";
}

std::optional<std::vector<bool>> forwarded(const std::string& runDir, std::span<const Netlink::ForwardedRoute> routes) {
  if (access(lockPath(runDir).c_str(), F_OK) != 0) return std::vector<bool>();
  std::string asked;
  for (const auto& route : routes) {
    asked += Platform::toText(route.prefix) + "@" + std::to_string(route.hwVrfId) + " ";
  }
  std::vector<bool> forwarded;
  try {
    askProcess(
        controlPath(runDir), "the mirror of " + runDir, {{"op", forwardedOp}, {"routes", asked}},
        [&](const Json& line) {
          for (const char digit : line.value("forwarded", "")) forwarded.push_back(digit == '1');
        },
        briefPatience);
  } catch (const std::exception&) {
    return std::nullopt;
  }
  forwarded.resize(routes.size(), false);
  return forwarded;
}

}  // namespace Tools::KernelAnswers
