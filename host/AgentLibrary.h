// An agent's shared library: where it lies, and the one symbol that it exports.
#pragma once

#include <memory>
#include <string>

#include "platform/services/AgentBase.h"

namespace Tools {

// The library beside this program or in the lib directory next to its own; else a name for the dynamic linker to find.
std::string defaultAgentLibrary();

// Loads the library, for good: what an agent leaves behind (types, entities) is made of its code. Returns a new agent;
// throws std::runtime_error with one line.
std::unique_ptr<Platform::AgentBase> agentFromLibrary(const std::string& library, const std::string& agentName);

}  // namespace Tools
