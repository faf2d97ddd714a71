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

namespace LinuxPlatform {

using Platform::Task;

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
  epollFd_ = FileDescriptor(checked(epoll_create1(EPOLL_CLOEXEC), "epoll_create1"));
  timerFd_ = FileDescriptor(checked(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC), "timerfd_create"));
  fdIs(timerFd_.get(), EPOLLIN, [this](std::uint32_t) {
    std::uint64_t expirations = 0;
    [[maybe_unused]] const auto count = read(timerFd_.get(), &expirations, sizeof expirations);
    armedFor_ = Task::never;
  });
  nowIs(clock_->now());
}

EventLoop::~EventLoop() {
  if (signalFd_) {
    const sigset_t set = stopSignals();
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
    std::signal(SIGPIPE, SIG_DFL);
  }
}

void EventLoop::fdIs(int fd, std::uint32_t events, std::function<void(std::uint32_t)> ready) {
  const auto old = watchOfFd_.find(fd);
  const bool known = old != watchOfFd_.end();
  const std::uint64_t id = nextWatch_++;
  epoll_event event{};
  event.events = events;
  event.data.u64 = id;
  checked(epoll_ctl(epollFd_.get(), known ? EPOLL_CTL_MOD : EPOLL_CTL_ADD, fd, &event), "epoll_ctl");
  if (known) watches_.erase(old->second);
  watchOfFd_[fd] = id;
  watches_[id] = std::make_shared<Watch>(Watch{std::move(ready)});
}

void EventLoop::fdDel(int fd) {
  const auto found = watchOfFd_.find(fd);
  if (found == watchOfFd_.end()) return;
  epoll_ctl(epollFd_.get(), EPOLL_CTL_DEL, fd, nullptr);
  watches_.erase(found->second);
  watchOfFd_.erase(found);
}

void EventLoop::stopOnSignals() {
  if (signalFd_) return;
  const sigset_t set = stopSignals();
  std::signal(SIGPIPE, SIG_IGN);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  signalFd_ = FileDescriptor(checked(signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC), "signalfd"));
  fdIs(signalFd_.get(), EPOLLIN, [this](std::uint32_t) {
    signalfd_siginfo info{};
    if (read(signalFd_.get(), &info, sizeof info) > 0) stop();
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
  checked(timerfd_settime(timerFd_.get(), TFD_TIMER_ABSTIME, &spec, nullptr), "timerfd_settime");
}

// One event at a look: the kernel puts its descriptor behind the others that are ready. So each has one turn before any
// has the next, although the tasks' turn comes after about a slice.
void EventLoop::runDescriptors(int timeoutMilliseconds) {
  double start = Task::never;  // of the first callback
  for (std::size_t turns = watches_.size(); turns > 0 && !stopped_; --turns) {
    epoll_event event{};
    const int count = epoll_wait(epollFd_.get(), &event, 1, timeoutMilliseconds);
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
