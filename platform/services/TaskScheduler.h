// Deferred work on the agent's one event thread: a named, prioritised job that runs after a delay and hands the thread
// back when its time slice is spent. Everything here runs on that thread; nothing is locked.
//
// Order: among the tasks that are due the lowest priority number runs first, and equals take turns. Background tasks
// have a floor: for as long as one of them is due, a backgroundShare of the thread's time is theirs, one time slice at
// a time, however much the others have to do. So a scan that works for a second in all ends within about eight, and no
// stream of changes stops ageing or clean-ups. Nobody else has a floor: deliveries merge by key and queues hold a key
// once, so urgent work and deliveries end.
#pragma once

#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace Platform {

// Part of the thread's time that is kept for background tasks while one is due: enough for a full scan of a million
// routes, about 0.8 s of work, to end well within its interval of 40 s also next to other background work; and little
// enough that the processing of changes does not slow down noticeably.
inline constexpr double backgroundShare = 0.125;

// A lower number runs first among the tasks that are due; equal ones take turns.
enum class TaskPriority : std::uint8_t {
  urgent = 1,      // the platform's own: control requests, signals
  delivery = 2,    // changes of shared tables on their way to reactors, and whatever decisions must not overtake
  processing = 3,  // queues and syncs
  background = 4,  // scans, clean-ups, one-time work; never starved
};

// What the scheduler remembers of one task, for an operator.
struct TaskStatistics {
  std::string name;
  TaskPriority priority = TaskPriority::processing;
  std::uint64_t runs = 0;
  std::uint64_t workDone = 0;     // sum of workCountIs over all runs
  std::uint64_t workPending = 0;  // as last reported
  double longestRun = 0;          // seconds
  double totalRun = 0;            // seconds
  double longestWait = 0;         // seconds from falling due to the begin of the run
};

// Made by the TaskScheduler and owned by the state machine it works for. Destroying a task cancels its pending run;
// a task may be destroyed from inside its own body.
class Task {
 public:
  static constexpr double never = std::numeric_limits<double>::infinity();

  Task() = default;
  Task(const Task&) = delete;
  Task& operator=(const Task&) = delete;
  virtual ~Task() = default;
  // Runs the body at most `delay` seconds from now: 0 means as soon as the scheduler allows (never from inside this
  // call), an infinite delay schedules nothing, and a run that is already due sooner stays where it is. Called from
  // inside the body it asks for another run after this one.
  virtual void scheduleWithin(double delay) = 0;
  // True once the running body has spent its time slice. Ask after each entry, never before the first: that way every
  // run makes progress. Cheap enough to ask after every entry.
  virtual bool shouldYield() = 0;
  virtual void workCountIs(std::uint64_t handled) = 0;    // entries handled in this run
  virtual void workPendingIs(std::uint64_t pending) = 0;  // entries still waiting
};

class TaskScheduler {
 public:
  virtual ~TaskScheduler() = default;
  // The body is called on the event thread whenever a scheduled run is due. Nothing is scheduled yet.
  virtual std::unique_ptr<Task> taskIs(std::string_view name, TaskPriority priority, std::function<void()> body) = 0;
  // Monotonic seconds; stands still during one callback. For the platform and for run-time budgets: decisions about
  // routes do not ask it.
  virtual double now() const = 0;
  // One per task that exists, in the order of their making.
  virtual std::vector<TaskStatistics> statistics() const = 0;
};

}  // namespace Platform
