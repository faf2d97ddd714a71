// The task scheduler of a process, which waits for descriptors and signals too.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>

#include "lib/tasks/TaskQueue.h"
#include "linux/files/FileDescriptor.h"
#include "linux/loop/MonotonicClock.h"

namespace LinuxPlatform {

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

  FileDescriptor epollFd_;
  FileDescriptor timerFd_;
  FileDescriptor signalFd_;
  double armedFor_ = Platform::Task::never;
  std::uint64_t nextWatch_ = 0;
  std::map<int, std::uint64_t> watchOfFd_;
  std::map<std::uint64_t, std::shared_ptr<Watch>> watches_;
  std::function<void()> afterBatch_;
  bool stopped_ = false;
};

}  // namespace LinuxPlatform
