// What the measured processes have in common: one state machine and nothing else of the agent, on real tables, event
// loop and trace, in a process that works only when it is told to.
#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <istream>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "bench/harness/BenchDirectory.h"
#include "bench/harness/Tables.h"
#include "host/TableDelivery.h"
#include "linux/files/TraceFile.h"
#include "linux/loop/EventLoop.h"

namespace Bench {

// Obeys lines of the standard input until that ends, and answers each with one line of JSON.
void obey(const std::function<nlohmann::json(std::istream& command)>& obeyed);

// Entries that the task of this name has handled.
std::uint64_t workDone(const Platform::TaskScheduler& tasks, std::string_view name);

// This process's private memory, in bytes.
double privateBytes();

// What a process reports of one command: the seconds and processor seconds that it took, the process's memory and by
// how many bytes its private part has grown since it was that large.
nlohmann::json workReport(const Stopwatch& stopwatch, double privateBytesBefore);

// How long one run held the thread at most.
struct LongestRun {
  double seconds = 0;
  double cpuSeconds = 0;
  void add(const LongestRun& other);
};

// Passes tasks on to the event loop and keeps the times of the longest runs.
class RunTimer final : public Platform::TaskScheduler {
 public:
  explicit RunTimer(LinuxPlatform::EventLoop& loop) : loop_(loop) {}
  std::unique_ptr<Platform::Task> taskIs(std::string_view name, Platform::TaskPriority priority,
                                         std::function<void()> body) override;
  double now() const override { return loop_.now(); }
  std::vector<Platform::TaskStatistics> statistics() const override { return loop_.statistics(); }
  LinuxPlatform::EventLoop& loop() { return loop_; }

  // Something else that holds the thread, counted as a task of this name.
  void run(const std::string& name, const std::function<void()>& body);

  // Since the last time that this was called: of each task by its name, and of all.
  std::map<std::string, LongestRun> takeLongestRuns();
  LongestRun takeLongestRun();

 private:
  static void timed(LongestRun& longest, const std::function<void()>& body);

  LinuxPlatform::EventLoop& loop_;
  std::map<std::string, LongestRun> longest_;  // an entry stays where it is
};

// The delivery that runs in an agent, in runs of tasks that count as any. It looks for changes when it is asked whether
// it is done. The service outlives it.
class TimedDelivery {
 public:
  TimedDelivery(RunTimer& tasks, LinuxPlatform::SharedTableService& tables);
  void wanted() { delivery_.wanted(); }
  // Nothing is to be delivered; else it soon will be.
  bool isDone() { return !delivery_.look(); }

 private:
  Tools::TableDelivery delivery_;
};

// The members stand in the order of their making.
class MeasuredLoop {
 public:
  // What is due this many seconds from now is nothing that is left to do.
  static constexpr double never = 1e9;

  explicit MeasuredLoop(const std::string& directory);
  MeasuredLoop(const MeasuredLoop&) = delete;
  MeasuredLoop& operator=(const MeasuredLoop&) = delete;

  LinuxPlatform::EventLoop& loop() { return loop_; }
  RunTimer& tasks() { return tasks_; }
  Platform::TraceFacility& trace() { return trace_; }
  Tables& tables() { return tables_; }

  // The state machine is started and has done nothing: from here on private memory is counted.
  void started() { privateBytesBefore_ = privateBytes(); }
  // Works until it is over, which is asked before every batch of callbacks. The report also has the longest that a task
  // or a delivery of changes held the thread, in seconds and in processor seconds.
  nlohmann::json work(const std::function<bool()>& isOver);
  // Works until nothing is left to do: no change to deliver, no task due.
  nlohmann::json settle();
  bool isSettled();
  // No task is due: where tables do not change, nothing is left to do, and that is known without a look at them.
  bool isIdle() const { return loop_.nextDue() > loop_.now() + never / 2; }

 private:
  LinuxPlatform::EventLoop loop_;
  RunTimer tasks_{loop_};
  LinuxPlatform::FileTraceFacility trace_;
  Tables tables_;
  TimedDelivery delivery_;
  double privateBytesBefore_ = 0;
};

}  // namespace Bench
