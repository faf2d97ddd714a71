// What can be asked on the control socket, beside what the agent adds.
//
//   get    path, field   its fields: {"field", "value"} each, {"field"} for a child entity; no field: all of the entity
//   get                  what there is: {"path", "type"} each
//   set    path, field, value   no value: makes the child entity. Answered when the state database has taken it
//   del    path, field          likewise
//   tasks                the scheduler's statistics, one line for each task
//   command  type, command, format   carries out a command of the agent's; the format of its output is "text" or "json"
//
// Fields are as lib/statedb/EntityFields.h has them.
#pragma once

#include "lib/control/AgentCommands.h"
#include "linux/control/ControlSocket.h"
#include "platform/state/StateDb.h"

namespace LinuxPlatform {

// What these work on outlives the socket.
void addEntityOperations(ControlSocket& socket, Lattis::StateDb& stateDb);
void addTaskOperation(ControlSocket& socket, const Platform::TaskScheduler& scheduler);
void addCommandOperation(ControlSocket& socket, AgentCommands& commands);

}  // namespace LinuxPlatform
