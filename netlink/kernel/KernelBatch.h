// Changes on their way to the kernel, some hundred at a time, each with what it is about: that is told when the kernel
// refuses it.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "netlink/kernel/KernelMessages.h"
#include "netlink/messages/Socket.h"

namespace Netlink {

// What one change is about: which members say something depends on the kind.
struct Subject {
  enum class Kind : std::uint8_t { neighbour, hop, group, nexthopRemoval, route };
  Kind kind = Kind::route;
  Change change = Change::add;
  Neighbour neighbour{};      // neighbour
  RouteCache::AdjId adjId{};  // all; neighbour: the one that wants it now
  Slot slot = groupSlot;      // hop, nexthopRemoval
  KernelRoute route{};        // route
};

// Hears what has become of changes, from inside flush(): of a batch first of those that were carried out. May not add
// any.
class BatchOutcome {
 public:
  virtual ~BatchOutcome() = default;
  virtual void handleRefused(const Subject& subject, int error) = 0;
  virtual void handleDone(const Subject& subject) = 0;
  // What the kernel has carried out of a batch is not known.
  virtual void handleLost() = 0;
};

// The kernel carries them out in the order in which they were added.
class KernelBatch {
 public:
  static constexpr std::size_t fullFrom = 512;  // messages: more to a send() is hardly faster

  // `outcome` outlives it. Throws std::system_error.
  explicit KernelBatch(BatchOutcome& outcome) : outcome_(outcome) {}

  void neighbour(Change change, const Neighbour& neighbour, RouteCache::AdjId adjId = {});
  void hop(RouteCache::AdjId adjId, Slot slot, const Hop& hop);
  void blackhole();
  void group(RouteCache::AdjId adjId, std::span<const std::uint32_t> members);
  void nexthopRemoval(RouteCache::AdjId adjId, Slot slot);
  void route(Change change, const KernelRoute& route, RouteCache::AdjId adjId);

  bool isFull() const { return messages_.messages() >= fullFrom; }
  // There are changes of next hops, which have to be carried out before routes can rely on them.
  bool hasNexthops() const { return hasNexthops_; }
  void flush();

  std::uint64_t messagesSent() const { return messagesSent_; }
  std::uint64_t messagesRefused() const { return messagesRefused_; }

 private:
  std::uint32_t next(const Subject& subject);

  BatchOutcome& outcome_;
  Socket socket_;
  MessageBuffer messages_;
  std::vector<Subject> subjects_;  // of the messages, in their order
  bool hasNexthops_ = false;
  std::uint32_t sequence_ = 1;  // of the next message
  std::uint64_t messagesSent_ = 0;
  std::uint64_t messagesRefused_ = 0;
};

}  // namespace Netlink
