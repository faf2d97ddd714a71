#include "platform/tables/SharedTable.h"

#include "platform/values/Assert.h"

namespace Pondra {

std::string notAllowedText(bool initialized, bool keyNotifications) {
  return "not allowed at this time, initialized:" + Platform::toText(initialized) +
         " keyNotifications:" + Platform::toText(keyNotifications);
}

std::string payloadText(std::string_view type, std::size_t requested, std::size_t max) {
  return std::string(type) + "::alloc() requested payloadSize:" + std::to_string(requested) +
         ", but max payloadSize:" + std::to_string(max);
}

std::string outOfRangeText(std::size_t index, std::size_t max) {
  return "out-of-range, index:" + std::to_string(index) + " max:" + std::to_string(max);
}

std::string orphanText(std::string_view table) {
  return std::string(table) + " is now an orphan";
}

std::string alreadyInitializedText(std::string_view entity) {
  return "Entity " + std::string(entity) + " already initialized";
}

TableEntity::~TableEntity() {
  if (control_ && following_) control_->follow(nullptr);
}

void TableEntity::attach(std::shared_ptr<SharedCollection> control) {
  if (control_) refuse(layout().collection + "ControlIs", alreadyInitializedText(name()));
  control_ = std::move(control);
}

void TableEntity::parentIs(const std::shared_ptr<Lattis::Entity>& parent) {
  parent_ = parent;
  orphan_ = parent == nullptr;
}

void TableEntity::refuseRead(std::string_view operation) const {
  refuse(operation, orphan_ ? orphanText(name()) : notAllowedText(false, following_));
}

SharedCollection& TableEntity::writableFor(std::string_view operation) const {
  if (orphan_) refuse(operation, orphanText(name()));
  if (!writable()) refuse(operation, notAllowedText(control_ != nullptr, following_));
  return *control_;
}

void TableEntity::refuse(std::string_view operation, const std::string& text) const {
  throw TableError((control_ ? control_->path() : name()) + " " + std::string(operation) + ": " + text);
}

std::uint64_t TableEntity::follow() {
  if (!control_ || control_->kind() == MountKind::keyedReader) return 0;
  if (following_) return control_->lastSequence();
  following_ = true;
  return control_->follow(this);
}

void TableEntity::keyChanged(Bytes key, std::uint64_t sequence) {
  const auto keepAlive = shared_from_this();  // a reactor may let go of the table
  deliverKey(key, sequence);
}

void TableEntity::writerChanged() {
  const auto keepAlive = shared_from_this();
  deliverWriter();
}

const Lattis::EntityType& TableEntity::entityType() const {
  static const Lattis::EntityType type{"Pondra::Table",
                                       {Lattis::readOnlyField<TableEntity, &TableEntity::mounted>("mounted"),
                                        Lattis::readOnlyField<TableEntity, &TableEntity::size>("size"),
                                        Lattis::readOnlyField<TableEntity, &TableEntity::capacity>("capacity"),
                                        Lattis::readOnlyField<TableEntity, &TableEntity::generation>("generation"),
                                        Lattis::readOnlyField<TableEntity, &TableEntity::reconciled>("reconciled")},
                                       {}};
  return type;
}

const Lattis::EntityType& TableDirectory::entityType() const {
  static const Lattis::EntityType type{"Pondra::TableDirectory", {}, {}};
  return type;
}

}  // namespace Pondra
