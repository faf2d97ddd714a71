#include "linux/redis/RedisStateDb.h"

#include <stdexcept>
#include <utility>

#include "lib/statedb/EntityFields.h"
#include "platform/values/Assert.h"

namespace LinuxPlatform {

using Lattis::Entity;

// How it stands with the server, for operators.
class RedisStateDb::Statistics final : public Entity {
 public:
  explicit Statistics(const RedisMirror& mirror) : Entity("stateDb"), mirror_(mirror) {}
  std::string state() const {
    if (!mirror_.session().isOpen()) return "out of reach";
    return mirror_.isComplete() ? "followed" : "not complete";
  }
  std::string lastFault() const { return mirror_.session().fault(); }
  std::uint64_t openings() const { return mirror_.session().openings(); }
  std::uint64_t readings() const { return mirror_.readings(); }
  std::uint64_t refusals() const { return mirror_.refusals(); }
  std::uint64_t refusedFields() const { return mirror_.refusedFields(); }
  const Lattis::EntityType& entityType() const override {
    using This = Statistics;
    using Lattis::readOnlyField;
    static const Lattis::EntityType type{
        "Platform::StateDbStatistics",
        {readOnlyField<This, &This::state>("state"), readOnlyField<This, &This::lastFault>("fault"),
         readOnlyField<This, &This::openings>("sessions"), readOnlyField<This, &This::readings>("readings"),
         readOnlyField<This, &This::refusals>("refusals"), readOnlyField<This, &This::refusedFields>("refusedFields")},
        {}};
    return type;
  }

 private:
  const RedisMirror& mirror_;
};

class RedisStateDb::Group final : public Lattis::MountGroup, public std::enable_shared_from_this<Group> {
 public:
  explicit Group(RedisStateDb& db) : db_(db), group_(db.db_.mountGroup()) {}

  void mount(std::string path, std::string typeName, std::string mode) override {
    PLATFORM_ASSERT(!closed_);
    group_->mount(path, typeName, std::move(mode));
    requests_.emplace_back(std::move(path), std::move(typeName));
  }

  void close(Lattis::MountsComplete complete) override {
    PLATFORM_ASSERT(!closed_);
    closed_ = true;
    for (const auto& [path, typeName] : requests_) db_.entityOrNew(path, typeName);
    db_.mirror_.whenSynced(
        [group = group_, complete = std::move(complete)]() mutable { group->close(std::move(complete)); });
    requests_.clear();
  }

 private:
  RedisStateDb& db_;
  std::shared_ptr<Lattis::MountGroup> group_;  // of the entities that stand here
  std::vector<std::pair<std::string, std::string>> requests_;
  bool closed_ = false;
};

RedisStateDb::RedisStateDb(const Lattis::EntityTypes& types, EventLoop& loop, RedisStateDbSettings settings)
    : types_(types), settings_(std::move(settings)), db_(types, loop), mirror_(loop, settings_) {}

RedisStateDb::~RedisStateDb() = default;

std::shared_ptr<Entity> RedisStateDb::statistics() const {
  return std::make_shared<Statistics>(mirror_);
}

std::shared_ptr<Lattis::MountGroup> RedisStateDb::mountGroup() {
  return std::make_shared<Group>(*this);
}

void RedisStateDb::follow(const std::string& path, const std::shared_ptr<Entity>& entity) {
  const std::string& typeName = entity->entityType().name;
  auto& scratch = scratch_[typeName];
  if (!scratch) scratch = types_.make(typeName, typeName);
  // A type that is nobody's to make has nothing that can be made in it either.
  mirror_.follow(path, entity, scratch ? scratch : entity);
}

void RedisStateDb::localEntityIs(const std::string& path, std::shared_ptr<Entity> entity) {
  if (settings_.offeredPaths.contains(path)) {
    if (entity) {
      follow(path, entity);
    } else {
      mirror_.unfollow(path);
    }
  }
  db_.localEntityIs(path, std::move(entity));
}

void RedisStateDb::entitiesAre(const Lattis::Entities& entities) {
  mirror_.checkWritable();
  db_.entitiesAre(entities);
  for (const auto& [path, entity] : entities) {
    if (settings_.privatePaths.contains(path)) continue;
    follow(path, entity);
    mirror_.contentIsWritten(path);
  }
}

std::shared_ptr<Entity> RedisStateDb::entityOrNew(const std::string& path, const std::string& typeName) {
  auto entity = db_.entityOrNew(path, typeName);
  if (entity && !settings_.privatePaths.contains(path) && !mirror_.follows(path)) follow(path, entity);
  return entity;
}

std::shared_ptr<Entity> RedisStateDb::sharedEntity(const std::string& path) const {
  const auto found = db_.databaseEntities().find(path);
  if (found == db_.databaseEntities().end() || settings_.privatePaths.contains(path)) return nullptr;
  return db_.entity(path) == found->second ? found->second : nullptr;
}

void RedisStateDb::fieldIs(std::string_view path, std::string_view field, const std::optional<std::string>& value) {
  const std::string where(path);
  const auto entity = sharedEntity(where);
  if (!entity) return db_.fieldIs(path, field, value);
  mirror_.checkWritable();
  const std::string canonical = fieldFacts(scratch_.at(entity->entityType().name), field).canonical;
  db_.fieldIs(path, field, value);
  mirror_.fieldIsWritten(where, canonical);
}

void RedisStateDb::fieldDel(std::string_view path, std::string_view field) {
  const std::string where(path);
  const auto entity = sharedEntity(where);
  if (!entity) return db_.fieldDel(path, field);
  mirror_.checkWritable();
  const std::string canonical = fieldFacts(scratch_.at(entity->entityType().name), field).canonical;
  const std::vector<std::string> fields = mirror_.fieldsOf(where, canonical);
  db_.fieldDel(path, field);
  mirror_.fieldsAreDeleted(where, canonical, fields);
}

}  // namespace LinuxPlatform
