// Files of recorded flows.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/values/Net.h"
#include "simulator/input/LineReader.h"
#include "simulator/traffic/FlowList.h"

namespace Tools {

// The hardware VRF id under a VRF's name; nothing when there is none of that name.
using HwVrfIdOf = std::function<std::optional<std::uint32_t>(const L3::VrfName&)>;

// Flows that were read from a file, for a switch whose VRFs need not be known yet.
class RecordedFlows {
 public:
  // Reads flows, plain or gzip: "time,VRF,destination,packets" a line, in any order of time. The time is in seconds
  // from the start, the destination an IPv4 address, the packets are 1 to 4294967295. Blanks around the fields are left
  // out, blank lines and what follows a '#' are skipped, as is a first line that begins with the word "time". Throws
  // BadText for the first bad line ("FILE:LINE: 'x' is not an IPv4 address"), and when the file cannot be read to its
  // end.
  explicit RecordedFlows(LineReader& lines);

  // The flows on a switch with these VRFs. Once. Throws BadText for a VRF without an id, with the line that it stands
  // in first.
  std::unique_ptr<Simulator::FlowList> on(const HwVrfIdOf& hwVrfIdOf);

 private:
  struct Vrf {
    L3::VrfName name;
    std::string place;  // "FILE:LINE"
  };
  std::unique_ptr<Simulator::FlowList> flows_;  // with indexes of vrfs_ for hardware VRF ids
  std::vector<Vrf> vrfs_;
};

}  // namespace Tools
