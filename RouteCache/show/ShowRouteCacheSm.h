// The show commands: one state machine for each command under way. It writes through the platform's renderer, works for
// a while, and is called again until it is done.
//
//   ShowRouteCacheThresholdSm   the three threshold levels
//   ShowRouteCacheSummarySm     how many routes are configured, published, in hardware; by VRF or altogether
//   ShowRouteCacheVrfPrefixSm   the routes of one VRF, or one of them, with their next hops
//
// They change nothing. What they list may change between two calls: a listing is not a snapshot. What stands still
// meanwhile is listed, or counted, exactly once.
//
// A bookmark is the key at which the next call goes on, at the first key not below it; the empty key says that nothing
// is left. The routes' empty key is also the key of a default route under hardware VRF id 0, so no call ends before it.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "RouteCache/hw/HwRouteSm.h"
#include "RouteCache/model/CliConfig.h"
#include "RouteCache/model/Sides.h"
#include "RouteCache/model/VrfIdMap.h"
#include "RouteCache/sw/SwRouteSm.h"
#include "platform/services/AgentCommand.h"
#include "platform/state/Vrf.h"
#include "platform/trace/Trace.h"

namespace RouteCache {

// What every show command is given.
struct ShowRouteCacheInputs {
  std::string name;  // in traces
  std::shared_ptr<const Agent::AgentCommandRequest> agentCommandRequest;
  double maxRunTime = 0;  // seconds that one call may take
  std::shared_ptr<const Platform::Clock> clock;
  Platform::TraceFacility& trace;
};

// What the commands have in common: the order of a reply, and when to end a call.
class ShowRouteCacheSm : public Agent::AgentAsyncCommandRequestSm {
 public:
  explicit ShowRouteCacheSm(const ShowRouteCacheInputs& inputs);

  void handleAsyncCommand(Agent::CommandSocket& socket, Agent::OutputFormat format) final;

  const std::string& name() const { return in_.name; }
  const std::shared_ptr<const Agent::AgentCommandRequest>& agentCommandRequest() const {
    return in_.agentCommandRequest;
  }
  double maxRunTime() const { return in_.maxRunTime; }
  const std::shared_ptr<const Platform::Clock>& clock() const { return in_.clock; }
  // The renderer is started, and what stands above the first row is written.
  bool printerCreated() const { return printerCreated_; }
  // Ends a call after every single entry.
  bool yieldInTest() const { return yieldInTest_; }
  void yieldInTestIs(bool yield) { yieldInTest_ = yield; }

 protected:
  // During a call.
  Platform::Renderer& renderer() const { return *renderer_; }
  // True when the call is to end: its time is up, or the platform wants the thread, or the reader must take something
  // first. Ask after each entry, never before the first: that way every call makes progress.
  bool shouldYield() const;
  // The whole reply about a VRF that there is not.
  void printVrfNotFound(const std::string& vrfName);
  void printRuler(std::size_t width);

 private:
  // Goes on with the reply. True: it is complete.
  virtual bool print() = 0;

  const ShowRouteCacheInputs in_;
  Platform::TraceHandle trace_;
  bool printerCreated_ = false;
  bool yieldInTest_ = false;
  Agent::CommandSocket* socket_ = nullptr;  // these three are the current call's
  Platform::Renderer* renderer_ = nullptr;
  double callBegan_ = 0;
};

// --- Thresholds ------------------------------------------------------------------------------------------------------

// Completes in one call. Idle times are shown as they act: in whole steps of the hardware's idle clock.
class ShowRouteCacheThresholdSm final : public ShowRouteCacheSm {
 public:
  // hwRouteSm null: hardware route caching is off.
  ShowRouteCacheThresholdSm(const ShowRouteCacheInputs& inputs, std::shared_ptr<const HwRouteSm> hwRouteSm);

  // What is configured, and so would hold if hardware route caching were on: shown while it is off. Until then the
  // levels of a configuration that nobody has touched.
  void cliConfigIs(std::shared_ptr<const CliConfig> cliConfig) { cliConfig_ = std::move(cliConfig); }

 private:
  bool print() override;
  void printLevel(const char* level, std::uint8_t hwUtilPercentage, std::uint16_t idleTimeSlice);

  const std::shared_ptr<const HwRouteSm> hwRouteSm_;
  std::shared_ptr<const CliConfig> cliConfig_ = std::make_shared<CliConfig>("cliConfig");
};
std::shared_ptr<ShowRouteCacheThresholdSm> showRouteCacheThresholdSmFactory(const ShowRouteCacheInputs& inputs,
                                                                            std::shared_ptr<const HwRouteSm> hwRouteSm);

// --- Summary ---------------------------------------------------------------------------------------------------------

// Stands for each VRF by itself, as a name; and for all of them together, as the key of a row.
inline constexpr const char* allVrfs = "all";

// One VRF's counters for the summary display.
struct VrfSummary {
  explicit VrfSummary(std::uint32_t id) : vrfId(id) {}
  std::uint32_t vrfId;  // the platform's
  std::uint32_t ipv4ConfigRoutes = 0;
  std::uint32_t ipv4SfeRoutes = 0;
  std::uint32_t ipv4HwRoutes = 0;
  std::uint32_t ipv4Unprogrammed = 0;
  std::uint32_t ipv6ConfigRoutes = 0;
  std::uint32_t ipv6SfeRoutes = 0;
  std::uint32_t ipv6HwRoutes = 0;
  std::uint32_t ipv6Unprogrammed = 0;
};

// By VRF: counts the routes configured for each VRF asked for, one by one, IPv4 first, then prints a row for each VRF.
// Altogether: takes the sizes of the tables.
class ShowRouteCacheSummarySm final : public ShowRouteCacheSm {
 public:
  using RouteKey = Routing::Rib::RouteKey;

  // The VRF's name, allVrfs, or empty for all together. hwRouteSm null: hardware route caching is off.
  ShowRouteCacheSummarySm(const ShowRouteCacheInputs& inputs, std::shared_ptr<const SwRouteSm> swRouteSm,
                          std::shared_ptr<const Vrf::VrfIdMap::NameToIdMap> piVrfIdMap, std::string vrfName,
                          std::shared_ptr<const HwRouteSm> hwRouteSm);

  const std::string& vrfName() const { return vrfName_; }
  bool vrfNameSpecified() const { return !vrfName_.empty(); }
  const RouteKey& bookmark() const { return bookmarks_.v4; }
  const RouteKey& bookmark6() const { return bookmarks_.v6; }

 private:
  // How far the counting of one family has come.
  template <class Family>
  using Bookmark = RouteKey;

  // One row's figures.
  struct Counts {
    std::uint64_t configured = 0;
    std::uint64_t inSfe = 0;
    std::uint64_t inHw = 0;
    std::uint64_t unprogrammed = 0;
    void add(const Counts& other);
  };

  bool print() override;
  void printRouteCacheSummary();
  // The VRFs to print, and a count for each.
  void setupSummaryDataStruct(const std::string& vrfName);
  void vrfNameToIdIs(const std::string& name, std::uint32_t piVrfId) { vrfNameToId_[name] = piVrfId; }
  void vrfSummaryIs(std::uint32_t piVrfId) { vrfSummary_.try_emplace(piVrfId, piVrfId); }
  void printRouteCacheVrfSummary();
  void getIpv4RouteCacheVrfSummary();
  void getIpv6RouteCacheVrfSummary();
  void doPrintRouteCacheVrfSummary();
  void printRouteCacheAllSummary();

  template <class Family>
  bool countRoutes();  // true: all are counted
  template <class Family>
  void countRoute(const RouteKey& key, VrfSummary& summary) const;
  template <class Family>
  bool printVrfRows();  // true: all are printed
  template <class Family>
  void printAllRow();
  void printRow(const std::string& name, const char* addressFamily, const Counts& counts);
  void printTotal();

  const std::shared_ptr<const SwRouteSm> swRouteSm_;
  const std::shared_ptr<const HwRouteSm> hwRouteSm_;
  const std::shared_ptr<const Vrf::VrfIdMap::NameToIdMap> piVrfIdMap_;
  const std::string vrfName_;
  std::map<std::string, std::uint32_t> vrfNameToId_;  // pi ids, in the order of the rows
  std::map<std::uint32_t, VrfSummary> vrfSummary_;    // by pi id, the order of the configured routes
  Sides<Bookmark> bookmarks_;
  bool ipv4RouteConfigDone_ = false;
  bool ipv6RouteConfigDone_ = false;
  // The row that is printed next; nothing: no dictionary of rows is open.
  std::optional<std::map<std::string, std::uint32_t>::const_iterator> nextRow_;
  bool ipv4RowsPrinted_ = false;
  bool printed_ = false;  // all there is to say
  Counts total_;          // of the rows printed so far
};
std::shared_ptr<ShowRouteCacheSummarySm> showRouteCacheSummarySmFactory(
    const ShowRouteCacheInputs& inputs, std::shared_ptr<const SwRouteSm> swRouteSm,
    std::shared_ptr<const Vrf::VrfIdMap::NameToIdMap> piVrfIdMap, std::string vrfName,
    std::shared_ptr<const HwRouteSm> hwRouteSm);

// --- Routes ----------------------------------------------------------------------------------------------------------

// Lists in key order. The keys of the VRF are collected a windowful at a time, and each route is looked up again when
// its turn comes: what has gone meanwhile is left out.
class ShowRouteCacheVrfPrefixSm final : public ShowRouteCacheSm {
 public:
  static constexpr std::size_t windowSize = 128;  // keys

  // The empty prefix: every route of the VRF. Else the prefix is of the family asked for.
  ShowRouteCacheVrfPrefixSm(const ShowRouteCacheInputs& inputs, std::shared_ptr<const SwRouteSm> swRouteSm,
                            std::string vrfName, const IpGenPrefix& prefix,
                            std::shared_ptr<const Vrf::VrfIdMap::NameToIdMap> piVrfIdMap, bool isIpv6);

  const std::string& vrfName() const { return vrfName_; }
  const IpGenPrefix& prefix() const { return prefix_; }
  // The keys that are collected and not printed yet, ascending, each once. True puts a key among them, false takes it
  // away.
  void routeIs(const Ipv4RouteVrfKey& key, bool collected) { listings_.v4.routeIs(key, collected); }
  void routeDel(const Ipv4RouteVrfKey& key) { listings_.v4.routeIs(key, false); }
  const std::deque<Ipv4RouteVrfKey>& route() const { return listings_.v4.route; }
  void route6Is(const Ipv6RouteVrfKey& key, bool collected) { listings_.v6.routeIs(key, collected); }
  void route6Del(const Ipv6RouteVrfKey& key) { listings_.v6.routeIs(key, false); }
  const std::deque<Ipv6RouteVrfKey>& route6() const { return listings_.v6.route; }
  const Ipv4RouteVrfKey& bookmark() const { return listings_.v4.bookmark; }
  const Ipv6RouteVrfKey& bookmark6() const { return listings_.v6.bookmark; }
  // Collected keys are being printed; else keys are being collected.
  bool printState() const { return printState_; }

 private:
  // How far the listing of one family has come.
  template <class Family>
  struct Listing {
    using Key = BasicRouteVrfKey<Family>;
    void routeIs(const Key& key, bool collected);

    std::deque<Key> route;
    Key bookmark;
    // Where the table is looked at next; nothing: all of it has been.
    std::optional<Key> next = Key(Family::firstCovered({}), 0);
  };

  bool print() override;
  void printRouteCacheVrfPrefix();
  void printHeader();
  void printRouteCachePrefix();
  void printRouteCacheV6Prefix();
  void printRouteCacheAllPrefix();
  void printRouteCacheV6AllPrefix();
  void printRouteCacheAdjacency(AdjId adjId);

  // Every open dictionary of the reply may be closed.
  bool isPrinted() const { return bookmark() == Ipv4RouteVrfKey() && bookmark6() == Ipv6RouteVrfKey(); }
  template <class Family>
  void printAllPrefix();
  template <class Family>
  bool collectRoutes();  // false: the call ends
  template <class Family>
  bool yieldAt(const std::optional<BasicRouteVrfKey<Family>>& next);
  template <class Family>
  void printRoute(const BasicRouteVrfKey<Family>& key);
  template <class Adjacency>
  void printVia(const Adjacency& adjacency, unsigned index);
  std::uint32_t vniOf(IntfId vti, Bridging::ExtendedVlanId vlan) const;

  const std::shared_ptr<const SwRouteSm> swRouteSm_;
  const std::string vrfName_;
  const IpGenPrefix prefix_;
  const std::shared_ptr<const Vrf::VrfIdMap::NameToIdMap> piVrfIdMap_;
  const bool isIpv6_;
  bool printState_ = false;
  std::optional<std::uint32_t> hwVrfId_;  // the VRF's, as it was at the first call; nothing: it has no routes
  Sides<Listing> listings_;
};
std::shared_ptr<ShowRouteCacheVrfPrefixSm> showRouteCacheVrfPrefixSmFactory(
    const ShowRouteCacheInputs& inputs, std::shared_ptr<const SwRouteSm> swRouteSm, std::string vrfName,
    const IpGenPrefix& prefix, std::shared_ptr<const Vrf::VrfIdMap::NameToIdMap> piVrfIdMap, bool isIpv6);

}  // namespace RouteCache
