#include "netlink/fpm/FpmRib.h"

#include <algorithm>
#include <cstdio>
#include <stdexcept>

#include "platform/values/Paths.h"

namespace Netlink {

using Platform::TaskPriority;
using Routing::Rib::RouteCache::Evpn::Via;

namespace {

// The table as its writer, with no less room than it has.
template <class T>
std::shared_ptr<T> takeTable(Pondra::TableService& tables, const std::string& path, std::uint32_t given,
                             std::uint32_t usual) {
  tables.mount(path, T::typeName, Pondra::MountKind::keyedReader);
  const auto present = static_cast<std::uint32_t>(tables.get<T>(path)->capacity());
  tables.unmount(path);
  std::uint32_t capacity = given;
  if (capacity == 0) capacity = present != 0 ? present : usual;
  tables.mount(path, T::typeName, Pondra::MountKind::writer, Pondra::CollectionInfo{T::collectionName, capacity});
  return tables.get<T>(path);
}

// Tunnels are told by their VNI; where it has to be known otherwise, by a gateway that lies in no network of ours.
bool completesTunnel(FpmNexthop& nexthop, const Vxlan::Vni& vni) {
  if (nexthop.gateway.isEmpty()) return false;
  if (!nexthop.vni.isPresent() && nexthop.isOnlink) nexthop.vni = vni;
  nexthop.isOnlink = false;
  nexthop.ifIndex = 0;  // the sender's own business: two sets are equal without it
  return nexthop.vni.isPresent();
}

}  // namespace

FpmRib::FpmRib(Pondra::TableService& tables, Platform::TaskScheduler& tasks, const FpmSettings& settings)
    : settings_(settings),
      vrfs_(settings.vrfs),
      tasks_(tasks),
      routes4_(takeTable<RouteConfig>(tables, Paths::ribRoutes, settings.capacity, FpmSettings::defaultCapacity)),
      routes6_(takeTable<RouteConfig>(tables, Paths::rib6Routes, settings.capacity, FpmSettings::defaultCapacity)),
      viaTable_(takeTable<ViaConfig>(tables, Paths::ribVias, 0, FpmSettings::viaCapacity)),
      vias_(std::make_unique<ViaSets>(*viaTable_)) {
  mostLearned_ = 4 * (routes4_->capacity() + routes6_->capacity());
  processingTask_ = tasks.taskIs("fpmProcessingTask", TaskPriority::processing, [this] { handleProcessing(); });
  quietTask_ = tasks.taskIs("fpmQuietTask", TaskPriority::background, [this] { handleQuiet(); });
  retryTask_ = tasks.taskIs("fpmRetryTask", TaskPriority::background, [this] { handleRetry(); });
  adopt(*routes4_);
  adopt(*routes6_);
  adoptMacs();
  vias_->removeUnused();
}

void FpmRib::adopt(const RouteConfig& routes) {
  for (const Route& route : routes) {
    Learned learned;
    learned.metric = route.metric();
    learned.session = noSession;
    if (vias_->useAgain(route.viaKey())) learned.viaKey = route.viaKey();
    learned_.emplace(route.key(), learned);
    ++stale_;
  }
}

void FpmRib::adoptMacs() {
  for (const Via& via : *viaTable_) {
    for (const ViaNexthop& nexthop : via.nexthops()) {
      if (!nexthop.vni.isPresent()) continue;  // it would answer for all VNIs
      knowledge_.adopt(nexthop.remoteVtep, nexthop.vni, nexthop.routerMac);
    }
  }
}

// --- What is said ----------------------------------------------------------------------------------------------------

void FpmRib::sessionBegins() {
  ++session_;
  isConnected_ = true;
  hasHeard_ = false;
  sweep_.reset();
  wantsReplay_ = false;
  otherRoutes_.clear();
  stale_ = learned_.size();
  knowledge_.sessionBegins();
  if (listener_ != nullptr) listener_->handleSession();
}

void FpmRib::apply(const std::vector<FpmMessage>& messages) {
  hasHeard_ = true;
  lastHeard_ = tasks_.now();
  sweep_.reset();
  for (const FpmMessage& message : messages) {
    if (const auto* route = std::get_if<FpmRoute>(&message)) applyRoute(*route);
    if (const auto* object = std::get_if<FpmNexthopObject>(&message)) sourcesChanged_ |= knowledge_.objectIs(*object);
    if (const auto* neighbour = std::get_if<FpmNeighbour>(&message)) {
      sourcesChanged_ |= knowledge_.neighbourIs(*neighbour);
    }
  }
  processingTask_->scheduleWithin(0);
  quietTask_->scheduleWithin(settings_.staleTime);
}

void FpmRib::applyRoute(const FpmRoute& route) {
  const auto vrf = route.isThere ? vrfs_.of(route) : vrfs_.ofTable(route.table);
  if (auto source = vrf && route.isThere ? sourceOf(route) : std::nullopt) {
    return learn(RouteKey(*vrf, route.prefix), std::move(*source), route);
  }
  const bool isShared = !vrfs_.byVni.empty();
  if (route.isThere || (!vrf && !isShared)) ++leftOut_;
  if (isShared) return withdrawFromOneOf(vrfs_.candidates(route.table), route);
  if (vrf) withdraw(RouteKey(*vrf, route.prefix), route.isThere ? std::nullopt : route.metric);
}

// Certain is only a prefix that one VRF alone has, and that was said for nothing but an overlay route.
void FpmRib::withdrawFromOneOf(const std::set<std::uint32_t>& vrfs, const FpmRoute& route) {
  const RouteKey inTable(route.table, route.prefix);
  if (route.isThere && otherRoutes_.size() < mostLearned_) otherRoutes_.insert(inTable);
  std::optional<RouteKey> only;
  std::size_t count = 0;
  for (const std::uint32_t vrf : vrfs) {
    const auto found = learned_.find(RouteKey(vrf, route.prefix));
    // One that this session has not said is left to the end of the replay.
    if (found == learned_.end() || found->second.isGone || found->second.session != session_) continue;
    if (found->second.table != route.table) continue;
    only = found->first;
    ++count;
  }
  if (count == 0) return;
  const bool isCertain = !otherRoutes_.contains(inTable) && otherRoutes_.size() < mostLearned_;
  if (count == 1 && isCertain) return withdraw(*only, route.metric);
  if (route.isThere) {
    // Told apart once, the two go on beside each other until one of them goes.
    if (!besideEachOther_.insert(inTable).second) return;
  } else {
    besideEachOther_.erase(inTable);
  }
  ++ambiguous_;
  wantsReplay_ = true;
}

void FpmRib::vrfsAre(const RouteVrfs& vrfs) {
  if (vrfs == vrfs_) return;
  const auto isOf = [](const RouteVrfs& all, std::uint32_t table, std::uint32_t vrfId) {
    const auto hasVrf = [vrfId](const auto& named) { return named.second == vrfId; };
    return all.ofTable(table) == vrfId || std::ranges::any_of(all.byVni, hasVrf);
  };
  const RouteVrfs before = std::exchange(vrfs_, vrfs);
  wantsReplay_ = isConnected_;
  for (auto& route : learned_) {
    const std::uint32_t table = route.second.table;
    const std::uint32_t vrfId = route.first.vrfId();
    // Of one that nobody has said yet the table is not known: it stays, unless no table leads to its VRF any more.
    const auto hasVrf = [vrfId](const auto& named) { return named.second == vrfId; };
    const bool wasNamed = std::ranges::any_of(before.byTable, hasVrf) || std::ranges::any_of(before.byVni, hasVrf);
    const bool isNamed = std::ranges::any_of(vrfs_.byTable, hasVrf) || std::ranges::any_of(vrfs_.byVni, hasVrf);
    if (table != 0 ? isOf(vrfs_, table, vrfId) : isNamed || !wasNamed) continue;
    route.second.isGone = true;
    queue(route);
  }
}

// With another metric it is another route, which has been replaced since.
void FpmRib::withdraw(const RouteKey& key, const std::optional<std::uint32_t>& metric) {
  const auto found = learned_.find(key);
  if (found == learned_.end() || (metric && found->second.metric != *metric)) return;
  found->second.isGone = true;
  queue(*found);
}

std::optional<FpmRib::SourceKey> FpmRib::sourceOf(const FpmRoute& route) const {
  const auto found = settings_.vnis.find(route.table);
  const Vxlan::Vni vni = found == settings_.vnis.end() ? Vxlan::Vni() : Vxlan::Vni(found->second);
  if (!route.isUnicast) return std::nullopt;
  if (route.nexthopId != 0) return SourceKey{session_, route.nexthopId, vni, {}};
  SourceKey key{0, 0, Vxlan::Vni(), route.nexthops};
  for (FpmNexthop& nexthop : key.nexthops) {
    if (!completesTunnel(nexthop, vni)) return std::nullopt;
  }
  std::ranges::sort(key.nexthops);
  if (key.nexthops.empty()) return std::nullopt;
  return key;
}

void FpmRib::learn(const RouteKey& key, SourceKey sourceKey, const FpmRoute& said) {
  if (learned_.size() >= mostLearned_ && !learned_.contains(key)) {
    if (refused_++ == 0) std::fputs("fpm: more routes than the tables could ever hold: left out\n", stderr);
    return;
  }
  SourceEntry& source = sourceFor(std::move(sourceKey));
  const auto [route, isNew] = learned_.try_emplace(key);
  Learned& learned = route->second;
  if (!isNew && learned.session != session_) --stale_;
  learned.session = session_;
  learned.isGone = false;
  learned.metric = said.metric.value_or(0);
  learned.hasMetric = said.metric.has_value();
  learned.table = said.table;
  learned.protocol = said.protocol;
  ++source.second.routes;
  release(std::exchange(learned.source, &source));
  queue(*route);
  if (listener_ != nullptr) listener_->handleRoute(key);
}

void FpmRib::queue(LearnedRoutes::value_type& route) {
  if (std::exchange(route.second.isQueued, true)) return;
  queue_.push_back(route.first);
  processingTask_->scheduleWithin(0);
}

// --- Sources ---------------------------------------------------------------------------------------------------------

FpmRib::SourceEntry& FpmRib::sourceFor(SourceKey key) {
  const auto [place, isNew] = sources_.try_emplace(std::move(key));
  if (isNew) resolve(*place);
  return *place;
}

void FpmRib::release(SourceEntry* source) {
  if (source == nullptr || --source->second.routes > 0) return;
  vias_->release(source->second.viaKey);
  sources_.erase(sources_.find(source->first));
}

FpmRib::SourceState FpmRib::contentOf(const SourceKey& key, std::vector<ViaNexthop>& content) const {
  auto nexthops = key.id == 0 ? std::optional(key.nexthops) : knowledge_.nexthopsOf(key.id);
  if (!nexthops) return SourceState::waiting;
  SourceState state = SourceState::ready;
  for (FpmNexthop& nexthop : *nexthops) {
    if (!completesTunnel(nexthop, key.vni)) return SourceState::noOverlay;
    const auto mac = knowledge_.macOf(nexthop.gateway, nexthop.vni);
    if (!mac) state = SourceState::waiting;
    content.push_back({nexthop.gateway, settings_.vti, 0, nexthop.vni, mac.value_or(EthAddr())});
  }
  const auto order = [](const ViaNexthop& nexthop) {
    return std::tuple(nexthop.remoteVtep, nexthop.vni, nexthop.routerMac);
  };
  std::ranges::sort(content, {}, order);
  content.erase(std::unique(content.begin(), content.end()), content.end());
  if (content.size() > Via::maxNexthops) content.resize(Via::maxNexthops);
  return state;
}

// An object of a session that is over says nothing new any more.
void FpmRib::resolve(SourceEntry& entry) {
  auto& [key, source] = entry;
  if (key.id != 0 && key.session != session_) return;
  std::vector<ViaNexthop> content;
  source.state = contentOf(key, content);
  if (source.state != SourceState::ready) return;
  const ViaKey viaKey = vias_->use(content);
  if (viaKey == 0) {
    source.state = SourceState::noRoom;
    retryTask_->scheduleWithin(settings_.retryInterval);
    return;
  }
  vias_->release(std::exchange(source.viaKey, viaKey));
}

// Their routes are looked at in a walk; one that is under way is followed by another, so that it comes to its end
// however often sources change.
void FpmRib::handleSources() {
  sourcesChanged_ = false;
  bool anyOther = false;
  for (auto& source : sources_) {
    const auto before = std::pair(source.second.state, source.second.viaKey);
    resolve(source);
    anyOther |= before != std::pair(source.second.state, source.second.viaKey);
  }
  if (!anyOther || learned_.empty()) return;
  walksAgain_ = walk_.has_value();
  if (!walk_) walk_ = learned_.begin()->first;
}

// --- Into the tables -------------------------------------------------------------------------------------------------

void FpmRib::handleProcessing() {
  if (sourcesChanged_) handleSources();
  std::uint64_t handled = 0;
  while (handleNext()) {
    ++handled;
    if (processingTask_->shouldYield()) break;
  }
  processingTask_->workCountIs(handled);
  processingTask_->workPendingIs(queue_.size());
  if (!isIdle()) processingTask_->scheduleWithin(0);
}

bool FpmRib::handleNext() {
  if (!queue_.empty()) {
    const RouteKey key = queue_.front();
    queue_.pop_front();
    const auto route = learned_.find(key);
    if (route == learned_.end()) return true;
    route->second.isQueued = false;
    sync(route);
    return true;
  }
  if (!walk_) return false;
  const auto route = learned_.lower_bound(*walk_);
  walk_.reset();
  if (route != learned_.end()) {
    if (const auto next = std::next(route); next != learned_.end()) walk_ = next->first;
    if (!route->second.isQueued) sync(route);
  }
  if (!walk_ && std::exchange(walksAgain_, false) && !learned_.empty()) walk_ = learned_.begin()->first;
  return true;
}

void FpmRib::sync(LearnedRoutes::iterator route) {
  const Learned& learned = route->second;
  if (learned.isGone || (learned.source != nullptr && learned.source->second.state == SourceState::noOverlay)) {
    if (!learned.isGone) ++leftOut_;
    return erase(route);
  }
  if (learned.source != nullptr && learned.source->second.viaKey != 0) write(*route);
}

void FpmRib::write(LearnedRoutes::value_type& route) {
  auto& [key, learned] = route;
  const ViaKey viaKey = learned.source->second.viaKey;
  const Route wanted(key, viaKey, 0, learned.metric);
  RouteConfig& table = tableOf(key);
  if (learned.viaKey == viaKey && table.route(key) == wanted) return;
  try {
    table.routeIs(wanted);
  } catch (const Pondra::TableError&) {
    if (noRoom_.empty()) std::fputs("fpm: the RIB tables are full: routes wait for room\n", stderr);
    noRoom_.insert(key);
    retryTask_->scheduleWithin(settings_.retryInterval);
    return;
  }
  noRoom_.erase(key);
  if (learned.viaKey == viaKey) return;
  vias_->useAgain(viaKey);
  vias_->release(std::exchange(learned.viaKey, viaKey));
}

void FpmRib::erase(LearnedRoutes::iterator route) {
  const auto& [key, learned] = *route;
  RouteConfig& table = tableOf(key);
  if (table.has(key)) table.routeDel(key);
  vias_->release(learned.viaKey);
  release(learned.source);
  if (learned.session != session_) --stale_;
  noRoom_.erase(key);
  if (listener_ != nullptr) listener_->handleRoute(key);
  learned_.erase(route);
}

void FpmRib::handleRetry() {
  for (const RouteKey& key : noRoom_) {
    if (const auto route = learned_.find(key); route != learned_.end()) queue(*route);
  }
  sourcesChanged_ |=
      std::ranges::any_of(sources_, [](const auto& source) { return source.second.state == SourceState::noRoom; });
  if (!isIdle()) processingTask_->scheduleWithin(0);
}

// --- The end of a replay ---------------------------------------------------------------------------------------------

// A suite that has said nothing at all has not begun: it always has something to say of its own machine.
void FpmRib::handleQuiet() {
  if (!isConnected_ || !hasHeard_) return;
  const double quiet = tasks_.now() - lastHeard_;
  if (quiet < settings_.staleTime || !isIdle()) {
    return quietTask_->scheduleWithin(std::max(settings_.staleTime - quiet, 0.01));
  }
  auto route = sweep_ ? learned_.lower_bound(*sweep_) : learned_.begin();
  while (stale_ > 0 && route != learned_.end()) {
    const auto current = route++;
    if (current->second.session != session_) erase(current);
    if (quietTask_->shouldYield()) break;
  }
  if (stale_ > 0 && route != learned_.end()) {
    sweep_ = route->first;
    return quietTask_->scheduleWithin(0);
  }
  sweep_.reset();
  reconcile();
}

void FpmRib::reconcile() {
  if (!viaTable_->reconciled()) viaTable_->reconciledIs();
  if (!routes4_->reconciled()) routes4_->reconciledIs();
  if (!routes6_->reconciled()) routes6_->reconciledIs();
}

// --- For whoever answers the suite -----------------------------------------------------------------------------------

std::optional<FpmRib::Said> FpmRib::said(const RouteKey& key) const {
  const auto found = learned_.find(key);
  if (found == learned_.end() || found->second.isGone || found->second.session != session_) return std::nullopt;
  const Learned& learned = found->second;
  if (learned.source == nullptr || learned.source->second.state == SourceState::noOverlay) return std::nullopt;
  const Source& source = learned.source->second;
  const bool isWritten = source.state == SourceState::ready && learned.viaKey == source.viaKey;
  return Said{learned.table, learned.protocol, learned.hasMetric ? std::optional(learned.metric) : std::nullopt,
              isWritten};
}

std::optional<FpmRib::RouteKey> FpmRib::behind(const std::optional<RouteKey>& key) const {
  const auto found = key ? learned_.upper_bound(*key) : learned_.begin();
  return found == learned_.end() ? std::nullopt : std::optional(found->first);
}

// --- For operators and tests -----------------------------------------------------------------------------------------

std::vector<std::pair<std::string, std::uint64_t>> FpmRib::figures() const {
  std::uint64_t waiting = 0;
  for (const auto& [key, source] : sources_) {
    if (source.state == SourceState::waiting) waiting += source.routes;
  }
  return {{"connected", isConnected_ ? 1 : 0},
          {"sessions", session_},
          {"learned", learned_.size()},
          {"written", routes4_->size() + routes6_->size()},
          {"vias", vias_->size()},
          {"waitingForMac", waiting},
          {"waitingForRoom", noRoom_.size()},
          {"stale", stale_},
          {"leftOut", leftOut_},
          {"refused", refused_ + vias_->refused()},
          {"ambiguous", ambiguous_},
          {"contradictions", knowledge_.contradictions()}};
}

void FpmRib::checkInvariants() const {
  const auto check = [](bool holds, const char* what) {
    if (!holds) throw std::logic_error(what);
  };
  vias_->checkInvariants();
  std::size_t inTables = 0;
  std::uint64_t stale = 0;
  for (const auto& [key, learned] : learned_) {
    const auto route = tableOf(key).route(key);
    if (route) ++inTables;
    check(learned.viaKey == 0 || (route && route->viaKey() == learned.viaKey && viaTable_->has(learned.viaKey)),
          "a route names the via that it is a user of");
    if (learned.session != session_) ++stale;
  }
  check(stale == stale_, "stale routes are counted");
  check(inTables == routes4_->size() + routes6_->size(), "every route of the tables is known");
  std::uint64_t ofSources = 0;
  for (const auto& [key, source] : sources_) ofSources += source.routes;
  check(ofSources == static_cast<std::uint64_t>(std::ranges::count_if(
                         learned_, [](const auto& route) { return route.second.source != nullptr; })),
        "a source counts its routes");
}

}  // namespace Netlink
