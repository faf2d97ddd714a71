// `routecache statedb`: the state database that many processes share, as a whole.
#include <CLI/CLI.hpp>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "host/AgentLibrary.h"
#include "host/SharedState.h"
#include "host/StatePaths.h"
#include "lib/statedb/Scenario.h"
#include "linux/files/InputFile.h"
#include "tools/commandline/Commands.h"
#include "tools/commandline/Common.h"
#include "tools/commandline/StateDbOptions.h"

namespace Tools {

namespace {

struct FillOptions {
  StateDbOptions stateDb;
  std::string scenario;
};

void fill(const FillOptions& options) {
  const auto complain = [](const std::string& line) { std::fprintf(stderr, "%s\n", line.c_str()); };
  SharedState state(options.stateDb.settings(complain), defaultAgentLibrary());
  const std::string text = LinuxPlatform::readInput(options.scenario, mostScenarioBytes);
  const auto entities = LinuxPlatform::parseScenario(text, options.scenario, state.types(), allPathTypes());
  state.fill(entities);
  tell(false, {},
       "filled " + options.stateDb.address + ", switch " + options.stateDb.switchName + ", from " + options.scenario);
}

}  // namespace

void addStateDbCommand(CLI::App& app, ToolContext&) {
  CLI::App* command = app.add_subcommand("statedb", "The state database in a Redis server, as a whole");
  command->require_subcommand(1);
  auto options = std::make_shared<FillOptions>();
  CLI::App* fillCommand =
      command->add_subcommand("fill", "Put a scenario's content there, in the place of what is there");
  fillCommand->footer(
      "Example: routecache statedb fill examples/leaf.json --state-db unix:/run/redis/redis.sock --switch leaf1");
  fillCommand->add_option("SCENARIO", options->scenario, "The content, a JSON file")->required();
  addStateDbOptions(*fillCommand, options->stateDb)->required();
  fillCommand->callback([options] { fill(*options); });
}

}  // namespace Tools
