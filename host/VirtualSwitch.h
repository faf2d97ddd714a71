// A switch in one process and in virtual time: the agent over real shared tables in a directory of its own, and the
// routes that a routing process would configure.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "host/AgentHost.h"
#include "host/Simulation.h"
#include "lib/tasks/SimulatedScheduler.h"

namespace Tools {

struct VirtualSwitchSettings {
  using Set = std::tuple<std::string, std::string, std::string>;  // path, field, value, as `routecache set` takes them

  std::string scenario;
  std::string agentLibrary;
  std::uint64_t routes = 200'000;  // host routes, over the scenario's VRFs in turn
  IpGenPrefix within;              // drawn from inside this prefix, which is a cached FIB route of every VRF
  std::uint64_t seed = 1;
  std::vector<Set> sets;  // done in their order, before the agent has decided any route
};

class VirtualSwitch {
 public:
  // Writes the routes and starts the agent. Throws BadText or RangeError for settings that do not work together with
  // the scenario.
  explicit VirtualSwitch(const VirtualSwitchSettings& settings);
  ~VirtualSwitch();
  VirtualSwitch(const VirtualSwitch&) = delete;
  VirtualSwitch& operator=(const VirtualSwitch&) = delete;

  LinuxPlatform::SimulatedScheduler& scheduler() { return scheduler_; }
  // For the forwarding plane: every process has tables of its own.
  LinuxPlatform::SharedTableService& planeTables() { return planeTables_; }
  SwitchVrfs vrfs();
  // All tables have been mounted that ever will be: nobody looks for new ones from now on.
  void tablesAreComplete();

 private:
  // A directory that goes with the object.
  class Directory {
   public:
    Directory();
    ~Directory();
    Directory(const Directory&) = delete;
    Directory& operator=(const Directory&) = delete;
    const std::string& path() const { return path_; }

   private:
    std::string path_;
  };

  void writeInputs(const VirtualSwitchSettings& settings);
  void set(const VirtualSwitchSettings::Set& what);
  void deliver(LinuxPlatform::SharedTableService& tables) const;

  Directory directory_;
  LinuxPlatform::SimulatedScheduler scheduler_;
  Platform::TableTypes types_;
  AgentHost host_;
  LinuxPlatform::SharedTableService planeTables_;
  bool tablesMayAppear_ = true;
  bool ready_ = false;
};

}  // namespace Tools
