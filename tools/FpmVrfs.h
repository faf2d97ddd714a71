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
  // `others` are VRFs by id. `take` is called with all VRFs whenever the database has answered; at once and only once
  // without names. The loop outlives it. Throws BadText.
  FpmVrfs(LinuxPlatform::EventLoop& loop, const std::vector<std::string>& namesWithTables, Netlink::RouteVrfs others,
          std::string runDir, StateDbOptions stateDb, std::function<void(const Netlink::RouteVrfs&)> take);

 private:
  void handleAsking();
  void ask();
  Netlink::RouteVrfs all() const;

  const Netlink::RouteVrfs others_;
  const std::string runDir_;
  const StateDbOptions stateDb_;
  const std::function<void(const Netlink::RouteVrfs&)> take_;
  std::map<std::string, std::uint32_t> tables_;  // by name
  std::map<std::string, std::uint32_t> ids_;     // as they were said last
  std::string fault_;                            // why the database did not answer the last time
  std::unique_ptr<Platform::Task> askingTask_;
};

}  // namespace Tools
