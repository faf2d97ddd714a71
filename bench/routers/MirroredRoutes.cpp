#include "bench/routers/MirroredRoutes.h"

#include <optional>
#include <stdexcept>

#include "bench/harness/BenchDirectory.h"
#include "host/TableDelivery.h"
#include "linux/loop/EventLoop.h"
#include "netlink/kernel/KernelFlush.h"
#include "netlink/kernel/KernelMessages.h"
#include "netlink/kernel/KernelMirror.h"
#include "netlink/messages/Socket.h"
#include "platform/values/Paths.h"

namespace Bench {

namespace {

using RouteCache::AdjId;

constexpr std::uint32_t hwVrfId = 1;
constexpr std::uint32_t kernelTable = 1001;
constexpr std::uint32_t metric = 20;
constexpr Bridging::ExtendedVlanId vlan = 10;
constexpr std::uint32_t vni = 10010;
constexpr const char* device = "vx";
constexpr std::uint32_t firstVtep = 0x0AFF0001;
const EthAddr routerMac({2, 0, 0, 0, 0, 1});

std::uint32_t adjacencyOf(std::size_t route, std::uint32_t adjacencies) {
  return static_cast<std::uint32_t>(route % adjacencies) + 1;
}

Netlink::MirrorSettings mirrorSettings() {
  Netlink::MirrorSettings settings;
  settings.tables = {{hwVrfId, kernelTable}};
  settings.vnis = {{{IntfId(), vlan}, vni}};
  settings.device = device;
  settings.metric = metric;
  settings.routePath = Paths::hwRoutes;
  settings.route6Path = Paths::hw6Routes;
  return settings;
}

}  // namespace

struct MirroredRoutes::Mirror {
  explicit Mirror(const std::string& directory)
      : tables(directory, [this] {
          if (delivery) delivery->wanted();
        }) {
    delivery.emplace(loop, tables.service());
    mirror.emplace(tables.service(), loop, mirrorSettings());
  }

  LinuxPlatform::EventLoop loop;
  std::optional<Tools::TableDelivery> delivery;
  Tables tables;
  std::optional<Netlink::KernelMirror> mirror;
};

MirroredRoutes::MirroredRoutes(const std::string& directory, const std::vector<RoutedPrefix>& routes,
                               std::uint32_t adjacencies)
    : directory_(directory), published_(directory) {
  const auto capacity = static_cast<std::uint32_t>(routes.size()) + 1;
  routes_ = published_.writer<RouteCache::Ipv4RouteStatus>(Paths::hwRoutes, capacity);
  adjacencies_ = published_.writer<RouteCache::Ipv4AdjacencyStatus>(Paths::adjacencies, adjacencies + 1);
  const auto routes6 = published_.writer<RouteCache::Ipv6RouteStatus>(Paths::hw6Routes, 1);
  const auto adjacencies6 = published_.writer<RouteCache::Ipv6AdjacencyStatus>(Paths::adjacencies6, 1);
  for (std::uint32_t number = 1; number <= adjacencies; ++number) adjacencyIs(number, firstVtep + number);
  for (std::size_t i = 0; i < routes.size(); ++i) {
    routes_->routeIs({{routes[i].prefix, hwVrfId}, AdjId(adjacencyOf(i, adjacencies)), true});
  }
  routes_->reconciledIs();
  adjacencies_->reconciledIs();
  routes6->reconciledIs();
  adjacencies6->reconciledIs();
  published_.service().flush();
}

MirroredRoutes::~MirroredRoutes() = default;

void MirroredRoutes::adjacencyIs(std::uint32_t number, std::uint32_t vtep) {
  RouteCache::Ipv4Via via{AdjId(number)};
  via.viaKeyIs(RouteCache::ViaIndex(0), {Fib::FecId(7), vlan, routerMac, IntfId(device), IpAddr(vtep)});
  adjacencies_->adjIs(via);
}

double MirroredRoutes::settled() {
  const Stopwatch stopwatch;
  for (int idle = 0; idle < 3;) {
    auto& service = mirror_->tables.service();
    service.handleWakeup();
    if (service.pendingChanges()) mirror_->delivery->wanted();
    mirror_->loop.runOnce(0);
    idle = mirror_->mirror->isIdle() && !service.pendingChanges() ? idle + 1 : 0;
  }
  return stopwatch.cpuSeconds();
}

double MirroredRoutes::start() {
  mirror_.reset();
  const Stopwatch stopwatch;
  mirror_ = std::make_unique<Mirror>(directory_);
  settled();
  return stopwatch.cpuSeconds();
}

double MirroredRoutes::changeAdjacency() {
  adjacencyIs(1, firstVtep + 0x10000);
  published_.service().flush();
  return settled();
}

std::uint64_t MirroredRoutes::messagesSent() const {
  return mirror_->mirror->messagesSent();
}

void MirroredRoutes::flush() {
  mirror_.reset();
  Netlink::flushKernel();
}

double rawRoutes(const std::vector<RoutedPrefix>& routes, std::uint32_t adjacencies, std::size_t batch) {
  using namespace Netlink;
  Socket socket;
  MessageBuffer messages;
  std::uint32_t sequence = 1;
  const auto flush = [&] {
    if (messages.empty()) return;
    messages.answerIsWanted();
    const auto outcome = socket.exchange(messages, sequence - static_cast<std::uint32_t>(messages.messages()));
    if (!outcome.isWhole || !outcome.refusals.empty()) throw std::runtime_error("the kernel refuses a route");
    messages.clear();
  };
  addBlackhole(messages, sequence++);
  flush();
  for (std::uint32_t number = 1; number <= adjacencies; ++number) {
    const std::uint32_t members[] = {blackholeId};
    addGroup(messages, sequence++, nexthopId(AdjId(number)), members);
  }
  flush();
  const Stopwatch stopwatch;
  for (std::size_t i = 0; i < routes.size(); ++i) {
    addRoute(messages, sequence++, Change::add,
             {routes[i].prefix, kernelTable, metric, nexthopId(AdjId(adjacencyOf(i, adjacencies)))});
    if (messages.messages() == batch) flush();
  }
  flush();
  const double seconds = stopwatch.cpuSeconds();
  flushKernel();
  return seconds;
}

}  // namespace Bench
