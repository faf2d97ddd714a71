// A switch's state database for a process that stands beside the agent: the one in a running agent, or in a server.
#pragma once

#include <functional>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>

#include "tools/commandline/StateDbOptions.h"

namespace Tools {

// One connection. Everything waits for the other side, at most some seconds without an answer; std::runtime_error with
// one line says that it is out of reach, BadText what it does not take.
class StateAccess {
 public:
  virtual ~StateAccess() = default;
  // Fields of an entity in the order of a walk; no value: a child entity, whose fields follow.
  using TakeField = std::function<void(const std::string& field, const std::optional<std::string>& value)>;
  virtual void fieldsOf(const std::string& path, const TakeField& take) = 0;
  virtual void fieldIs(const std::string& path, const std::string& field, const std::optional<std::string>& value) = 0;
  virtual void fieldDel(const std::string& path, const std::string& field) = 0;
  // Until what was changed is kept.
  virtual void waitUntilTaken() = 0;
};

// `patience`: seconds without an answer of an agent.
std::unique_ptr<StateAccess> stateAccess(const std::string& runDir, const StateDbOptions& options, double patience);

}  // namespace Tools
