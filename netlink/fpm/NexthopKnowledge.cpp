#include "netlink/fpm/NexthopKnowledge.h"

#include <cstdio>

#include "platform/values/Text.h"

namespace Netlink {

void NexthopKnowledge::sessionBegins() {
  ++session_;
  objects_.clear();
}

bool NexthopKnowledge::objectIs(const FpmNexthopObject& object) {
  if (!object.isThere) return objects_.erase(object.id) > 0;
  const auto [place, isNew] = objects_.try_emplace(object.id, object);
  if (isNew) {
    if (objects_.size() > maxObjects) throw FpmFault("more next hop objects than anybody has");
    return true;
  }
  if (place->second.nexthop == object.nexthop && place->second.group == object.group) return false;
  place->second = object;
  return true;
}

bool NexthopKnowledge::neighbourIs(const FpmNeighbour& neighbour) {
  const Endpoint endpoint(neighbour.vtep, neighbour.vni);
  if (!neighbour.isThere) return macs_.erase(endpoint) > 0;
  const auto [place, isNew] = macs_.try_emplace(endpoint, Mac{neighbour.mac, session_});
  if (isNew) {
    if (macs_.size() > maxMacs) throw FpmFault("more router MACs than anybody has");
    return true;
  }
  const Mac before = std::exchange(place->second, Mac{neighbour.mac, session_});
  if (before.mac == neighbour.mac) return false;
  if (before.session == session_) contradicted(neighbour, before.mac);
  return true;
}

void NexthopKnowledge::contradicted(const FpmNeighbour& neighbour, const EthAddr& before) {
  ++contradictions_;
  if (!told_.emplace(neighbour.vtep, neighbour.vni).second) return;
  std::fprintf(stderr, "fpm: VTEP %s, VNI %s: router MAC %s contradicts %s, which was said before\n",
               Platform::toText(neighbour.vtep).c_str(), Platform::toText(neighbour.vni).c_str(),
               Platform::toText(neighbour.mac).c_str(), Platform::toText(before).c_str());
}

std::optional<std::vector<FpmNexthop>> NexthopKnowledge::nexthopsOf(std::uint32_t id) const {
  const auto found = objects_.find(id);
  if (found == objects_.end()) return std::nullopt;
  if (found->second.group.empty()) return std::vector{found->second.nexthop};
  std::vector<FpmNexthop> nexthops;
  for (const std::uint32_t member : found->second.group) {
    const auto of = objects_.find(member);
    if (of == objects_.end() || !of->second.group.empty()) return std::nullopt;
    nexthops.push_back(of->second.nexthop);
  }
  return nexthops;
}

std::optional<EthAddr> NexthopKnowledge::macOf(const IpGenAddr& vtep, const Vxlan::Vni& vni) const {
  for (const Endpoint& endpoint : {Endpoint(vtep, vni), Endpoint(vtep, Vxlan::Vni())}) {
    const auto found = macs_.find(endpoint);
    if (found != macs_.end()) return found->second.mac;
  }
  return std::nullopt;
}

}  // namespace Netlink
