// What the launcher and an agent know of each other. The launcher loads the agent's library, calls its one factory, and
// drives the agent it gets:
//
//   factory(name) -> registerTypes -> servicesIs -> doInit -> (mounts) -> doMountsComplete -> (its own start, in tasks)
//   -> started -> ... -> destruction
//
// Everything happens on the launcher's event thread.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform/services/AgentCommand.h"
#include "platform/services/TaskScheduler.h"
#include "platform/state/Entity.h"
#include "platform/state/StateDb.h"
#include "platform/tables/SharedTable.h"
#include "platform/trace/Trace.h"

namespace Platform {

// The table types a process can mount, by the name that stands in mounts.
class TableTypes {
 public:
  using Maker = std::function<std::shared_ptr<Pondra::TableEntity>(std::string name)>;
  template <class T>
  void typeIs() {
    makers_[T::typeName] = [](std::string name) { return std::make_shared<T>(std::move(name)); };
  }
  // Null for a type that nobody registered.
  std::shared_ptr<Pondra::TableEntity> make(const std::string& typeName, std::string name) const {
    const auto found = makers_.find(typeName);
    return found == makers_.end() ? nullptr : found->second(std::move(name));
  }

 private:
  std::map<std::string, Maker> makers_;
};

// What the switch's process gives an agent to work with; everything outlives the agent.
struct AgentServices {
  Lattis::StateDb* stateDb = nullptr;
  Pondra::TableService* tables = nullptr;
  TaskScheduler* scheduler = nullptr;
  TraceFacility* trace = nullptr;
  ::Agent::AgentCommandRequestDir* commands = nullptr;  // null: nobody sends commands
  std::shared_ptr<const Clock> clock;  // for the run-time budgets of commands; there whenever commands is
  // Reads an environment variable; null when it is not set.
  std::function<const char*(const char* name)> environment;
  // Called once, when the agent has made everything that operators and commands ask for; empty: nobody waits for it.
  std::function<void()> started;
};

class AgentBase {
 public:
  explicit AgentBase(std::string name) : name_(std::move(name)) {}
  AgentBase(const AgentBase&) = delete;
  AgentBase& operator=(const AgentBase&) = delete;
  virtual ~AgentBase() = default;

  const std::string& name() const { return name_; }
  // Set by the factory: reactors of this agent are told of changes.
  bool notificationsActive() const { return notificationsActive_; }
  void notificationsActiveIs(bool active) { notificationsActive_ = active; }

  // Adds the types that this agent brings along, and the words for its values in traces.
  virtual void registerTypes(Lattis::EntityTypes& entities, TableTypes& tables, TraceVocabulary& vocabulary) = 0;
  // Before doInit, once.
  void servicesIs(const AgentServices& services) { services_ = services; }
  virtual void doInit() = 0;
  virtual void doMountsComplete(Lattis::MountStatus status, const std::shared_ptr<Lattis::EntityManager>& em) = 0;
  // Checks whatever must hold between two callbacks; aborts when something does not. Slow: for tests and debugging.
  virtual void checkInvariants() const {}

 protected:
  const AgentServices& services() const { return services_; }

 private:
  std::string name_;
  bool notificationsActive_ = false;
  AgentServices services_;
};

// The one symbol that an agent's library exports, with C linkage: makes the agent; the caller owns it.
inline constexpr const char* agentFactorySymbol = "agentFactory";
using AgentFactory = AgentBase* (*)(const char* name);

}  // namespace Platform
