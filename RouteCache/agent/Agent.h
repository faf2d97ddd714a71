// The agent: start-up, the mounts of every input and output, and the state machines over them.
//
// created (agentFactory) -> doInit: tracing, state-database mounts -> doMountsComplete -> the start's task: shared
// tables, one after the other, then the state machines, which start as soon as the tables are as they take them over.
// There is no way back but destruction.
//
// The start has so much to do that its task does it step by step, a time slice at a time. It goes before the tasks that
// decide routes; what happens between two of its runs finds what has been made by then.
#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "RouteCache/agent/CliCallbackWithFormat.h"
#include "RouteCache/hw/HwRouteSm.h"
#include "RouteCache/kernel/KernelRouteSm.h"
#include "RouteCache/model/Capability.h"
#include "RouteCache/model/CliConfig.h"
#include "RouteCache/model/Config.h"
#include "RouteCache/model/StatusTables.h"
#include "RouteCache/model/VrfCachedRoute.h"
#include "RouteCache/model/VrfIdMap.h"
#include "RouteCache/sw/SwRouteSm.h"
#include "RouteCache/vrf/VrfSm.h"
#include "platform/services/AgentBase.h"
#include "platform/state/Hardware.h"
#include "platform/state/Nexthop.h"
#include "platform/state/Vrf.h"
#include "platform/state/Vxlan.h"
#include "platform/tables/Rib.h"

namespace RouteCacheAgent {

class Agent final : public Platform::AgentBase {
 public:
  explicit Agent(std::string name);
  // Releases the local entities and state machines first, then what is mounted.
  ~Agent() override;

  void registerTypes(Lattis::EntityTypes& entities, Platform::TableTypes& tables,
                     Platform::TraceVocabulary& vocabulary) override;
  void doInit() override;
  // Aborts when the mounts failed or an input that the state machines cannot do without is missing.
  void doMountsComplete(Lattis::MountStatus status, const std::shared_ptr<Lattis::EntityManager>& em) override;
  // Begins to; its task ends it.
  void startStateMachines();
  void checkInvariants() const override;

  // What is mounted; null before that, and for a path that holds another type.
  const auto& routingHwStatus() const { return routingHwStatus_; }
  const auto& hwRouteStatus() const { return hwRouteStatus_; }
  const auto& piVrfIdMap() const { return piVrfIdMap_; }
  const auto& routeCacheConfig() const { return routeCacheConfig_; }
  const auto& routeCacheCliConfig() const { return routeCacheCliConfig_; }
  const auto& routeCacheCapability() const { return routeCacheCapability_; }
  const auto& nextHopConfig() const { return nextHopConfig_; }
  const auto& nextHopStatus() const { return nextHopStatus_; }
  const auto& vtiStatusDir() const { return vtiStatusDir_; }
  const auto& routeConfig() const { return routeConfig_; }
  const auto& route6Config() const { return route6Config_; }
  const auto& viaConfig() const { return viaConfig_; }
  const auto& unprogrammedRouteConfig() const { return unprogrammedRouteConfig_; }
  const auto& ipv4HwHitBitStatus() const { return ipv4HwHitBitStatus_; }
  const auto& ipv4SfeHitBitStatus() const { return ipv4SfeHitBitStatus_; }
  const auto& ipv4SfeProgrammedRouteStatus() const { return ipv4SfeProgrammedRouteStatus_; }
  const auto& ipv4SfeRouteStatus() const { return ipv4SfeRouteStatus_; }
  const auto& ipv4HwRouteStatus() const { return ipv4HwRouteStatus_; }
  const auto& ipv6HwRouteStatus() const { return ipv6HwRouteStatus_; }
  const auto& ipv4AdjStatus() const { return ipv4AdjStatus_; }
  const auto& ipv6AdjStatus() const { return ipv6AdjStatus_; }
  const auto& kernelRouteStatus() const { return kernelRouteStatus_; }
  // The same tables under the names of their use: what software route processing writes.
  const auto& ipv4RouteStatus() const { return hwRouteCachingEnabled() ? ipv4SfeRouteStatus_ : ipv4HwRouteStatus_; }
  const auto& ipv6RouteStatus() const { return ipv6HwRouteStatus_; }
  const auto& swIpv4RouteStatus() const { return ipv4RouteStatus(); }
  const auto& swIpv6RouteStatus() const { return ipv6RouteStatus(); }
  // As the hardware's status had it when the state machines were started; false when there is none.
  bool hwRouteCachingEnabled() const { return hwRouteCachingEnabled_; }

  // What commands are given.
  const std::shared_ptr<const Platform::Clock>& clock() const { return services().clock; }
  Platform::TraceFacility& traceFacility() const { return *services().trace; }

  // Capacities, in entries: of the record of unprogrammed routes, and of the kernel route table over the hardware's.
  // What is set counts for the mounts to come.
  std::uint32_t unprogrammedRouteTableSize() const { return unprogrammedRouteTableSize_; }
  void unprogrammedRouteTableSizeIs(std::uint32_t entries) { unprogrammedRouteTableSize_ = entries; }
  std::uint32_t kernelRouteBuffer() const { return RouteCache::Capability::kernelRouteBuffer; }

  // What the agent makes. ...Is makes one, replacing any there is; ...Del releases it.
  const auto& vrfIdMap() const { return vrfIdMap_; }
  void vrfIdMapIs();
  void vrfIdMapDel();
  const auto& vrfCachedRoute() const { return vrfCachedRoute_; }
  void vrfCachedRouteIs();
  void vrfCachedRouteDel();
  // Registered for its commands while it is there; its Del ends those under way.
  const auto& cliCallbackWithFormat() const { return cliCallbackWithFormat_; }
  void cliCallbackWithFormatIs(const std::string& name, const std::string& commandType, Agent* agent);
  void cliCallbackWithFormatDel();
  const auto& vrfSm() const { return vrfSm_; }
  void vrfSmIs();
  void vrfSmDel() { vrfSm_.reset(); }
  const auto& swRouteSm() const { return swRouteSm_; }
  void swRouteSmIs(std::shared_ptr<const RouteCache::Ipv4RouteStatus> readOnlyIpv4,
                   std::shared_ptr<RouteCache::Ipv4RouteStatus> ipv4,
                   std::shared_ptr<RouteCache::Ipv6RouteStatus> ipv6);
  void swRouteSmDel();
  // Null with hardware route caching off. Its Del and that of swRouteSm end the commands under way, which hold them.
  const auto& hwRouteSm() const { return hwRouteSm_; }
  void hwRouteSmIs();
  void hwRouteSmDel();
  const auto& kernelRouteSm() const { return kernelRouteSm_; }
  // From the published routes of both families.
  void kernelRouteSmIs(std::shared_ptr<const RouteCache::Ipv4RouteStatus> swIpv4,
                       std::shared_ptr<const RouteCache::Ipv6RouteStatus> swIpv6);
  void kernelRouteSmDel();

 private:
  // A step of the start, a run of its task each: done; to be called again; the same, by whom it waits for.
  enum class Progress : std::uint8_t { done, more, waits };
  struct Step {
    std::function<Progress()> take;
  };
  enum class Use : std::uint8_t { lookups, followed };  // by reactors, too

  void traceFileIs();
  void stepIs(std::function<Progress()> step);
  void handleStart();
  void mountTables();
  template <class T>
  void mountIs(std::shared_ptr<T> Agent::*table, const char* path, Pondra::MountKind kind, Use use,
               std::uint32_t capacity = 0);
  void makeRouteStateMachines();
  void requireInputs() const;
  void endCommands();
  bool predecessorLeft() const;
  // What a predecessor of the other arrangement has left in the IPv4 tables. While one of the two has work to do, its
  // task does it a time slice at a time.
  void fillSfeTable();
  void handleSfeFill();
  bool belongsInSfeTable(const RouteCache::Ipv4Route& hwRoute) const;
  void emptySfeTable();
  void handleSfeCleanup();
  // The tables' writers mark what they write when they have brought it in line. This marks what is not marked yet.
  void reconcileAllTables();
  // The state machines that are there start, one step each, and those made from now on start at once.
  void inputsAreReady();

  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);  // goes with the agent: late completions ask
  std::unique_ptr<Platform::TraceHandle> trace_;
  std::shared_ptr<Lattis::EntityManager> entityManager_;
  bool hwRouteCachingEnabled_ = false;
  bool inputsReady_ = false;
  std::deque<Step> steps_;  // that the start still has to take

  // Declared so that members release in the right order: last declared, first released.
  std::shared_ptr<Routing::Rib::RouteConfig> kernelRouteStatus_;
  std::shared_ptr<RouteCache::Ipv6AdjacencyStatus> ipv6AdjStatus_;
  std::shared_ptr<RouteCache::Ipv4AdjacencyStatus> ipv4AdjStatus_;
  std::shared_ptr<RouteCache::Ipv6RouteStatus> ipv6HwRouteStatus_;
  std::shared_ptr<RouteCache::Ipv4RouteStatus> ipv4HwRouteStatus_;
  std::shared_ptr<RouteCache::Ipv4RouteStatus> ipv4SfeRouteStatus_;
  std::shared_ptr<const RouteCache::Ipv4ProgrammedRouteStatus> ipv4SfeProgrammedRouteStatus_;
  std::shared_ptr<const RouteCache::Ipv4HitBitStatus> ipv4SfeHitBitStatus_;
  std::shared_ptr<const RouteCache::Ipv4HitBitStatus> ipv4HwHitBitStatus_;
  std::uint32_t unprogrammedRouteTableSize_ = 4096;
  std::shared_ptr<Routing::Rib::RouteConfig> unprogrammedRouteConfig_;
  std::shared_ptr<const Routing::Rib::RouteCache::Evpn::ViaConfig> viaConfig_;
  std::shared_ptr<const Routing::Rib::RouteConfig> route6Config_;
  std::shared_ptr<const Routing::Rib::RouteConfig> routeConfig_;
  std::shared_ptr<const Vxlan::VtiStatusDir> vtiStatusDir_;
  std::shared_ptr<const Routing::NexthopStatus> nextHopStatus_;
  std::shared_ptr<Routing::NexthopConfig> nextHopConfig_;
  std::shared_ptr<const RouteCache::Capability> routeCacheCapability_;
  std::shared_ptr<const RouteCache::CliConfig> routeCacheCliConfig_;
  std::shared_ptr<RouteCache::Config> routeCacheConfig_;
  std::shared_ptr<const Vrf::VrfIdMap::NameToIdMap> piVrfIdMap_;
  std::shared_ptr<const Routing::Hardware::RouteStatus> hwRouteStatus_;
  std::shared_ptr<const Routing::Hardware::Status> routingHwStatus_;

  std::unique_ptr<Platform::Task> startTask_;
  std::unique_ptr<RouteCache::DeferredTask> sfeTableTask_;
  std::optional<RouteCache::Ipv4RouteVrfKey> sfeFillBookmark_;
  std::shared_ptr<RouteCache::KernelRouteSm> kernelRouteSm_;
  std::shared_ptr<RouteCache::HwRouteSm> hwRouteSm_;
  std::shared_ptr<RouteCache::SwRouteSm> swRouteSm_;
  std::shared_ptr<RouteCache::VrfSm> vrfSm_;
  std::shared_ptr<CliCallbackWithFormat> cliCallbackWithFormat_;
  std::shared_ptr<RouteCache::VrfCachedRoute> vrfCachedRoute_;
  std::shared_ptr<RouteCache::VrfIdMap> vrfIdMap_;
};

// The library's one exported symbol: makes an agent with notifications active; the caller owns it.
extern "C" __attribute__((visibility("default"))) Platform::AgentBase* agentFactory(const char* name);

}  // namespace RouteCacheAgent
