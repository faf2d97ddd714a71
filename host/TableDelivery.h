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
  // Looks by itself, about once a second, for what nobody has woken it for.
  TableDelivery(LinuxPlatform::EventLoop& loop, LinuxPlatform::SharedTableService& tables);
  // With tasks of that scheduler, which works on the loop; looks when look() is called.
  TableDelivery(LinuxPlatform::EventLoop& loop, Platform::TaskScheduler& tasks,
                LinuxPlatform::SharedTableService& tables);
  TableDelivery(const TableDelivery&) = delete;
  TableDelivery& operator=(const TableDelivery&) = delete;
  ~TableDelivery();

  // There is something to deliver: what the service calls when it wants a delivery.
  void wanted() { deliveryTask_->scheduleWithin(0); }
  // Looks for changes that nobody has told of and for memory to give back. True: there are some, and a task comes to
  // it.
  bool look();

 private:
  void deliver(Platform::Task& task);
  void poll();
  void giveMemoryBack();

  LinuxPlatform::EventLoop& loop_;
  LinuxPlatform::SharedTableService& tables_;
  std::unique_ptr<Platform::Task> deliveryTask_;
  std::unique_ptr<Platform::Task> backlogTask_;  // the same, in turn with those who are told and have too much to do
  std::unique_ptr<Platform::Task> memoryTask_;
  std::unique_ptr<Platform::Task> pollTask_;  // null: others ask for looks
};

}  // namespace Tools
