// What several subcommands need.
#pragma once

#include <string>

#include "platform/AgentBase.h"

namespace CLI {
class App;
}  // namespace CLI

namespace Tools {

// Where tables and control sockets lie unless --run-dir says otherwise: $ROUTECACHE_RUN_DIR when it is set and not
// empty, else /run/routecache where that exists or this user can make it, else a directory of this user's own.
std::string defaultRunDir();

// Adds --run-dir to a subcommand; `runDir` is set to the default at once.
void addRunDirOption(CLI::App& command, std::string& runDir);

// Every table type that the tools know: the platform's and the agent's.
Platform::TableTypes allTableTypes();

}  // namespace Tools
