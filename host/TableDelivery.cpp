#include "host/TableDelivery.h"

#include <sys/epoll.h>

#include "host/FreeMemory.h"

namespace Tools {

namespace {
constexpr double pollInterval = 1;  // seconds
}  // namespace

TableDelivery::TableDelivery(LinuxPlatform::EventLoop& loop, LinuxPlatform::SharedTableService& tables)
    : loop_(loop),
      tables_(tables),
      deliveryTask_(loop.taskIs("tableDeliveryTask", Platform::TaskPriority::delivery, [this] { deliver(); })),
      backlogTask_(loop.taskIs("tableBacklogTask", Platform::TaskPriority::processing, [this] { deliver(); })),
      pollTask_(loop.taskIs("tablePollTask", Platform::TaskPriority::delivery, [this] { poll(); })),
      memoryTask_(loop.taskIs("tableMemoryTask", Platform::TaskPriority::background, [this] { giveMemoryBack(); })) {
  pollTask_->scheduleWithin(pollInterval);
  if (tables_.wakeupFd() >= 0) {
    loop_.fdIs(tables_.wakeupFd(), EPOLLIN, [this](std::uint32_t) { tables_.handleWakeup(); });
  }
  loop_.afterBatchIs([this] { tables_.flush(); });
}

TableDelivery::~TableDelivery() {
  loop_.afterBatchIs(nullptr);
  if (tables_.wakeupFd() >= 0) loop_.fdDel(tables_.wakeupFd());
}

// Finds what nobody woke us for: changes of a writer that died before it told.
void TableDelivery::poll() {
  if (tables_.pendingChanges()) wanted();
  if (tables_.hasMemoryToGive()) memoryTask_->scheduleWithin(0);
  pollTask_->scheduleWithin(pollInterval);
}

void TableDelivery::giveMemoryBack() {
  if (!tables_.giveMemoryBack([this] { return memoryTask_->shouldYield(); })) {
    memoryTask_->scheduleWithin(0);
  } else if (tables_.takeMemoryFreed()) {
    giveFreeMemoryBack();
  }
}

void TableDelivery::deliver() {
  if (tables_.deliverChanges([this] { return deliveryTask_->shouldYield(); })) return;
  (tables_.listenersAreBusy() ? backlogTask_ : deliveryTask_)->scheduleWithin(0);
}

}  // namespace Tools
