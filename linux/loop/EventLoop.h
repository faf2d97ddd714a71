// Two task schedulers over one ordering core: the event loop of a process, and one whose time a test moves.
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

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "linux/loop/MonotonicClock.h"
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

// The event loop of a process: file descriptors, signals and tasks, one callback at a time. Time is the monotonic
// clock; it is read before each callback and stands still during it. A test may give the loop a clock of its own, and
// then lets it run with runOnce(0) only: waiting is the kernel's business, which knows no other clock.
class EventLoop final : public TaskQueue {
 public:
  static constexpr double defaultTimeSlice = 0.004;  // seconds

  // Throws std::system_error when the kernel refuses a descriptor.
  explicit EventLoop(double timeSlice = defaultTimeSlice,
                     std::shared_ptr<const Platform::Clock> clock = std::make_shared<MonotonicClock>());
  ~EventLoop() override;
  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;

  // Calls `ready` with the epoll events that occurred on the descriptor; replaces events and callback of one already
  // watched. The descriptor stays the caller's, who takes it out before closing it; also from inside a callback.
  void fdIs(int fd, std::uint32_t events, std::function<void(std::uint32_t)> ready);
  void fdDel(int fd);

  // From now on SIGTERM, SIGINT and, unless it is ignored, SIGHUP stop the loop and SIGPIPE is ignored; undone at
  // destruction.
  void stopOnSignals();

  // Called after each batch of callbacks: the descriptors that were ready, one turn each, then the tasks that were due,
  // either for about a time slice.
  void afterBatchIs(std::function<void()> hook) { afterBatch_ = std::move(hook); }

  // Runs until stop().
  void run();
  // One batch; waits for something to do at most `seconds` (0: not at all).
  void runOnce(double seconds);
  void stop() { stopped_ = true; }

 private:
  struct Watch;
  void sliceStarts() override;
  bool sliceSpent() override;
  double stopwatch() const override { return clock_->now(); }
  double timeSlice() const override { return timeSlice_; }
  void armTimer(double due);
  void runDescriptors(int timeoutMilliseconds);
  void runTasks();

  std::shared_ptr<const Platform::Clock> clock_;
  double timeSlice_;
  double sliceStart_ = 0;
  double lastLook_ = 0;          // when the slice's clock was last read
  std::uint32_t untilLook_ = 0;  // questions that are answered without reading it
  std::uint32_t lookInterval_ = 1;
  bool spent_ = false;

  int epollFd_ = -1;
  int timerFd_ = -1;
  int signalFd_ = -1;
  double armedFor_ = Platform::Task::never;
  std::uint64_t nextWatch_ = 0;
  std::map<int, std::uint64_t> watchOfFd_;
  std::map<std::uint64_t, std::shared_ptr<Watch>> watches_;
  std::function<void()> afterBatch_;
  bool stopped_ = false;
};

}  // namespace LinuxPlatform
