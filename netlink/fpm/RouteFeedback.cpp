#include "netlink/fpm/RouteFeedback.h"

#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <utility>

#include "netlink/fpm/FpmFrames.h"

// Of a kernel newer than some headers are.
#ifndef RTM_F_OFFLOAD_FAILED
#define RTM_F_OFFLOAD_FAILED 0x20000000
#endif

namespace Netlink {

namespace {

constexpr std::size_t askedAtOnce = 512;  // routes

}  // namespace

RouteFeedback::RouteFeedback(Pondra::TableService& tables, Platform::TaskScheduler& tasks, FpmRib& rib,
                             FeedbackSink& sink, InKernel inKernel, const Settings& settings)
    : settings_(settings), tasks_(tasks), rib_(rib), sink_(sink), inKernel_(std::move(inKernel)) {
  using Platform::TaskPriority;
  task_ = tasks.taskIs("fpmFeedbackTask", TaskPriority::background, [this] { handleProcessing(); });
  deadlineTask_ = tasks.taskIs("fpmDeadlineTask", TaskPriority::background, [this] { handleDeadlines(); });
  published_ = std::make_unique<PublishedRoutes>(tables, static_cast<PublishedRoutes::Listener&>(*this));
  rib_.listenerIs(this);
}

RouteFeedback::~RouteFeedback() {
  rib_.listenerIs(nullptr);
}

void RouteFeedback::hwVrfIdsAre(const std::map<std::uint32_t, std::uint32_t>& hwVrfIds) {
  if (hwVrfIds == hwVrfIds_) return;
  hwVrfIds_ = hwVrfIds;
  vrfIds_.clear();
  for (const auto& [vrfId, hwVrfId] : hwVrfIds) vrfIds_[hwVrfId] = vrfId;
  handleAllPublished();
}

void RouteFeedback::wake() {
  task_->scheduleWithin(0);
}

// --- What may have changed -------------------------------------------------------------------------------------------

void RouteFeedback::handleSession() {
  states_.clear();
  queue_.clear();
  deadlines_.clear();
  rechecks_.clear();
  forwarded_.clear();
  walks_ = false;
}

// Said again, the suite waits for an answer again.
void RouteFeedback::handleRoute(const RouteKey& key) {
  State& state = states_[key];
  state.told = Told::nothing;
  state.doubtedSince = -1;
  queue(key);
}

void RouteFeedback::handlePublished(std::uint32_t hwVrfId, const IpGenPrefix& prefix) {
  const auto vrf = vrfIds_.find(hwVrfId);
  if (vrf != vrfIds_.end()) queue(RouteKey(vrf->second, prefix));
}

void RouteFeedback::handleAllPublished() {
  walksAgain_ = walks_;
  if (!std::exchange(walks_, true)) walked_.reset();
  wake();
}

void RouteFeedback::queue(const RouteKey& key) {
  if (std::exchange(states_[key].isQueued, true)) return;
  queue_.push_back(key);
  wake();
}

// --- Telling ---------------------------------------------------------------------------------------------------------

void RouteFeedback::handleProcessing() {
  while (sink_.canSend() && !task_->shouldYield()) {
    if (forwarded_.size() >= askedAtOnce || (queue_.empty() && !walks_)) {
      if (forwarded_.empty()) return sink_.flush();
      tellForwarded();
      continue;
    }
    if (queue_.empty()) {
      handleWalk();
      continue;
    }
    const RouteKey key = queue_.front();
    queue_.pop_front();
    states_[key].isQueued = false;
    process(key);
  }
  sink_.flush();
  if (sink_.canSend()) wake();  // else it wakes this when it can
}

void RouteFeedback::handleWalk() {
  walked_ = rib_.behind(walked_);
  if (walked_) return process(*walked_);
  walks_ = std::exchange(walksAgain_, false);
}

void RouteFeedback::process(const RouteKey& key) {
  const auto said = rib_.said(key);
  const auto hwVrfId = hwVrfIds_.find(key.vrfId());
  if (!said) {
    states_.erase(key);
    return;
  }
  State& state = states_[key];
  if (hwVrfId == hwVrfIds_.end() || !said->isWritten) return doubt(key, state);
  if (!published_->forwards(hwVrfId->second, key.prefix())) return doubt(key, state);
  if (state.told == Told::offloaded) {
    state.doubtedSince = -1;
  } else {
    forwarded_.push_back(key);
  }
}

// Nobody forwards it at the moment, or nobody yet.
void RouteFeedback::doubt(const RouteKey& key, State& state) {
  if (state.told == Told::failed) return;
  const double now = tasks_.now();
  if (state.doubtedSince < 0) {
    state.doubtedSince = now;
    return deadlineIs(key, state);
  }
  if (now - state.doubtedSince < settings_.failAfter) return deadlineIs(key, state);
  // An agent that has just begun has not said all that it has to say.
  if (!published_->isReconciled()) return deadlineIs(key, state);
  if (const auto said = rib_.said(key)) tell(key, *said, Told::failed);
}

void RouteFeedback::deadlineIs(const RouteKey& key, State& state) {
  if (std::exchange(state.hasDeadline, true)) return;
  deadlines_.push_back({tasks_.now() + settings_.failAfter, key});
  deadlineTask_->scheduleWithin(settings_.failAfter);
}

void RouteFeedback::recheck(const RouteKey& key, State& state) {
  if (std::exchange(state.hasRecheck, true)) return;
  rechecks_.push_back({tasks_.now() + settings_.recheck, key});
  deadlineTask_->scheduleWithin(settings_.recheck);
}

void RouteFeedback::handleDeadlines() {
  const double now = tasks_.now();
  for (auto* deadlines : {&deadlines_, &rechecks_}) {
    while (!deadlines->empty() && deadlines->front().at <= now) {
      if (deadlineTask_->shouldYield()) return deadlineTask_->scheduleWithin(0);
      const RouteKey key = deadlines->front().key;
      deadlines->pop_front();
      const auto state = states_.find(key);
      if (state == states_.end()) continue;
      (deadlines == &deadlines_ ? state->second.hasDeadline : state->second.hasRecheck) = false;
      queue(key);
    }
    if (!deadlines->empty()) deadlineTask_->scheduleWithin(deadlines->front().at - now);
  }
}

// What is published may be on its way into the kernel still: it is told when it is there.
void RouteFeedback::tellForwarded() {
  const auto keys = std::exchange(forwarded_, {});
  std::vector<ForwardedRoute> routes;
  for (const RouteKey& key : keys) {
    const auto hwVrfId = hwVrfIds_.find(key.vrfId());
    routes.push_back({hwVrfId == hwVrfIds_.end() ? 0 : hwVrfId->second, key.prefix()});
  }
  const auto inKernel = inKernel_(routes);
  for (std::size_t i = 0; i < keys.size(); ++i) {
    const auto said = rib_.said(keys[i]);
    State& state = states_[keys[i]];
    if (!said || state.told == Told::offloaded) continue;
    if (!inKernel) {  // nobody can say
      recheck(keys[i], state);
      continue;
    }
    if (inKernel->empty() || (*inKernel)[i]) {
      tell(keys[i], *said, Told::offloaded);
      continue;
    }
    doubt(keys[i], state);
    if (state.told == Told::failed) {  // it is not asked for all the time then
      deadlineIs(keys[i], state);
    } else {
      recheck(keys[i], state);
    }
  }
}

// A suite knows its route by table, prefix and protocol.
void RouteFeedback::tell(const RouteKey& key, const FpmRib::Said& said, Told told) {
  rtmsg header{};
  header.rtm_family = key.prefix().isV4() ? AF_INET : AF_INET6;
  header.rtm_dst_len = static_cast<unsigned char>(key.prefix().length());
  header.rtm_table = said.table < 256 ? static_cast<unsigned char>(said.table) : std::uint8_t{RT_TABLE_UNSPEC};
  header.rtm_protocol = said.protocol;
  header.rtm_type = RTN_UNICAST;
  header.rtm_flags = told == Told::offloaded ? unsigned{RTM_F_OFFLOAD} : unsigned{RTM_F_OFFLOAD_FAILED};
  message_.clear();
  message_.messageBegins(RTM_NEWROUTE, 0, 0, header);
  message_.addAddress(RTA_DST, key.prefix().addr());
  message_.addNumber(RTA_TABLE, said.table);
  if (said.metric) message_.addNumber(RTA_PRIORITY, *said.metric);
  message_.messageEnds();
  fpmFrame(message_.bytes(), frame_);
  sink_.send(frame_);
  State& state = states_[key];
  state.told = told;
  if (told == Told::offloaded) state.doubtedSince = -1;
  ++(told == Told::offloaded ? offloaded_ : failed_);
}

std::vector<std::pair<std::string, std::uint64_t>> RouteFeedback::figures() const {
  return {{"toldOffloaded", offloaded_}, {"toldFailed", failed_}, {"toBeTold", queue_.size() + rechecks_.size()}};
}

}  // namespace Netlink
