// A switch for tests: real shared tables in a directory of their own, a real state database and resolver, virtual time.
// It outlives the agent, so that an agent can be stopped and started over what it left.
#pragma once

#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "RouteCache/agent/Agent.h"
#include "lib/control/AgentCommands.h"
#include "lib/resolver/UnderlayResolver.h"
#include "lib/tasks/SimulatedScheduler.h"
#include "lib/trace/TextTraceFacility.h"
#include "linux/tables/SharedTableService.h"
#include "test/support/MortalTables.h"
#include "test/support/SimulatedClock.h"
#include "test/support/TemporaryDirectory.h"

class SimulatedSwitch {
 public:
  using ViaNexthop = Routing::Rib::RouteCache::Evpn::ViaNexthop;

  // Trace level -1 keeps no trace: random runs are long.
  explicit SimulatedSwitch(int traceLevel = -1);
  ~SimulatedSwitch();

  // --- What is configured; sizes and caching count for the next agent ---
  void capability(std::uint32_t hwRoutes, std::uint32_t sfeRoutes, std::uint32_t adjacencies);
  void recordCapacity(std::uint32_t entries) { recordCapacity_ = entries; }
  // How many identifier numbers there are; 0 is all that there can be.
  void identifiers(std::uint32_t numbers) { identifiers_ = numbers; }
  void hwRouteCaching(bool enabled);
  void vrf(const std::string& name, std::uint32_t piVrfId, std::uint32_t hwVrfId);
  void vrfGone(const std::string& name);
  void piVrf(const std::string& name, std::uint32_t piVrfId);
  void piVrfGone(const std::string& name);
  void hwVrf(const std::string& name, std::uint32_t hwVrfId);
  void hwVrfGone(const std::string& name);
  // A tunnel interface with these source addresses ("" is none); down without one.
  void vti(const std::string& name, const std::string& ipv4, const std::string& ipv6 = "");
  void vtiDown(const std::string& name);
  void vtiGone(const std::string& name);
  void vlan(const std::string& vti, Bridging::ExtendedVlanId vlan, std::uint32_t vni);
  void vlanGone(const std::string& vti, Bridging::ExtendedVlanId vlan);
  void underlay(const std::string& prefix, std::uint32_t fec);
  void underlayGone(const std::string& prefix);
  // The resolver ends and its answers go with it; back again it answers every request anew, one by one.
  void resolverGone();
  void resolverBack();
  static ViaNexthop nexthop(const std::string& vtep, const std::string& vti = "Vxlan1", std::uint32_t vni = 0,
                            Bridging::ExtendedVlanId vlan = 10, const std::string& mac = "00:1c:73:00:00:01");
  void via(std::uint64_t key, const std::vector<ViaNexthop>& nexthops);
  void viaGone(std::uint64_t key);
  void route(const std::string& prefix, std::uint32_t piVrfId, std::uint64_t viaKey);
  void routeGone(const std::string& prefix, std::uint32_t piVrfId);
  // A route that the routing process has put into the other family's table.
  void misplacedRoute(const std::string& prefix, std::uint32_t piVrfId);
  // A route of the hardware table, of which no state machine of the agent may take care.
  void hwRoute(const std::string& prefix, std::uint32_t hwVrfId, RouteCache::AdjId adjId, bool inHw);

  // --- What other processes report of IPv4 routes under hardware VRF ids; value -1 takes the entry away ---
  void cachedPrefix(const std::string& prefix, const std::string& vrf, std::uint8_t fibRouteType = 40);
  void cachedPrefixGone(const std::string& prefix, const std::string& vrf);
  void hwHit(const std::string& prefix, std::uint32_t hwVrfId, int value);
  void sfeHit(const std::string& prefix, std::uint32_t hwVrfId, int value);
  void sfeProgrammed(const std::string& prefix, std::uint32_t hwVrfId, bool programmed);

  // --- The agent ---
  // With `writesToLive` the agent is killed in mid-task, after so many table writes: that call, or a later advance(),
  // throws Killed. stop() follows.
  void start(std::uint64_t writesToLive = 0);
  void stop();
  bool running() const { return agent_ != nullptr; }
  RouteCacheAgent::Agent& agent() { return *agent_; }
  RouteCache::SwRouteSm& sm() { return *agent_->swRouteSm(); }
  RouteCache::HwRouteSm& hwSm() { return *agent_->hwRouteSm(); }
  // What the tasks of this name have handled since the agent's start.
  std::uint64_t workDone(const std::string& task) const;
  // Lets time pass, delivering table changes between runs and checking the invariants after each.
  void advance(double seconds);
  void checkEveryRunIs(bool check) { checkEveryRun_ = check; }
  // The longest that a background task has been due without a turn, seconds. Something only when runs take time:
  // scheduler.entryCostIs().
  double longestBackgroundWait() const;
  // What happens after every task run; a test that puts itself behind the runs calls it.
  void afterRun();

  // --- What other processes see ---
  // "10.0.0.0/8@7" -> its next hops, "10.255.0.1 Vxlan1 vlan 10 fec 5", in slot order, joined by ", ".
  std::map<std::string, std::string> published() const;
  std::set<std::string> publishedKeys() const;
  std::set<std::string> unprogrammed() const;
  std::set<std::string> requests() const;
  std::map<std::string, bool> hardware() const;     // "10.0.0.1/32@7" -> inHw, of "routecache/route/hw/ipv4"
  std::vector<std::uint32_t> adjacencyIds() const;  // of both tables, ascending, each once
  std::uint32_t adjIdOf(const std::string& prefix, std::uint32_t hwVrfId) const;

  LinuxPlatform::SimulatedScheduler scheduler;
  LinuxPlatform::AgentCommands commands{scheduler};
  const std::shared_ptr<SimulatedClock> clock = std::make_shared<SimulatedClock>();
  LinuxPlatform::TextTraceFacility trace;
  Lattis::EntityTypes entityTypes;
  Platform::TableTypes tableTypes;
  std::map<std::string, std::string> environment;
  TemporaryDirectory directory;
  std::unique_ptr<Lattis::StateDb> stateDb;
  // The routing process's tables, and everybody else's view of the agent's.
  std::unique_ptr<LinuxPlatform::SharedTableService> outside;
  std::unique_ptr<LinuxPlatform::SharedTableService> agentTables;

  template <class T>
  std::shared_ptr<T> entity(const std::string& path, const std::string& type) const {
    return std::dynamic_pointer_cast<T>(stateDb->entityOrNew(path, type));
  }
  // A table of the agent's as a reader sees it.
  template <class T>
  std::shared_ptr<T> reader(const std::string& path) const {
    outside->mount(path, T::typeName, Pondra::MountKind::reader);
    return outside->get<T>(path);
  }

 private:
  void deliver();
  void limitIdentifiers();
  template <class T>
  std::shared_ptr<T> outsideWriter(const std::string& path) const;

  std::shared_ptr<Routing::Rib::RouteConfig> routes_;
  std::shared_ptr<Routing::Rib::RouteConfig> routes6_;
  std::shared_ptr<Routing::Rib::RouteCache::Evpn::ViaConfig> vias_;
  std::unique_ptr<LinuxPlatform::UnderlayResolver> resolver_;
  std::unique_ptr<MortalTables> mortalTables_;
  std::unique_ptr<RouteCacheAgent::Agent> agent_;
  std::uint32_t recordCapacity_ = 0;  // 0: the agent's own
  std::uint32_t identifiers_ = 0;
  bool identifiersLimited_ = false;
  bool checkEveryRun_ = true;
  bool started_ = false;
};
