// `routecache run`: the launcher. It owns everything that the agent works with and drives the agent from its event
// loop.
#include <sys/epoll.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "linux/ControlOperations.h"
#include "linux/ControlSocket.h"
#include "linux/PlatformTypes.h"
#include "linux/RunDirectory.h"
#include "linux/Scenario.h"
#include "linux/SharedTable.h"
#include "linux/StateDb.h"
#include "linux/TaskScheduler.h"
#include "linux/TraceFile.h"
#include "linux/UnderlayResolver.h"
#include "tools/AgentLibrary.h"
#include "tools/Commands.h"
#include "tools/Common.h"

namespace Tools {

namespace {

using LinuxPlatform::ControlSocket;
using LinuxPlatform::EmbeddedStateDb;
using LinuxPlatform::EventLoop;
using LinuxPlatform::PathTypes;
using LinuxPlatform::RunDirectory;

struct RunOptions {
  std::string scenario;
  std::string runDir;
  std::string agentLibrary;
  std::string agentName = "RouteCache";
  std::vector<std::string> trace;
  double timeSliceMilliseconds = EventLoop::defaultTimeSlice * 1000;
};

constexpr double pollInterval = 1;  // seconds

PathTypes allPathTypes() {
  PathTypes types = LinuxPlatform::platformPathTypes();
  types["routecache/config"] = "RouteCache::Config";
  types["routecache/cliconfig"] = "RouteCache::CliConfig";
  types["routecache/capability"] = "RouteCache::Capability";
  return types;
}

std::string traceDirectory(const std::string& runDir) {
  const char* given = std::getenv("ZEPHLOGDIR");
  return given != nullptr && *given != '\0' ? given : runDir;
}

// One running agent. The members stand in the order of their making; the agent goes first.
class Launcher {
 public:
  explicit Launcher(const RunOptions& options);
  void run();

 private:
  void loadScenario(const std::string& file);
  void serveTables();
  void serveOperators();
  void startAgent();
  void pollTables();
  void deliverTableChanges();
  void reportCorruption(const std::string& path, const std::string& what);

  RunDirectory directory_;
  EventLoop loop_;
  LinuxPlatform::FileTraceFacility trace_;
  Lattis::EntityTypes entityTypes_;
  Platform::TableTypes tableTypes_;
  Platform::TraceVocabulary vocabulary_;
  EmbeddedStateDb stateDb_;
  LinuxPlatform::SharedTableService tables_;
  std::set<std::pair<std::string, std::string>> corruptionSeen_;
  std::unique_ptr<Platform::Task> deliveryTask_;
  std::unique_ptr<Platform::Task> pollTask_;
  std::unique_ptr<LinuxPlatform::UnderlayResolver> resolver_;
  std::unique_ptr<ControlSocket> control_;
  std::unique_ptr<Platform::AgentBase> agent_;
};

Launcher::Launcher(const RunOptions& options)
    : directory_(options.runDir),
      loop_(options.timeSliceMilliseconds / 1000),
      trace_(traceDirectory(options.runDir)),
      stateDb_(entityTypes_, loop_),
      tables_(options.runDir, tableTypes_, [this] { deliveryTask_->scheduleWithin(0); }),
      agent_(agentFromLibrary(options.agentLibrary, options.agentName)) {
  for (const auto& option : options.trace) trace_.levels().optionIs(option);
  LinuxPlatform::addPlatformTypes(entityTypes_, tableTypes_);
  agent_->registerTypes(entityTypes_, tableTypes_, vocabulary_);
  loadScenario(options.scenario);
  serveTables();
  serveOperators();
  startAgent();
}

void Launcher::loadScenario(const std::string& file) {
  stateDb_.entitiesAre(LinuxPlatform::readScenario(file, entityTypes_, allPathTypes()));
  const auto entity = [this]<class T>(const char* path, const char* typeName) {
    auto typed = std::dynamic_pointer_cast<T>(stateDb_.entityOrNew(path, typeName));
    if (!typed) throw LinuxPlatform::ScenarioError(std::string(path) + ": the resolver wants a " + typeName + " here");
    return typed;
  };
  resolver_ = std::make_unique<LinuxPlatform::UnderlayResolver>(
      entity.operator()<Routing::NexthopConfig>(LinuxPlatform::nexthopConfigPath, "Routing::NexthopConfig"),
      entity.operator()<Routing::NexthopStatus>(LinuxPlatform::nexthopStatusPath, "Routing::NexthopStatus"),
      entity.operator()<Routing::UnderlayRouteConfig>(LinuxPlatform::underlayRoutePath, "Routing::UnderlayRouteConfig"),
      loop_);
}

void Launcher::serveTables() {
  tables_.corruptionHandlerIs(
      [this](const std::string& path, const std::string& what) { reportCorruption(path, what); });
  deliveryTask_ =
      loop_.taskIs("tableDeliveryTask", Platform::TaskPriority::delivery, [this] { deliverTableChanges(); });
  pollTask_ = loop_.taskIs("tablePollTask", Platform::TaskPriority::delivery, [this] { pollTables(); });
  pollTask_->scheduleWithin(pollInterval);
  if (tables_.wakeupFd() >= 0) {
    loop_.fdIs(tables_.wakeupFd(), EPOLLIN, [this](std::uint32_t) { tables_.handleWakeup(); });
  }
  loop_.afterBatchIs([this] { tables_.flush(); });
}

// Finds what nobody woke us for: changes of a writer that died before it told.
void Launcher::pollTables() {
  if (tables_.pendingChanges()) deliveryTask_->scheduleWithin(0);
  pollTask_->scheduleWithin(pollInterval);
}

void Launcher::deliverTableChanges() {
  if (!tables_.deliverChanges([this] { return deliveryTask_->shouldYield(); })) deliveryTask_->scheduleWithin(0);
}

// Lasting damage is met again and again: it is told once.
void Launcher::reportCorruption(const std::string& path, const std::string& what) {
  constexpr std::size_t mostLines = 1000;
  if (corruptionSeen_.size() >= mostLines || !corruptionSeen_.emplace(path, what).second) return;
  std::fprintf(stderr, "routecache: table %s is damaged: %s\n", path.c_str(), what.c_str());
}

void Launcher::serveOperators() {
  control_ = std::make_unique<ControlSocket>(loop_, RunDirectory::controlPath(directory_.path()));
  LinuxPlatform::addEntityOperations(*control_, stateDb_);
  LinuxPlatform::addTaskOperation(*control_, loop_);
  stateDb_.localEntityIs("platform/control", control_->statistics());
}

void Launcher::startAgent() {
  Platform::AgentServices services;
  services.stateDb = &stateDb_;
  services.tables = &tables_;
  services.scheduler = &loop_;
  services.trace = &trace_;
  services.localEntityIs = [this](const std::string& path, std::shared_ptr<Lattis::Entity> entity) {
    stateDb_.localEntityIs(path, std::move(entity));
  };
  services.environment = [](const char* name) { return static_cast<const char*>(std::getenv(name)); };
  agent_->servicesIs(services);
  stateDb_.afterMountsIs([this] {
    std::printf("ready: agent %s in %s\n", agent_->name().c_str(), directory_.path().c_str());
    std::fflush(stdout);
  });
  agent_->doInit();
}

void Launcher::run() {
  loop_.stopOnSignals();
  loop_.run();
  agent_.reset();
  tables_.flush();
}

}  // namespace

void addRunCommand(CLI::App& app, ToolContext&) {
  auto options = std::make_shared<RunOptions>();
  options->agentLibrary = defaultAgentLibrary();
  CLI::App* command = app.add_subcommand("run", "Run the agent until SIGTERM");
  command->footer("Example: routecache run --scenario examples/leaf.json --run-dir /tmp/leaf --trace 5");
  command->add_option("--scenario", options->scenario, "Content of the state database at the start, a JSON file")
      ->type_name("FILE")
      ->required();
  addRunDirOption(*command, options->runDir);
  command->add_option("--agent", options->agentLibrary, "The agent's library")->type_name("LIB")->capture_default_str();
  command->add_option("--name", options->agentName, "The agent's name, which its trace file is called after")
      ->capture_default_str();
  command->add_option("--trace", options->trace, "What is traced: LEVEL for all, HANDLE=LEVEL for one, -1 for nothing")
      ->type_name("LEVEL")
      ->take_all();
  command->add_option("--time-slice", options->timeSliceMilliseconds, "Longest run of a task")
      ->type_name("MS")
      ->check(CLI::Range(0.01, 1000.0))
      ->capture_default_str();
  command->callback([options] { Launcher(*options).run(); });
}

}  // namespace Tools
