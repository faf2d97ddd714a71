// The subcommands of `routecache`. Each lives in a file of its own and adds itself to the command line; tools/Main.cpp
// parses, runs and turns exceptions into one line on standard error and an exit code.
//
// Exit codes: 0 done; 1 a failure at run time (a table that cannot be mounted, an agent that does not answer, standard
// output that cannot be written); 2 misuse or bad input. A subcommand throws Platform::BadText or RangeError (or a
// CLI11 error) for 2, and another std::exception for 1.
#pragma once

#include <string>

namespace CLI {
class App;
}  // namespace CLI

namespace Tools {

// What the subcommands share. Made by main, outlives the parse.
struct ToolContext {
  int exitCode = 0;  // of a subcommand that ended without an exception
};

// All of them.
void addCommands(CLI::App& app, ToolContext& context);

void addRunCommand(CLI::App& app, ToolContext& context);
void addRibCommand(CLI::App& app, ToolContext& context);
void addFibCommand(CLI::App& app, ToolContext& context);
void addSimulateCommand(CLI::App& app, ToolContext& context);
void addTableCommand(CLI::App& app, ToolContext& context);
void addTableInspectCommands(CLI::App& table, ToolContext& context);  // below it: check, stat
void addControlCommands(CLI::App& app, ToolContext& context);         // get, set, del
void addStateDbCommand(CLI::App& app, ToolContext& context);
void addFpmCommand(CLI::App& app, ToolContext& context);
void addDiscoverCommand(CLI::App& app, ToolContext& context);
void addKernelCommand(CLI::App& app, ToolContext& context);
void addShowCommand(CLI::App& app, ToolContext& context);
void addTasksCommand(CLI::App& app, ToolContext& context);
void addTraceCommand(CLI::App& app, ToolContext& context);
void addCompletionCommands(CLI::App& app, ToolContext& context);  // completion, complete

}  // namespace Tools
