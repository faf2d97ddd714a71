// The pattern by which every state machine does its bulk work: a named task that works until it should yield, and asks
// for its next run itself.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/services/TaskScheduler.h"
#include "platform/tables/SharedTable.h"
#include "platform/trace/Trace.h"

namespace RouteCache {

// One task of a state machine, made in its constructor. Requests are traced; a delay greater than the largest finite
// number of seconds schedules nothing.
class DeferredTask {
 public:
  DeferredTask(Platform::TaskScheduler& scheduler, const Platform::TraceHandle& trace, std::string_view name,
               Platform::TaskPriority priority, std::function<void()> body)
      : name_(name),
        trace_(trace),
        isDue_(std::make_shared<bool>(false)),
        task_(scheduler.taskIs(name, priority, [isDue = isDue_, body = std::move(body)] {
          *isDue = false;
          body();
        })) {}

  const std::string& name() const { return name_; }
  // Asks for a run after at most this many seconds; an earlier pending run stays where it is.
  void schedule(double seconds) {
    trace_(8, name_, " scheduling in ", seconds);
    if (seconds > std::numeric_limits<double>::max()) return;
    task_->scheduleWithin(seconds);
    *isDue_ = *isDue_ || seconds <= 0;
  }
  // A run at once has been asked for: it comes as soon as others have had their turns. A later run does not count, even
  // when its time has come.
  bool isDue() const { return *isDue_; }
  bool shouldYield() { return task_->shouldYield(); }
  // What the run that ends now has handled, and what still waits.
  void report(std::uint64_t workDone, std::uint64_t workPending) {
    task_->workCountIs(workDone);
    task_->workPendingIs(workPending);
  }

 private:
  std::string name_;
  const Platform::TraceHandle& trace_;
  std::shared_ptr<bool> isDue_;  // shared with the task's body, so that this object may be moved
  std::unique_ptr<Platform::Task> task_;
};

// What a listener can take that has been told of so many keys for this task to handle. Only one that is about to work
// is busy: what it is not told now is told when it has worked, and while its run is put off that would be nothing.
inline Pondra::Appetite appetiteOf(const DeferredTask& task, std::size_t told) {
  return task.isDue() ? Pondra::appetiteWith(told) : Pondra::Appetite::everything;
}

// Handles what `next` finds (false: nothing more) until the task should yield. True: there may be more.
template <class Next>
bool workOff(DeferredTask& task, std::uint64_t& handled, Next&& next) {
  while (next()) {
    ++handled;
    if (task.shouldYield()) return true;
  }
  return false;
}

// Visits what stands between two iterators until the task should yield, and returns where to go on. Each entry is
// copied and passed before its visit, which may take it away.
template <class Iterator, class End, class Visit>
Iterator visitUntilYield(DeferredTask& task, Iterator at, const End& end, std::uint64_t& handled, Visit&& visit) {
  while (at != end) {
    const auto entry = *at;
    ++at;
    visit(entry);
    ++handled;
    if (at != end && task.shouldYield()) break;
  }
  return at;
}

// Seconds between two runs of a task that has nothing but walks left to do. Whoever asks for walks may go on asking for
// ever; tasks of lower priority get their turns meanwhile.
inline constexpr double walkPause = 0.001;

// A run of a task that works off a queue and the walks that put keys into it. Returns in how many seconds it is to run
// again: fresh keys and walks go on at once, walks by themselves with a pause; what waits in the queue is looked after
// again after `defer`. Nothing: there is nothing left.
template <class Queue, class Next>
std::optional<double> runQueue(DeferredTask& task, const Queue& queue, double interval, double defer, Next&& next) {
  std::uint64_t handled = 0;
  const bool more = workOff(task, handled, next);
  task.report(handled, queue.size());
  if (more) return queue.hasFresh() ? interval : std::max(interval, walkPause);
  return queue.empty() ? std::nullopt : std::optional(defer);
}

// A setting of a state machine, in seconds.
struct Interval {
  // The least where something that waits is looked after again and again: with 0 the task would do nothing else.
  static constexpr double shortestRetry = 0.001;
  const char* name;
  double seconds;
  double least = 0;
};
// What is wrong with the first interval that is no finite number or below its least, in one line; empty when none is.
std::string intervalFault(std::initializer_list<Interval> intervals);

// Where visitUntilYield resumes that was left at an entry of an ordered table; nothing at the end.
template <class Iterator>
auto bookmarkOf(const Iterator& at, const Iterator& end) {
  return at == end ? std::nullopt : std::optional(at->key());
}

// Continues a walk over an ordered table at the bookmarked key, or at the beginning when that key has gone.
template <class Table>
typename Table::Iterator resumeFrom(const Table& table, const std::optional<typename Table::Key>& bookmark) {
  if (!bookmark) return table.begin();
  auto at = table.lowerBound(*bookmark);
  if (at == table.end() || !(at->key() == *bookmark)) return table.begin();
  return at;
}

}  // namespace RouteCache
