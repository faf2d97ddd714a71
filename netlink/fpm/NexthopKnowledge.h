// What a routing suite has said of next hops: its next hop objects, and the router MACs behind VTEPs.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <utility>
#include <vector>

#include "netlink/fpm/FpmMessages.h"

namespace Netlink {

// Objects are a session's: the next one numbers its own. MACs outlive it.
class NexthopKnowledge {
 public:
  static constexpr std::size_t maxObjects = 1 << 20;  // beyond that a peer is not believed
  static constexpr std::size_t maxMacs = 1 << 20;

  // Says whether anything is another than before. Throws FpmFault when there are too many.
  bool objectIs(const FpmNexthopObject& object);
  bool neighbourIs(const FpmNeighbour& neighbour);
  // What stood in a table when this process began: known until a session says otherwise.
  void adopt(const IpGenAddr& vtep, const Vxlan::Vni& vni, const EthAddr& mac) { macs_[{vtep, vni}] = {mac, 0}; }
  void sessionBegins();

  // Of an object; of a group those of its members. Nothing: it is not known, or one of its members is not.
  std::optional<std::vector<FpmNexthop>> nexthopsOf(std::uint32_t id) const;
  // What was said with this VNI goes before what was said without one.
  std::optional<EthAddr> macOf(const IpGenAddr& vtep, const Vxlan::Vni& vni) const;
  std::uint64_t contradictions() const { return contradictions_; }
  std::size_t objects() const { return objects_.size(); }
  std::size_t macs() const { return macs_.size(); }

 private:
  using Endpoint = std::pair<IpGenAddr, Vxlan::Vni>;
  struct Mac {
    EthAddr mac;
    std::uint32_t session = 0;  // that said it last
  };
  void contradicted(const FpmNeighbour& neighbour, const EthAddr& before);

  std::map<std::uint32_t, FpmNexthopObject> objects_;
  std::map<Endpoint, Mac> macs_;
  std::set<Endpoint> told_;  // of which contradictions
  std::uint32_t session_ = 0;
  std::uint64_t contradictions_ = 0;
};

}  // namespace Netlink
