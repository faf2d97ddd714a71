#include "tools/KernelVnis.h"

#include <algorithm>
#include <cstdio>
#include <stdexcept>
#include <utility>

#include "lib/statedb/EntityFields.h"
#include "linux/control/ControlClient.h"
#include "platform/values/Paths.h"

namespace Tools {

namespace {

constexpr double askInterval = 1;  // seconds
constexpr double longestInterval = 16;

}  // namespace

KernelVnis::KernelVnis(LinuxPlatform::EventLoop& loop, std::string runDir, StateDbOptions stateDb, Take take)
    : runDir_(std::move(runDir)), stateDb_(std::move(stateDb)), take_(std::move(take)) {
  askingTask_ = loop.taskIs("kernelVnisTask", Platform::TaskPriority::background, [this] { handleAsking(); });
  askingTask_->scheduleWithin(0);
}

void KernelVnis::handleAsking() {
  std::string fault;
  try {
    Netlink::TunnelVnis vnis;
    stateAccess(runDir_, stateDb_, briefPatience)
        ->fieldsOf(Paths::vtiStatusDir, [&](const auto& field, const auto& value) {
          const auto steps = LinuxPlatform::parseField(field);  // vtiStatus[INTERFACE].extendedVlanToVniMap[VLAN]
          if (!value || steps.size() != 2 || !steps[0].key || !steps[1].key) return;
          const auto vlan = Platform::fromText<Bridging::ExtendedVlanId>(*steps[1].key);
          const auto vni = Platform::fromText<Vxlan::Vni>(*value);
          if (vni.isPresent()) vnis[{Platform::fromText<IntfId>(*steps[0].key), vlan}] = vni.value();
        });
    take_(vnis);
  } catch (const std::runtime_error& error) {
    fault = error.what();
  }
  if (fault != fault_) std::fprintf(stderr, "kernel: %s\n", fault.empty() ? "VNIs are known again" : fault.c_str());
  fault_ = fault;
  // One that does not answer is not waited for all the time.
  interval_ = fault.empty() ? askInterval : std::min(2 * interval_, longestInterval);
  askingTask_->scheduleWithin(interval_);
}

}  // namespace Tools
