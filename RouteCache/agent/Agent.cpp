#include "RouteCache/agent/Agent.h"

#include <utility>

#include "RouteCache/model/CommandTexts.h"
#include "platform/values/Assert.h"
#include "platform/values/Paths.h"

namespace RouteCacheAgent {

extern "C" Platform::AgentBase* agentFactory(const char* name) {
  auto agent = std::make_unique<Agent>(name);
  agent->notificationsActiveIs(true);
  return agent.release();
}

Agent::Agent(std::string name) : AgentBase(std::move(name)) {}

Agent::~Agent() {
  steps_.clear();
  vrfIdMapDel();
  vrfCachedRouteDel();
  cliCallbackWithFormatDel();
  vrfSmDel();
  swRouteSmDel();
  hwRouteSmDel();
  kernelRouteSmDel();
  sfeTableTask_.reset();
  startTask_.reset();
}

void Agent::registerTypes(Lattis::EntityTypes& entities, Platform::TableTypes& tables,
                          Platform::TraceVocabulary& vocabulary) {
  entities.typeIs<RouteCache::Config>(RouteCache::Config::typeName);
  entities.typeIs<RouteCache::CliConfig>(RouteCache::CliConfig::typeName);
  entities.typeIs<RouteCache::Capability>(RouteCache::Capability::typeName);
  RouteCache::addTableTypes(tables);
  RouteCache::registerTraceWords(vocabulary);
}

// --- doInit ----------------------------------------------------------------------------------------------------------

void Agent::doInit() {
  trace_ = std::make_unique<Platform::TraceHandle>(*services().trace, "RouteCacheAgent");
  (*trace_)(9, "virtual void RouteCacheAgent::Agent::doInit()");
  if (services().environment("ZEPHLOG_DISABLE") == nullptr) traceFileIs();

  const auto mounts = services().stateDb->mountGroup();
  mounts->mount(Paths::hwRouteStatus, "Routing::Hardware::RouteStatus", "r");
  mounts->mount(Paths::hwStatus, "Routing::Hardware::Status", "r");
  mounts->mount(Paths::vrfNames, "Vrf::VrfIdMap::NameToIdMapWrapper", "r");
  mounts->mount(Paths::config, "RouteCache::Config", "w");
  mounts->mount(Paths::cliConfig, "RouteCache::CliConfig", "r");
  mounts->mount(Paths::capability, "RouteCache::Capability", "r");
  mounts->mount(Paths::nexthopConfig, "Routing::NexthopConfig", "wS");
  mounts->mount(Paths::nexthopStatus, "Routing::NexthopStatus", "rS");
  mounts->mount(Paths::vtiStatusDir, "Vxlan::VtiStatusDir", "r");
  // An agent may be stopped before its mounts are done.
  mounts->close([this, alive = std::weak_ptr<bool>(alive_)](Lattis::MountStatus status,
                                                            const std::shared_ptr<Lattis::EntityManager>& em) {
    if (!alive.expired()) doMountsComplete(status, em);
  });
}

void Agent::traceFileIs() {
  std::string zphPrefix = name();
  // Without a directory of its own the file's name tells the processes apart.
  if (services().environment("ZEPHLOGDIR") == nullptr) zphPrefix += "-%d";
  zphPrefix += ".zph";
  (*trace_)(1, "zphPrefix is: ", zphPrefix);
  Platform::FastTraceSettings settings;
  settings.fileName = zphPrefix;
  settings.bufferSize = {64, 64, 64, 64, 64, 1024, 1024, 64, 64, 64};
  settings.secondFileName = std::nullopt;
  settings.syncInterval = 0;
  settings.maxArguments = 24;
  settings.multithreadingMode = 0;
  settings.overwrite = true;
  settings.maxRecordSize = 512;
  services().trace->fastTraceInit(settings);
}

// --- doMountsComplete ------------------------------------------------------------------------------------------------

void Agent::doMountsComplete(Lattis::MountStatus status, const std::shared_ptr<Lattis::EntityManager>& em) {
  (*trace_)(9, "virtual void RouteCacheAgent::Agent::doMountsComplete(Lattis::MountStatus, const Ptr&)");
  PLATFORM_ASSERT(em);
  PLATFORM_ASSERT(status == Lattis::mountSuccess_);
  entityManager_ = em;
  hwRouteStatus_ = em->get<Routing::Hardware::RouteStatus>(Paths::hwRouteStatus);
  routingHwStatus_ = em->get<Routing::Hardware::Status>(Paths::hwStatus);
  piVrfIdMap_ = em->get<Vrf::VrfIdMap::NameToIdMapWrapper>(Paths::vrfNames);
  routeCacheConfig_ = em->get<RouteCache::Config>(Paths::config);
  routeCacheCliConfig_ = em->get<RouteCache::CliConfig>(Paths::cliConfig);
  routeCacheCapability_ = em->get<RouteCache::Capability>(Paths::capability);
  nextHopConfig_ = em->get<Routing::NexthopConfig>(Paths::nexthopConfig);
  nextHopStatus_ = em->get<Routing::NexthopStatus>(Paths::nexthopStatus);
  vtiStatusDir_ = em->get<Vxlan::VtiStatusDir>(Paths::vtiStatusDir);
  mountTables();
  stepIs([this] {
    startStateMachines();
    return Progress::done;
  });
}

// --- The start's task ------------------------------------------------------------------------------------------------

void Agent::stepIs(std::function<Progress()> step) {
  // Nothing decides about routes before the start is over; changes of tables are delivered in between.
  if (!startTask_) {
    startTask_ =
        services().scheduler->taskIs("agentStartTask", Platform::TaskPriority::delivery, [this] { handleStart(); });
  }
  steps_.push_back({std::move(step)});
  startTask_->scheduleWithin(0);
}

// One step at a time: some hold the thread for a time slice by themselves.
void Agent::handleStart() {
  if (steps_.empty()) return;
  // A step may add others.
  const Step step = std::move(steps_.front());
  steps_.pop_front();
  const Progress progress = step.take();
  if (progress != Progress::done) steps_.push_front(step);
  startTask_->workCountIs(progress == Progress::done ? 1 : 0);
  startTask_->workPendingIs(steps_.size());
  if (progress != Progress::waits && !steps_.empty()) startTask_->scheduleWithin(0);
}

// Mounts the table and fetches it by its path; a table of another type leaves the attribute empty. Writers have a
// capacity.
template <class T>
void Agent::mountIs(std::shared_ptr<T> Agent::*table, const char* path, Pondra::MountKind kind, Use use,
                    std::uint32_t capacity) {
  const auto shouldYield = [this] { return startTask_->shouldYield(); };
  stepIs([=, this] {
    std::optional<Pondra::CollectionInfo> info;
    if (kind == Pondra::MountKind::writer) info = Pondra::CollectionInfo{T::collectionName, capacity};
    Pondra::TableService& tables = *services().tables;
    if (!tables.mountPart(path, T::typeName, kind, info, shouldYield)) return Progress::more;
    this->*table = tables.template get<T>(path);
    return Progress::done;
  });
  if (use == Use::followed) {
    stepIs([=, this] { return services().tables->followPart(path, shouldYield) ? Progress::done : Progress::more; });
  }
}

void Agent::mountTables() {
  using Pondra::MountKind;
  PLATFORM_ASSERT_TEXT(routeCacheCapability_, "routecache/capability holds a RouteCache::Capability");
  const std::uint32_t hwSize = routeCacheCapability_->hwRouteTableSize();
  const std::uint32_t sfeSize = routeCacheCapability_->sfeRouteTableSize();
  const std::uint32_t adjSize = routeCacheCapability_->adjacencyTableSize();

  const bool caching = routingHwStatus_ && routingHwStatus_->hwRouteCachingEnabled();
  const Use byCaching = caching ? Use::followed : Use::lookups;

  mountIs(&Agent::routeConfig_, Paths::ribRoutes, MountKind::reader, Use::followed);
  mountIs(&Agent::route6Config_, Paths::rib6Routes, MountKind::reader, Use::followed);
  mountIs(&Agent::viaConfig_, Paths::ribVias, MountKind::keyedReader, Use::lookups);
  mountIs(&Agent::ipv4HwHitBitStatus_, Paths::hwHitBits, MountKind::reader, Use::lookups);
  mountIs(&Agent::ipv4SfeHitBitStatus_, Paths::sfeHitBits, MountKind::reader, byCaching);
  mountIs(&Agent::ipv4SfeProgrammedRouteStatus_, Paths::sfeProgrammed, MountKind::reader, byCaching);
  mountIs(&Agent::unprogrammedRouteConfig_, Paths::unprogrammed, MountKind::writer, Use::lookups,
          unprogrammedRouteTableSize());
  mountIs(&Agent::ipv4SfeRouteStatus_, Paths::sfeRoutes, MountKind::writer, byCaching, sfeSize);
  mountIs(&Agent::ipv4HwRouteStatus_, Paths::hwRoutes, MountKind::writer, Use::followed, hwSize);
  mountIs(&Agent::ipv6HwRouteStatus_, Paths::hw6Routes, MountKind::writer, Use::followed, hwSize);
  mountIs(&Agent::ipv4AdjStatus_, Paths::adjacencies, MountKind::writer, byCaching, adjSize);
  mountIs(&Agent::ipv6AdjStatus_, Paths::adjacencies6, MountKind::writer, byCaching, adjSize);
  mountIs(&Agent::kernelRouteStatus_, Paths::kernelRoutes, MountKind::writer, Use::lookups,
          hwSize + kernelRouteBuffer());
}

// Everything but the hardware's caching flag, which counts as false when it is missing.
void Agent::requireInputs() const {
  const struct {
    const void* input;
    const char* path;
  } inputs[] = {{hwRouteStatus_.get(), Paths::hwRouteStatus},
                {piVrfIdMap_.get(), Paths::vrfNames},
                {routeCacheConfig_.get(), Paths::config},
                {routeCacheCliConfig_.get(), Paths::cliConfig},
                {nextHopConfig_.get(), Paths::nexthopConfig},
                {nextHopStatus_.get(), Paths::nexthopStatus},
                {vtiStatusDir_.get(), Paths::vtiStatusDir},
                {routeConfig_.get(), Paths::ribRoutes},
                {route6Config_.get(), Paths::rib6Routes},
                {viaConfig_.get(), Paths::ribVias},
                {unprogrammedRouteConfig_.get(), Paths::unprogrammed},
                {ipv4SfeRouteStatus_.get(), Paths::sfeRoutes},
                {ipv4HwRouteStatus_.get(), Paths::hwRoutes},
                {ipv6HwRouteStatus_.get(), Paths::hw6Routes},
                {ipv4AdjStatus_.get(), Paths::adjacencies},
                {ipv6AdjStatus_.get(), Paths::adjacencies6},
                {kernelRouteStatus_.get(), Paths::kernelRoutes}};
  for (const auto& required : inputs) {
    PLATFORM_ASSERT_TEXT(required.input != nullptr, required.path);
  }
}

// --- State machines --------------------------------------------------------------------------------------------------

void Agent::startStateMachines() {
  (*trace_)(9, "void RouteCacheAgent::Agent::startStateMachines()");
  requireInputs();
  if (services().commands != nullptr) cliCallbackWithFormatIs("RouteCacheCli", RouteCache::CommandTexts::type, this);
  vrfIdMapIs();
  vrfCachedRouteIs();
  vrfSmIs();
  stepIs([this] {
    if (vrfSm_ && !vrfSm_->initialized()) return Progress::waits;
    makeRouteStateMachines();
    return Progress::done;
  });
}

void Agent::makeRouteStateMachines() {
  hwRouteCachingEnabled_ = routingHwStatus_ && routingHwStatus_->hwRouteCachingEnabled();
  if (hwRouteCachingEnabled_) {
    swRouteSmIs(ipv4HwRouteStatus_, ipv4SfeRouteStatus_, ipv6HwRouteStatus_);
    hwRouteSmIs();
    kernelRouteSmIs(ipv4SfeRouteStatus_, ipv6HwRouteStatus_);
    fillSfeTable();
  } else {
    swRouteSmIs(nullptr, ipv4HwRouteStatus_, ipv6HwRouteStatus_);
    kernelRouteSmIs(ipv4HwRouteStatus_, ipv6HwRouteStatus_);
    inputsAreReady();
    emptySfeTable();
  }
  stepIs([this] {
    if (services().started) services().started();
    return Progress::done;
  });
}

void Agent::inputsAreReady() {
  inputsReady_ = true;
  const auto startIs = [this](auto Agent::*sm) {
    stepIs([this, sm] {
      if (this->*sm && !(this->*sm)->initialized()) (this->*sm)->handleInitialized();
      return Progress::done;
    });
  };
  startIs(&Agent::swRouteSm_);
  startIs(&Agent::hwRouteSm_);
  startIs(&Agent::kernelRouteSm_);
}

// A predecessor with caching off has published to the hardware's table alone. With caching on a hardware route that the
// SFE does not have is removed: its routes stand in both tables before anybody decides about them. That holds also for
// a life that was cut short in the middle of this.
void Agent::fillSfeTable() {
  if (ipv4HwRouteStatus_->size() == 0) {
    inputsAreReady();
    return;
  }
  sfeTableTask_ = std::make_unique<RouteCache::DeferredTask>(
      *services().scheduler, *trace_, "sfeFillTask", Platform::TaskPriority::processing, [this] { handleSfeFill(); });
  sfeTableTask_->schedule(0);
}

void Agent::handleSfeFill() {
  const auto& hardware = *ipv4HwRouteStatus_;
  std::uint64_t handled = 0;
  auto route = RouteCache::resumeFrom(hardware, std::exchange(sfeFillBookmark_, std::nullopt));
  while (route != hardware.end() && ipv4SfeRouteStatus_->hasRoom() && !sfeFillBookmark_) {
    if (belongsInSfeTable(*route)) ipv4SfeRouteStatus_->routeIs(*route);
    ++route;
    ++handled;
    if (route != hardware.end() && sfeTableTask_->shouldYield()) sfeFillBookmark_ = route->key();
  }
  sfeTableTask_->report(handled, 0);
  if (sfeFillBookmark_) {
    sfeTableTask_->schedule(0);
  } else {
    inputsAreReady();
  }
}

// A route that was withdrawn in the last moment of a predecessor with caching on, or while nobody was there, is missing
// there for good. One whose adjacency has gone leads nowhere: route processing publishes it anew.
bool Agent::belongsInSfeTable(const RouteCache::Ipv4Route& hwRoute) const {
  const auto& key = hwRoute.key();
  if (ipv4SfeRouteStatus_->has(key) || !vrfIdMap_->hwVrfIdToGlobalVrfIdHas(key.vrfId())) return false;
  if (!routeConfig_->has({vrfIdMap_->hwVrfIdToGlobalVrfId(key.vrfId()), key.prefix()})) return false;
  const RouteCache::AdjId adjId = hwRoute.adjId();
  return (!adjId.isAdjacencyV4() || ipv4AdjStatus_->has(adjId)) &&
         (!adjId.isAdjacencyV6() || ipv6AdjStatus_->has(adjId));
}

// With caching off nobody writes the SFE table: what a predecessor left there with caching on goes.
void Agent::emptySfeTable() {
  if (ipv4SfeRouteStatus_->size() == 0) return ipv4SfeRouteStatus_->reconciledIs();
  sfeTableTask_ =
      std::make_unique<RouteCache::DeferredTask>(*services().scheduler, *trace_, "sfeCleanupTask",
                                                 Platform::TaskPriority::background, [this] { handleSfeCleanup(); });
  sfeTableTask_->schedule(0);
}

void Agent::handleSfeCleanup() {
  std::uint64_t handled = 0;
  for (auto route = ipv4SfeRouteStatus_->begin(); route != ipv4SfeRouteStatus_->end();) {
    const auto key = route->key();
    ++route;
    ipv4SfeRouteStatus_->routeDel(key);
    ++handled;
    if (sfeTableTask_->shouldYield()) break;
  }
  sfeTableTask_->report(handled, ipv4SfeRouteStatus_->size());
  if (ipv4SfeRouteStatus_->size() > 0) {
    sfeTableTask_->schedule(0);
  } else {
    ipv4SfeRouteStatus_->reconciledIs();
  }
}

void Agent::reconcileAllTables() {
  ipv4SfeRouteStatus_->reconciledIs();
  ipv4HwRouteStatus_->reconciledIs();
  ipv6HwRouteStatus_->reconciledIs();
  ipv4AdjStatus_->reconciledIs();
  ipv6AdjStatus_->reconciledIs();
  kernelRouteStatus_->reconciledIs();
  unprogrammedRouteConfig_->reconciledIs();
}

void Agent::cliCallbackWithFormatIs(const std::string& name, const std::string& commandType, Agent* agent) {
  cliCallbackWithFormatDel();
  cliCallbackWithFormat_ = std::make_shared<CliCallbackWithFormat>(name, commandType, agent);
  services().commands->commandCallbackWithFormatIs(cliCallbackWithFormat_);
  services().stateDb->localEntityIs(Paths::cliCallback, cliCallbackWithFormat_);
}

void Agent::cliCallbackWithFormatDel() {
  if (!cliCallbackWithFormat_) return;
  services().stateDb->localEntityIs(Paths::cliCallback, nullptr);
  services().commands->commandCallbackWithFormatDel(cliCallbackWithFormat_->commandType());
  cliCallbackWithFormat_.reset();
}

// A command under way would keep a released state machine alive: a second one to write its successor's tables.
void Agent::endCommands() {
  if (!cliCallbackWithFormat_) return;
  services().commands->commandCallbackWithFormatDel(cliCallbackWithFormat_->commandType());
  services().commands->commandCallbackWithFormatIs(cliCallbackWithFormat_);
}

void Agent::vrfIdMapIs() {
  vrfIdMap_ = RouteCache::vrfIdMapFactory("vrfIdMap");
  services().stateDb->localEntityIs(Paths::vrfIdMap, vrfIdMap_);
}

void Agent::vrfIdMapDel() {
  if (!vrfIdMap_) return;
  services().stateDb->localEntityIs(Paths::vrfIdMap, nullptr);
  vrfIdMap_.reset();
}

void Agent::vrfCachedRouteIs() {
  vrfCachedRoute_ = RouteCache::vrfCachedRouteFactory("vrfCachedRoute");
  services().stateDb->localEntityIs(Paths::vrfCachedRoute, vrfCachedRoute_);
}

void Agent::vrfCachedRouteDel() {
  if (!vrfCachedRoute_) return;
  services().stateDb->localEntityIs(Paths::vrfCachedRoute, nullptr);
  vrfCachedRoute_.reset();
}

void Agent::vrfSmIs() {
  vrfSmDel();
  vrfSm_ = RouteCache::VrfSmIs(hwRouteStatus_, piVrfIdMap_, vrfIdMap_, vrfCachedRoute_, *services().tables,
                               *services().scheduler, *services().trace);
  vrfSm_->initializedHandlerIs([this] { startTask_->scheduleWithin(0); });
}

void Agent::swRouteSmIs(std::shared_ptr<const RouteCache::Ipv4RouteStatus> readOnlyIpv4,
                        std::shared_ptr<RouteCache::Ipv4RouteStatus> ipv4,
                        std::shared_ptr<RouteCache::Ipv6RouteStatus> ipv6) {
  swRouteSmDel();
  const bool restart = predecessorLeft();
  swRouteSm_ = RouteCache::SwRouteSmIs(
      {std::move(readOnlyIpv4), std::move(ipv4), ipv4AdjStatus_, std::move(ipv6), ipv6AdjStatus_, routeConfig_,
       route6Config_, unprogrammedRouteConfig_, viaConfig_, vrfIdMap_, nextHopConfig_, nextHopStatus_, vtiStatusDir_},
      *services().scheduler, *services().trace, restart);
  swRouteSm_->initCompleteHandlerIs([this] { reconcileAllTables(); });
  if (inputsReady_) swRouteSm_->handleInitialized();
  services().stateDb->localEntityIs(Paths::swRouteSm, swRouteSm_);
}

void Agent::swRouteSmDel() {
  if (!swRouteSm_) return;
  endCommands();
  services().stateDb->localEntityIs(Paths::swRouteSm, nullptr);
  swRouteSm_.reset();
}

void Agent::hwRouteSmIs() {
  hwRouteSmDel();
  PLATFORM_ASSERT_TEXT(ipv4HwHitBitStatus_, Paths::hwHitBits);
  PLATFORM_ASSERT_TEXT(ipv4SfeHitBitStatus_, Paths::sfeHitBits);
  hwRouteSm_ =
      RouteCache::HwRouteSmIs({ipv4HwRouteStatus_, routeCacheConfig_, routeCacheCliConfig_, ipv4SfeRouteStatus_,
                               ipv4HwHitBitStatus_, ipv4SfeHitBitStatus_, routeCacheCapability_, vrfCachedRoute_,
                               ipv4SfeProgrammedRouteStatus_, ipv4AdjStatus_, ipv6AdjStatus_},
                              *services().scheduler, *services().trace);
  if (inputsReady_) hwRouteSm_->handleInitialized();
  services().stateDb->localEntityIs(Paths::hwRouteSm, hwRouteSm_);
}

void Agent::hwRouteSmDel() {
  if (!hwRouteSm_) return;
  endCommands();
  services().stateDb->localEntityIs(Paths::hwRouteSm, nullptr);
  hwRouteSm_.reset();
}

void Agent::kernelRouteSmIs(std::shared_ptr<const RouteCache::Ipv4RouteStatus> swIpv4,
                            std::shared_ptr<const RouteCache::Ipv6RouteStatus> swIpv6) {
  kernelRouteSmDel();
  kernelRouteSm_ =
      RouteCache::KernelRouteSmIs({std::move(swIpv4), std::move(swIpv6), kernelRouteStatus_, routeCacheCapability_,
                                   vrfIdMap_, vrfCachedRoute_, routeConfig_, route6Config_},
                                  *services().scheduler, *services().trace);
  if (inputsReady_) kernelRouteSm_->handleInitialized();
  services().stateDb->localEntityIs(Paths::kernelRouteSm, kernelRouteSm_);
}

void Agent::kernelRouteSmDel() {
  if (!kernelRouteSm_) return;
  services().stateDb->localEntityIs(Paths::kernelRouteSm, nullptr);
  kernelRouteSm_.reset();
}

// An earlier life, in whichever arrangement, has left something that must be taken over.
bool Agent::predecessorLeft() const {
  const auto requests = nextHopConfig_->vrf(L3::VrfName());
  return ipv4SfeRouteStatus_->size() + ipv4HwRouteStatus_->size() + ipv6HwRouteStatus_->size() +
                 ipv4AdjStatus_->size() + ipv6AdjStatus_->size() + unprogrammedRouteConfig_->size() >
             0 ||
         (requests && !requests->nexthop().empty());
}

void Agent::checkInvariants() const {
  if (swRouteSm_) swRouteSm_->checkInvariants();
  if (hwRouteSm_) hwRouteSm_->checkInvariants();
  if (kernelRouteSm_) kernelRouteSm_->checkInvariants();
}

}  // namespace RouteCacheAgent
