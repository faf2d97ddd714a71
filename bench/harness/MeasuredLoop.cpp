#include "bench/harness/MeasuredLoop.h"

#include <sys/epoll.h>

#include <iostream>
#include <sstream>

#include "bench/harness/ChildProcess.h"

namespace Bench {

using nlohmann::json;

void obey(const std::function<json(std::istream& command)>& obeyed) {
  for (std::string line; std::getline(std::cin, line);) {
    std::istringstream command(line);
    std::cout << obeyed(command).dump() << std::endl;
  }
}

std::uint64_t workDone(const Platform::TaskScheduler& tasks, std::string_view name) {
  for (const auto& task : tasks.statistics()) {
    if (task.name == name) return task.workDone;
  }
  return 0;
}

double privateBytes() {
  return residentMemory()["RssAnon"];
}

json workReport(const Stopwatch& stopwatch, double privateBytesBefore) {
  return {{"seconds", stopwatch.seconds()},
          {"cpuSeconds", stopwatch.cpuSeconds()},
          {"memory", residentMemory()},
          {"grownBytes", privateBytes() - privateBytesBefore}};
}

std::unique_ptr<Platform::Task> RunTimer::taskIs(std::string_view name, Platform::TaskPriority priority,
                                                 std::function<void()> body) {
  return loop_.taskIs(name, priority, [this, body = std::move(body)] {
    const Stopwatch run;
    body();
    held = std::max(held, run.seconds());
    heldCpu = std::max(heldCpu, run.cpuSeconds());
  });
}

MeasuredLoop::MeasuredLoop(const std::string& directory)
    : trace_(directory), tables_(directory, [this] { deliveryTask_->scheduleWithin(0); }) {
  deliveryTask_ = tasks_.taskIs("tableDeliveryTask", Platform::TaskPriority::delivery, [this] { deliver(); });
  loop_.fdIs(tables_.service().wakeupFd(), EPOLLIN, [this](std::uint32_t) { tables_.service().handleWakeup(); });
  loop_.afterBatchIs([this] { tables_.service().flush(); });
}

void MeasuredLoop::deliver() {
  if (!tables_.service().deliverChanges([this] { return deliveryTask_->shouldYield(); })) {
    deliveryTask_->scheduleWithin(0);
  }
}

json MeasuredLoop::work(const std::function<bool()>& isOver) {
  tasks_.held = tasks_.heldCpu = 0;
  const Stopwatch whole;
  while (!isOver()) loop_.runOnce(1);
  json done = workReport(whole, privateBytesBefore_);
  done["heldSeconds"] = tasks_.held;
  done["heldCpuSeconds"] = tasks_.heldCpu;
  return done;
}

json MeasuredLoop::settle() {
  return work([this] { return isSettled(); });
}

// What waits for its turn comes within seconds.
bool MeasuredLoop::isSettled() {
  if (tables_.service().pendingChanges()) {
    deliveryTask_->scheduleWithin(0);
    return false;
  }
  return isIdle();
}

}  // namespace Bench
