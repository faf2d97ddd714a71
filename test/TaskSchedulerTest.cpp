#include <gmock/gmock.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <memory>
#include <string>
#include <vector>

#include "linux/TaskScheduler.h"

using LinuxPlatform::EventLoop;
using LinuxPlatform::SimulatedScheduler;
using Platform::Task;
using Platform::TaskPriority;
using testing::ElementsAre;

namespace {

// The promises of the scheduler interface, put to both implementations. `unit` is a delay that is long enough to keep
// two times apart and short enough to wait for.
struct Simulated {
  static constexpr double unit = 1;
  SimulatedScheduler scheduler;
  void elapse(double seconds) { scheduler.advance(seconds); }
};

struct Real {
  static constexpr double unit = 0.004;
  EventLoop scheduler;
  void elapse(double seconds) {
    const auto clock = [] {
      return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
    };
    const double end = clock() + seconds;
    for (double left = seconds; left > 0; left = end - clock()) scheduler.runOnce(left);
    while (scheduler.nextDue() <= scheduler.now()) scheduler.runOnce(0);
  }
};

template <class Driver>
class TaskSchedulerTest : public testing::Test {
 protected:
  std::unique_ptr<Task> noting(const std::string& name, TaskPriority priority = TaskPriority::processing) {
    return driver.scheduler.taskIs(name, priority, [this, name] { order.push_back(name); });
  }
  Driver driver;
  std::vector<std::string> order;
};

using Schedulers = testing::Types<Simulated, Real>;
TYPED_TEST_SUITE(TaskSchedulerTest, Schedulers);

TYPED_TEST(TaskSchedulerTest, LowestPendingDelayWinsAndInfinityAsksForNothing) {
  const double unit = TypeParam::unit;
  auto task = this->noting("task");
  task->scheduleWithin(Task::never);
  EXPECT_EQ(this->driver.scheduler.nextDue(), Task::never);
  task->scheduleWithin(1000 * unit);
  task->scheduleWithin(unit);
  task->scheduleWithin(500 * unit);
  this->driver.elapse(3 * unit);
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
  this->driver.elapse(TypeParam::unit);
  EXPECT_THAT(this->order, ElementsAre("urgent", "a", "b", "a", "b", "a", "b", "background"));
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
  this->driver.elapse(TypeParam::unit);
  EXPECT_THAT(this->order, ElementsAre("self"));
  EXPECT_TRUE(this->driver.scheduler.statistics().empty());
  EXPECT_EQ(owned.use_count(), 1);
}

TYPED_TEST(TaskSchedulerTest, StatisticsAddUpPerTask) {
  auto& scheduler = this->driver.scheduler;
  std::unique_ptr<Task> task = scheduler.taskIs("work", TaskPriority::background, [&] {
    task->workCountIs(3);
    task->workPendingIs(7);
  });
  for (int i = 0; i < 2; ++i) {
    task->scheduleWithin(0);
    this->driver.elapse(TypeParam::unit);
  }
  const auto statistics = scheduler.statistics();
  ASSERT_EQ(statistics.size(), 1U);
  EXPECT_EQ(statistics[0].name, "work");
  EXPECT_EQ(statistics[0].priority, TaskPriority::background);
  EXPECT_EQ(statistics[0].runs, 2U);
  EXPECT_EQ(statistics[0].workDone, 6U);
  EXPECT_EQ(statistics[0].workPending, 7U);
  EXPECT_LE(statistics[0].longestRun, statistics[0].totalRun);
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

TEST(SimulatedSchedulerTest, HookRunsBetweenRunsAndMayMakeWork) {
  SimulatedScheduler scheduler;
  int hooks = 0;
  int runs = 0;
  auto task = scheduler.taskIs("task", TaskPriority::processing, [&] { ++runs; });
  scheduler.afterRunIs([&] {
    if (++hooks <= 2) task->scheduleWithin(0);
  });
  scheduler.advance(0);
  EXPECT_EQ(runs, 2);
  EXPECT_EQ(hooks, 3) << "before the first run and after each";
  EXPECT_TRUE(scheduler.idle());
}

TEST(SimulatedSchedulerTest, YieldsOnceACallbackHasAskedOftenEnough) {
  SimulatedScheduler scheduler;
  std::vector<int> entries;
  std::unique_ptr<Task> task;
  task = scheduler.taskIs("task", TaskPriority::processing, [&] {
    int handled = 0;
    do {
      ++handled;
    } while (handled < 5 && !task->shouldYield());
    entries.push_back(handled);
  });
  for (const std::uint64_t yieldAfter : {0U, 1U, 2U}) {
    scheduler.yieldAfterEntriesIs(yieldAfter);
    task->scheduleWithin(0);
    scheduler.advance(0);
  }
  EXPECT_THAT(entries, ElementsAre(5, 1, 2));
  // Outside of a run (a reaction to a test's own write) each yes starts a new slice.
  EXPECT_FALSE(task->shouldYield());
  EXPECT_TRUE(task->shouldYield());
  EXPECT_FALSE(task->shouldYield());
}

// --- The event loop --------------------------------------------------------------------------------------------------

TEST(EventLoopTest, TimeSliceEndsARunAndTimeStandsStillDuringIt) {
  EventLoop loop(0.002);
  std::unique_ptr<Task> task;
  std::uint64_t asked = 0;
  bool sameNow = true;
  task = loop.taskIs("task", TaskPriority::processing, [&] {
    const double start = loop.now();
    while (!task->shouldYield() && asked < 100'000'000) ++asked;
    sameNow = loop.now() == start;
  });
  task->scheduleWithin(0);
  loop.runOnce(1);
  EXPECT_TRUE(sameNow);
  EXPECT_GT(asked, 10'000U) << "asking is too dear";
  const auto statistics = loop.statistics();
  EXPECT_GE(statistics[0].longestRun, 0.002);
  EXPECT_LT(asked, 100'000'000U);
}

TEST(EventLoopTest, DescriptorsAreServedBetweenBusyTasksAndMayTakeThemselvesAway) {
  EventLoop loop(0.001);
  std::array<int, 2> ends{};
  ASSERT_EQ(pipe(ends.data()), 0);
  std::unique_ptr<Task> busy;
  busy = loop.taskIs("busy", TaskPriority::urgent, [&] { busy->scheduleWithin(0); });
  busy->scheduleWithin(0);
  int calls = 0;
  int batches = 0;
  loop.afterBatchIs([&] { ++batches; });
  loop.fdIs(ends[0], EPOLLIN, [&](std::uint32_t) {
    ++calls;
    loop.fdDel(ends[0]);
  });
  ASSERT_EQ(write(ends[1], "xx", 2), 2);
  for (int i = 0; i < 3; ++i) loop.runOnce(1);
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(batches, 3);
  EXPECT_GE(loop.statistics()[0].runs, 3U);
  close(ends[0]);
  close(ends[1]);
}

TEST(EventLoopTest, DescriptorsThatAreAlwaysReadyTakeTurnsAndShareASliceWithTheTasks) {
  EventLoop loop(0);  // a slice is spent by one callback
  constexpr int descriptors = 4;
  std::array<std::array<int, 2>, descriptors> pipes{};
  std::array<int, descriptors> calls{};
  for (std::size_t i = 0; i < descriptors; ++i) {
    ASSERT_EQ(pipe(pipes[i].data()), 0);
    ASSERT_EQ(write(pipes[i][1], "x", 1), 1);
    loop.fdIs(pipes[i][0], EPOLLIN, [&calls, i](std::uint32_t) { ++calls[i]; });
  }
  std::unique_ptr<Task> busy;
  busy = loop.taskIs("busy", TaskPriority::processing, [&] { busy->scheduleWithin(0); });
  busy->scheduleWithin(0);
  for (int i = 0; i < 10 * descriptors; ++i) loop.runOnce(0);
  for (const int count : calls) EXPECT_NEAR(count, 10, 1);
  EXPECT_GE(loop.statistics()[0].runs, 9U * descriptors);
  for (const auto& ends : pipes) {
    close(ends[0]);
    close(ends[1]);
  }
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
