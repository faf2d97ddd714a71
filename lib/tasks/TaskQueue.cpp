#include "lib/tasks/TaskQueue.h"

#include <algorithm>
#include <cmath>

#include "platform/values/Assert.h"

namespace LinuxPlatform {

using Platform::Task;
using Platform::TaskPriority;
using Platform::TaskStatistics;

// Shared by its handle and, while the body runs, by the queue: a body may destroy its own task.
struct TaskQueue::Job : std::enable_shared_from_this<Job> {
  std::uint64_t id = 0;
  std::function<void()> body;
  TaskStatistics statistics;
  std::map<Order, Job*>* queue = nullptr;  // where it stands: waiting_, due_ or nowhere
  Order order;
  double due = 0;  // when it fell due, once it stands in due_
};

class TaskQueue::Handle final : public Task {
 public:
  Handle(TaskQueue& queue, std::shared_ptr<Job> job) : queue_(queue), job_(std::move(job)) {}
  ~Handle() override {
    queue_.cancel(*job_);
    queue_.tasks_.erase(job_->id);
  }
  void scheduleWithin(double delay) override { queue_.scheduleWithin(*job_, delay); }
  bool shouldYield() override { return queue_.sliceSpent(); }
  void workCountIs(std::uint64_t handled) override { job_->statistics.workDone += handled; }
  void workPendingIs(std::uint64_t pending) override { job_->statistics.workPending = pending; }

 private:
  TaskQueue& queue_;
  std::shared_ptr<Job> job_;
};

TaskQueue::~TaskQueue() {
  PLATFORM_ASSERT_TEXT(tasks_.empty(), "a task outlives its scheduler");
}

std::unique_ptr<Task> TaskQueue::taskIs(std::string_view name, TaskPriority priority, std::function<void()> body) {
  auto job = std::make_shared<Job>();
  job->id = nextId_++;
  job->body = std::move(body);
  job->statistics.name = name;
  job->statistics.priority = priority;
  tasks_[job->id] = job.get();
  return std::make_unique<Handle>(*this, std::move(job));
}

std::vector<TaskStatistics> TaskQueue::statistics() const {
  std::vector<TaskStatistics> all;
  all.reserve(tasks_.size());
  for (const auto& [id, job] : tasks_) all.push_back(job->statistics);
  return all;
}

void TaskQueue::scheduleWithin(Job& job, double delay) {
  PLATFORM_ASSERT(!std::isnan(delay));
  if (delay == Task::never || job.queue == &due_) return;
  const double due = now_ + std::max(delay, 0.0);
  if (job.queue == &waiting_ && job.order.first <= due) return;
  cancel(job);
  job.order = {due, sequence_++};
  job.queue = &waiting_;
  waiting_[job.order] = &job;
}

void TaskQueue::cancel(Job& job) {
  if (job.queue != nullptr) job.queue->erase(job.order);
  job.queue = nullptr;
}

double TaskQueue::nextDue() const {
  if (!due_.empty()) return now_;
  if (waiting_.empty()) return Task::never;
  return waiting_.begin()->first.first;
}

void TaskQueue::collectDue() {
  while (!waiting_.empty() && waiting_.begin()->first.first <= now_) {
    Job& job = *waiting_.begin()->second;
    cancel(job);
    job.due = job.order.first;
    job.order = {static_cast<double>(job.statistics.priority), sequence_++};
    job.queue = &due_;
    due_[job.order] = &job;
  }
}

bool TaskQueue::anyDue() {
  collectDue();
  return !due_.empty();
}

bool TaskQueue::backgroundIsDue() const {
  return !due_.empty() && due_.rbegin()->second->statistics.priority == TaskPriority::background;
}

void TaskQueue::busyWithOthers(double seconds) {
  collectDue();
  if (backgroundIsDue()) keptWaiting_ += seconds;
}

bool TaskQueue::runNext() {
  if (!anyDue()) return false;
  auto next = due_.begin();
  const bool kept = backgroundIsDue() && next->second->statistics.priority != TaskPriority::background;
  if (!kept) keptWaiting_ = 0;
  constexpr double othersTurns = (1 - Platform::backgroundShare) / Platform::backgroundShare;
  const bool floor = keptWaiting_ > 0 && keptWaiting_ >= othersTurns * timeSlice();
  if (floor) next = due_.lower_bound({static_cast<double>(TaskPriority::background), 0});
  const std::shared_ptr<Job> job = next->second->shared_from_this();
  cancel(*job);

  sliceStarts();
  const double start = stopwatch();
  job->statistics.longestWait = std::max(job->statistics.longestWait, start - job->due);
  job->body();
  const double duration = stopwatch() - start;
  ++job->statistics.runs;
  job->statistics.totalRun += duration;
  job->statistics.longestRun = std::max(job->statistics.longestRun, duration);

  if (floor) {
    keptWaiting_ -= othersTurns * duration;
  } else if (kept) {
    busyWithOthers(duration);
  }
  return true;
}

}  // namespace LinuxPlatform
