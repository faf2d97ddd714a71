#include "test/support/SimulatedSwitch.h"

#include <algorithm>

#include "lib/statedb/EmbeddedStateDb.h"
#include "lib/statedb/PlatformTypes.h"
#include "platform/values/Paths.h"

using Routing::Rib::RouteConfig;
using Routing::Rib::RouteKey;
using Routing::Rib::RouteCache::Evpn::Via;
using Routing::Rib::RouteCache::Evpn::ViaConfig;

SimulatedSwitch::SimulatedSwitch(int traceLevel) : trace(traceLevel) {
  LinuxPlatform::addPlatformTypes(entityTypes, tableTypes);
  RouteCacheAgent::Agent("types").registerTypes(entityTypes, tableTypes, trace.vocabulary());
  stateDb = std::make_unique<LinuxPlatform::EmbeddedStateDb>(entityTypes, scheduler);
  outside = std::make_unique<LinuxPlatform::SharedTableService>(directory.path(), tableTypes);
  routes_ = outsideWriter<RouteConfig>("routing/rib/routeConfig/ipv4/staticRouteCacheConfig");
  routes6_ = outsideWriter<RouteConfig>("routing/rib/routeConfig/ipv6/staticRouteCacheConfig");
  vias_ = outsideWriter<ViaConfig>("routing/rib/viaConfig/evpn/staticRouteCacheConfig");
  resolverBack();
  capability(10000, 10000, 10000);
  scheduler.afterRunIs([this] { afterRun(); });
}

SimulatedSwitch::~SimulatedSwitch() {
  stop();
}

// Mounting again is cheap and gives the same table.
template <class T>
std::shared_ptr<T> SimulatedSwitch::outsideWriter(const std::string& path) const {
  outside->mount(path, T::typeName, Pondra::MountKind::writer, Pondra::CollectionInfo{T::collectionName, 100000});
  return outside->get<T>(path);
}

double SimulatedSwitch::longestBackgroundWait() const {
  double longest = 0;
  for (const auto& task : scheduler.statistics()) {
    if (task.priority == Platform::TaskPriority::background) longest = std::max(longest, task.longestWait);
  }
  return longest;
}

void SimulatedSwitch::afterRun() {
  deliver();
  limitIdentifiers();
  if (agent_ && checkEveryRun_) agent_->checkInvariants();
}

void SimulatedSwitch::deliver() {
  if (!agentTables || !started_) return;
  agentTables->pendingChanges();
  agentTables->deliverChanges([] { return false; });
}

// Once the agent has filled its free list, and before it takes the first.
void SimulatedSwitch::limitIdentifiers() {
  if (identifiers_ == 0 || identifiersLimited_ || !agent_ || !agent_->swRouteSm()) return;
  if (!sm().enableRouteProcessing()) return;
  identifiersLimited_ = true;
  sm().freeAdjIdDelAll();
  for (std::uint32_t number = 1; number <= identifiers_; ++number) {
    if (!sm().adjIds().numberInUse(RouteCache::AdjId(number))) sm().freeAdjIdEnq(RouteCache::AdjId(number));
  }
}

std::uint64_t SimulatedSwitch::workDone(const std::string& task) const {
  std::uint64_t work = 0;
  for (const auto& statistics : scheduler.statistics()) {
    if (statistics.name == task) work += statistics.workDone;
  }
  return work;
}

// --- Configuration ---------------------------------------------------------------------------------------------------

void SimulatedSwitch::capability(std::uint32_t hwRoutes, std::uint32_t sfeRoutes, std::uint32_t adjacencies) {
  const auto capability = entity<RouteCache::Capability>("routecache/capability", "RouteCache::Capability");
  capability->hwRouteTableSizeIs(hwRoutes);
  capability->sfeRouteTableSizeIs(sfeRoutes);
  capability->adjacencyTableSizeIs(adjacencies);
}

void SimulatedSwitch::hwRouteCaching(bool enabled) {
  entity<Routing::Hardware::Status>("routing/hardware/status", "Routing::Hardware::Status")
      ->hwRouteCachingEnabledIs(enabled);
}

void SimulatedSwitch::vrf(const std::string& name, std::uint32_t piVrfId, std::uint32_t hwVrfId) {
  piVrf(name, piVrfId);
  hwVrf(name, hwVrfId);
}

void SimulatedSwitch::vrfGone(const std::string& name) {
  hwVrfGone(name);
  piVrfGone(name);
}

void SimulatedSwitch::piVrf(const std::string& name, std::uint32_t piVrfId) {
  entity<Vrf::VrfIdMap::NameToIdMap>("vrf/vrfNameStatus", "Vrf::VrfIdMap::NameToIdMapWrapper")
      ->nameToIdIs(name, piVrfId);
}

void SimulatedSwitch::piVrfGone(const std::string& name) {
  entity<Vrf::VrfIdMap::NameToIdMap>("vrf/vrfNameStatus", "Vrf::VrfIdMap::NameToIdMapWrapper")->nameToIdDel(name);
}

void SimulatedSwitch::hwVrf(const std::string& name, std::uint32_t hwVrfId) {
  entity<Routing::Hardware::RouteStatus>("routing/hardware/route/status", "Routing::Hardware::RouteStatus")
      ->vrfStatusIs(name)
      ->hwVrfIdIs(hwVrfId);
}

void SimulatedSwitch::hwVrfGone(const std::string& name) {
  entity<Routing::Hardware::RouteStatus>("routing/hardware/route/status", "Routing::Hardware::RouteStatus")
      ->vrfStatusDel(name);
}

void SimulatedSwitch::vti(const std::string& name, const std::string& ipv4, const std::string& ipv6) {
  const auto vti =
      entity<Vxlan::VtiStatusDir>("interface/status/eth/vxlan", "Vxlan::VtiStatusDir")->vtiStatusIs(IntfId(name));
  vti->ipv4AddrIs(ipv4.empty() ? IpAddr() : Platform::fromText<IpAddr>(ipv4));
  vti->ipv6AddrIs(ipv6.empty() ? Ip6Addr() : Platform::fromText<Ip6Addr>(ipv6));
  vti->operStatusIs(Vxlan::OperStatus::up);
}

void SimulatedSwitch::vtiDown(const std::string& name) {
  entity<Vxlan::VtiStatusDir>("interface/status/eth/vxlan", "Vxlan::VtiStatusDir")
      ->vtiStatusIs(IntfId(name))
      ->operStatusIs(Vxlan::OperStatus::down);
}

void SimulatedSwitch::vtiGone(const std::string& name) {
  entity<Vxlan::VtiStatusDir>("interface/status/eth/vxlan", "Vxlan::VtiStatusDir")->vtiStatusDel(IntfId(name));
}

void SimulatedSwitch::vlan(const std::string& vti, Bridging::ExtendedVlanId vlan, std::uint32_t vni) {
  entity<Vxlan::VtiStatusDir>("interface/status/eth/vxlan", "Vxlan::VtiStatusDir")
      ->vtiStatusIs(IntfId(vti))
      ->extendedVlanToVniMapIs(vlan, Vxlan::Vni(vni));
}

void SimulatedSwitch::vlanGone(const std::string& vti, Bridging::ExtendedVlanId vlan) {
  entity<Vxlan::VtiStatusDir>("interface/status/eth/vxlan", "Vxlan::VtiStatusDir")
      ->vtiStatusIs(IntfId(vti))
      ->extendedVlanToVniMapDel(vlan);
}

void SimulatedSwitch::underlay(const std::string& prefix, std::uint32_t fec) {
  entity<Routing::UnderlayRouteConfig>(Paths::underlayRoutes, "Routing::UnderlayRouteConfig")
      ->routeIs(Platform::fromText<IpGenPrefix>(prefix), Fib::FecId(fec));
}

void SimulatedSwitch::underlayGone(const std::string& prefix) {
  entity<Routing::UnderlayRouteConfig>(Paths::underlayRoutes, "Routing::UnderlayRouteConfig")
      ->routeDel(Platform::fromText<IpGenPrefix>(prefix));
}

void SimulatedSwitch::resolverGone() {
  resolver_.reset();
  entity<Routing::NexthopStatus>(Paths::nexthopStatus, "Routing::NexthopStatus")->vrfDel(L3::VrfName());
}

void SimulatedSwitch::resolverBack() {
  resolver_ = std::make_unique<LinuxPlatform::UnderlayResolver>(
      entity<Routing::NexthopConfig>(Paths::nexthopConfig, "Routing::NexthopConfig"),
      entity<Routing::NexthopStatus>(Paths::nexthopStatus, "Routing::NexthopStatus"),
      entity<Routing::UnderlayRouteConfig>(Paths::underlayRoutes, "Routing::UnderlayRouteConfig"), scheduler);
}

SimulatedSwitch::ViaNexthop SimulatedSwitch::nexthop(const std::string& vtep, const std::string& vti, std::uint32_t vni,
                                                     Bridging::ExtendedVlanId vlan, const std::string& mac) {
  ViaNexthop nexthop;
  nexthop.remoteVtep = Platform::fromText<IpGenAddr>(vtep);
  nexthop.vti = IntfId(vti);
  nexthop.extendedVlanId = vlan;
  if (vni != 0) nexthop.vni = Vxlan::Vni(vni);
  nexthop.routerMac = Platform::fromText<EthAddr>(mac);
  return nexthop;
}

void SimulatedSwitch::via(std::uint64_t key, const std::vector<ViaNexthop>& nexthops) {
  vias_->viaIs(Via(key, nexthops));
}

void SimulatedSwitch::viaGone(std::uint64_t key) {
  vias_->viaDel(key);
}

void SimulatedSwitch::route(const std::string& prefix, std::uint32_t piVrfId, std::uint64_t viaKey) {
  const RouteKey key(piVrfId, Platform::fromText<IpGenPrefix>(prefix));
  (key.prefix().isV4() ? routes_ : routes6_)->routeIs(Routing::Rib::Route(key, viaKey));
}

void SimulatedSwitch::misplacedRoute(const std::string& prefix, std::uint32_t piVrfId) {
  const RouteKey key(piVrfId, Platform::fromText<IpGenPrefix>(prefix));
  (key.prefix().isV4() ? routes6_ : routes_)->routeIs(Routing::Rib::Route(key));
}

void SimulatedSwitch::routeGone(const std::string& prefix, std::uint32_t piVrfId) {
  const RouteKey key(piVrfId, Platform::fromText<IpGenPrefix>(prefix));
  (key.prefix().isV4() ? routes_ : routes6_)->routeDel(key);
}

void SimulatedSwitch::hwRoute(const std::string& prefix, std::uint32_t hwVrfId, RouteCache::AdjId adjId, bool inHw) {
  agent().ipv4HwRouteStatus()->routeIs({{Platform::fromText<Prefix>(prefix), hwVrfId}, adjId, inHw});
}

// --- Reports of other processes --------------------------------------------------------------------------------------

namespace {

RouteCache::Ipv4RouteVrfKey keyOf(const std::string& prefix, std::uint32_t hwVrfId) {
  return {Platform::fromText<Prefix>(prefix), hwVrfId};
}

std::string fibPath(const std::string& vrf) {
  return vrf == "default" ? "routing/status" : "routing/vrf/status/" + vrf;
}

void report(RouteCache::Ipv4HitBitStatus& table, const RouteCache::Ipv4RouteVrfKey& key, int value) {
  if (value < 0) {
    table.routeHitBitDel(key);
  } else {
    table.routeHitBitIs({key, static_cast<std::uint32_t>(value)});
  }
}

}  // namespace

void SimulatedSwitch::cachedPrefix(const std::string& prefix, const std::string& vrf, std::uint8_t fibRouteType) {
  outsideWriter<Pondra::Fib::RouteStatus>(fibPath(vrf))
      ->routeIs({Platform::fromText<Prefix>(prefix), Pondra::Fib::RouteType{fibRouteType}});
}

void SimulatedSwitch::cachedPrefixGone(const std::string& prefix, const std::string& vrf) {
  outsideWriter<Pondra::Fib::RouteStatus>(fibPath(vrf))->routeDel(Platform::fromText<Prefix>(prefix));
}

void SimulatedSwitch::hwHit(const std::string& prefix, std::uint32_t hwVrfId, int value) {
  report(*outsideWriter<RouteCache::Ipv4HitBitStatus>("hardware/routecache/status/ipv4"), keyOf(prefix, hwVrfId),
         value);
}

void SimulatedSwitch::sfeHit(const std::string& prefix, std::uint32_t hwVrfId, int value) {
  report(*outsideWriter<RouteCache::Ipv4HitBitStatus>("sfe/routecache/status/ipv4"), keyOf(prefix, hwVrfId), value);
}

void SimulatedSwitch::sfeProgrammed(const std::string& prefix, std::uint32_t hwVrfId, bool programmed) {
  const auto table = outsideWriter<RouteCache::Ipv4ProgrammedRouteStatus>("sfe/routecache/programmed/ipv4");
  if (programmed) {
    table->routeIs(RouteCache::Ipv4ProgrammedRoute(keyOf(prefix, hwVrfId)));
  } else {
    table->routeDel(keyOf(prefix, hwVrfId));
  }
}

// --- The agent -------------------------------------------------------------------------------------------------------

void SimulatedSwitch::start(std::uint64_t writesToLive) {
  agentTables = std::make_unique<LinuxPlatform::SharedTableService>(directory.path(), tableTypes);
  if (writesToLive != 0) mortalTables_ = std::make_unique<MortalTables>(*agentTables, tableTypes, writesToLive);
  agent_.reset(static_cast<RouteCacheAgent::Agent*>(RouteCacheAgent::agentFactory("RouteCache")));
  Platform::AgentServices services;
  services.stateDb = stateDb.get();
  services.tables = mortalTables_ ? static_cast<Pondra::TableService*>(mortalTables_.get()) : agentTables.get();
  services.scheduler = &scheduler;
  services.trace = &trace;
  services.commands = &commands;
  services.clock = clock;
  services.environment = [this](const char* name) -> const char* {
    const auto found = environment.find(name);
    return found == environment.end() ? nullptr : found->second.c_str();
  };
  services.started = [this] { started_ = true; };
  agent_->servicesIs(services);
  if (recordCapacity_ != 0) agent_->unprogrammedRouteTableSizeIs(recordCapacity_);
  identifiersLimited_ = false;
  agent_->doInit();
}

void SimulatedSwitch::stop() {
  agent_.reset();
  mortalTables_.reset();
  agentTables.reset();
  started_ = false;
}

void SimulatedSwitch::advance(double seconds) {
  scheduler.advance(seconds);
}

// --- What others see -------------------------------------------------------------------------------------------------

namespace {

template <class Via>
void describe(const Via& via, std::string& text) {
  for (const auto& slot : via.viaKey()) {
    if (!text.empty()) text += ", ";
    text += Platform::toText(slot.remoteVtepIp()) + " " + Platform::toText(slot.vti()) + " vlan " +
            std::to_string(slot.extendedVlanId()) + " fec " + std::to_string(slot.underlayFecId().value());
  }
}

}  // namespace

std::map<std::string, std::string> SimulatedSwitch::published() const {
  std::map<std::string, std::string> routes;
  const bool caching = entity<Routing::Hardware::Status>("routing/hardware/status", "Routing::Hardware::Status")
                           ->hwRouteCachingEnabled();
  const auto ipv4 =
      reader<RouteCache::Ipv4RouteStatus>(caching ? "routecache/route/sfe/ipv4" : "routecache/route/hw/ipv4");
  const auto ipv6 = reader<RouteCache::Ipv6RouteStatus>("routecache/route/hw/ipv6");
  const auto adj4 = reader<RouteCache::Ipv4AdjacencyStatus>("routecache/adj/ipv4");
  const auto adj6 = reader<RouteCache::Ipv6AdjacencyStatus>("routecache/adj/ipv6");
  outside->pendingChanges();
  outside->deliverChanges([] { return false; });
  const auto add = [&](const auto& route) {
    std::string text;
    if (const auto via = adj4->adj(route.adjId())) describe(*via, text);
    if (const auto via = adj6->adj(route.adjId())) describe(*via, text);
    routes[route.key().shortText()] = text.empty() ? "no adjacency" : text;
  };
  for (const auto& route : *ipv4) add(route);
  for (const auto& route : *ipv6) add(route);
  return routes;
}

std::set<std::string> SimulatedSwitch::publishedKeys() const {
  std::set<std::string> keys;
  for (const auto& route : published()) keys.insert(route.first);
  return keys;
}

std::set<std::string> SimulatedSwitch::unprogrammed() const {
  std::set<std::string> keys;
  const auto table = reader<RouteConfig>("routing/rib/routeConfig/ipv4/unprogrammedStaticRouteCacheConfig");
  outside->pendingChanges();
  outside->deliverChanges([] { return false; });
  for (const auto& route : *table) keys.insert(Platform::toText(route.key()));
  return keys;
}

std::set<std::string> SimulatedSwitch::requests() const {
  std::set<std::string> addresses;
  const auto config = entity<Routing::NexthopConfig>(Paths::nexthopConfig, "Routing::NexthopConfig");
  if (const auto vrf = config->vrf(L3::VrfName())) {
    for (const auto& request : vrf->nexthop()) addresses.insert(Platform::toText(request.first));
  }
  return addresses;
}

std::map<std::string, bool> SimulatedSwitch::hardware() const {
  std::map<std::string, bool> routes;
  for (const auto& route : *reader<RouteCache::Ipv4RouteStatus>("routecache/route/hw/ipv4")) {
    routes[route.key().shortText()] = route.inHw();
  }
  return routes;
}

std::vector<std::uint32_t> SimulatedSwitch::adjacencyIds() const {
  std::set<std::uint32_t> ids;
  for (const auto& via : *reader<RouteCache::Ipv4AdjacencyStatus>("routecache/adj/ipv4")) ids.insert(via.key().value());
  for (const auto& via : *reader<RouteCache::Ipv6AdjacencyStatus>("routecache/adj/ipv6")) ids.insert(via.key().value());
  return {ids.begin(), ids.end()};
}

std::uint32_t SimulatedSwitch::adjIdOf(const std::string& prefix, std::uint32_t hwVrfId) const {
  const auto generic = Platform::fromText<IpGenPrefix>(prefix);
  if (generic.isV4()) {
    const auto route = reader<RouteCache::Ipv4RouteStatus>("routecache/route/hw/ipv4")->route({generic.v4(), hwVrfId});
    return route ? route->adjId().value() : 0;
  }
  const auto route = reader<RouteCache::Ipv6RouteStatus>("routecache/route/hw/ipv6")->route({generic.v6(), hwVrfId});
  return route ? route->adjId().value() : 0;
}
