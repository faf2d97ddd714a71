// Files of recorded flows.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/Net.h"
#include "simulator/FlowList.h"

namespace Tools {

// The hardware VRF id under a VRF's name; nothing when there is none of that name.
using HwVrfIdOf = std::function<std::optional<std::uint32_t>(const L3::VrfName&)>;

// Reads flows, plain or gzip: "time,VRF,destination,packets" a line, in any order of time. The time is in seconds from
// the start, the destination an IPv4 address, the packets are 1 to 4294967295. Blanks around the fields are left out,
// blank lines and what follows a '#' are skipped, as is a first line that begins with the word "time". "-" is standard
// input. Throws BadText for the first bad line ("FILE:LINE: 'x' is not an IPv4 address"), a VRF without an id included,
// and when the file cannot be read to its end.
std::unique_ptr<Simulator::FlowList> readFlowFile(const std::string& file, const HwVrfIdOf& hwVrfIdOf);

}  // namespace Tools
