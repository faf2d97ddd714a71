#include <gmock/gmock.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "lib/tasks/SimulatedScheduler.h"
#include "linux/loop/EventLoop.h"
#include "test/support/SimulatedClock.h"

using LinuxPlatform::EventLoop;
using LinuxPlatform::SimulatedScheduler;
using Platform::Task;
using Platform::TaskPriority;
using testing::AnyOf;
using testing::Each;
using testing::ElementsAre;

namespace {

// The promises of the scheduler interface, put to both implementations. A time slice is 16 entries' work.
constexpr double entryCost = 1.0 / 1024;
constexpr int entriesInASlice = 16;

struct Simulated {
  SimulatedScheduler scheduler;
  Simulated() {
    scheduler.entryCostIs(entryCost);
    scheduler.yieldAfterEntriesIs(entriesInASlice);
  }
  void elapse(double seconds) { scheduler.advance(seconds); }
  static bool workOneEntry(Task& task) { return !task.shouldYield(); }
};

struct Real {
  std::shared_ptr<SimulatedClock> clock = std::make_shared<SimulatedClock>();
  EventLoop scheduler{entriesInASlice * entryCost, clock};
  void elapse(double seconds) {
    const double end = clock->now() + seconds;
    do {
      clock->advance(std::max(0.0, std::min(scheduler.nextDue(), end) - clock->now()));
      scheduler.runOnce(0);
    } while (clock->now() < end || scheduler.nextDue() <= end);
  }
  bool workOneEntry(Task& task) const {
    clock->advance(entryCost);
    return !task.shouldYield();
  }
};

template <class Driver>
class TaskSchedulerTest : public testing::Test {
 protected:
  std::unique_ptr<Task> noting(const std::string& name, TaskPriority priority = TaskPriority::processing) {
    return driver.scheduler.taskIs(name, priority, [this, name] { order.push_back(name); });
  }
  // Due for ever once it is scheduled; each run works as many entries.
  std::unique_ptr<Task> busy(const std::string& name, TaskPriority priority, int entries = entriesInASlice) {
    auto handle = std::make_shared<Task*>();
    auto task = driver.scheduler.taskIs(name, priority, [this, name, entries, handle] {
      order.push_back(name);
      for (int i = 0; i < entries; ++i) driver.workOneEntry(**handle);
      (*handle)->scheduleWithin(0);
    });
    *handle = task.get();
    return task;
  }
  void scheduleAll(const std::vector<Task*>& tasks) {
    for (Task* task : tasks) task->scheduleWithin(0);
  }
  double waitOf(const std::string& name) const {
    for (const auto& task : driver.scheduler.statistics()) {
      if (task.name == name) return task.longestWait;
    }
    return -1;
  }
  Driver driver;
  std::vector<std::string> order;
};

using Schedulers = testing::Types<Simulated, Real>;
TYPED_TEST_SUITE(TaskSchedulerTest, Schedulers);

TYPED_TEST(TaskSchedulerTest, LowestPendingDelayWinsAndInfinityAsksForNothing) {
  auto task = this->noting("task");
  task->scheduleWithin(Task::never);
  EXPECT_EQ(this->driver.scheduler.nextDue(), Task::never);
  task->scheduleWithin(1000);
  task->scheduleWithin(1);
  task->scheduleWithin(500);
  this->driver.elapse(0.5);
  EXPECT_TRUE(this->order.empty());
  this->driver.elapse(2.5);
  EXPECT_THAT(this->order, ElementsAre("task"));
  EXPECT_EQ(this->driver.scheduler.nextDue(), Task::never) << "the longer delays are gone with the run";
}

TYPED_TEST(TaskSchedulerTest, PriorityDecidesAmongDueTasksAndEqualsTakeTurns) {
  std::array<std::unique_ptr<Task>, 2> busy;
  for (std::size_t i = 0; i < 2; ++i) {
    busy[i] = this->driver.scheduler.taskIs("busy", TaskPriority::processing, [&, i] {
      this->order.push_back(i == 0 ? "a" : "b");
      if (this->order.size() < 6) busy[i]->scheduleWithin(0);
    });
  }
  auto background = this->noting("background", TaskPriority::background);
  auto urgent = this->noting("urgent", TaskPriority::urgent);
  background->scheduleWithin(0);
  busy[0]->scheduleWithin(0);
  busy[1]->scheduleWithin(0);
  urgent->scheduleWithin(0);
  EXPECT_TRUE(this->order.empty()) << "never from inside scheduleWithin";
  this->driver.elapse(1);
  EXPECT_THAT(this->order, ElementsAre("urgent", "a", "b", "a", "b", "a", "b", "background"));
}

TYPED_TEST(TaskSchedulerTest, ADueTaskThatIsAskedForAgainKeepsItsTurn) {
  auto first = this->noting("first");
  auto second = this->noting("second");
  auto asker = this->driver.scheduler.taskIs("asker", TaskPriority::urgent, [&] { first->scheduleWithin(0); });
  this->scheduleAll({first.get(), second.get(), asker.get()});
  this->driver.elapse(1);
  EXPECT_THAT(this->order, ElementsAre("first", "second"));
}

// However much the others have to do, an eighth of the time is for the background. What counts is time, not runs:
// neither short runs of others nor long ones of its own give it more.
TYPED_TEST(TaskSchedulerTest, BackgroundTasksHaveAFloor) {
  constexpr double slice = entriesInASlice * entryCost;
  std::map<std::string, int> entries{{"changes", 16}, {"short", 1}, {"decisions", 16}, {"scan", 16}, {"overrun", 48}};
  auto changes = this->busy("changes", TaskPriority::delivery);
  auto brief = this->busy("short", TaskPriority::delivery, entries["short"]);
  auto decisions = this->busy("decisions", TaskPriority::processing);
  auto scan = this->busy("scan", TaskPriority::background);
  auto overrun = this->busy("overrun", TaskPriority::background, entries["overrun"]);
  this->scheduleAll({changes.get(), brief.get(), decisions.get()});
  this->driver.elapse(100 * slice);
  EXPECT_THAT(this->order, Each(AnyOf("changes", "short"))) << "nobody else has a floor";
  this->order.clear();
  this->scheduleAll({scan.get(), overrun.get()});
  this->driver.elapse(200 * slice);

  int others = 0;  // entries since the last turn
  int due = 7 * entriesInASlice;
  std::vector<std::string> turns;
  for (const auto& name : this->order) {
    if (name == "changes" || name == "short") {
      others += entries[name];
      continue;
    }
    EXPECT_NEAR(others, due, entriesInASlice) << "before turn " << turns.size();
    turns.push_back(name);
    due = 7 * entries[name];
    others = 0;
  }
  ASSERT_GE(turns.size(), 10U);
  for (std::size_t i = 0; i < turns.size(); ++i) EXPECT_EQ(turns[i], i % 2 == 0 ? "scan" : "overrun");
  EXPECT_LE(this->waitOf("scan"), 33 * slice);
  EXPECT_GE(this->waitOf("scan"), 7 * slice);

  this->order.clear();
  for (auto* task : {&changes, &brief, &decisions}) task->reset();
  this->driver.elapse(10 * slice);
  EXPECT_GE(this->order.size(), 4U) << "and all of it when nobody else wants it";
}

TYPED_TEST(TaskSchedulerTest, TheFloorOwesAndIsOwedNothingFromBefore) {
  auto changes = this->busy("changes", TaskPriority::delivery);
  std::unique_ptr<Task> scan;
  scan = this->driver.scheduler.taskIs("scan", TaskPriority::background, [&] {
    this->order.push_back("scan");
    for (int i = 0; i < 3 * entriesInASlice; ++i) this->driver.workOneEntry(*scan);
  });
  changes->scheduleWithin(0);
  for (int i = 0; i < 3; ++i) {
    this->order.clear();
    scan->scheduleWithin(0);
    while (this->order.empty() || this->order.back() != "scan") this->driver.elapse(entryCost);
    EXPECT_NEAR(static_cast<double>(this->order.size()), 8, 1) << "the overrun before is forgotten";
    this->driver.elapse(3 * entriesInASlice * entryCost);
  }
}

TYPED_TEST(TaskSchedulerTest, TasksMayBeDestroyedFromInsideARun) {
  auto victim = this->noting("victim", TaskPriority::background);
  std::unique_ptr<Task> self;
  auto owned = std::make_shared<std::string>("self");
  self = this->driver.scheduler.taskIs("self", TaskPriority::processing, [this, &victim, &self, owned] {
    self->scheduleWithin(0);
    self.reset();
    victim.reset();
    this->order.push_back(*owned);  // what the body holds lives to its end
  });
  self->scheduleWithin(0);
  victim->scheduleWithin(0);
  this->driver.elapse(1);
  EXPECT_THAT(this->order, ElementsAre("self"));
  EXPECT_TRUE(this->driver.scheduler.statistics().empty());
  EXPECT_EQ(owned.use_count(), 1);
}

// --- Virtual time ----------------------------------------------------------------------------------------------------

TEST(SimulatedSchedulerTest, AdvanceRunsEverythingInDueOrderAtItsTime) {
  SimulatedScheduler scheduler;
  std::vector<std::pair<char, double>> runs;
  std::unique_ptr<Task> late =
      scheduler.taskIs("late", TaskPriority::urgent, [&] { runs.emplace_back('l', scheduler.now()); });
  std::unique_ptr<Task> early = scheduler.taskIs("early", TaskPriority::background, [&] {
    runs.emplace_back('e', scheduler.now());
    early->scheduleWithin(4);
  });
  late->scheduleWithin(9.5);
  early->scheduleWithin(1);
  scheduler.advance(9.25);
  EXPECT_THAT(runs, ElementsAre(std::pair('e', 1.0), std::pair('e', 5.0), std::pair('e', 9.0)));
  scheduler.advance(0.25);
  EXPECT_EQ(runs.back(), std::pair('l', 9.5));
  EXPECT_EQ(scheduler.now(), 9.5);
  EXPECT_EQ(scheduler.nextDue(), 13.0);
  EXPECT_EQ(scheduler.runDue(), 0U);
}

// --- The event loop --------------------------------------------------------------------------------------------------

TEST(EventLoopTest, TimeSliceEndsARunAndTimeStandsStillDuringIt) {
  constexpr double slice = 1.0 / 512;
  const auto clock = std::make_shared<SimulatedClock>();
  EventLoop loop(slice, clock);
  double costOfAnEntry = 0;
  std::uint64_t asked = 0;
  std::unique_ptr<Task> task;
  task = loop.taskIs("task", TaskPriority::processing, [&] {
    const double start = loop.now();
    asked = 0;
    do {
      clock->advance(costOfAnEntry);
      ++asked;
    } while (!task->shouldYield() && asked < 100'000'000);
    EXPECT_TRUE(task->shouldYield()) << "spent is spent";
    EXPECT_EQ(loop.now(), start);
  });
  const auto longestRun = [&] {
    task->scheduleWithin(0);
    loop.runOnce(0);
    return loop.statistics()[0].longestRun;
  };
  // Slow entries are stopped at the end of the slice.
  costOfAnEntry = slice / 4;
  EXPECT_EQ(longestRun(), slice);
  EXPECT_EQ(asked, 4U);
  // Quick ones nearly so, although the clock is not looked at after each.
  costOfAnEntry = slice / 1024;
  EXPECT_LT(longestRun(), slice * 1.07);
  EXPECT_GE(asked, 1024U);
  // A question costs a small part of a look at the clock.
  costOfAnEntry = 0;
  clock->secondsPerLookIs(slice / 1024);
  EXPECT_GE(longestRun(), slice);
  EXPECT_GT(asked, 50'000U);
}

TEST(EventLoopTest, LateTicksRunOnceEachByPriority) {
  const auto clock = std::make_shared<SimulatedClock>();
  EventLoop loop(1, clock);
  std::vector<std::string> order;
  std::unique_ptr<Task> tick;
  tick = loop.taskIs("tick", TaskPriority::processing, [&] {
    order.emplace_back("tick");
    tick->scheduleWithin(2);
  });
  const auto urgent = loop.taskIs("urgent", TaskPriority::urgent, [&] { order.emplace_back("urgent"); });
  tick->scheduleWithin(2);
  urgent->scheduleWithin(9);
  clock->advance(10);  // somebody else had the machine
  loop.runOnce(0);
  EXPECT_THAT(order, ElementsAre("urgent", "tick"));
  EXPECT_EQ(loop.nextDue(), 12) << "ticks that were missed are not made up for";
  EXPECT_EQ(loop.statistics()[0].longestWait, 8);
  tick->scheduleWithin(1.5);  // a shorter interval counts at once, a longer one from the next run on
  tick->scheduleWithin(5);
  EXPECT_EQ(loop.nextDue(), 11.5);
}

// A pipe that always has something to read.
struct ReadyPipe {
  ReadyPipe() {
    EXPECT_EQ(pipe(ends.data()), 0);
    EXPECT_EQ(write(ends[1], "x", 1), 1);
  }
  ReadyPipe(const ReadyPipe&) = delete;
  ReadyPipe& operator=(const ReadyPipe&) = delete;
  ~ReadyPipe() {
    for (const int end : ends) close(end);
  }
  int readEnd() const { return ends[0]; }
  std::array<int, 2> ends{};
};

TEST(EventLoopTest, WaitsForWhatIsDueAndForDescriptors) {
  EventLoop loop;
  double due = 0;
  auto later = loop.taskIs("later", TaskPriority::processing, [&] { loop.stop(); });
  const ReadyPipe ready;
  loop.fdIs(ready.readEnd(), EPOLLIN, [&](std::uint32_t) {
    loop.fdDel(ready.readEnd());
    later->scheduleWithin(0.01);
    due = loop.nextDue();
  });
  loop.run();
  EXPECT_GE(loop.now(), due);
}

// What they do is somebody else's work to tasks of the background.
TEST(EventLoopTest, DescriptorsDoNotStarveTheBackground) {
  constexpr double slice = 1;
  const auto clock = std::make_shared<SimulatedClock>();
  EventLoop loop(slice, clock);
  const ReadyPipe ready;
  loop.fdIs(ready.readEnd(), EPOLLIN, [&](std::uint32_t) { clock->advance(slice); });
  std::unique_ptr<Task> busy;
  busy = loop.taskIs("busy", TaskPriority::processing, [&] {
    clock->advance(slice);
    busy->scheduleWithin(0);
  });
  int turns = 0;
  std::unique_ptr<Task> scan;
  scan = loop.taskIs("scan", TaskPriority::background, [&] {
    clock->advance(slice);
    ++turns;
    scan->scheduleWithin(0);
  });
  busy->scheduleWithin(0);
  scan->scheduleWithin(0);
  const double start = clock->now();
  for (int i = 0; i < 100; ++i) loop.runOnce(0);
  EXPECT_NEAR(turns, (clock->now() - start) / slice / 8, 1);
}

TEST(EventLoopTest, ANewWatchOfADescriptorReplacesTheOld) {
  EventLoop loop;
  const ReadyPipe ready;
  const auto held = std::make_shared<int>();
  loop.fdIs(ready.readEnd(), EPOLLIN, [held](std::uint32_t) { FAIL() << "the old one is called"; });
  int calls = 0;
  loop.fdIs(ready.readEnd(), EPOLLIN, [&](std::uint32_t) {
    ++calls;
    loop.fdDel(ready.readEnd());
  });
  EXPECT_EQ(held.use_count(), 1) << "the old one is kept";
  loop.runOnce(0);
  EXPECT_EQ(calls, 1);
}

TEST(EventLoopTest, DescriptorsAreServedBetweenBusyTasksAndMayTakeThemselvesAway) {
  const auto clock = std::make_shared<SimulatedClock>();
  EventLoop loop(1, clock);
  const ReadyPipe ready;
  std::unique_ptr<Task> busy;
  busy = loop.taskIs("busy", TaskPriority::urgent, [&] {
    clock->advance(0.25);
    busy->scheduleWithin(0);
  });
  busy->scheduleWithin(0);
  int calls = 0;
  int batches = 0;
  loop.afterBatchIs([&] { ++batches; });
  loop.fdIs(ready.readEnd(), EPOLLIN, [&](std::uint32_t) {
    ++calls;
    loop.fdDel(ready.readEnd());
  });
  for (int i = 0; i < 3; ++i) loop.runOnce(0);
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(batches, 3);
  EXPECT_EQ(loop.statistics()[0].runs, 12U);
}

TEST(EventLoopTest, DescriptorsThatAreAlwaysReadyTakeTurnsAndShareASliceWithTheTasks) {
  EventLoop loop(0);  // a slice is spent by one callback
  constexpr int descriptors = 4;
  std::array<ReadyPipe, descriptors> pipes;
  std::array<int, descriptors> calls{};
  for (std::size_t i = 0; i < descriptors; ++i) {
    loop.fdIs(pipes[i].readEnd(), EPOLLIN, [&calls, i](std::uint32_t) { ++calls[i]; });
  }
  std::unique_ptr<Task> busy;
  busy = loop.taskIs("busy", TaskPriority::processing, [&] { busy->scheduleWithin(0); });
  busy->scheduleWithin(0);
  for (int i = 0; i < 10 * descriptors; ++i) loop.runOnce(0);
  for (const int count : calls) EXPECT_NEAR(count, 10, 1);
  EXPECT_GE(loop.statistics()[0].runs, 9U * descriptors);
}

TEST(EventLoopTest, SignalsStopTheLoopAndABrokenPipeDoesNot) {
  EventLoop loop;
  loop.stopOnSignals();
  auto task = loop.taskIs("task", TaskPriority::processing, [] {
    std::raise(SIGPIPE);
    std::raise(SIGTERM);
  });
  task->scheduleWithin(0);
  loop.run();  // returns
  EXPECT_EQ(loop.statistics()[0].runs, 1U);
}

}  // namespace
