// The state database in a Redis server that many processes share.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "lib/statedb/EmbeddedStateDb.h"
#include "linux/loop/EventLoop.h"
#include "linux/redis/RedisMirror.h"

namespace LinuxPlatform {

struct RedisStateDbSettings : RedisSettings {
  std::set<std::string, std::less<>> privatePaths;  // of the database, but of this process alone
  std::set<std::string, std::less<>> offeredPaths;  // of local entities that others find in the server, to be read
};

// Entities stand in this process as in the embedded database, and RedisMirror.h keeps them and the server the same. A
// mount group completes when everything that is followed has been read: an agent that waits for its first content
// waits.
//
// An operator's change is checked here, stands at once and is given to the system for the server before this process
// goes on; it is written again when the connection is lost before the server has answered. With the server out of reach
// it is refused.
class RedisStateDb final : public Lattis::StateDb {
 public:
  RedisStateDb(const Lattis::EntityTypes& types, EventLoop& loop, RedisStateDbSettings settings);
  ~RedisStateDb() override;

  std::shared_ptr<Lattis::MountGroup> mountGroup() override;
  void localEntityIs(const std::string& path, std::shared_ptr<Lattis::Entity> entity) override;
  // Writes them to the server, in the place of what is there. Throws std::invalid_argument when it cannot be reached.
  void entitiesAre(const Lattis::Entities& entities) override;
  std::shared_ptr<Lattis::Entity> entityOrNew(const std::string& path, const std::string& typeName) override;
  std::shared_ptr<Lattis::Entity> entity(std::string_view path) const override { return db_.entity(path); }
  std::vector<std::string> paths() const override { return db_.paths(); }
  void fieldIs(std::string_view path, std::string_view field, const std::optional<std::string>& value) override;
  void fieldDel(std::string_view path, std::string_view field) override;
  void whenTaken(const std::function<void(const std::string& fault)>& call) override { mirror_.whenTaken(call); }

  // How it stands with the server, for operators; not to be used after the database.
  std::shared_ptr<Lattis::Entity> statistics() const;
  RedisMirror& mirror() { return mirror_; }
  const RedisMirror& mirror() const { return mirror_; }

 private:
  class Group;
  class Statistics;
  // Null: this process' own.
  std::shared_ptr<Lattis::Entity> sharedEntity(const std::string& path) const;
  void follow(const std::string& path, const std::shared_ptr<Lattis::Entity>& entity);

  const Lattis::EntityTypes& types_;
  const RedisStateDbSettings settings_;
  EmbeddedStateDb db_;
  std::map<std::string, std::shared_ptr<Lattis::Entity>, std::less<>> scratch_;  // by type name
  RedisMirror mirror_;
};

}  // namespace LinuxPlatform
