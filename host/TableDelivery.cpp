#include "host/TableDelivery.h"

#include <sys/epoll.h>

#include "host/FreeMemory.h"

namespace Tools {

namespace {
constexpr double pollInterval = 1;  // seconds
}  // namespace

TableDelivery::TableDelivery(LinuxPlatform::EventLoop& loop, LinuxPlatform::SharedTableService& tables)
    : TableDelivery(loop, loop, tables) {
  pollTask_ = loop.taskIs("tablePollTask", Platform::TaskPriority::delivery, [this] { poll(); });
  pollTask_->scheduleWithin(pollInterval);
}

TableDelivery::TableDelivery(LinuxPlatform::EventLoop& loop, Platform::TaskScheduler& tasks,
                             LinuxPlatform::SharedTableService& tables)
    : loop_(loop),
      tables_(tables),
      deliveryTask_(
          tasks.taskIs("tableDeliveryTask", Platform::TaskPriority::delivery, [this] { deliver(*deliveryTask_); })),
      backlogTask_(
          tasks.taskIs("tableBacklogTask", Platform::TaskPriority::processing, [this] { deliver(*backlogTask_); })),
      memoryTask_(tasks.taskIs("tableMemoryTask", Platform::TaskPriority::background, [this] { giveMemoryBack(); })) {
  if (tables_.wakeupFd() >= 0) {
    loop_.fdIs(tables_.wakeupFd(), EPOLLIN, [this](std::uint32_t) { tables_.handleWakeup(); });
  }
  loop_.afterBatchIs([this] { tables_.flush(); });
}

TableDelivery::~TableDelivery() {
  loop_.afterBatchIs(nullptr);
  if (tables_.wakeupFd() >= 0) loop_.fdDel(tables_.wakeupFd());
}

bool TableDelivery::look() {
  const bool pending = tables_.pendingChanges();
  const bool hasMemory = tables_.hasMemoryToGive();
  if (pending) wanted();
  if (hasMemory) memoryTask_->scheduleWithin(0);
  return pending || hasMemory;
}

// Finds what nobody woke us for: changes of a writer that died before it told.
void TableDelivery::poll() {
  look();
  pollTask_->scheduleWithin(pollInterval);
}

void TableDelivery::giveMemoryBack() {
  if (!tables_.giveMemoryBack([this] { return memoryTask_->shouldYield(); })) {
    memoryTask_->scheduleWithin(0);
  } else if (tables_.takeMemoryFreed()) {
    giveFreeMemoryBack();
  }
}

void TableDelivery::deliver(Platform::Task& task) {
  if (tables_.deliverChanges([&task] { return task.shouldYield(); })) return;
  (tables_.listenersAreBusy() ? backlogTask_ : deliveryTask_)->scheduleWithin(0);
}

}  // namespace Tools
