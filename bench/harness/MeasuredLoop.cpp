#include "bench/harness/MeasuredLoop.h"

#include <sys/epoll.h>

#include <algorithm>
#include <iostream>
#include <sstream>
#include <utility>

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
    : delivery_(tasks.loop(), tasks, tables) {
  // In place of the delivery's own.
  tasks.loop().fdIs(tables.wakeupFd(), EPOLLIN,
                    [&tasks, &tables](std::uint32_t) { tasks.run("wakeup", [&tables] { tables.handleWakeup(); }); });
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
