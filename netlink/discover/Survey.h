// What a machine is as a switch, as its kernel has it at one moment.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "netlink/discover/MachineMessages.h"
#include "platform/values/Net.h"

namespace Netlink {

struct TunnelDevice {
  bool isRunning = false;
  VxlanLink vxlan;
  Bridging::ExtendedVlanId untaggedVlan = 0;  // as a port of a bridge that knows of VLANs; 0: it is none
  BridgePort::VlanToVni tunnels;              // what its bridge says
  bool operator==(const TunnelDevice&) const = default;
};

struct Survey {
  std::map<std::string, TunnelDevice> tunnels;     // VXLAN devices, by name
  std::map<std::string, std::uint32_t> vrfTables;  // VRF devices, by name
  IpAddr loopback4;                                // the first address of the loopback that others know; zero: none
  Ip6Addr loopback6;
  std::map<IpGenPrefix, std::uint32_t> underlay;  // hash of the next hops of the best route that works, never 0
  bool operator==(const Survey&) const = default;
};

// Of the network namespace that this process is in. Waits for the kernel; takes about a second for a million routes.
// Throws std::system_error.
Survey surveyMachine();

// Whether something of `before` is not in `now`; and puts what only `other` has into `now`.
bool lacksOf(const Survey& now, const Survey& before);
void addMissing(Survey& now, const Survey& other);

// Whether a survey after this announcement may be another than the one before.
bool concernsSurvey(const nlmsghdr& message);

}  // namespace Netlink
