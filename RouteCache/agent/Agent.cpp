#include "RouteCache/agent/Agent.h"

#include <utility>

#include "platform/values/Assert.h"

namespace RouteCacheAgent {

namespace {

// Paths in the state database.
constexpr const char* hwRouteStatusPath = "routing/hardware/route/status";
constexpr const char* routingHwStatusPath = "routing/hardware/status";
constexpr const char* piVrfIdMapPath = "vrf/vrfNameStatus";
constexpr const char* configPath = "routecache/config";
constexpr const char* cliConfigPath = "routecache/cliconfig";
constexpr const char* capabilityPath = "routecache/capability";
constexpr const char* nextHopConfigPath = "l3/nexthop-resolver/config/routeCache";
constexpr const char* nextHopStatusPath = "l3/nexthop-resolver/status/routeCache";
constexpr const char* vtiStatusDirPath = "interface/status/eth/vxlan";

// Paths of shared tables.
constexpr const char* routeConfigPath = "routing/rib/routeConfig/ipv4/staticRouteCacheConfig";
constexpr const char* route6ConfigPath = "routing/rib/routeConfig/ipv6/staticRouteCacheConfig";
constexpr const char* viaConfigPath = "routing/rib/viaConfig/evpn/staticRouteCacheConfig";
constexpr const char* hwHitBitPath = "hardware/routecache/status/ipv4";
constexpr const char* sfeHitBitPath = "sfe/routecache/status/ipv4";
constexpr const char* sfeProgrammedPath = "sfe/routecache/programmed/ipv4";
constexpr const char* unprogrammedPath = "routing/rib/routeConfig/ipv4/unprogrammedStaticRouteCacheConfig";
constexpr const char* sfeRoutePath = "routecache/route/sfe/ipv4";
constexpr const char* hwRoutePath = "routecache/route/hw/ipv4";
constexpr const char* hwRoute6Path = "routecache/route/hw/ipv6";
constexpr const char* adjPath = "routecache/adj/ipv4";
constexpr const char* adj6Path = "routecache/adj/ipv6";
constexpr const char* kernelRoutePath = "routecache/route/kernel";

// Where operators find the agent's own entities.
constexpr const char* swRouteSmPath = "agent/routecache/swRouteSm";
constexpr const char* hwRouteSmPath = "agent/routecache/hwRouteSm";
constexpr const char* kernelRouteSmPath = "agent/routecache/kernelRouteSm";
constexpr const char* vrfIdMapPath = "agent/routecache/vrfIdMap";
constexpr const char* vrfCachedRoutePath = "agent/routecache/vrfCachedRoute";
constexpr const char* cliCallbackWithFormatPath = "agent/routecache/cliCallbackWithFormat";

}  // namespace

extern "C" Platform::AgentBase* agentFactory(const char* name) {
  auto agent = std::make_unique<Agent>(name);
  agent->notificationsActiveIs(true);
  return agent.release();
}

Agent::Agent(std::string name) : AgentBase(std::move(name)) {}

Agent::~Agent() {
  vrfIdMapDel();
  vrfCachedRouteDel();
  cliCallbackWithFormatDel();
  vrfSmDel();
  swRouteSmDel();
  hwRouteSmDel();
  kernelRouteSmDel();
  sfeTableTask_.reset();
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
  mounts->mount(hwRouteStatusPath, "Routing::Hardware::RouteStatus", "r");
  mounts->mount(routingHwStatusPath, "Routing::Hardware::Status", "r");
  mounts->mount(piVrfIdMapPath, "Vrf::VrfIdMap::NameToIdMapWrapper", "r");
  mounts->mount(configPath, "RouteCache::Config", "w");
  mounts->mount(cliConfigPath, "RouteCache::CliConfig", "r");
  mounts->mount(capabilityPath, "RouteCache::Capability", "r");
  mounts->mount(nextHopConfigPath, "Routing::NexthopConfig", "wS");
  mounts->mount(nextHopStatusPath, "Routing::NexthopStatus", "rS");
  mounts->mount(vtiStatusDirPath, "Vxlan::VtiStatusDir", "r");
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
  hwRouteStatus_ = em->get<Routing::Hardware::RouteStatus>(hwRouteStatusPath);
  routingHwStatus_ = em->get<Routing::Hardware::Status>(routingHwStatusPath);
  piVrfIdMap_ = em->get<Vrf::VrfIdMap::NameToIdMapWrapper>(piVrfIdMapPath);
  routeCacheConfig_ = em->get<RouteCache::Config>(configPath);
  routeCacheCliConfig_ = em->get<RouteCache::CliConfig>(cliConfigPath);
  routeCacheCapability_ = em->get<RouteCache::Capability>(capabilityPath);
  nextHopConfig_ = em->get<Routing::NexthopConfig>(nextHopConfigPath);
  nextHopStatus_ = em->get<Routing::NexthopStatus>(nextHopStatusPath);
  vtiStatusDir_ = em->get<Vxlan::VtiStatusDir>(vtiStatusDirPath);
  mountTables();
  startStateMachines();
}

// Mounts the table and fetches it by its path; a table of another type leaves the attribute empty. Writers have a
// capacity.
template <class T>
std::shared_ptr<T> Agent::mounted(const char* path, Pondra::MountKind kind, std::uint32_t capacity) {
  std::optional<Pondra::CollectionInfo> info;
  if (kind == Pondra::MountKind::writer) info = Pondra::CollectionInfo{T::collectionName, capacity};
  services().tables->mount(path, T::typeName, kind, info);
  return services().tables->template get<T>(path);
}

void Agent::mountTables() {
  using Pondra::MountKind;
  PLATFORM_ASSERT_TEXT(routeCacheCapability_, "routecache/capability holds a RouteCache::Capability");
  const std::uint32_t hwSize = routeCacheCapability_->hwRouteTableSize();
  const std::uint32_t sfeSize = routeCacheCapability_->sfeRouteTableSize();
  const std::uint32_t adjSize = routeCacheCapability_->adjacencyTableSize();

  routeConfig_ = mounted<Routing::Rib::RouteConfig>(routeConfigPath, MountKind::reader);
  route6Config_ = mounted<Routing::Rib::RouteConfig>(route6ConfigPath, MountKind::reader);
  viaConfig_ = mounted<Routing::Rib::RouteCache::Evpn::ViaConfig>(viaConfigPath, MountKind::keyedReader);
  ipv4HwHitBitStatus_ = mounted<RouteCache::Ipv4HitBitStatus>(hwHitBitPath, MountKind::reader);
  ipv4SfeHitBitStatus_ = mounted<RouteCache::Ipv4HitBitStatus>(sfeHitBitPath, MountKind::reader);
  ipv4SfeProgrammedRouteStatus_ = mounted<RouteCache::Ipv4ProgrammedRouteStatus>(sfeProgrammedPath, MountKind::reader);
  unprogrammedRouteConfig_ =
      mounted<Routing::Rib::RouteConfig>(unprogrammedPath, MountKind::writer, unprogrammedRouteTableSize());
  ipv4SfeRouteStatus_ = mounted<RouteCache::Ipv4RouteStatus>(sfeRoutePath, MountKind::writer, sfeSize);
  ipv4HwRouteStatus_ = mounted<RouteCache::Ipv4RouteStatus>(hwRoutePath, MountKind::writer, hwSize);
  ipv6HwRouteStatus_ = mounted<RouteCache::Ipv6RouteStatus>(hwRoute6Path, MountKind::writer, hwSize);
  ipv4AdjStatus_ = mounted<RouteCache::Ipv4AdjacencyStatus>(adjPath, MountKind::writer, adjSize);
  ipv6AdjStatus_ = mounted<RouteCache::Ipv6AdjacencyStatus>(adj6Path, MountKind::writer, adjSize);
  kernelRouteStatus_ =
      mounted<Routing::Rib::RouteConfig>(kernelRoutePath, MountKind::writer, hwSize + kernelRouteBuffer());
}

// Everything but the hardware's caching flag, which counts as false when it is missing.
void Agent::requireInputs() const {
  const struct {
    const void* input;
    const char* path;
  } inputs[] = {{hwRouteStatus_.get(), hwRouteStatusPath},
                {piVrfIdMap_.get(), piVrfIdMapPath},
                {routeCacheConfig_.get(), configPath},
                {routeCacheCliConfig_.get(), cliConfigPath},
                {nextHopConfig_.get(), nextHopConfigPath},
                {nextHopStatus_.get(), nextHopStatusPath},
                {vtiStatusDir_.get(), vtiStatusDirPath},
                {routeConfig_.get(), routeConfigPath},
                {route6Config_.get(), route6ConfigPath},
                {viaConfig_.get(), viaConfigPath},
                {unprogrammedRouteConfig_.get(), unprogrammedPath},
                {ipv4SfeRouteStatus_.get(), sfeRoutePath},
                {ipv4HwRouteStatus_.get(), hwRoutePath},
                {ipv6HwRouteStatus_.get(), hwRoute6Path},
                {ipv4AdjStatus_.get(), adjPath},
                {ipv6AdjStatus_.get(), adj6Path},
                {kernelRouteStatus_.get(), kernelRoutePath}};
  for (const auto& required : inputs) {
    PLATFORM_ASSERT_TEXT(required.input != nullptr, required.path);
  }
}

// --- State machines --------------------------------------------------------------------------------------------------

void Agent::startStateMachines() {
  (*trace_)(9, "void RouteCacheAgent::Agent::startStateMachines()");
  requireInputs();
  if (services().commands != nullptr) cliCallbackWithFormatIs("RouteCacheCli", "RouteCacheWithFormat", this);
  vrfIdMapIs();
  vrfCachedRouteIs();
  vrfSmIs();
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
}

void Agent::inputsAreReady() {
  inputsReady_ = true;
  if (swRouteSm_) swRouteSm_->handleInitialized();
  if (hwRouteSm_) hwRouteSm_->handleInitialized();
  if (kernelRouteSm_) kernelRouteSm_->handleInitialized();
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
  if (ipv4SfeRouteStatus_->size() == 0) return;
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
  if (ipv4SfeRouteStatus_->size() > 0) sfeTableTask_->schedule(0);
}

void Agent::cliCallbackWithFormatIs(const std::string& name, const std::string& commandType, Agent* agent) {
  cliCallbackWithFormatDel();
  cliCallbackWithFormat_ = std::make_shared<CliCallbackWithFormat>(name, commandType, agent);
  services().commands->commandCallbackWithFormatIs(cliCallbackWithFormat_);
  services().localEntityIs(cliCallbackWithFormatPath, cliCallbackWithFormat_);
}

void Agent::cliCallbackWithFormatDel() {
  if (!cliCallbackWithFormat_) return;
  services().localEntityIs(cliCallbackWithFormatPath, nullptr);
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
  services().localEntityIs(vrfIdMapPath, vrfIdMap_);
}

void Agent::vrfIdMapDel() {
  if (!vrfIdMap_) return;
  services().localEntityIs(vrfIdMapPath, nullptr);
  vrfIdMap_.reset();
}

void Agent::vrfCachedRouteIs() {
  vrfCachedRoute_ = RouteCache::vrfCachedRouteFactory("vrfCachedRoute");
  services().localEntityIs(vrfCachedRoutePath, vrfCachedRoute_);
}

void Agent::vrfCachedRouteDel() {
  if (!vrfCachedRoute_) return;
  services().localEntityIs(vrfCachedRoutePath, nullptr);
  vrfCachedRoute_.reset();
}

void Agent::vrfSmIs() {
  vrfSmDel();
  vrfSm_ = RouteCache::VrfSmIs(hwRouteStatus_, piVrfIdMap_, vrfIdMap_, vrfCachedRoute_, *services().tables,
                               *services().scheduler, *services().trace);
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
  if (inputsReady_) swRouteSm_->handleInitialized();
  services().localEntityIs(swRouteSmPath, swRouteSm_);
}

void Agent::swRouteSmDel() {
  if (!swRouteSm_) return;
  endCommands();
  services().localEntityIs(swRouteSmPath, nullptr);
  swRouteSm_.reset();
}

void Agent::hwRouteSmIs() {
  hwRouteSmDel();
  PLATFORM_ASSERT_TEXT(ipv4HwHitBitStatus_, hwHitBitPath);
  PLATFORM_ASSERT_TEXT(ipv4SfeHitBitStatus_, sfeHitBitPath);
  hwRouteSm_ =
      RouteCache::HwRouteSmIs({ipv4HwRouteStatus_, routeCacheConfig_, routeCacheCliConfig_, ipv4SfeRouteStatus_,
                               ipv4HwHitBitStatus_, ipv4SfeHitBitStatus_, routeCacheCapability_, vrfCachedRoute_,
                               ipv4SfeProgrammedRouteStatus_, ipv4AdjStatus_, ipv6AdjStatus_},
                              *services().scheduler, *services().trace);
  if (inputsReady_) hwRouteSm_->handleInitialized();
  services().localEntityIs(hwRouteSmPath, hwRouteSm_);
}

void Agent::hwRouteSmDel() {
  if (!hwRouteSm_) return;
  endCommands();
  services().localEntityIs(hwRouteSmPath, nullptr);
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
  services().localEntityIs(kernelRouteSmPath, kernelRouteSm_);
}

void Agent::kernelRouteSmDel() {
  if (!kernelRouteSm_) return;
  services().localEntityIs(kernelRouteSmPath, nullptr);
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
