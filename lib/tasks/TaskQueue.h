// The ordering core of every task scheduler.
//
// Order: among the tasks that are due the lowest priority number runs first; tasks of equal priority run in the order
// they fell due, and one that asks for another run goes behind its equals, so none of them starves.
//
// The floor of background tasks: while one of them is due, the time that others have the thread is added up. Once they
// had (1 - share) / share time slices the first background task has its turn, which counts off (1 - share) / share
// times its length: one that overruns its slice makes the next turn later. The sum starts anew when no background task
// is due, or nothing keeps it waiting. In virtual time callbacks take no time unless a test says so; then nothing adds
// up, and priorities alone decide.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/services/TaskScheduler.h"

namespace LinuxPlatform {

// The ordering core: who is waiting, who is due, who runs next, and what is remembered of each. Must outlive its tasks.
class TaskQueue : public Platform::TaskScheduler {
 public:
  ~TaskQueue() override;
  std::unique_ptr<Platform::Task> taskIs(std::string_view name, Platform::TaskPriority priority,
                                         std::function<void()> body) override;
  double now() const override { return now_; }
  std::vector<Platform::TaskStatistics> statistics() const override;

  // When the next run is due, in the scheduler's time: at or before now() for one that is due already; Task::never when
  // nothing is scheduled.
  double nextDue() const;

 protected:
  void nowIs(double now) { now_ = now; }
  bool anyDue();
  // Runs the one task whose turn it is; false when none is due. Calls sliceStarts() before the body.
  bool runNext();
  // The thread was somebody else's for so many seconds: no task's run.
  void busyWithOthers(double seconds);
  // A callback begins: its time slice does too.
  virtual void sliceStarts() = 0;
  // Whether the running callback has spent its slice, whichever task is asked: reactions ask on behalf of the task that
  // will continue their work.
  virtual bool sliceSpent() = 0;
  // Seconds, from any fixed point; unlike now() it runs on during a callback.
  virtual double stopwatch() const = 0;
  virtual double timeSlice() const = 0;

 private:
  class Handle;
  struct Job;
  using Order = std::pair<double, std::uint64_t>;

  void scheduleWithin(Job& job, double delay);
  void cancel(Job& job);
  void collectDue();
  bool backgroundIsDue() const;

  double now_ = 0;
  std::uint64_t sequence_ = 0;
  std::uint64_t nextId_ = 0;
  std::map<std::uint64_t, Job*> tasks_;  // in the order of their making
  std::map<Order, Job*> waiting_;        // by (due time, order of asking)
  std::map<Order, Job*> due_;            // by (priority, order of falling due)
  double keptWaiting_ = 0;               // seconds that others had while a background task was due, less its turns
};

}  // namespace LinuxPlatform
