// The VNIs of `routecache kernel` where no option says them: those of the tunnel interfaces in the state database, now
// and later.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "linux/loop/EventLoop.h"
#include "netlink/kernel/MirrorSettings.h"
#include "tools/commandline/StateAccess.h"

namespace Tools {

// Asks every second. While the database is away what it said last holds.
class KernelVnis {
 public:
  using Take = std::function<void(const Netlink::TunnelVnis&)>;
  // `take` is called whenever the database has answered. The loop outlives it.
  KernelVnis(LinuxPlatform::EventLoop& loop, std::string runDir, StateDbOptions stateDb, Take take);

 private:
  void handleAsking();

  const std::string runDir_;
  const StateDbOptions stateDb_;
  const Take take_;
  double interval_ = 1;  // seconds to the next time
  std::string fault_;    // why the database did not answer the last time
  std::unique_ptr<Platform::Task> askingTask_;
};

}  // namespace Tools
