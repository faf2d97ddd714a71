// The state database as the agent sees it: entities by path, mounted in groups with a mode, complete when all of a
// group have been delivered. A backend may live in this process or in another; so completion is asynchronous, and a
// mounted entity may change at any time between two callbacks.
#pragma once

#include <functional>
#include <map>
#include <memory>
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

class StateDb {
 public:
  virtual ~StateDb() = default;
  virtual std::shared_ptr<MountGroup> mountGroup() = 0;
};

}  // namespace Lattis
