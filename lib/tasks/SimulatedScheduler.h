// A task scheduler whose time a test or a simulation moves.
#pragma once

#include <cstdint>
#include <functional>

#include "lib/tasks/TaskQueue.h"

namespace LinuxPlatform {

// Virtual time: nothing happens until a test says so, and everything happens in a fixed order.
class SimulatedScheduler final : public TaskQueue {
 public:
  // Lets time pass: runs everything that falls due within `seconds`, in due order, then stands at now() + seconds. When
  // runs take time it may end behind that, by the last one; what was due and had no turn yet stays due.
  void advance(double seconds);
  // Runs what is due now, whatever that makes due included; returns the number of runs. Not for tasks that are due for
  // ever.
  std::uint64_t runDue();
  // Nothing is scheduled at all.
  bool idle() const { return nextDue() == Platform::Task::never; }

  // Makes shouldYield() true once a callback has asked this often; 0 is never.
  void yieldAfterEntriesIs(std::uint64_t entries) { yieldAfter_ = entries; }
  // From now on a task run takes so many seconds of virtual time whenever it asks whether to yield, which is after
  // every entry: so a test can load the thread. The time slice is yieldAfterEntriesIs times this.
  void entryCostIs(double seconds) { entryCost_ = seconds; }
  // Called between task runs: after each one, and before the first of each advance() and runDue(). This is where a test
  // delivers table changes and checks what must hold between two callbacks.
  void afterRunIs(std::function<void()> hook) { afterRun_ = std::move(hook); }

 private:
  void sliceStarts() override;
  bool sliceSpent() override;
  double stopwatch() const override { return now() + spentInRun_; }
  double timeSlice() const override { return static_cast<double>(yieldAfter_) * entryCost_; }
  void runOne();
  void betweenRuns();

  std::uint64_t yieldAfter_ = 0;
  double entryCost_ = 0;
  double spentInRun_ = 0;
  std::uint64_t asked_ = 0;
  bool running_ = false;
  std::function<void()> afterRun_;
};

}  // namespace LinuxPlatform
