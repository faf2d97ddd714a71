#include "bench/harness/MeasuredLoop.h"

#include <sys/epoll.h>

#include <algorithm>
#include <iostream>
#include <sstream>
#include <utility>

#include "bench/harness/ChildProcess.h"
#include "host/FreeMemory.h"

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

// --- Who holds the thread --------------------------------------------------------------------------------------------

void LongestRun::add(const LongestRun& other) {
  seconds = std::max(seconds, other.seconds);
  cpuSeconds = std::max(cpuSeconds, other.cpuSeconds);
}

void RunTimer::timed(LongestRun& longest, const std::function<void()>& body) {
  const Stopwatch run;
  body();
  longest.add({run.seconds(), run.cpuSeconds()});
}

std::unique_ptr<Platform::Task> RunTimer::taskIs(std::string_view name, Platform::TaskPriority priority,
                                                 std::function<void()> body) {
  LongestRun& longest = longest_[std::string(name)];
  return loop_.taskIs(name, priority, [&longest, body = std::move(body)] { timed(longest, body); });
}

void RunTimer::run(const std::string& name, const std::function<void()>& body) {
  timed(longest_[name], body);
}

std::map<std::string, LongestRun> RunTimer::takeLongestRuns() {
  auto runs = longest_;
  for (auto& [name, longest] : longest_) longest = {};
  return runs;
}

LongestRun RunTimer::takeLongestRun() {
  LongestRun all;
  for (const auto& [name, longest] : takeLongestRuns()) all.add(longest);
  return all;
}

TimedDelivery::TimedDelivery(RunTimer& tasks, LinuxPlatform::SharedTableService& tables)
    : loop_(tasks.loop()),
      tables_(tables),
      task_(tasks.taskIs("tableDeliveryTask", Platform::TaskPriority::delivery, [this] { deliver(); })),
      backlogTask_(tasks.taskIs("tableBacklogTask", Platform::TaskPriority::processing, [this] { deliver(); })),
      memoryTask_(tasks.taskIs("tableMemoryTask", Platform::TaskPriority::background, [this] { giveMemoryBack(); })) {
  loop_.fdIs(tables_.wakeupFd(), EPOLLIN,
             [this, &tasks](std::uint32_t) { tasks.run("wakeup", [this] { tables_.handleWakeup(); }); });
  loop_.afterBatchIs([this] { tables_.flush(); });
}

TimedDelivery::~TimedDelivery() {
  loop_.afterBatchIs(nullptr);
  loop_.fdDel(tables_.wakeupFd());
}

void TimedDelivery::deliver() {
  if (tables_.deliverChanges([this] { return task_->shouldYield(); })) return;
  (tables_.listenersAreBusy() ? backlogTask_ : task_)->scheduleWithin(0);
}

void TimedDelivery::giveMemoryBack() {
  if (!tables_.giveMemoryBack([this] { return memoryTask_->shouldYield(); })) {
    memoryTask_->scheduleWithin(0);
  } else if (tables_.takeMemoryFreed()) {
    Tools::giveFreeMemoryBack();
  }
}

bool TimedDelivery::isDone() {
  const bool pending = tables_.pendingChanges();
  if (pending) wanted();
  if (tables_.hasMemoryToGive()) memoryTask_->scheduleWithin(0);
  return !pending && !tables_.hasMemoryToGive();
}

// --- The loop --------------------------------------------------------------------------------------------------------

MeasuredLoop::MeasuredLoop(const std::string& directory)
    : trace_(directory), tables_(directory, [this] { delivery_.wanted(); }), delivery_(tasks_, tables_.service()) {}

json MeasuredLoop::work(const std::function<bool()>& isOver) {
  tasks_.takeLongestRun();
  const Stopwatch whole;
  while (!isOver()) loop_.runOnce(1);
  json done = workReport(whole, privateBytesBefore_);
  const LongestRun longest = tasks_.takeLongestRun();
  done["heldSeconds"] = longest.seconds;
  done["heldCpuSeconds"] = longest.cpuSeconds;
  return done;
}

json MeasuredLoop::settle() {
  return work([this] { return isSettled(); });
}

// What waits for its turn comes within seconds.
bool MeasuredLoop::isSettled() {
  return delivery_.isDone() && isIdle();
}

}  // namespace Bench
