#include "netlink/kernel/KernelNexthops.h"

#include <algorithm>
#include <utility>

#include "platform/values/Assert.h"

namespace Netlink {

using RouteCache::AdjId;

bool KernelNexthops::stands(AdjId adjId) const {
  const auto group = groups_.find(adjId);
  return group != groups_.end() && group->second.stands;
}

bool KernelNexthops::leads(AdjId adjId) const {
  const auto group = groups_.find(adjId);
  return group != groups_.end() && group->second.stands && group->second.members.front() != blackholeId;
}

void KernelNexthops::contentIs(AdjId adjId, const Content& content) {
  Group& group = groups_[adjId];
  for (const Member& member : content) hopIs(adjId, group, member);
  membersAre(adjId, group, content);
  removeHops(adjId, group, content);  // not before the group can do without
}

void KernelNexthops::hopIs(AdjId adjId, Group& group, const Member& member) {
  NeighbourState& neighbour = neighbours_[member.hop.neighbour];
  if (!neighbour.stands) batch_.neighbour(Change::add, member.hop.neighbour, adjId);
  neighbour.stands = true;
  const auto [known, isNew] = group.hops.try_emplace(member.slot, member.hop);
  if (!isNew && known->second == member.hop) return;
  batch_.hop(adjId, member.slot, member.hop);
  ++neighbour.users;
  if (isNew) return;
  const Hop before = std::exchange(known->second, member.hop);
  release(before.neighbour);
}

void KernelNexthops::membersAre(AdjId adjId, Group& group, const Content& content) {
  std::vector<std::uint32_t> members;
  for (const Member& member : content) {
    if (member.forwards) members.push_back(nexthopId(adjId, member.slot));
  }
  if (members.empty()) members.push_back(blackholeId);
  if (group.stands && group.members == members) return;
  if (members.front() == blackholeId && !blackholeStands_) {
    batch_.blackhole();
    blackholeStands_ = true;
  }
  batch_.group(adjId, members);
  group.members = std::move(members);
  if (!std::exchange(group.stands, true)) stood_(adjId);
}

void KernelNexthops::removeHops(AdjId adjId, Group& group, const Content& besides) {
  std::erase_if(group.hops, [&](const auto& hop) {
    if (std::ranges::find(besides, hop.first, &Member::slot) != besides.end()) return false;
    batch_.nexthopRemoval(adjId, hop.first);
    release(hop.second.neighbour);
    return true;
  });
}

void KernelNexthops::release(const Neighbour& neighbour) {
  const auto state = neighbours_.find(neighbour);
  PLATFORM_ASSERT(state != neighbours_.end() && state->second.users > 0);
  if (--state->second.users > 0) return;
  if (state->second.stands) batch_.neighbour(Change::remove, neighbour);
  neighbours_.erase(state);
}

bool KernelNexthops::del(AdjId adjId) {
  const auto group = groups_.find(adjId);
  if (group == groups_.end()) return true;
  if (group->second.routes > 0) return false;
  if (group->second.stands) batch_.nexthopRemoval(adjId, groupSlot);
  removeHops(adjId, group->second, {});
  groups_.erase(group);
  return true;
}

bool KernelNexthops::routeRemoved(AdjId adjId) {
  const auto group = groups_.find(adjId);
  PLATFORM_ASSERT(group != groups_.end() && group->second.routes > 0);
  if (--group->second.routes > 0) return false;
  if (!group->second.stands && group->second.hops.empty()) groups_.erase(group);
  return true;
}

void KernelNexthops::forget() {
  for (auto& group : groups_) group.second = Group{.routes = group.second.routes};
  std::erase_if(groups_, [](const auto& group) { return group.second.routes == 0; });
  neighbours_.clear();
  blackholeStands_ = false;
}

void KernelNexthops::found(const Nexthop& nexthop) {
  if (nexthop.id == blackholeId) {
    blackholeStands_ = !nexthop.hop && nexthop.members.empty();
    return;
  }
  const auto adjId = adjIdOf(nexthop.id);
  if (!adjId) return;
  Group& group = groups_[*adjId];
  if (slotOf(nexthop.id) == groupSlot) {
    group.stands = true;
    group.members = nexthop.members;
    return;
  }
  const Hop hop = nexthop.hop.value_or(Hop());  // one that no adjacency has, and that gives way
  if (group.hops.emplace(slotOf(nexthop.id), hop).second) ++neighbours_[hop.neighbour].users;
}

void KernelNexthops::removeStrays() {
  std::erase_if(neighbours_, [this](const auto& neighbour) {
    if (neighbour.second.users > 0) return false;
    if (neighbour.second.stands) batch_.neighbour(Change::remove, neighbour.first);
    return true;
  });
}

void KernelNexthops::refused(const Subject& subject) {
  if (subject.kind == Subject::Kind::neighbour) {
    const auto neighbour = neighbours_.find(subject.neighbour);
    if (neighbour != neighbours_.end() && subject.change != Change::remove) neighbour->second.stands = false;
    return;
  }
  if (subject.adjId == AdjId()) blackholeStands_ = false;
  const auto group = groups_.find(subject.adjId);
  if (group == groups_.end() || subject.change == Change::remove) return;
  if (subject.kind == Subject::Kind::group) {
    group->second.stands = false;
    return;
  }
  const auto hop = group->second.hops.find(subject.slot);
  if (hop == group->second.hops.end()) return;
  // As if it were another one: it is sent again.
  const Neighbour neighbour = std::exchange(hop->second, Hop()).neighbour;
  ++neighbours_[Neighbour()].users;
  const auto state = neighbours_.find(neighbour);
  if (--state->second.users == 0 && !state->second.stands) neighbours_.erase(state);
}

std::optional<AdjId> KernelNexthops::after(AdjId adjId) const {
  const auto next = groups_.upper_bound(adjId);
  return next == groups_.end() ? std::nullopt : std::optional(next->first);
}

void KernelNexthops::checkInvariants() const {
  std::map<Neighbour, std::uint32_t> users;
  for (const auto& [adjId, group] : groups_) {
    PLATFORM_ASSERT(group.stands || !group.hops.empty() || group.routes > 0);
    for (const auto& hop : group.hops) ++users[hop.second.neighbour];
  }
  for (const auto& [neighbour, state] : neighbours_) {
    PLATFORM_ASSERT(state.users == users[neighbour]);
    PLATFORM_ASSERT(state.users > 0 || state.stands);
  }
}

}  // namespace Netlink
