#include "netlink/kernel/KernelMirror.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/epoll.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <system_error>

#include "platform/values/Text.h"

namespace Netlink {

using Platform::TaskPriority;
using RouteCache::AdjId;

namespace {

// A next hop that nobody has: without the right to remove it the answer is another.
void checkRights() {
  Socket socket;
  MessageBuffer message;
  removeNexthop(message, 1, unusedId);
  message.answerIsWanted();
  const auto outcome = socket.exchange(message, 1);
  const int error = outcome.refusals.empty() ? 0 : outcome.refusals.front().error;
  if (error == EPERM || error == EOPNOTSUPP) {
    throw std::runtime_error("the kernel's routes: " + std::generic_category().message(error));
  }
}

}  // namespace

KernelMirror::KernelMirror(Pondra::TableService& tables, LinuxPlatform::EventLoop& loop, const MirrorSettings& settings)
    : settings_(settings),
      vnis_(settings.vnis),
      loop_(loop),
      batch_(*this),
      nexthops_(batch_,
                [this](AdjId adjId) {
                  routes4_->handleStood(adjId);
                  routes6_->handleStood(adjId);
                }),
      links_(RTMGRP_LINK) {
  checkRights();
  processingTask_ = loop.taskIs("kernelProcessingTask", TaskPriority::processing, [this] { handleProcessing(); });
  comparisonTask_ = loop.taskIs("kernelComparisonTask", TaskPriority::processing, [this] { handleComparison(); });
  beginTask_ = loop.taskIs("kernelBeginTask", TaskPriority::processing, [this] { beginComparison(); });
  intervalTask_ = loop.taskIs("kernelIntervalTask", TaskPriority::background, [this] { comparisonWanted(); });
  retryTask_ = loop.taskIs("kernelRetryTask", TaskPriority::background, [this] { handleRetry(); });
  adjacencies_ = std::make_unique<AdjacencyReader>(
      tables,
      AdjacencyReader::Surroundings{[this](IntfId vti, Bridging::ExtendedVlanId vlan) { return vniOf(vti, vlan); },
                                    [this](IntfId vti) { return deviceOf(vti); }},
      [this](AdjId adjId) { adjacencyWanted(adjId); }, [this] { comparisonWanted(); });
  const auto contextOf = [this]<class Family>(const Family&) {
    return typename RouteMirror<Family>::Context{settings_,
                                                 batch_,
                                                 nexthops_,
                                                 [this] { wake(); },
                                                 [this] { comparisonWanted(); },
                                                 [this](AdjId adjId) { adjacencyWanted(adjId); },
                                                 [this] { return loop_.now(); }};
  };
  routes4_ = std::make_unique<RouteMirror<RouteCache::Ipv4Family>>(tables, settings_.routePath,
                                                                   contextOf(RouteCache::Ipv4Family()));
  routes6_ = std::make_unique<RouteMirror<RouteCache::Ipv6Family>>(tables, settings_.route6Path,
                                                                   contextOf(RouteCache::Ipv6Family()));
  loop_.fdIs(links_.fd(), EPOLLIN, [this](std::uint32_t) { handleLinks(); });
  comparisonWanted();
}

KernelMirror::~KernelMirror() {
  loop_.fdDel(links_.fd());
}

// --- Changes ---------------------------------------------------------------------------------------------------------

void KernelMirror::wake() {
  processingTask_->scheduleWithin(0);
}

void KernelMirror::adjacencyWanted(AdjId adjId) {
  if (queuedAdjacencies_.insert(adjId).second) adjacencyQueue_.push_back(adjId);
  wake();
}

// Next hops are not changed while they are dumped, nor anything before all has been dumped once.
bool KernelMirror::isHeld() const {
  return !isKnown_ || step_ == Step::links || step_ == Step::neighbours || step_ == Step::nexthops;
}

void KernelMirror::handleProcessing() {
  if (isHeld()) return;  // the comparison goes on with it
  std::uint64_t handled = 0;
  while (handleNext()) {
    ++handled;
    if (batch_.isFull()) batch_.flush();
    if (processingTask_->shouldYield()) break;
  }
  batch_.flush();
  processingTask_->workCountIs(handled);
  if (!adjacencyQueue_.empty() || routes4_->queued() > 0 || routes6_->queued() > 0) wake();
}

// Adjacencies go first: a route waits for nothing else. What routes refer to has been carried out before they are sent.
bool KernelMirror::handleNext() {
  if (handleNextAdjacency()) return true;
  if (batch_.hasNexthops()) batch_.flush();
  return routes4_->handleNext() || routes6_->handleNext();
}

bool KernelMirror::handleNextAdjacency() {
  if (adjacencyQueue_.empty()) return false;
  const AdjId adjId = adjacencyQueue_.front();
  adjacencyQueue_.pop_front();
  queuedAdjacencies_.erase(adjId);
  handleAdjacency(adjId);
  return true;
}

void KernelMirror::handleAdjacency(AdjId adjId) {
  KernelNexthops::Content content;
  switch (adjacencies_->read(adjId, content)) {
    case AdjacencyReader::State::whole:
      nexthops_.contentIs(adjId, content);
      break;
    case AdjacencyReader::State::gone:
      nexthops_.del(adjId);  // or when its last route goes
      refusedAdjacencies_.del(adjId);
      break;
    case AdjacencyReader::State::undecided:
      break;
  }
}

void KernelMirror::handleRefused(const Subject& subject, int error) {
  if (subject.kind == Subject::Kind::route) {
    if (subject.route.prefix.isV4()) routes4_->handleRefused(subject, error);
    if (subject.route.prefix.isV6()) routes6_->handleRefused(subject, error);
  } else if (subject.change != Change::remove) {
    nexthops_.refused(subject);
    if (subject.adjId != AdjId()) refusedAdjacencies_.add(subject.adjId, error, loop_.now());
  }
  retryTask_->scheduleWithin(Refusals<AdjId>::firstDelay);
}

void KernelMirror::handleDone(const Subject& subject) {
  if (subject.kind == Subject::Kind::group) refusedAdjacencies_.del(subject.adjId);
  if (subject.kind != Subject::Kind::route) return;
  if (subject.route.prefix.isV4()) routes4_->handleDone(subject);
  if (subject.route.prefix.isV6()) routes6_->handleDone(subject);
}

void KernelMirror::handleRetry() {
  constexpr std::size_t retriesAtOnce = 1024;
  for (const AdjId adjId : refusedAdjacencies_.takeDue(loop_.now(), retriesAtOnce)) adjacencyWanted(adjId);
  const bool isMore4 = routes4_->retryDue();
  const bool isMore6 = routes6_->retryDue();
  if (isMore4 || isMore6 || refusedAdjacencies_.isUnderWay()) return retryTask_->scheduleWithin(0);
  if (refusedAdjacencies_.empty() && routes4_->refusals().empty() && routes6_->refusals().empty()) return;
  retryTask_->scheduleWithin(Refusals<AdjId>::firstDelay);
}

// --- Links -----------------------------------------------------------------------------------------------------------

std::optional<std::uint32_t> KernelMirror::deviceOf(IntfId vti) {
  const std::string name = settings_.device.empty() ? vti.name() : settings_.device;
  if (!wantedDevices_.contains(name)) wantedDevices_.insert(name);
  const auto device = devices_.find(name);
  return device == devices_.end() ? std::nullopt : std::optional(device->second);
}

std::optional<std::uint32_t> KernelMirror::vniOf(IntfId vti, Bridging::ExtendedVlanId vlan) const {
  auto vni = vnis_.find({vti, vlan});
  if (vni == vnis_.end()) vni = vnis_.find({IntfId(), vlan});
  return vni == vnis_.end() ? std::nullopt : std::optional(vni->second);
}

void KernelMirror::vnisAre(const TunnelVnis& vnis) {
  if (vnis == vnis_) return;
  vnis_ = vnis;
  comparisonWanted();  // which looks at every adjacency
}

void KernelMirror::handleLinks() {
  if (step_ == Step::links) comparisonWanted();  // whether the dump has said this or something older is not known
  Bytes rest;
  for (;;) {
    switch (links_.receive(rest)) {
      case Socket::Receipt::nothing:
        return;
      case Socket::Receipt::overrun:
        comparisonWanted();
        break;
      case Socket::Receipt::messages:
        while (const nlmsghdr* message = nextMessage(rest)) {
          if (const auto link = linkIn(*message)) linkIs(*link);
        }
        break;
    }
  }
}

void KernelMirror::linkIs(const Link& link) {
  const auto isSame = [&](const auto& device) { return device.second == link.device; };
  const auto known = std::ranges::find_if(devices_, isSame);
  const bool wasUp = known != devices_.end() && known->first == link.name;
  if (wasUp && link.isUp) return;
  if (known != devices_.end()) {
    if (wantedDevices_.contains(known->first)) comparisonWanted();
    devices_.erase(known);
  }
  if (!link.isUp) return;
  devices_[link.name] = link.device;
  if (wantedDevices_.contains(link.name)) comparisonWanted();
}

// --- Comparing -------------------------------------------------------------------------------------------------------

void KernelMirror::comparisonWanted() {
  comparisonOwed_ = true;
  if (step_ == Step::idle) beginTask_->scheduleWithin(0);
}

void KernelMirror::beginComparison() {
  if (step_ != Step::idle) return;  // it is owed at the end of the one that is under way
  comparisonOwed_ = false;
  isSpoilt_ = false;
  intervalTask_->scheduleWithin(settings_.compareInterval);
  stepIs(Step::links);
}

void KernelMirror::stepIs(Step step) {
  batch_.flush();  // what comes now is about what is there then
  step_ = step;
  dumpAsked_ = false;
  groupBookmark_.reset();
  if (step == Step::links) devices_.clear();
  if (step == Step::neighbours) nexthops_.forget();
  if (step == Step::routes4) {
    strays_.clear();
    routes4_->comparisonBegins();
    routes6_->comparisonBegins();
  }
  if (step == Step::adjacencies) isKnown_ = true;
  comparisonTask_->scheduleWithin(0);
}

void KernelMirror::handleComparison() {
  while (step_ != Step::idle) {
    if (workOnStep()) {
      if (step_ == Step::strays) return comparisonEnds();
      stepIs(static_cast<Step>(static_cast<std::uint8_t>(step_) + 1));
    }
    if (batch_.isFull()) batch_.flush();
    if (comparisonTask_->shouldYield()) break;
  }
  batch_.flush();
  if (step_ == Step::idle) return;  // its last step had asked for another turn
  comparisonTask_->scheduleWithin(0);
  if (!isHeld()) wake();
}

void KernelMirror::comparisonEnds() {
  constexpr double pause = 1;  // seconds: somebody else may go on changing the kernel's tables all the time
  batch_.flush();
  step_ = Step::idle;
  ++comparisons_;
  wake();
  if (comparisonOwed_) return beginTask_->scheduleWithin(0);
  if (isSpoilt_) beginTask_->scheduleWithin(pause);
}

// True: the step is done.
bool KernelMirror::workOnStep() {
  const auto shouldYield = [this] { return batch_.isFull() || comparisonTask_->shouldYield(); };
  switch (step_) {
    case Step::idle:
      break;
    case Step::links:
      return readDump(Dump::links);
    case Step::neighbours:
      return readDump(Dump::neighbours);
    case Step::nexthops:
      return readDump(Dump::nexthops);
    case Step::routes4:
      return readDump(Dump::routes4);
    case Step::routes6:
      return readDump(Dump::routes6);
    case Step::adjacencies:
      return adjacencies_->walk(shouldYield);
    case Step::groups:
      return queueGroups();
    case Step::settling:
      return !handleNextAdjacency();
    case Step::walk4:
      return routes4_->walk(shouldYield);
    case Step::walk6:
      return routes6_->walk(shouldYield);
    case Step::strays:
      return removeStrays();
  }
  return true;
}

// The next part. True: that was the last one.
bool KernelMirror::readDump(Dump dump) {
  if (!dumpAsked_) {
    question_.clear();
    askForDump(question_, ++dumpSequence_, dump);
    dump_.send(question_);
    dumpAsked_ = true;
  }
  Bytes rest;
  const Socket::Receipt receipt = dump_.receive(rest);
  if (receipt != Socket::Receipt::messages) isSpoilt_ = true;
  if (receipt == Socket::Receipt::nothing) return true;
  while (const nlmsghdr* message = nextMessage(rest)) {
    if (message->nlmsg_seq != dumpSequence_) continue;
    if ((message->nlmsg_flags & NLM_F_DUMP_INTR) != 0) isSpoilt_ = true;
    if (message->nlmsg_type == NLMSG_DONE || message->nlmsg_type == NLMSG_ERROR) {
      const int error = errorIn(*message);
      if (error != 0 && error != EOPNOTSUPP) isSpoilt_ = true;
      return true;
    }
    handleDumped(dump, *message);
  }
  return false;
}

void KernelMirror::handleDumped(Dump dump, const nlmsghdr& message) {
  switch (dump) {
    case Dump::links:
      if (const auto link = linkIn(message); link && link->isUp) devices_[link->name] = link->device;
      break;
    case Dump::neighbours:
      if (const auto neighbour = neighbourIn(message)) nexthops_.found(*neighbour);
      break;
    case Dump::nexthops:
      if (const auto nexthop = nexthopIn(message)) nexthops_.found(*nexthop);
      break;
    case Dump::routes4:
    case Dump::routes6:
      if (const auto route = routeIn(message)) {
        const bool isOurs = route->prefix.isV4() ? routes4_->found(*route) : routes6_->found(*route);
        if (!isOurs) strays_.push_back(*route);
      }
      break;
  }
}

// Groups of adjacencies that no table has any more are looked at, too. True: all have been queued.
bool KernelMirror::queueGroups() {
  while (const auto adjId = nexthops_.after(groupBookmark_.value_or(AdjId()))) {
    groupBookmark_ = *adjId;
    adjacencyWanted(*adjId);
    if (comparisonTask_->shouldYield()) return false;
  }
  return true;
}

// True: none is left that may go.
bool KernelMirror::removeStrays() {
  nexthops_.removeStrays();
  if (!routes4_->table().reconciled() || !routes6_->table().reconciled()) return true;
  while (!strays_.empty() && !batch_.isFull()) {
    batch_.route(Change::remove, strays_.back(), AdjId());
    strays_.pop_back();
  }
  return strays_.empty();
}

// --- For operators ---------------------------------------------------------------------------------------------------

bool KernelMirror::isIdle() const {
  return step_ == Step::idle && !comparisonOwed_ && adjacencyQueue_.empty() && routes4_->queued() == 0 &&
         routes6_->queued() == 0;
}

bool KernelMirror::forwards(std::uint32_t hwVrfId, const IpGenPrefix& prefix) const {
  if (!isKnown_) return false;
  return prefix.isV4() ? routes4_->stands(RouteCache::Ipv4RouteVrfKey(prefix.v4(), hwVrfId))
                       : routes6_->stands(RouteCache::Ipv6RouteVrfKey(prefix.v6(), hwVrfId));
}

std::vector<std::pair<std::string, std::uint64_t>> KernelMirror::figures() const {
  return {{"ipv4Routes", routes4_->size()},
          {"ipv6Routes", routes6_->size()},
          {"adjacencies", nexthops_.groups()},
          {"queued", routes4_->queued() + routes6_->queued() + adjacencyQueue_.size()},
          {"waiting", routes4_->waiting() + routes6_->waiting()},
          {"unmapped", routes4_->unmapped() + routes6_->unmapped()},
          {"unreconciled", routes4_->unreconciled() + routes6_->unreconciled()},
          {"refused", routes4_->refusals().size() + routes6_->refusals().size() + refusedAdjacencies_.size()},
          {"messagesSent", batch_.messagesSent()},
          {"messagesRefused", batch_.messagesRefused()},
          {"comparisons", comparisons_}};
}

std::vector<KernelMirror::RefusedRoute> KernelMirror::refused(std::size_t most) const {
  std::vector<RefusedRoute> routes;
  const auto add = [&](const auto& key, const auto& refusal) {
    if (routes.size() >= most) return false;
    routes.push_back({key.shortText(), refusal.error});
    return true;
  };
  routes4_->refusals().forEach(add);
  routes6_->refusals().forEach(add);
  refusedAdjacencies_.forEach([&](const AdjId& adjId, const auto& refusal) {
    if (routes.size() >= most) return false;
    routes.push_back({"adjacency " + Platform::toText(adjId), refusal.error});
    return true;
  });
  return routes;
}

}  // namespace Netlink
