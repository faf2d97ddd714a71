#include "netlink/kernel/KernelBatch.h"

#include <utility>

namespace Netlink {

std::uint32_t KernelBatch::next(const Subject& subject) {
  if (subject.kind != Subject::Kind::route) hasNexthops_ = true;
  subjects_.push_back(subject);
  return sequence_++;
}

void KernelBatch::neighbour(Change change, const Neighbour& neighbour, RouteCache::AdjId adjId) {
  const auto sequence =
      next({.kind = Subject::Kind::neighbour, .change = change, .neighbour = neighbour, .adjId = adjId});
  addNeighbour(messages_, sequence, change, neighbour);
}

void KernelBatch::hop(RouteCache::AdjId adjId, Slot slot, const Hop& hop) {
  addHop(messages_, next({.kind = Subject::Kind::hop, .adjId = adjId, .slot = slot}), nexthopId(adjId, slot), hop);
}

// Of nobody's adjacency.
void KernelBatch::blackhole() {
  addBlackhole(messages_, next({.kind = Subject::Kind::hop}));
}

void KernelBatch::group(RouteCache::AdjId adjId, std::span<const std::uint32_t> members) {
  addGroup(messages_, next({.kind = Subject::Kind::group, .adjId = adjId}), nexthopId(adjId), members);
}

void KernelBatch::nexthopRemoval(RouteCache::AdjId adjId, Slot slot) {
  removeNexthop(messages_,
                next({.kind = Subject::Kind::nexthopRemoval, .change = Change::remove, .adjId = adjId, .slot = slot}),
                nexthopId(adjId, slot));
}

void KernelBatch::route(Change change, const KernelRoute& route, RouteCache::AdjId adjId) {
  addRoute(messages_, next({.kind = Subject::Kind::route, .change = change, .adjId = adjId, .route = route}), change,
           route);
}

void KernelBatch::flush() {
  if (messages_.empty()) return;
  messages_.answerIsWanted();
  const auto first = sequence_ - static_cast<std::uint32_t>(messages_.messages());
  const Socket::Outcome outcome = socket_.exchange(messages_, first);
  messagesSent_ += messages_.messages();
  messagesRefused_ += outcome.refusals.size();
  messages_.clear();
  hasNexthops_ = false;
  const std::vector<Subject> subjects = std::exchange(subjects_, {});
  std::size_t message = 0;
  for (const auto& refusal : outcome.refusals) {  // in the order of the messages
    for (; message < refusal.message; ++message) outcome_.handleDone(subjects[message]);
    message = refusal.message + 1;
  }
  for (; message < subjects.size(); ++message) outcome_.handleDone(subjects[message]);
  for (const auto& refusal : outcome.refusals) outcome_.handleRefused(subjects[refusal.message], refusal.error);
  if (!outcome.isWhole) outcome_.handleLost();
}

}  // namespace Netlink
