// A clock that a test moves: for the budgets of commands, and for an event loop that is not to depend on the machine.
#pragma once

#include "platform/services/AgentCommand.h"

class SimulatedClock final : public Platform::Clock {
 public:
  double now() const override { return now_ += secondsPerLook_; }
  void advance(double seconds) { now_ += seconds; }
  // Time that passes by being looked at.
  void secondsPerLookIs(double seconds) { secondsPerLook_ = seconds; }

 private:
  mutable double now_ = 0;
  double secondsPerLook_ = 0;
};
