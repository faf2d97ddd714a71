// `routecache run`: the launcher. It owns everything that the agent works with and drives the agent from its event
// loop.
#include <CLI/CLI.hpp>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "host/AgentHost.h"
#include "host/AgentLibrary.h"
#include "host/Output.h"
#include "host/TableDelivery.h"
#include "linux/control/ControlOperations.h"
#include "linux/control/ControlSocket.h"
#include "linux/files/ProcessLimits.h"
#include "linux/files/RunDirectory.h"
#include "linux/loop/EventLoop.h"
#include "tools/commandline/Commands.h"
#include "tools/commandline/Common.h"
#include "tools/commandline/OptionChecks.h"
#include "tools/commandline/StateDbOptions.h"

namespace Tools {

namespace {

using LinuxPlatform::ControlSocket;
using LinuxPlatform::EventLoop;
using LinuxPlatform::RunDirectory;

struct RunOptions {
  AgentHostSettings agent;
  StateDbOptions stateDb;
  double timeSliceMilliseconds = EventLoop::defaultTimeSlice * 1000;
};

// One running agent.
class Launcher {
 public:
  explicit Launcher(RunOptions options);
  ~Launcher() { host_.stop(); }
  void run();

 private:
  void serveOperators();

  AgentHostSettings settings(RunOptions& options);

  std::optional<RunDirectory> directory_;  // once options and scenario are known to be good; held until the end
  EventLoop loop_;
  std::string contentSource_;                          // where the state is from, in one line
  LinuxPlatform::RedisMirror* sharedState_ = nullptr;  // null: the state is embedded
  AgentHost host_;
  std::optional<TableDelivery> delivery_;
  std::unique_ptr<ControlSocket> control_;
};

Launcher::Launcher(RunOptions options) : loop_(options.timeSliceMilliseconds / 1000), host_(settings(options), loop_) {
  directory_.emplace(options.agent.runDir);
  delivery_.emplace(loop_, host_.openTables([this] { delivery_->wanted(); }));
  serveOperators();
  if (contentSource_.empty()) contentSource_ = host_.contentSource();
  host_.start([this] {
    if (sharedState_ != nullptr) sharedState_->outputsAreOwned();
    tell(false, {}, contentSource_);
    tell(false, {}, "ready: agent " + host_.agentName() + " in " + directory_->path());
    flushOutput();  // who waits for the line waits for ever without it: an agent that cannot tell it ends
  });
}

AgentHostSettings Launcher::settings(RunOptions& options) {
  if (!options.stateDb.isShared()) {
    if (options.agent.scenario.empty()) throw Platform::BadText("--scenario or --state-db is wanted");
    return options.agent;
  }
  auto stateDb = options.stateDb.settings([](const std::string& line) { std::cerr << line << std::endl; });
  stateDb.ownsOutputs = false;  // before the start what a predecessor has said stands
  contentSource_ = "state from " + stateDb.address.text + ", switch " + stateDb.switchName;
  options.agent.stateDb = [this, stateDb](const Lattis::EntityTypes& types) {
    auto made = std::make_unique<LinuxPlatform::RedisStateDb>(types, loop_, stateDb);
    made->localEntityIs("platform/stateDb", made->statistics());
    sharedState_ = &made->mirror();
    return made;
  };
  return options.agent;
}

void Launcher::serveOperators() {
  control_ = std::make_unique<ControlSocket>(loop_, RunDirectory::controlPath(directory_->path()));
  LinuxPlatform::addEntityOperations(*control_, host_.stateDb());
  LinuxPlatform::addTaskOperation(*control_, loop_);
  LinuxPlatform::addCommandOperation(*control_, host_.commands());
  host_.stateDb().localEntityIs("platform/control", control_->statistics());
}

void Launcher::run() {
  loop_.stopOnSignals();
  loop_.run();
}

}  // namespace

void addRunCommand(CLI::App& app, ToolContext&) {
  auto options = std::make_shared<RunOptions>();
  options->agent.agentLibrary = defaultAgentLibrary();
  CLI::App* command = app.add_subcommand("run", "Run the agent until SIGTERM");
  command->footer("Example: routecache run --scenario examples/leaf.json --run-dir /tmp/leaf --trace 5");
  CLI::Option* scenario = command->add_option(
      "--scenario", options->agent.scenario,
      "Content of the state database at the first start in the run directory, a JSON file; later starts go "
      "on with what was changed since");
  scenario->type_name("FILE");
  command->add_flag("--fresh", options->agent.fresh, "Forget what was changed since, and begin again from the scenario")
      ->needs(scenario);
  addStateDbOptions(*command, options->stateDb)->excludes(scenario);
  options->agent.remembers = true;
  addRunDirOption(*command, options->agent.runDir);
  command->add_option("--agent", options->agent.agentLibrary, "The agent's library")
      ->type_name("LIB")
      ->capture_default_str();
  command->add_option("--name", options->agent.agentName, "The agent's name, which its trace file is called after")
      ->check(
          [](const std::string& name) { return name.find('/') == std::string::npos ? "" : "a file's name has no '/'"; },
          "")
      ->capture_default_str();
  command
      ->add_option("--trace", options->agent.trace,
                   "What is traced: LEVEL for all, HANDLE=LEVEL for one, -1 for nothing")
      ->type_name("LEVEL")
      ->take_all();
  command->add_flag("--huge-pages", options->agent.hugePages, "Ask the kernel for pages of 2 MiB for the tables");
  command->add_option("--time-slice", options->timeSliceMilliseconds, "Longest run of a task")
      ->type_name("MS")
      ->check(realNumber(0.01, 1000))
      ->capture_default_str();
  command->callback([options] {
    LinuxPlatform::raiseDescriptorLimit();
    Launcher(*options).run();
  });
}

}  // namespace Tools
