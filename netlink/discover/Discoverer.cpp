#include "netlink/discover/Discoverer.h"

#include <sys/epoll.h>

#include <algorithm>
#include <exception>
#include <utility>

#include "linux/loop/MonotonicClock.h"

namespace Netlink {

namespace {

constexpr double firstRetry = 1;
constexpr int surveysForLoss = 2;      // beside the first
constexpr double pausePerSurvey = 10;  // times as long as it took

}  // namespace

Discoverer::Discoverer(LinuxPlatform::EventLoop& loop, DiscoverSettings settings, Intervals intervals,
                       StateKeeper& keeper, Tell tell)
    : loop_(loop),
      settings_(std::move(settings)),
      intervals_(intervals),
      keeper_(keeper),
      tell_(std::move(tell)),
      announcements_(machineGroups()) {
  surveyTask_ = loop.taskIs("surveyTask", Platform::TaskPriority::processing, [this] { handleSurvey(); });
  lookTask_ = loop.taskIs("stateLookTask", Platform::TaskPriority::processing, [this] { handleLook(); });
  loop.fdIs(announcements_.fd(), EPOLLIN, [this](std::uint32_t) { handleAnnouncements(); });
  surveyTask_->scheduleWithin(0);
  lookTask_->scheduleWithin(intervals_.look);
}

Discoverer::~Discoverer() {
  loop_.fdDel(announcements_.fd());
}

void Discoverer::handleAnnouncements() {
  bool isConcerned = false;
  Bytes rest;
  for (int i = 0; i < 64; ++i) {  // others have their turn
    const auto receipt = announcements_.receive(rest);
    if (receipt == Socket::Receipt::nothing) break;
    isConcerned = isConcerned || receipt == Socket::Receipt::overrun;
    if (receipt == Socket::Receipt::overrun) continue;
    while (const nlmsghdr* message = nextMessage(rest)) isConcerned = isConcerned || concernsSurvey(*message);
  }
  if (isConcerned) surveyWanted();
}

void Discoverer::surveyWanted() {
  const double sinceLast = loop_.now() - surveyedAt_;
  surveyTask_->scheduleWithin(std::max(intervals_.settle, pause_ - sinceLast));
}

void Discoverer::handleSurvey() {
  const LinuxPlatform::MonotonicClock clock;
  const double begun = clock.now();
  Survey survey;
  try {
    survey = surveyMachine();
    // A dump beside other changes may lack what is there, without a word of it: only what several lack is gone.
    for (int i = 0; survey_ && i < surveysForLoss && lacksOf(survey, *survey_); ++i)
      addMissing(survey, surveyMachine());
  } catch (const std::system_error& error) {
    return fail(error.what());
  }
  ++surveys_;
  surveyedAt_ = clock.now();
  pause_ = pausePerSurvey * (surveyedAt_ - begun);
  if (survey_ != survey) {
    survey_ = std::move(survey);
    isKept_ = false;
  }
  if (!isKept_) keep();
}

// The keeper may have been changed by others, too, or have come back with less than it had.
void Discoverer::handleLook() {
  lookTask_->scheduleWithin(intervals_.look);
  if (!isKept_ && keeper_.isAnother()) {  // the one that was out of reach has come back
    retry_ = 0;
    surveyTask_->scheduleWithin(0);
  }
  const bool isDue = isKept_ && loop_.now() - keptAt_ >= intervals_.compare;
  if (!isDue && (!isKept_ || !keeper_.isAnother())) return;
  isKept_ = false;
  surveyWanted();
}

void Discoverer::keep() {
  told_.clear();
  const auto state = switchState(*survey_, settings_, [this](const std::string& line) { tellOnce(line); });
  StateKeeper::Outcome outcome;
  try {
    outcome = keeper_.keep(state);
  } catch (const std::exception& error) {
    return fail(error.what());
  }
  for (const auto& refusal : outcome.refusals) tellOnce(refusal);
  std::swap(toldBefore_, told_);
  if (retry_ > 0) tell_("the state database is there again");
  retry_ = 0;
  fault_.clear();
  changes_ += outcome.changes;
  isKept_ = true;
  keptAt_ = loop_.now();
}

void Discoverer::fail(const std::string& fault) {
  if (fault != fault_) tell_(fault);
  fault_ = fault;
  isKept_ = false;
  retry_ = retry_ == 0 ? firstRetry : std::min(2 * retry_, intervals_.longestRetry);
  surveyTask_->scheduleWithin(retry_);
}

// Each line when it comes up, not in each survey.
void Discoverer::tellOnce(const std::string& line) {
  if (std::ranges::find(toldBefore_, line) == toldBefore_.end() && std::ranges::find(told_, line) == told_.end()) {
    tell_(line);
  }
  told_.push_back(line);
}

std::vector<std::pair<std::string, std::uint64_t>> Discoverer::figures() const {
  const Survey none;
  const Survey& survey = survey_ ? *survey_ : none;
  return {{"kept", isKept_ ? 1 : 0},
          {"vrfs", survey.vrfTables.size() + settings_.vrfTables.size() + 1},
          {"tunnels", survey.tunnels.size()},
          {"underlayRoutes", survey.underlay.size()},
          {"leftOut", toldBefore_.size()},
          {"surveys", surveys_},
          {"changes", changes_}};
}

}  // namespace Netlink
