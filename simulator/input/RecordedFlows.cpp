#include "simulator/input/RecordedFlows.h"

#include <array>
#include <limits>
#include <string_view>
#include <unordered_map>

namespace Tools {

namespace {

enum Field : std::size_t { timeField, vrfField, destinationField, packetsField, fieldCount };
using Fields = std::array<std::string_view, fieldCount>;

std::optional<Fields> fieldsOf(std::string_view entry) {
  Fields fields;
  for (std::size_t i = 0; i + 1 < fieldCount; ++i) {
    const auto comma = entry.find(',');
    if (comma == std::string_view::npos) return std::nullopt;
    fields[i] = trimmed(entry.substr(0, comma));
    entry.remove_prefix(comma + 1);
  }
  if (entry.find(',') != std::string_view::npos) return std::nullopt;
  fields[packetsField] = trimmed(entry);
  return fields;
}

double timeOf(const LineReader& lines, std::string_view text) {
  const auto time = Platform::TextForm<double>::from(text);
  if (time && *time >= 0 && *time < std::numeric_limits<double>::infinity()) return *time;
  lines.refuse(quoted(text) + " is not a time in seconds");
}

std::uint32_t packetsOf(const LineReader& lines, std::string_view text) {
  const auto packets = Platform::TextForm<std::uint32_t>::from(text);
  if (packets && *packets != 0) return *packets;
  lines.refuse(quoted(text) + " is not a number of packets (1 to 4294967295)");
}

}  // namespace

RecordedFlows::RecordedFlows(LineReader& lines) : flows_(std::make_unique<Simulator::FlowList>()) {
  std::unordered_map<std::string, std::uint32_t> indexes;  // of vrfs_, by name
  bool first = true;
  for (std::string_view entry; lines.next(entry); first = false) {
    const auto fields = fieldsOf(entry);
    if (!fields) lines.refuse(quoted(entry) + " is not time,VRF,destination,packets");
    if (first && (*fields)[timeField] == "time") continue;
    const double time = timeOf(lines, (*fields)[timeField]);
    const auto [vrf, isNew] =
        indexes.try_emplace(std::string((*fields)[vrfField]), static_cast<std::uint32_t>(vrfs_.size()));
    if (isNew) {
      const auto name = Platform::TextForm<L3::VrfName>::from(vrf->first);
      if (!name) lines.refuse(quoted(vrf->first) + " is not " + Platform::TextForm<L3::VrfName>::what);
      vrfs_.push_back({*name, lines.place()});
    }
    const auto addr = Platform::TextForm<IpAddr>::from((*fields)[destinationField]);
    if (!addr) lines.refuse(quoted((*fields)[destinationField]) + " is not " + Platform::TextForm<IpAddr>::what);
    flows_->flowIs(time, {vrf->second, *addr}, packetsOf(lines, (*fields)[packetsField]));
  }
}

std::unique_ptr<Simulator::FlowList> RecordedFlows::on(const HwVrfIdOf& hwVrfIdOf) {
  std::vector<std::uint32_t> hwVrfIds;
  for (const Vrf& vrf : vrfs_) {
    const auto hwVrfId = hwVrfIdOf(vrf.name);
    if (!hwVrfId) throw Platform::BadText(vrf.place + ": there is no VRF " + quoted(vrf.name.text()));
    hwVrfIds.push_back(*hwVrfId);
  }
  flows_->hwVrfIdsAre(hwVrfIds);
  return std::move(flows_);
}

}  // namespace Tools
