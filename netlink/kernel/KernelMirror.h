// A mirror of published routes in this machine's kernel, in the network namespace that the process is in.
//
//   published routes ──► RouteMirror ─────┐ routes, which refer to groups
//   adjacencies ──► AdjacencyReader ──► KernelNexthops ──► KernelBatch ──► kernel
//                      groups, next hops, neighbours                          │
//                      a dump ◄──────────── comparison ◄──────────────────────┘
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "RouteCache/FlatTable.h"
#include "linux/loop/EventLoop.h"
#include "netlink/kernel/AdjacencyReader.h"
#include "netlink/kernel/KernelBatch.h"
#include "netlink/kernel/KernelNexthops.h"
#include "netlink/kernel/MirrorSettings.h"
#include "netlink/kernel/Refusals.h"
#include "netlink/kernel/RouteMirror.h"
#include "platform/tables/SharedTable.h"

namespace Netlink {

// Sends nothing before it knows what the kernel has, and then differences only. Knows it from a comparison: the kernel
// dumps what it has, a part at a time, and what is different is sent. There is one at the start, when a table appears,
// when answers or announcements were lost, when a link that matters has changed (the kernel drops what leaves through
// one that goes down, and does not tell), and without a cause every compareInterval. Changes of tables go on
// meanwhile, except while next hops are dumped.
class KernelMirror final : private BatchOutcome {
 public:
  // Both outlive it. Throws std::system_error when the kernel refuses a socket, and std::runtime_error when this
  // process may not change routes.
  KernelMirror(Pondra::TableService& tables, LinuxPlatform::EventLoop& loop, const MirrorSettings& settings);
  ~KernelMirror() override;
  KernelMirror(const KernelMirror&) = delete;
  KernelMirror& operator=(const KernelMirror&) = delete;

  // Nothing is left to do, as far as is known: no comparison is under way, and no change waits for its turn.
  bool isIdle() const;
  // Messages that were to change something.
  std::uint64_t messagesSent() const { return batch_.messagesSent(); }
  void comparisonWanted();
  // In the place of those that were known.
  void vnisAre(const TunnelVnis& vnis);
  // The kernel forwards the route as it is published: false also while that is not known.
  bool forwards(std::uint32_t hwVrfId, const IpGenPrefix& prefix) const;

  // Names and values, for operators.
  std::vector<std::pair<std::string, std::uint64_t>> figures() const;
  struct RefusedRoute {
    std::string route;
    int error = 0;  // errno
  };
  // At most so many.
  std::vector<RefusedRoute> refused(std::size_t most) const;
  void checkInvariants() const { nexthops_.checkInvariants(); }

 private:
  enum class Step : std::uint8_t {
    idle,
    links,
    neighbours,
    nexthops,
    routes4,
    routes6,
    adjacencies,
    groups,
    settling,
    walk4,
    walk6,
    strays
  };

  void handleRefused(const Subject& subject, int error) override;
  void handleDone(const Subject& subject) override;
  void handleLost() override { comparisonWanted(); }

  void wake();
  void adjacencyWanted(RouteCache::AdjId adjId);
  std::optional<std::uint32_t> deviceOf(IntfId vti);
  std::optional<std::uint32_t> vniOf(IntfId vti, Bridging::ExtendedVlanId vlan) const;
  void handleLinks();
  void linkIs(const Link& link);
  void handleRetry();

  void handleProcessing();
  bool handleNext();
  bool handleNextAdjacency();
  void handleAdjacency(RouteCache::AdjId adjId);
  bool isHeld() const;

  void beginComparison();
  void handleComparison();
  void comparisonEnds();
  void stepIs(Step step);
  bool workOnStep();
  bool readDump(Dump dump);
  void handleDumped(Dump dump, const nlmsghdr& message);
  bool queueGroups();
  bool removeStrays();

  const MirrorSettings settings_;
  TunnelVnis vnis_;
  LinuxPlatform::EventLoop& loop_;
  KernelBatch batch_;
  KernelNexthops nexthops_;
  Socket links_;  // announcements
  Socket dump_;
  MessageBuffer question_;
  std::uint32_t dumpSequence_ = 0;
  bool dumpAsked_ = false;
  std::map<std::string, std::uint32_t, std::less<>> devices_;  // that are up, by name
  std::set<std::string, std::less<>> wantedDevices_;           // that somebody has asked for

  Step step_ = Step::idle;
  bool isKnown_ = false;  // what the kernel has
  bool comparisonOwed_ = false;
  bool isSpoilt_ = false;  // the kernel's tables changed while they were dumped
  std::optional<RouteCache::AdjId> groupBookmark_;
  std::vector<KernelRoute> strays_;  // ours, and of no VRF

  std::deque<RouteCache::AdjId> adjacencyQueue_;
  RouteCache::FlatSet<RouteCache::AdjId> queuedAdjacencies_;
  Refusals<RouteCache::AdjId> refusedAdjacencies_;
  std::uint64_t comparisons_ = 0;

  std::unique_ptr<Platform::Task> processingTask_;
  std::unique_ptr<Platform::Task> comparisonTask_;
  std::unique_ptr<Platform::Task> beginTask_;
  std::unique_ptr<Platform::Task> intervalTask_;
  std::unique_ptr<Platform::Task> retryTask_;
  std::unique_ptr<AdjacencyReader> adjacencies_;
  std::unique_ptr<RouteMirror<RouteCache::Ipv4Family>> routes4_;
  std::unique_ptr<RouteMirror<RouteCache::Ipv6Family>> routes6_;
};

}  // namespace Netlink
