// The clock of the event loop and of the run-time budgets of commands: the kernel's CLOCK_MONOTONIC, which its timers
// too go by.
#pragma once

#include <chrono>

#include "platform/services/AgentCommand.h"

namespace LinuxPlatform {

class MonotonicClock final : public Platform::Clock {
 public:
  double now() const override {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
  }
};

}  // namespace LinuxPlatform
