#include "linux/loop/EventLoop.h"

#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <system_error>

#include "platform/values/Assert.h"

namespace LinuxPlatform {

using Platform::Task;
using Platform::TaskPriority;
using Platform::TaskStatistics;

// --- The ordering core -----------------------------------------------------------------------------------------------

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

// --- Virtual time ----------------------------------------------------------------------------------------------------

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

// --- The event loop --------------------------------------------------------------------------------------------------

namespace {

int checked(int result, const char* what) {
  if (result < 0) throw std::system_error(errno, std::generic_category(), what);
  return result;
}

sigset_t stopSignals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGINT);
  struct sigaction hangup {};  // ignored: whoever started us wants that we outlive the terminal
  if (sigaction(SIGHUP, nullptr, &hangup) == 0 && hangup.sa_handler != SIG_IGN) sigaddset(&set, SIGHUP);
  return set;
}

}  // namespace

// Events name a watch by a number of its own, never by its descriptor: within one batch a descriptor may have been
// closed and given to somebody else.
struct EventLoop::Watch {
  std::function<void(std::uint32_t)> ready;
};

EventLoop::EventLoop(double timeSlice, std::shared_ptr<const Platform::Clock> clock)
    : clock_(std::move(clock)), timeSlice_(timeSlice) {
  epollFd_ = checked(epoll_create1(EPOLL_CLOEXEC), "epoll_create1");
  timerFd_ = checked(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC), "timerfd_create");
  fdIs(timerFd_, EPOLLIN, [this](std::uint32_t) {
    std::uint64_t expirations = 0;
    [[maybe_unused]] const auto count = read(timerFd_, &expirations, sizeof expirations);
    armedFor_ = Task::never;
  });
  nowIs(clock_->now());
}

EventLoop::~EventLoop() {
  if (signalFd_ >= 0) {
    close(signalFd_);
    const sigset_t set = stopSignals();
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
    std::signal(SIGPIPE, SIG_DFL);
  }
  close(timerFd_);
  close(epollFd_);
}

void EventLoop::fdIs(int fd, std::uint32_t events, std::function<void(std::uint32_t)> ready) {
  const auto old = watchOfFd_.find(fd);
  const bool known = old != watchOfFd_.end();
  const std::uint64_t id = nextWatch_++;
  epoll_event event{};
  event.events = events;
  event.data.u64 = id;
  checked(epoll_ctl(epollFd_, known ? EPOLL_CTL_MOD : EPOLL_CTL_ADD, fd, &event), "epoll_ctl");
  if (known) watches_.erase(old->second);
  watchOfFd_[fd] = id;
  watches_[id] = std::make_shared<Watch>(Watch{std::move(ready)});
}

void EventLoop::fdDel(int fd) {
  const auto found = watchOfFd_.find(fd);
  if (found == watchOfFd_.end()) return;
  epoll_ctl(epollFd_, EPOLL_CTL_DEL, fd, nullptr);
  watches_.erase(found->second);
  watchOfFd_.erase(found);
}

void EventLoop::stopOnSignals() {
  if (signalFd_ >= 0) return;
  const sigset_t set = stopSignals();
  std::signal(SIGPIPE, SIG_IGN);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  signalFd_ = checked(signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC), "signalfd");
  fdIs(signalFd_, EPOLLIN, [this](std::uint32_t) {
    signalfd_siginfo info{};
    if (read(signalFd_, &info, sizeof info) > 0) stop();
  });
}

void EventLoop::run() {
  while (!stopped_) runOnce(Task::never);
}

void EventLoop::runOnce(double seconds) {
  constexpr double longestWait = 3600;
  const bool wait = seconds > 0 && nextDue() > clock_->now();
  if (wait) armTimer(nextDue());  // it costs more than many a task's run
  runDescriptors(wait ? static_cast<int>(std::ceil(std::min(seconds, longestWait) * 1000)) : 0);
  if (!stopped_) runTasks();
  if (afterBatch_) afterBatch_();
}

void EventLoop::armTimer(double due) {
  if (due == armedFor_ || due == Task::never) return;
  armedFor_ = due;
  itimerspec spec{};
  spec.it_value.tv_sec = static_cast<time_t>(due);
  // Rounded up, and never the 0 that would disarm it: a timer that fires early costs a turn of the loop.
  spec.it_value.tv_nsec = std::min(999'999'999L, static_cast<long>((due - std::floor(due)) * 1e9) + 1);
  checked(timerfd_settime(timerFd_, TFD_TIMER_ABSTIME, &spec, nullptr), "timerfd_settime");
}

// One event at a look: the kernel puts its descriptor behind the others that are ready. So each has one turn before any
// has the next, although the tasks' turn comes after about a slice.
void EventLoop::runDescriptors(int timeoutMilliseconds) {
  double start = Task::never;  // of the first callback
  for (std::size_t turns = watches_.size(); turns > 0 && !stopped_; --turns) {
    epoll_event event{};
    const int count = epoll_wait(epollFd_, &event, 1, timeoutMilliseconds);
    if (count < 0 && errno != EINTR) throw std::system_error(errno, std::generic_category(), "epoll_wait");
    if (count <= 0) return;
    timeoutMilliseconds = 0;
    const auto found = watches_.find(event.data.u64);
    if (found == watches_.end()) continue;
    const std::shared_ptr<Watch> watch = found->second;  // the callback may take its own watch away
    sliceStarts();
    start = std::min(start, sliceStart_);
    watch->ready(event.events);
    const double end = clock_->now();
    busyWithOthers(end - sliceStart_);
    if (end - start >= timeSlice_) return;
  }
}

// Descriptors are looked at again after about a slice, however many tasks are due.
void EventLoop::runTasks() {
  const double start = clock_->now();
  nowIs(start);
  while (runNext()) {
    nowIs(clock_->now());
    if (stopped_ || now() - start >= timeSlice_) return;
  }
}

void EventLoop::sliceStarts() {
  sliceStart_ = lastLook_ = clock_->now();
  nowIs(sliceStart_);
  untilLook_ = 0;
  lookInterval_ = 1;
  spent_ = false;
}

// Reading the clock costs about as much as a small entry's work, so after a few looks it is read once in up to 64
// questions; the interval shrinks again when the questions come slowly.
bool EventLoop::sliceSpent() {
  if (spent_) return true;
  if (untilLook_ > 0) {
    --untilLook_;
    return false;
  }
  const double time = clock_->now();
  spent_ = time - sliceStart_ >= timeSlice_;
  const bool quick = (time - lastLook_) * 32 < timeSlice_;
  lookInterval_ = quick ? std::min(lookInterval_ * 2, 64U) : std::max(lookInterval_ / 2, 1U);
  untilLook_ = lookInterval_ - 1;
  lastLook_ = time;
  return spent_;
}

}  // namespace LinuxPlatform
