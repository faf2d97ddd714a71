// Shared tables on an event loop: the changes that a process follows reach its reactors, and those that it makes wake
// the others. Memory that tables do not need any more goes back when there is nothing else to do.
#pragma once

#include <memory>

#include "linux/loop/EventLoop.h"
#include "linux/tables/SharedTableService.h"

namespace Tools {

// Both outlive it. Takes the loop's afterBatch hook, for flushing.
class TableDelivery {
 public:
  TableDelivery(LinuxPlatform::EventLoop& loop, LinuxPlatform::SharedTableService& tables);
  TableDelivery(const TableDelivery&) = delete;
  TableDelivery& operator=(const TableDelivery&) = delete;
  ~TableDelivery();

  // There is something to deliver: what the service calls when it wants a delivery.
  void wanted() { deliveryTask_->scheduleWithin(0); }

 private:
  void deliver();
  void poll();
  void giveMemoryBack();

  LinuxPlatform::EventLoop& loop_;
  LinuxPlatform::SharedTableService& tables_;
  std::unique_ptr<Platform::Task> deliveryTask_;
  std::unique_ptr<Platform::Task> backlogTask_;  // the same, in turn with those who are told and have too much to do
  std::unique_ptr<Platform::Task> pollTask_;
  std::unique_ptr<Platform::Task> memoryTask_;
};

}  // namespace Tools
