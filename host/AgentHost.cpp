#include "host/AgentHost.h"

#include <cstdlib>
#include <iostream>
#include <string_view>

#include "host/AgentLibrary.h"
#include "host/StatePaths.h"
#include "lib/statedb/PlatformTypes.h"
#include "lib/statedb/Scenario.h"
#include "linux/files/InputFile.h"
#include "linux/loop/MonotonicClock.h"
#include "platform/values/Assert.h"
#include "platform/values/Paths.h"
#include "platform/values/Printable.h"

namespace Tools {

namespace {

std::string traceDirectory(const std::string& runDir) {
  const char* given = std::getenv("ZEPHLOGDIR");
  return given != nullptr && *given != '\0' ? given : runDir;
}

}  // namespace

AgentHost::AgentHost(const AgentHostSettings& settings, Platform::TaskScheduler& scheduler)
    : scheduler_(scheduler),
      runDir_(settings.runDir),
      agentName_(settings.agentName),
      traceFile_(settings.traceFile),
      hugePages_(settings.hugePages),
      trace_(traceDirectory(settings.runDir)),
      stateDb_(settings.stateDb ? settings.stateDb(entityTypes_)
                                : std::make_unique<LinuxPlatform::EmbeddedStateDb>(entityTypes_, scheduler)),
      embedded_(dynamic_cast<LinuxPlatform::EmbeddedStateDb*>(stateDb_.get())),
      remembers_(settings.remembers && embedded_ != nullptr),
      fresh_(settings.fresh),
      commands_(scheduler),
      agent_(agentFromLibrary(settings.agentLibrary, settings.agentName)) {
  if (!traceFile_) trace_.levels().defaultIs(-1);
  for (const auto& option : settings.trace) trace_.levels().optionIs(option);
  LinuxPlatform::addPlatformTypes(entityTypes_, tableTypes_);
  agent_->registerTypes(entityTypes_, tableTypes_, vocabulary_);
  if (embedded_ != nullptr) embedded_->entitiesAre(content(settings));
  resolverIs();
}

LinuxPlatform::SharedTableService& AgentHost::openTables(std::function<void()> deliveryWanted) {
  tables_.emplace(runDir_, tableTypes_, std::move(deliveryWanted));
  if (hugePages_) tables_->hugePagesAreWanted();
  if (fresh_) LinuxPlatform::forgetKeptState(runDir_);
  if (remembers_) keeper_.emplace(*embedded_, scheduler_, runDir_, derivedPaths());
  return *tables_;
}

// The scenario is read in any case: it has to be a good one on the day when it is needed.
Lattis::Entities AgentHost::content(const AgentHostSettings& settings) {
  const std::string text = LinuxPlatform::readInput(settings.scenario, mostScenarioBytes);
  auto entities = LinuxPlatform::parseScenario(text, settings.scenario, entityTypes_, allPathTypes());
  contentSource_ = "state from " + settings.scenario;
  if (!settings.remembers || settings.fresh) return entities;
  std::vector<std::string> faults;
  auto kept = LinuxPlatform::readKeptState(runDir_, entityTypes_, allPathTypes(), faults);
  for (const auto& fault : faults) {
    std::cerr << Platform::printable(fault) << (kept ? "; the content before that is used" : "; it is left out")
              << std::endl;
  }
  if (!kept) return entities;
  contentSource_ = "state from " + kept->file + ", as changed since its start from a scenario; --fresh begins again";
  return std::move(kept->entities);
}

void AgentHost::resolverIs() {
  const auto entity = [this]<class T>(const char* path, const char* typeName) {
    auto typed = std::dynamic_pointer_cast<T>(stateDb_->entityOrNew(path, typeName));
    PLATFORM_ASSERT(typed);
    return typed;
  };
  resolver_ = std::make_unique<LinuxPlatform::UnderlayResolver>(
      entity.operator()<Routing::NexthopConfig>(Paths::nexthopConfig, "Routing::NexthopConfig"),
      entity.operator()<Routing::NexthopStatus>(Paths::nexthopStatus, "Routing::NexthopStatus"),
      entity.operator()<Routing::UnderlayRouteConfig>(Paths::underlayRoutes, "Routing::UnderlayRouteConfig"),
      scheduler_);
}

void AgentHost::start(std::function<void()> ready) {
  Platform::AgentServices services;
  services.stateDb = stateDb_.get();
  services.tables = &*tables_;
  services.scheduler = &scheduler_;
  services.trace = &trace_;
  services.commands = &commands_;
  services.clock = std::make_shared<LinuxPlatform::MonotonicClock>();
  services.environment = [this](const char* name) {
    if (!traceFile_ && std::string_view(name) == "ZEPHLOG_DISABLE") return "1";
    return static_cast<const char*>(std::getenv(name));
  };
  services.started = std::move(ready);
  agent_->servicesIs(services);
  agent_->doInit();
}

void AgentHost::stop() {
  agent_.reset();
  keeper_.reset();
  if (tables_) tables_->flush();
}

}  // namespace Tools
