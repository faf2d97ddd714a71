#include "lib/statedb/EmbeddedStateDb.h"

#include <set>
#include <stdexcept>
#include <utility>

#include "lib/statedb/EntityFields.h"
#include "platform/values/Assert.h"

namespace LinuxPlatform {

using Lattis::Entities;
using Lattis::Entity;

namespace {

// The entities of one mount group, held for as long as its agent holds the manager.
class MountedEntities final : public Lattis::EntityManager {
 public:
  void entityIs(const std::string& path, std::shared_ptr<Entity> entity) { entities_[path] = std::move(entity); }
  std::shared_ptr<Entity> entity(std::string_view path) const override {
    const auto found = entities_.find(path);
    return found == entities_.end() ? nullptr : found->second;
  }

 private:
  Entities entities_;
};

}  // namespace

class EmbeddedStateDb::Group final : public Lattis::MountGroup, public std::enable_shared_from_this<Group> {
 public:
  explicit Group(EmbeddedStateDb& db) : db_(db) {}

  void mount(std::string path, std::string typeName, std::string mode) override {
    PLATFORM_ASSERT(!closed_);
    PLATFORM_ASSERT(mode == "r" || mode == "w" || mode == "rS" || mode == "wS");
    requests_.push_back({std::move(path), std::move(typeName)});
  }

  void close(Lattis::MountsComplete complete) override {
    PLATFORM_ASSERT(!closed_);
    closed_ = true;
    complete_ = std::move(complete);
    db_.closed_.push_back(shared_from_this());
    db_.completionTask_->scheduleWithin(0);
  }

  void complete() {
    auto manager = std::make_shared<MountedEntities>();
    Lattis::MountStatus status = Lattis::mountSuccess_;
    for (const auto& request : requests_) {
      auto entity = db_.entityOrNew(request.path, request.typeName);
      if (!entity) {
        status = Lattis::mountFailed_;
        continue;
      }
      manager->entityIs(request.path, std::move(entity));
    }
    complete_(status, manager);
  }

 private:
  struct Request {
    std::string path;
    std::string typeName;
  };
  EmbeddedStateDb& db_;
  std::vector<Request> requests_;
  Lattis::MountsComplete complete_;
  bool closed_ = false;
};

EmbeddedStateDb::EmbeddedStateDb(const Lattis::EntityTypes& types, Platform::TaskScheduler& scheduler)
    : types_(types),
      completionTask_(scheduler.taskIs("stateDbMountTask", Platform::TaskPriority::urgent, [this] { complete(); })) {}

EmbeddedStateDb::~EmbeddedStateDb() = default;

std::shared_ptr<Lattis::MountGroup> EmbeddedStateDb::mountGroup() {
  return std::make_shared<Group>(*this);
}

void EmbeddedStateDb::complete() {
  const auto group = std::move(closed_.front());
  closed_.pop_front();
  if (!closed_.empty()) completionTask_->scheduleWithin(0);
  group->complete();
}

void EmbeddedStateDb::entitiesAre(const Entities& entities) {
  for (const auto& [path, entity] : entities) entities_[path] = entity;
}

void EmbeddedStateDb::localEntityIs(const std::string& path, std::shared_ptr<Entity> entity) {
  if (entity) {
    localEntities_[path] = std::move(entity);
  } else {
    localEntities_.erase(path);
  }
}

std::shared_ptr<Entity> EmbeddedStateDb::entity(std::string_view path) const {
  for (const Entities* entities : {&localEntities_, &entities_}) {
    const auto found = entities->find(path);
    if (found != entities->end()) return found->second;
  }
  return nullptr;
}

std::shared_ptr<Entity> EmbeddedStateDb::entityOrNew(const std::string& path, const std::string& typeName) {
  const auto found = entities_.find(path);
  if (found != entities_.end()) return found->second;
  auto entity = types_.make(typeName, path);
  if (entity) entities_[path] = entity;
  return entity;
}

std::vector<std::string> EmbeddedStateDb::paths() const {
  std::set<std::string> paths;
  for (const auto& [path, entity] : entities_) paths.insert(path);
  for (const auto& [path, entity] : localEntities_) paths.insert(path);
  return {paths.begin(), paths.end()};
}

void EmbeddedStateDb::change(std::string_view path,
                             const std::function<void(const std::shared_ptr<Entity>&)>& carryOut) const {
  const auto found = entity(path);
  if (!found) throw std::invalid_argument("nothing is at this path");
  carryOut(found);
  if (changed_ && !localEntities_.contains(path)) changed_();
}

void EmbeddedStateDb::fieldIs(std::string_view path, std::string_view field, const std::optional<std::string>& value) {
  change(path, [&](const auto& entity) { setField(entity, field, value); });
}

void EmbeddedStateDb::fieldDel(std::string_view path, std::string_view field) {
  change(path, [&](const auto& entity) { delField(entity, field); });
}

}  // namespace LinuxPlatform
