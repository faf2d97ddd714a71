// The VRFs of `routecache fpm --vrf NAME=TABLE`: their ids are what the state database says, now and later.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "linux/loop/EventLoop.h"
#include "netlink/fpm/RouteVrfs.h"
#include "tools/commandline/StateAccess.h"

namespace Tools {

// Asks every few seconds. A name that is gone keeps the id that it had: an agent that comes back with nothing takes no
// route away.
class FpmVrfs {
 public:
  using HardwareIds = std::map<std::uint32_t, std::uint32_t>;  // by VRF id
  using Take = std::function<void(const Netlink::RouteVrfs&, const HardwareIds&)>;
  // `others` are VRFs by id. `take` is called with all VRFs whenever the database has answered; at once and only once
  // without names, unless hardware ids are wanted. The loop outlives it. Throws BadText.
  FpmVrfs(LinuxPlatform::EventLoop& loop, const std::vector<std::string>& namesWithTables, Netlink::RouteVrfs others,
          bool wantsHardwareIds, std::string runDir, StateDbOptions stateDb, Take take);

 private:
  void handleAsking();
  void ask();
  Netlink::RouteVrfs all() const;
  HardwareIds hardwareIds() const;

  const Netlink::RouteVrfs others_;
  const std::string runDir_;
  const StateDbOptions stateDb_;
  const bool wantsHardwareIds_;
  const Take take_;
  std::map<std::string, std::uint32_t> tables_;  // by name
  // As they were said last.
  std::map<std::string, std::uint32_t> ids_;
  std::map<std::string, std::uint32_t> hardwareIds_;
  double interval_ = 2;  // seconds to the next time
  std::string fault_;    // why the database did not answer the last time
  std::unique_ptr<Platform::Task> askingTask_;
};

}  // namespace Tools
