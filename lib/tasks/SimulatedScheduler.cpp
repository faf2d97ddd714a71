#include "lib/tasks/SimulatedScheduler.h"

#include <algorithm>

#include "platform/values/Assert.h"

namespace LinuxPlatform {

namespace {

constexpr std::uint64_t endless = 10'000'000;

}  // namespace

void SimulatedScheduler::advance(double seconds) {
  PLATFORM_ASSERT(seconds >= 0);
  const double end = now() + seconds;
  std::uint64_t runsAtOnce = 0;
  betweenRuns();
  while (now() <= end && nextDue() <= end) {
    if (!anyDue()) {
      nowIs(nextDue());
      betweenRuns();
    }
    const double before = now();
    runOne();
    runsAtOnce = now() > before ? 0 : runsAtOnce + 1;
    PLATFORM_ASSERT_TEXT(runsAtOnce < endless, "a task asks to run again without end");
  }
  nowIs(std::max(now(), end));
}

std::uint64_t SimulatedScheduler::runDue() {
  std::uint64_t runs = 0;
  betweenRuns();
  while (anyDue()) {
    runOne();
    PLATFORM_ASSERT_TEXT(++runs < endless, "a task asks to run again without end");
  }
  return runs;
}

void SimulatedScheduler::runOne() {
  running_ = true;
  runNext();
  running_ = false;
  nowIs(stopwatch());
  spentInRun_ = 0;
  betweenRuns();
}

void SimulatedScheduler::betweenRuns() {
  sliceStarts();
  if (afterRun_) afterRun_();
}

void SimulatedScheduler::sliceStarts() {
  asked_ = 0;
}

bool SimulatedScheduler::sliceSpent() {
  if (running_) spentInRun_ += entryCost_;
  if (yieldAfter_ == 0 || ++asked_ < yieldAfter_) return false;
  // Outside of task runs nothing marks the begin of a callback: there each "yes" ends one.
  if (!running_) asked_ = 0;
  return true;
}

}  // namespace LinuxPlatform
