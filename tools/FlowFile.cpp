#include "tools/FlowFile.h"

#include <array>
#include <limits>
#include <string_view>
#include <unordered_map>

#include "tools/LineReader.h"

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

// Adds a file's entries to a list of flows, one after the other.
class FlowFile {
 public:
  FlowFile(const std::string& file, const HwVrfIdOf& hwVrfIdOf) : reader_(file), hwVrfIdOf_(hwVrfIdOf) {}

  void read(Simulator::FlowList& flows) {
    bool first = true;
    for (std::string_view entry; reader_.next(entry); first = false) {
      const auto fields = fieldsOf(entry);
      if (!fields) reader_.refuse(quoted(entry) + " is not time,VRF,destination,packets");
      if (first && (*fields)[timeField] == "time") continue;
      const double time = timeOf((*fields)[timeField]);
      const std::uint32_t hwVrfId = hwVrfIdFor((*fields)[vrfField]);
      const auto addr = Platform::TextForm<IpAddr>::from((*fields)[destinationField]);
      if (!addr) refuse((*fields)[destinationField], Platform::TextForm<IpAddr>::what);
      flows.flowIs(time, {hwVrfId, *addr}, packetsOf((*fields)[packetsField]));
    }
  }

 private:
  double timeOf(std::string_view text) const {
    const auto time = Platform::TextForm<double>::from(text);
    if (!time || *time < 0 || *time == std::numeric_limits<double>::infinity()) refuse(text, "a time in seconds");
    return *time;
  }
  std::uint32_t packetsOf(std::string_view text) const {
    const auto packets = Platform::TextForm<std::uint32_t>::from(text);
    if (!packets || *packets == 0) refuse(text, "a number of packets (1 to 4294967295)");
    return *packets;
  }
  // Asks for every name once.
  std::uint32_t hwVrfIdFor(std::string_view name) {
    const auto known = hwVrfIds_.find(std::string(name));
    if (known != hwVrfIds_.end()) return known->second;
    const auto vrfName = Platform::TextForm<L3::VrfName>::from(name);
    const auto hwVrfId = vrfName ? hwVrfIdOf_(*vrfName) : std::nullopt;
    if (!hwVrfId) reader_.refuse("there is no VRF " + quoted(name));
    return hwVrfIds_[std::string(name)] = *hwVrfId;
  }
  [[noreturn]] void refuse(std::string_view text, const char* what) const {
    reader_.refuse(quoted(text) + " is not " + what);
  }

  LineReader reader_;
  const HwVrfIdOf& hwVrfIdOf_;
  std::unordered_map<std::string, std::uint32_t> hwVrfIds_;
};

}  // namespace

std::unique_ptr<Simulator::FlowList> readFlowFile(const std::string& file, const HwVrfIdOf& hwVrfIdOf) {
  auto flows = std::make_unique<Simulator::FlowList>();
  FlowFile(file, hwVrfIdOf).read(*flows);
  return flows;
}

}  // namespace Tools
