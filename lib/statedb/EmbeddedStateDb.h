// The state database kept in this process's memory: filled from a scenario file, changed through the control socket,
// mounted by the agent as if it were far away.
#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/services/TaskScheduler.h"
#include "platform/state/StateDb.h"

namespace LinuxPlatform {

// Mounting a path that holds nothing makes an empty entity of the type asked for, in either direction, so that content
// may come later; a type that nobody registered fails the whole group.
class EmbeddedStateDb final : public Lattis::StateDb {
 public:
  EmbeddedStateDb(const Lattis::EntityTypes& types, Platform::TaskScheduler& scheduler);
  ~EmbeddedStateDb() override;

  std::shared_ptr<Lattis::MountGroup> mountGroup() override;
  void localEntityIs(const std::string& path, std::shared_ptr<Lattis::Entity> entity) override;
  void entitiesAre(const Lattis::Entities& entities) override;
  std::shared_ptr<Lattis::Entity> entityOrNew(const std::string& path, const std::string& typeName) override;
  std::shared_ptr<Lattis::Entity> entity(std::string_view path) const override;
  std::vector<std::string> paths() const override;
  void fieldIs(std::string_view path, std::string_view field, const std::optional<std::string>& value) override;
  void fieldDel(std::string_view path, std::string_view field) override;

  // Called after each change by text of an entity of the database.
  void changedIs(std::function<void()> hook) { changed_ = std::move(hook); }
  // Without the local ones.
  const Lattis::Entities& databaseEntities() const { return entities_; }

 private:
  class Group;
  void complete();
  // Carries a change of the entity at the path out.
  void change(std::string_view path, const std::function<void(const std::shared_ptr<Lattis::Entity>&)>& carryOut) const;

  const Lattis::EntityTypes& types_;
  Lattis::Entities entities_;
  Lattis::Entities localEntities_;
  std::deque<std::shared_ptr<Group>> closed_;  // groups whose completion is owed
  std::function<void()> changed_;
  std::unique_ptr<Platform::Task> completionTask_;
};

}  // namespace LinuxPlatform
