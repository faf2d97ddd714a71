// Entities: named live objects with attributes and collections, watched by reactors and reached by text through one
// generic value interface. The state database is made of them; state machines are entities too, so that an operator can
// change their intervals.
//
// Notifications are synchronous: a reactor runs inside the setter, after the change is visible. Setting an attribute or
// an entry to the value it has notifies nobody.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/state/Reactor.h"
#include "platform/values/Text.h"

namespace Lattis {

using Platform::BadText;

class Entity;

// One attribute of an entity type, by text. `set` is empty for an attribute that cannot be set from outside.
struct AttributeField {
  std::string name;
  std::function<std::string(const Entity&)> get;
  std::function<void(Entity&, std::string_view)> set;  // throws BadText or RangeError; then nothing has changed
};

// One collection of an entity type, by text. A collection holds values (text) or child entities (`child` is set).
// `set`, `del` and `childIs` are empty for a collection that cannot be changed from outside.
struct CollectionField {
  std::string name;
  std::function<std::vector<std::string>(const Entity&)> keys;  // in key order
  std::function<std::string(std::string_view)> keyText;  // a key's one text, as keys() has it; empty: any text is one
  std::function<std::optional<std::string>(const Entity&, std::string_view)> get;  // nothing: no such entry
  std::function<void(Entity&, std::string_view key, std::string_view value)> set;  // inserts or replaces
  std::function<bool(Entity&, std::string_view key)> del;                          // false: no such entry
  std::function<std::shared_ptr<Entity>(Entity&, std::string_view key)> child;     // existing child or null
  std::function<std::shared_ptr<Entity>(Entity&, std::string_view key)> childIs;   // existing or new child
};

// The description of one entity type: its name as it stands in mounts, and its fields in declaration order.
struct EntityType {
  std::string name;
  std::vector<AttributeField> attributes;
  std::vector<CollectionField> collections;

  const AttributeField* attribute(std::string_view field) const;
  const CollectionField* collection(std::string_view field) const;
};

// Hears of an entity's changes while it exists; base of every Reactor class (through ReactorOf).
class EntityReactor {
 public:
  EntityReactor() = default;
  EntityReactor(const EntityReactor&) = delete;
  EntityReactor& operator=(const EntityReactor&) = delete;
  virtual ~EntityReactor() = default;
};

class Entity : public std::enable_shared_from_this<Entity> {
 public:
  explicit Entity(std::string name) : name_(std::move(name)) {}
  Entity(const Entity&) = delete;
  Entity& operator=(const Entity&) = delete;
  virtual ~Entity() = default;

  const std::string& name() const { return name_; }
  // Lives as long as the process.
  virtual const EntityType& entityType() const = 0;
  // Why the values it has cannot work together, in one line; empty when they can. Whoever sets fields from outside (a
  // scenario, an operator's set) asks afterwards and puts the old values back when there is an answer.
  virtual std::string fault() const { return {}; }
  // Called after the reactors of each change of this entity itself, not of its children: for a database that keeps it
  // elsewhere, too. One at a time; it must not let go of the entity.
  void changeHookIs(std::function<void()> hook) { changeHook_ = std::move(hook); }

 protected:
  // Calls tell(reactor) for each reactor, as the entity type's own Reactor class. A reaction may let go of the entity.
  template <class Reactor, class Tell>
  void notify(Tell&& tell) const {
    const auto keepAlive = weak_from_this().lock();
    reactors_.notify([&](EntityReactor& reactor) { tell(static_cast<Reactor&>(reactor)); });
    if (changeHook_) changeHook_();
  }

 private:
  template <class E>
  friend class ReactorOf;
  std::string name_;
  mutable Platform::ReactorList<EntityReactor> reactors_;  // watching changes nothing of what the entity says
  std::function<void()> changeHook_;
};

// A reactor on one entity of type E, which it keeps alive. E's own Reactor class derives from ReactorOf<E> and adds one
// handler for each attribute and collection; every reactor of an E must be of that class.
template <class E>
class ReactorOf : public EntityReactor {
 public:
  explicit ReactorOf(std::shared_ptr<const E> entity) : entity_(std::move(entity)) {
    static_cast<const Entity&>(*entity_).reactors_.add(this);
  }
  ~ReactorOf() override { static_cast<const Entity&>(*entity_).reactors_.remove(this); }

 protected:
  const E& watched() const { return *entity_; }

 private:
  std::shared_ptr<const E> entity_;
};

// --- Building an EntityType ------------------------------------------------------------------------------------------

// An attribute with a getter `T get() const` and a setter `void set(T)`.
template <class E, auto getter, auto setter>
AttributeField attributeField(std::string name) {
  using T = std::remove_cvref_t<decltype((std::declval<const E&>().*getter)())>;
  return {std::move(name), [](const Entity& e) { return Platform::toText<T>((static_cast<const E&>(e).*getter)()); },
          [](Entity& e, std::string_view text) { (static_cast<E&>(e).*setter)(Platform::fromText<T>(text)); }};
}

// An attribute that others can read only.
template <class E, auto getter>
AttributeField readOnlyField(std::string name) {
  using T = std::remove_cvref_t<decltype((std::declval<const E&>().*getter)())>;
  return {std::move(name), [](const Entity& e) { return Platform::toText<T>((static_cast<const E&>(e).*getter)()); },
          nullptr};
}

// A map of values: `const std::map<K, V>& map() const`, `set(K, V)`, `del(K)`.
template <class E, auto map, auto setter, auto remover>
CollectionField mapField(std::string name) {
  using Map = std::remove_cvref_t<decltype((std::declval<const E&>().*map)())>;
  using K = typename Map::key_type;
  using V = typename Map::mapped_type;
  CollectionField field;
  field.name = std::move(name);
  field.keys = [](const Entity& e) {
    std::vector<std::string> keys;
    for (const auto& entry : (static_cast<const E&>(e).*map)()) keys.push_back(Platform::toText<K>(entry.first));
    return keys;
  };
  field.keyText = [](std::string_view key) { return Platform::toText<K>(Platform::fromText<K>(key)); };
  field.get = [](const Entity& e, std::string_view key) -> std::optional<std::string> {
    const Map& entries = (static_cast<const E&>(e).*map)();
    const auto found = entries.find(Platform::fromText<K>(key));
    if (found == entries.end()) return std::nullopt;
    return Platform::toText<V>(found->second);
  };
  field.set = [](Entity& e, std::string_view key, std::string_view value) {
    (static_cast<E&>(e).*setter)(Platform::fromText<K>(key), Platform::fromText<V>(value));
  };
  field.del = [](Entity& e, std::string_view text) {
    const K key = Platform::fromText<K>(text);
    if (!(static_cast<const E&>(e).*map)().contains(key)) return false;
    (static_cast<E&>(e).*remover)(key);
    return true;
  };
  return field;
}

// A map of child entities: `const std::map<K, std::shared_ptr<C>>& map() const`, `std::shared_ptr<C> childIs(K)` (the
// existing one or a new one), `del(K)`.
template <class E, auto map, auto maker, auto remover>
CollectionField childField(std::string name) {
  using Map = std::remove_cvref_t<decltype((std::declval<const E&>().*map)())>;
  using K = typename Map::key_type;
  CollectionField field;
  field.name = std::move(name);
  field.keys = [](const Entity& e) {
    std::vector<std::string> keys;
    for (const auto& entry : (static_cast<const E&>(e).*map)()) keys.push_back(Platform::toText<K>(entry.first));
    return keys;
  };
  field.keyText = [](std::string_view key) { return Platform::toText<K>(Platform::fromText<K>(key)); };
  field.del = [](Entity& e, std::string_view text) {
    const K key = Platform::fromText<K>(text);
    if (!(static_cast<const E&>(e).*map)().contains(key)) return false;
    (static_cast<E&>(e).*remover)(key);
    return true;
  };
  field.child = [](Entity& e, std::string_view key) -> std::shared_ptr<Entity> {
    const Map& entries = (static_cast<const E&>(e).*map)();
    const auto found = entries.find(Platform::fromText<K>(key));
    return found == entries.end() ? nullptr : found->second;
  };
  field.childIs = [](Entity& e, std::string_view key) -> std::shared_ptr<Entity> {
    return (static_cast<E&>(e).*maker)(Platform::fromText<K>(key));
  };
  return field;
}

}  // namespace Lattis
