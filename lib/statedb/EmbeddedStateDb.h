// The state database kept in this process's memory: filled from a scenario file, changed through the control socket,
// mounted by the agent as if it were far away.
#pragma once

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/services/TaskScheduler.h"
#include "platform/state/StateDb.h"

namespace LinuxPlatform {

// Entities by path. Two kinds stand side by side: those of the state database, which agents mount, and local ones,
// which an agent offers to operators (its state machines); operators reach both. A local entity hides one of the
// database under the same path from operators, never from mounts.
//
// Mounting a path that holds nothing makes an empty entity of the type asked for, in either direction, so that content
// may come later; a type that nobody registered fails the whole group. Outlives its mount groups' users.
class EmbeddedStateDb final : public Lattis::StateDb {
 public:
  using Entities = std::map<std::string, std::shared_ptr<Lattis::Entity>, std::less<>>;

  EmbeddedStateDb(const Lattis::EntityTypes& types, Platform::TaskScheduler& scheduler);
  ~EmbeddedStateDb() override;

  std::shared_ptr<Lattis::MountGroup> mountGroup() override;

  // Puts entities in, all together; a path that is taken already is replaced for later mounts only.
  void entitiesAre(const Entities& entities);
  void localEntityIs(const std::string& path, std::shared_ptr<Lattis::Entity> entity);  // null takes it away

  // Called each time a mount group's completion has been called.
  void afterMountsIs(std::function<void()> hook) { afterMounts_ = std::move(hook); }

  // What an operator finds under the path, or null.
  std::shared_ptr<Lattis::Entity> entity(std::string_view path) const;
  // Of the database only: the one there is, or a new one; null for an unknown type.
  std::shared_ptr<Lattis::Entity> entityOrNew(const std::string& path, const std::string& typeName);
  // All paths an operator can reach, in order.
  std::vector<std::string> paths() const;

 private:
  class Group;
  void complete();

  const Lattis::EntityTypes& types_;
  Entities entities_;
  Entities localEntities_;
  std::deque<std::shared_ptr<Group>> closed_;  // groups whose completion is owed
  std::function<void()> afterMounts_;
  std::unique_ptr<Platform::Task> completionTask_;
};

}  // namespace LinuxPlatform
