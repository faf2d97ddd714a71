// The state database: entities by path. Agents mount them in groups with a mode, complete when all of a group have been
// delivered; the launcher fills it, and operators look and change. A backend may live in this process or in another; so
// completion is asynchronous, and a mounted entity may change at any time between two callbacks.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/state/Entity.h"

namespace Lattis {

enum class MountStatus : std::uint8_t { mountSuccess, mountFailed };
inline constexpr MountStatus mountSuccess_ = MountStatus::mountSuccess;
inline constexpr MountStatus mountFailed_ = MountStatus::mountFailed;

// The types that entities can be made of, by the name that stands in mounts. The platform registers its own, the agent
// adds those it brings along (AgentBase::registerTypes).
class EntityTypes {
 public:
  using Maker = std::function<std::shared_ptr<Entity>(std::string name)>;
  void typeIs(std::string typeName, Maker maker) { makers_[std::move(typeName)] = std::move(maker); }
  template <class T>
  void typeIs(std::string typeName) {
    typeIs(std::move(typeName), [](std::string name) { return std::make_shared<T>(std::move(name)); });
  }
  // Null for a type that nobody registered.
  std::shared_ptr<Entity> make(const std::string& typeName, std::string name) const {
    const auto found = makers_.find(typeName);
    return found == makers_.end() ? nullptr : found->second(std::move(name));
  }

 private:
  std::map<std::string, Maker> makers_;
};

// The mounted entities of one agent. Outlives every state machine.
class EntityManager {
 public:
  virtual ~EntityManager() = default;
  // The entity at the path as it was mounted, or null. It stays the same object for as long as it is mounted.
  virtual std::shared_ptr<Entity> entity(std::string_view path) const = 0;
  // The entity if it is of this type, else null.
  template <class T>
  std::shared_ptr<T> get(std::string_view path) const {
    return std::dynamic_pointer_cast<T>(entity(path));
  }
};

// Called once, from the event loop and never from inside close().
using MountsComplete = std::function<void(MountStatus, std::shared_ptr<EntityManager>)>;

// Requests that complete together. Owned by the state database until its completion has been called.
class MountGroup {
 public:
  virtual ~MountGroup() = default;
  // Mode "r" is read, "w" write (the entity is made when nobody has); an "S" after it ("rS", "wS") is for the state
  // database alone. A path that holds an entity of another type is delivered all the same: who asks for it by type
  // gets null. Before close() only.
  virtual void mount(std::string path, std::string typeName, std::string mode) = 0;
  // No more requests; `complete` follows when every mount is done or one has failed.
  virtual void close(MountsComplete complete) = 0;
};

// Entities by path.
using Entities = std::map<std::string, std::shared_ptr<Entity>, std::less<>>;

// Two kinds of entities stand side by side: those of the database, which agents mount, and local ones, which this
// process offers to operators (an agent's state machines); operators reach both. A local entity hides one of the
// database under the same path from operators, never from mounts.
//
// Whoever reaches an entity by its path has the one object that everybody has, until another is put there; what is
// changed through it or by text, here or elsewhere, its reactors are told. A backend whose database has gone out of
// reach keeps the entities as it last heard of them and refuses changes by text; when it is back, whatever differs is
// set as any change is.
//
// Outlives its mount groups' users.
class StateDb {
 public:
  virtual ~StateDb() = default;

  // --- For agents ---
  virtual std::shared_ptr<MountGroup> mountGroup() = 0;
  virtual void localEntityIs(const std::string& path, std::shared_ptr<Entity> entity) = 0;  // null takes it away

  // --- For launchers ---
  // Puts entities in, all together; one that stands at such a path is replaced for later mounts only.
  virtual void entitiesAre(const Entities& entities) = 0;
  // Of the database only: the one there is, or a new one as a mount makes it; null for a type that nobody registered.
  virtual std::shared_ptr<Entity> entityOrNew(const std::string& path, const std::string& typeName) = 0;

  // --- For operators ---
  // What an operator finds under the path, or null.
  virtual std::shared_ptr<Entity> entity(std::string_view path) const = 0;
  // All paths an operator can reach, in order.
  virtual std::vector<std::string> paths() const = 0;
  // Changes what an operator finds under the path through the generic value interface: `field` is ATTRIBUTE,
  // COLLECTION[KEY], or COLLECTION[KEY].FIELD for a field of a child entity, with a backslash before brackets of a key
  // that do not match each other. fieldIs() makes the children on the way, and the child entity itself when there is
  // no value. A change that cannot be made, or after which an entity on the way has a fault(), throws
  // std::invalid_argument or what the value interface throws, in one line that says what is wrong; nothing has changed
  // then.
  virtual void fieldIs(std::string_view path, std::string_view field, const std::optional<std::string>& value) = 0;
  virtual void fieldDel(std::string_view path, std::string_view field) = 0;
  // Calls back, perhaps at once, when the database has taken the changes by text that were made before, so that the
  // death of this process does not lose them; with `fault`, one line, if it has refused the last of them. While a
  // database is out of reach it takes nothing.
  virtual void whenTaken(const std::function<void(const std::string& fault)>& call) { call({}); }
};

}  // namespace Lattis
