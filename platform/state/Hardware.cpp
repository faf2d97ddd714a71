#include "platform/state/Hardware.h"

namespace Routing::Hardware {

const Lattis::EntityType& Status::entityType() const {
  static const Lattis::EntityType type{
      "Routing::Hardware::Status",
      {Lattis::attributeField<Status, &Status::hwRouteCachingEnabled, &Status::hwRouteCachingEnabledIs>(
          "hwRouteCachingEnabled")},
      {}};
  return type;
}

void VrfStatus::hwVrfIdIs(std::uint32_t hwVrfId) {
  if (hwVrfId == hwVrfId_) return;
  hwVrfId_ = hwVrfId;
  notify<Reactor>([](Reactor& reactor) { reactor.handleHwVrfId(); });
}

const Lattis::EntityType& VrfStatus::entityType() const {
  static const Lattis::EntityType type{
      "Routing::Hardware::VrfStatus",
      {Lattis::attributeField<VrfStatus, &VrfStatus::hwVrfId, &VrfStatus::hwVrfIdIs>("hwVrfId")},
      {}};
  return type;
}

std::shared_ptr<VrfStatus> RouteStatus::vrfStatus(const L3::VrfName& name) const {
  return vrfStatuses_.find(name).value_or(nullptr);
}

std::shared_ptr<VrfStatus> RouteStatus::vrfStatusIs(const L3::VrfName& name) {
  auto found = vrfStatus(name);
  if (found) return found;
  found = std::make_shared<VrfStatus>(name.text());
  vrfStatuses_.is(name, found);
  notify<Reactor>([&](Reactor& reactor) { reactor.handleVrfStatus(name); });
  return found;
}

void RouteStatus::vrfStatusDel(const L3::VrfName& name) {
  if (vrfStatuses_.del(name)) notify<Reactor>([key = name](Reactor& reactor) { reactor.handleVrfStatus(key); });
}

const Lattis::EntityType& RouteStatus::entityType() const {
  using This = RouteStatus;
  static const Lattis::EntityType type{
      "Routing::Hardware::RouteStatus",
      {},
      {Lattis::childField<This, static_cast<const VrfStatuses& (This::*)() const>(&This::vrfStatus), &This::vrfStatusIs,
                          &This::vrfStatusDel>("vrfStatus")}};
  return type;
}

}  // namespace Routing::Hardware
