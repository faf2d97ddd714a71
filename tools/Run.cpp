// `routecache run`: the launcher. It owns everything that the agent works with and drives the agent from its event
// loop.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <memory>
#include <string>

#include "linux/ControlOperations.h"
#include "linux/ControlSocket.h"
#include "linux/ProcessLimits.h"
#include "linux/RunDirectory.h"
#include "linux/TaskScheduler.h"
#include "tools/AgentHost.h"
#include "tools/AgentLibrary.h"
#include "tools/Commands.h"
#include "tools/Common.h"
#include "tools/TableDelivery.h"

namespace Tools {

namespace {

using LinuxPlatform::ControlSocket;
using LinuxPlatform::EventLoop;
using LinuxPlatform::RunDirectory;

struct RunOptions {
  AgentHostSettings agent;
  double timeSliceMilliseconds = EventLoop::defaultTimeSlice * 1000;
};

// One running agent.
class Launcher {
 public:
  explicit Launcher(const RunOptions& options);
  ~Launcher() { host_.stop(); }
  void run();

 private:
  void serveOperators();

  RunDirectory directory_;
  EventLoop loop_;
  AgentHost host_;
  TableDelivery delivery_;
  std::unique_ptr<ControlSocket> control_;
};

Launcher::Launcher(const RunOptions& options)
    : directory_(options.agent.runDir),
      loop_(options.timeSliceMilliseconds / 1000),
      host_(options.agent, loop_, [this] { delivery_.wanted(); }),
      delivery_(loop_, host_.tables()) {
  serveOperators();
  host_.start([this] {
    std::printf("ready: agent %s in %s\n", host_.agentName().c_str(), directory_.path().c_str());
    std::fflush(stdout);
  });
}

void Launcher::serveOperators() {
  control_ = std::make_unique<ControlSocket>(loop_, RunDirectory::controlPath(directory_.path()));
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
  command->add_option("--scenario", options->agent.scenario, "Content of the state database at the start, a JSON file")
      ->type_name("FILE")
      ->required();
  addRunDirOption(*command, options->agent.runDir);
  command->add_option("--agent", options->agent.agentLibrary, "The agent's library")
      ->type_name("LIB")
      ->capture_default_str();
  command->add_option("--name", options->agent.agentName, "The agent's name, which its trace file is called after")
      ->capture_default_str();
  command
      ->add_option("--trace", options->agent.trace,
                   "What is traced: LEVEL for all, HANDLE=LEVEL for one, -1 for nothing")
      ->type_name("LEVEL")
      ->take_all();
  command->add_option("--time-slice", options->timeSliceMilliseconds, "Longest run of a task")
      ->type_name("MS")
      ->check(CLI::Range(0.01, 1000.0))
      ->capture_default_str();
  command->callback([options] {
    LinuxPlatform::raiseDescriptorLimit();
    Launcher(*options).run();
  });
}

}  // namespace Tools
