// Everything that an agent works with, but for the scheduler: types, state database, shared tables, trace, resolver,
// commands. The launcher gives it an event loop, a simulation virtual time.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "lib/control/AgentCommands.h"
#include "lib/resolver/UnderlayResolver.h"
#include "linux/files/TraceFile.h"
#include "linux/statedb/KeptState.h"
#include "linux/tables/SharedTableService.h"
#include "platform/services/AgentBase.h"
#include "platform/services/TaskScheduler.h"

namespace Tools {

struct AgentHostSettings {
  // Makes the state database, which then brings its content along; none: the embedded one, filled from the scenario.
  std::function<std::unique_ptr<Lattis::StateDb>(const Lattis::EntityTypes&)> stateDb;
  std::string scenario;    // file
  bool remembers = false;  // what the state database held at the end of the run directory's last agent; keeps it, too
  bool fresh = false;      // begins again from the scenario all the same
  std::string runDir;
  std::string agentLibrary;
  std::string agentName = "RouteCache";
  std::vector<std::string> trace;  // level options, as `routecache run --trace` takes them
  bool traceFile = true;           // false: the agent is told to do without
  bool hugePages = false;          // asked for its tables
};

// One agent from its library. Its owner opens its tables, delivers the table changes (tables().deliverChanges) and
// flushes.
class AgentHost {
 public:
  // Loads the library and the scenario, and makes nothing in the file system. The scheduler outlives the host. Throws
  // BadText for a bad scenario or trace option, std::runtime_error for a library that cannot be loaded.
  AgentHost(const AgentHostSettings& settings, Platform::TaskScheduler& scheduler);
  ~AgentHost() { stop(); }
  AgentHost(const AgentHost&) = delete;
  AgentHost& operator=(const AgentHost&) = delete;

  // The shared tables of the run directory, which is made when it is missing. Once, before start(); `deliveryWanted` is
  // as SharedTableService has it.
  LinuxPlatform::SharedTableService& openTables(std::function<void()> deliveryWanted);
  // Starts the agent; the rest of its start-up is a matter of the scheduler. `ready` is called when everything that can
  // be asked or set is there.
  void start(std::function<void()> ready);
  // Destroys the agent and wakes who follows its tables.
  void stop();

  Lattis::StateDb& stateDb() { return *stateDb_; }
  LinuxPlatform::SharedTableService& tables() { return *tables_; }
  // What is asked of the agent; the replies it makes go before the host.
  LinuxPlatform::AgentCommands& commands() { return commands_; }
  const std::string& agentName() const { return agentName_; }
  // Where the content of the embedded database is from, in one line; empty: there is another one.
  const std::string& contentSource() const { return contentSource_; }

 private:
  Lattis::Entities content(const AgentHostSettings& settings);
  void resolverIs();

  // In the order of their making; the agent goes first.
  Platform::TaskScheduler& scheduler_;
  std::string runDir_;
  std::string agentName_;
  bool traceFile_;
  bool hugePages_;
  LinuxPlatform::FileTraceFacility trace_;
  Lattis::EntityTypes entityTypes_;
  Platform::TableTypes tableTypes_;
  Platform::TraceVocabulary vocabulary_;
  std::unique_ptr<Lattis::StateDb> stateDb_;
  LinuxPlatform::EmbeddedStateDb* embedded_;  // null: it is another one
  bool remembers_;
  bool fresh_;
  std::string contentSource_;
  std::optional<LinuxPlatform::StateKeeper> keeper_;
  std::optional<LinuxPlatform::SharedTableService> tables_;
  LinuxPlatform::AgentCommands commands_;
  std::unique_ptr<LinuxPlatform::UnderlayResolver> resolver_;
  std::unique_ptr<Platform::AgentBase> agent_;
};

}  // namespace Tools
