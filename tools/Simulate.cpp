// `routecache simulate`: the forwarding plane and its traffic, beside a running agent or together with one in virtual
// time.
#include <CLI/CLI.hpp>
#include <csignal>
#include <filesystem>
#include <iostream>
#include <memory>
#include <optional>
#include <string>

#include "host/AgentLibrary.h"
#include "host/Simulation.h"
#include "host/TableDelivery.h"
#include "host/TableTypes.h"
#include "host/VirtualSwitch.h"
#include "linux/control/ControlClient.h"
#include "linux/files/ProcessLimits.h"
#include "linux/loop/EventLoop.h"
#include "linux/tables/SharedTableService.h"
#include "platform/values/Paths.h"
#include "simulator/input/PrefixList.h"
#include "tools/commandline/Commands.h"
#include "tools/commandline/Common.h"
#include "tools/commandline/OptionChecks.h"
#include "tools/commandline/TrafficOptions.h"

namespace Tools {

namespace {

using Platform::BadText;

struct SimulateOptions {
  SimulationSettings simulation;
  TrafficOptions traffic;
  std::optional<double> tick;
  std::string runDir;
  bool inProcess = false;
  VirtualSwitchSettings virtualSwitch;
  std::string policy;
  std::string within = "10.0.0.0/8";
};

// --- Beside a running agent ------------------------------------------------------------------------------------------

// Waits until the agent, its tables and configured routes are there; then forwards until it is stopped.
class ForwardingProcess {
 public:
  ForwardingProcess(const SimulateOptions& options, TrafficPlan& plan);
  void run();

 private:
  void handleStart();
  void openTables();
  std::string whatIsMissing();
  SwitchVrfs vrfs() const;

  const SimulateOptions& options_;
  TrafficPlan& plan_;
  LinuxPlatform::EventLoop loop_;
  Platform::TableTypes types_;
  std::optional<LinuxPlatform::SharedTableService> tables_;  // once there is a run directory: the agent makes it
  std::optional<TableDelivery> delivery_;
  std::unique_ptr<Platform::Task> startTask_;
  std::string waitsFor_;
  TrafficInputs inputs_;
  std::optional<Simulation> simulation_;
};

constexpr double startInterval = 0.5;  // seconds between two looks

ForwardingProcess::ForwardingProcess(const SimulateOptions& options, TrafficPlan& plan)
    : options_(options),
      plan_(plan),
      types_(allTableTypes()),
      startTask_(loop_.taskIs("simulationStartTask", Platform::TaskPriority::processing, [this] { handleStart(); })) {}

SwitchVrfs ForwardingProcess::vrfs() const {
  return SwitchVrfs([this](const std::string& path, const SwitchVrfs::Field& field) {
    askAgent(options_.runDir, {{"op", "get"}, {"path", path}}, [&field](const Json& line) {
      if (line.contains("value")) field(line.value("field", ""), line.value("value", ""));
    });
  });
}

void ForwardingProcess::openTables() {
  std::error_code error;
  const auto kind = std::filesystem::status(options_.runDir, error).type();
  if (tables_ || kind == std::filesystem::file_type::not_found) return;
  tables_.emplace(options_.runDir, types_, [this] { delivery_->wanted(); });
  delivery_.emplace(loop_, *tables_);
}

// Empty: nothing; then inputs_ is complete.
std::string ForwardingProcess::whatIsMissing() {
  openTables();
  if (!tables_ || !Simulator::ForwardingPlane::tablesExist(*tables_)) return "the agent's tables";
  try {
    inputs_ = trafficInputs(*tables_, vrfs());
  } catch (const std::exception& error) {
    return std::string("the agent: ") + error.what();
  }
  return inputs_.destinations.empty() && !plan_.flows ? "configured host routes" : "";
}

void ForwardingProcess::handleStart() {
  const std::string missing = whatIsMissing();
  if (!missing.empty()) {
    if (missing != waitsFor_) std::cerr << "routecache: waiting for " << missing << std::endl;
    waitsFor_ = missing;
    startTask_->scheduleWithin(startInterval);
    return;
  }
  simulation_.emplace(*tables_, loop_, trafficFrom(plan_, std::move(inputs_)), options_.simulation);
  simulation_->whenOverIs([this] { loop_.stop(); });
}

void ForwardingProcess::run() {
  loop_.stopOnSignals();
  startTask_->scheduleWithin(0);
  loop_.run();
  if (simulation_) simulation_->finish();
}

// --- In virtual time -------------------------------------------------------------------------------------------------

volatile std::sig_atomic_t interrupted = 0;

void interrupt(int /*signal*/) {
  interrupted = 1;
}

void simulateInProcess(const SimulateOptions& options, TrafficPlan& plan) {
  constexpr double stride = 1;  // virtual seconds between two looks at the end
  std::signal(SIGINT, interrupt);
  std::signal(SIGTERM, interrupt);
  if (!hangupIsIgnored()) std::signal(SIGHUP, interrupt);
  std::signal(SIGPIPE, SIG_IGN);  // a reader that goes away must not leave the switch's directory behind
  VirtualSwitch virtualSwitch(options.virtualSwitch);
  auto traffic = trafficFrom(plan, trafficInputs(virtualSwitch.planeTables(), virtualSwitch.vrfs()));
  if (!Simulator::ForwardingPlane::tablesExist(virtualSwitch.planeTables())) {
    throw std::runtime_error("the agent made no tables");
  }
  Simulation simulation(virtualSwitch.planeTables(), virtualSwitch.scheduler(), std::move(traffic), options.simulation);
  virtualSwitch.tablesAreComplete();
  bool over = false;
  simulation.whenOverIs([&over] { over = true; });
  while (!over && interrupted == 0) virtualSwitch.scheduler().advance(stride);
  simulation.finish();
}

// --- The command line ------------------------------------------------------------------------------------------------

void simulate(const SimulateOptions& given) {
  constexpr double defaultDuration = 3600;    // seconds of virtual time
  constexpr double mostPacketsPerTick = 1e8;  // they lie in memory together
  SimulateOptions options = given;
  rowFormatOf(options.simulation.out);
  if (options.inProcess && options.virtualSwitch.scenario.empty()) throw BadText("--in-process takes a --scenario");
  options.simulation.forwarding.tick = options.tick.value_or(options.inProcess ? 0.1 : 0.02);
  if (options.traffic.zipf.rate * options.simulation.forwarding.tick > mostPacketsPerTick) {
    throw BadText("--rate: over " + Platform::toText(mostPacketsPerTick) + " packets in one --tick");
  }
  TrafficPlan plan = trafficPlan(options.traffic);
  if (!options.inProcess) {
    ForwardingProcess(options, plan).run();
    return;
  }
  if (!options.simulation.duration && options.traffic.flows.empty()) options.simulation.duration = defaultDuration;
  if (!options.policy.empty()) options.virtualSwitch.sets.emplace_back(Paths::hwRouteSm, "policy", options.policy);
  options.virtualSwitch.seed = options.traffic.zipf.seed;
  options.virtualSwitch.within = optionValue<IpGenPrefix>("--within", options.within);
  simulateInProcess(options, plan);
}

void addPlaneOptions(CLI::App& command, SimulateOptions& options) {
  auto& forwarding = options.simulation.forwarding;
  command
      .add_option("--hw-capacity", forwarding.hardware.capacity, "Routes in hardware (default: its table's capacity)")
      ->check(wholeNumber(1, Pondra::maxCapacity));
  command
      .add_option("--hw-rate", forwarding.hardware.routesPerSecond, "Routes per second that hardware programs; 0: all")
      ->check(realNumber(0, mostPerSecond))
      ->capture_default_str();
  command.add_option("--sfe-rate", forwarding.sfe.routesPerSecond, "Routes per second that the SFE programs; 0: all")
      ->check(realNumber(0, mostPerSecond))
      ->capture_default_str();
  command.add_option("--sfe-idle", forwarding.sfe.idleTime, "Seconds without a hit until the SFE forgets it")
      ->check(realNumber(leastSeconds, mostSeconds))
      ->capture_default_str();
  command.add_option("--tick", options.tick, "Seconds of traffic in one go (default 0.02, in process 0.1)")
      ->check(realNumber(leastSeconds, 10));
}

void addReportOptions(CLI::App& command, SimulateOptions& options) {
  command
      .add_option("--duration", options.simulation.duration,
                  "Seconds (default: until stopped or the flows end; in process 3600)")
      ->check(realNumber(leastSeconds, mostSeconds));
  command.add_option("--interval", options.simulation.interval, "Seconds between two lines")
      ->check(realNumber(leastSeconds, mostSeconds))
      ->capture_default_str();
  command.add_option("--out", options.simulation.out, "Also to this file, .csv or .json")->type_name("FILE");
  command.add_flag("--yardsticks", options.simulation.yardsticks,
                   "Tell in the end what LRU, LFU and the optimum in hindsight make of the traffic");
}

void addInProcessOptions(CLI::App& command, SimulateOptions& options) {
  auto* inProcess =
      command.add_flag("--in-process", options.inProcess, "An agent of its own, in this process and in virtual time");
  command.get_option("--run-dir")->excludes(inProcess);
  auto& virtualSwitch = options.virtualSwitch;
  command.add_option("--scenario", virtualSwitch.scenario, "The agent's scenario")->type_name("FILE")->needs(inProcess);
  command.add_option("--routes", virtualSwitch.routes, "Host routes to configure")
      ->check(wholeNumber(1, maxGeneratedPrefixes))
      ->needs(inProcess)
      ->capture_default_str();
  command.add_option("--within", options.within, "Where they lie: the cached prefix of every VRF")
      ->type_name("PREFIX")
      ->needs(inProcess)
      ->capture_default_str();
  command.add_option("--set", virtualSwitch.sets, "A field that gets another value first, as `set` does; repeatable")
      ->type_name("PATH FIELD VALUE")
      ->needs(inProcess);
  command
      .add_option("--policy", options.policy,
                  std::string("The rule by which hardware caches routes, short for --set ") + Paths::hwRouteSm +
                      " policy NAME (default: levels)")
      ->type_name("NAME")
      ->needs(inProcess);
  command.add_option("--agent", virtualSwitch.agentLibrary, "The agent's library")
      ->type_name("LIB")
      ->needs(inProcess)
      ->capture_default_str();
}

}  // namespace

void addSimulateCommand(CLI::App& app, ToolContext& /*context*/) {
  const auto options = std::make_shared<SimulateOptions>();
  options->virtualSwitch.agentLibrary = defaultAgentLibrary();
  CLI::App* command = app.add_subcommand("simulate", "Play the forwarding plane, hardware and software, with traffic");
  addRunDirOption(*command, options->runDir);
  addReportOptions(*command, *options);
  addPlaneOptions(*command, *options);
  addTrafficOptions(*command, options->traffic);
  addInProcessOptions(*command, *options);
  command->footer("Example: routecache simulate --in-process --scenario examples/caching.json --duration 600");
  command->callback([options] {
    LinuxPlatform::raiseDescriptorLimit();
    simulate(*options);
  });
}

}  // namespace Tools
