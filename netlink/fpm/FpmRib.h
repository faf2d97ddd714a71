// What a routing suite says becomes configured routes and vias: the one writer of the RIB tables on a Linux machine.
//
//   message ─► Learned (per route) ─► Source (set of next hops as said) ─► via (VTEP, VNI, MAC, interface) ─► tables
//
// A source without all its router MACs waits, and its routes stay in the tables as they were, or out of them. What a
// session says again is only marked; what was not said again is stale, and goes when the session has been quiet.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <unordered_set>
#include <utility>
#include <vector>

#include "netlink/fpm/FpmMessages.h"
#include "netlink/fpm/NexthopKnowledge.h"
#include "netlink/fpm/RouteVrfs.h"
#include "netlink/fpm/ViaSets.h"
#include "platform/services/TaskScheduler.h"
#include "platform/tables/Rib.h"
#include "platform/values/Hash.h"

namespace Netlink {

struct FpmSettings {
  RouteVrfs vrfs;                               // routes of others are left out
  std::map<std::uint32_t, std::uint32_t> vnis;  // the kernel's table -> VNI, where the suite does not say it
  IntfId vti;
  double staleTime = 60;       // seconds of quiet after which a replay has ended
  double retryInterval = 1;    // seconds
  std::uint32_t capacity = 0;  // routes of each family; 0: what the tables have, or defaultCapacity
  static constexpr std::uint32_t defaultCapacity = 1 << 17;
  static constexpr std::uint32_t viaCapacity = 1 << 14;
};

// The tables are its own from the beginning, as they stand: their routes are stale until they are said again.
class FpmRib {
 public:
  using Route = Routing::Rib::Route;
  using RouteKey = Routing::Rib::RouteKey;
  using ViaKey = Routing::Rib::ViaKey;

  // Service and scheduler outlive it. Throws TableError when another process is the writer.
  FpmRib(Pondra::TableService& tables, Platform::TaskScheduler& tasks, const FpmSettings& settings);

  void sessionBegins();
  void sessionEnds() { isConnected_ = false; }
  // A frame's messages. Throws FpmFault when a peer says more than anybody has to say.
  void apply(const std::vector<FpmMessage>& messages);

  // Routes of VRFs that are others now go from where they were.
  void vrfsAre(const RouteVrfs& vrfs);
  // Something was said that could not be understood, or that was not heeded and would be now: all has to be said again,
  // in another session. Which one that is nobody says before.
  bool wantsReplay() const { return wantsReplay_; }
  // The replay before has not come to its end yet.
  bool hasStale() const { return stale_ > 0; }

  // --- For whoever answers the suite ---
  // Hears of routes that were said. None but this one; it outlives the rib or takes itself away.
  class Listener {
   public:
    virtual ~Listener() = default;
    virtual void handleRoute(const RouteKey& key) = 0;  // said, for the first time or again, or gone
    virtual void handleSession() = 0;                   // another one begins
  };
  void listenerIs(Listener* listener) { listener_ = listener; }
  // A route that was said in this session, and is an overlay route.
  struct Said {
    std::uint32_t table = 0;
    std::uint8_t protocol = 0;
    std::optional<std::uint32_t> metric;
    bool isWritten = false;  // the table has it as it was said last
  };
  std::optional<Said> said(const RouteKey& key) const;
  // The route behind this one, said or not; without one the first.
  std::optional<RouteKey> behind(const std::optional<RouteKey>& key) const;

  // Names and values of what has happened, for operators.
  std::vector<std::pair<std::string, std::uint64_t>> figures() const;
  // Nothing is left to do but to wait: for messages, for quiet, for room.
  bool isIdle() const { return queue_.empty() && !sourcesChanged_ && !walk_; }
  void checkInvariants() const;

 private:
  using RouteConfig = Routing::Rib::RouteConfig;
  using ViaConfig = Routing::Rib::RouteCache::Evpn::ViaConfig;
  using ViaNexthop = Routing::Rib::RouteCache::Evpn::ViaNexthop;

  static constexpr std::uint32_t noSession = UINT32_MAX;

  struct SourceKey {
    std::uint32_t session = 0;  // whose object `id` is; 0: none's
    std::uint32_t id = 0;
    Vxlan::Vni vni;  // of what the object says without one
    std::vector<FpmNexthop> nexthops;
    auto operator<=>(const SourceKey& other) const {
      return std::tie(session, id, vni, nexthops) <=> std::tie(other.session, other.id, other.vni, other.nexthops);
    }
  };
  enum class SourceState : std::uint8_t { waiting, noRoom, ready, noOverlay };
  struct Source {
    SourceState state = SourceState::waiting;
    std::uint64_t routes = 0;
    ViaKey viaKey = 0;  // which it is a user of; what it had last, while it waits for another
  };
  using SourceEntry = std::pair<const SourceKey, Source>;
  struct Learned {
    SourceEntry* source = nullptr;  // null: nobody has said it since this process began
    ViaKey viaKey = 0;              // in the table, which it is a user of; 0: it is not there
    std::uint32_t metric = 0;
    std::uint32_t session = 0;  // that said it last
    std::uint32_t table = 0;    // the kernel's table that it said; 0 while nobody has
    std::uint8_t protocol = 0;
    bool hasMetric = false;
    bool isGone = false;
    bool isQueued = false;
  };
  using LearnedRoutes = std::map<RouteKey, Learned>;

  void adopt(const RouteConfig& routes);
  void adoptMacs();
  RouteConfig& tableOf(const RouteKey& key) const { return key.prefix().isV4() ? *routes4_ : *routes6_; }
  void applyRoute(const FpmRoute& route);
  void withdrawFromOneOf(const std::set<std::uint32_t>& vrfs, const FpmRoute& route);
  void withdraw(const RouteKey& key, const std::optional<std::uint32_t>& metric);
  void learn(const RouteKey& key, SourceKey sourceKey, const FpmRoute& route);
  std::optional<SourceKey> sourceOf(const FpmRoute& route) const;
  SourceEntry& sourceFor(SourceKey key);
  void release(SourceEntry* source);
  void resolve(SourceEntry& source);
  SourceState contentOf(const SourceKey& key, std::vector<ViaNexthop>& content) const;
  void queue(LearnedRoutes::value_type& route);

  void handleProcessing();
  bool handleNext();
  void handleSources();
  void sync(LearnedRoutes::iterator route);
  void write(LearnedRoutes::value_type& route);
  void erase(LearnedRoutes::iterator route);
  void handleQuiet();
  void handleRetry();
  void reconcile();

  const FpmSettings settings_;
  RouteVrfs vrfs_;
  Listener* listener_ = nullptr;
  Platform::TaskScheduler& tasks_;
  std::shared_ptr<RouteConfig> routes4_;
  std::shared_ptr<RouteConfig> routes6_;
  std::shared_ptr<ViaConfig> viaTable_;
  std::unique_ptr<ViaSets> vias_;
  NexthopKnowledge knowledge_;
  std::map<SourceKey, Source> sources_;
  LearnedRoutes learned_;
  std::size_t mostLearned_ = 0;

  std::deque<RouteKey> queue_;    // routes to be looked at
  std::set<RouteKey> noRoom_;     // routes that found none
  std::optional<RouteKey> walk_;  // where the walk after a change of sources goes on
  bool walksAgain_ = false;       // once it has come to its end
  bool sourcesChanged_ = false;
  std::optional<RouteKey> sweep_;  // where the removal of stale routes goes on

  std::uint32_t session_ = 0;
  bool isConnected_ = false;
  bool hasHeard_ = false;  // in this session
  double lastHeard_ = 0;
  std::uint64_t stale_ = 0;
  std::uint64_t leftOut_ = 0;
  std::uint64_t refused_ = 0;
  bool wantsReplay_ = false;
  std::uint64_t ambiguous_ = 0;
  // Where VRFs share tables: what was also said, in this session, for routes that are no overlay routes; by table.
  std::unordered_set<RouteKey, Platform::Hasher> otherRoutes_;
  // ... and of which a replay has told that an overlay route has the same prefix; in any session.
  std::unordered_set<RouteKey, Platform::Hasher> besideEachOther_;

  std::unique_ptr<Platform::Task> processingTask_;
  std::unique_ptr<Platform::Task> quietTask_;
  std::unique_ptr<Platform::Task> retryTask_;
};

}  // namespace Netlink
