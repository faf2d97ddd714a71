#include "lib/statedb/EntityFields.h"

#include <stdexcept>
#include <utility>

namespace LinuxPlatform {

using Lattis::AttributeField;
using Lattis::CollectionField;
using Lattis::Entity;
using Platform::BadText;

namespace {

[[noreturn]] void refuse(const std::string& reason) {
  throw std::invalid_argument(reason);
}

[[noreturn]] void refuseUnknown(const Entity& entity, const std::string& name) {
  refuse(entity.entityType().name + " has no field '" + name + "'");
}

const CollectionField& collectionOf(const Entity& entity, const std::string& name) {
  const CollectionField* collection = entity.entityType().collection(name);
  if (collection != nullptr) return *collection;
  if (entity.entityType().attribute(name) != nullptr) refuse("'" + name + "' is an attribute, it has no entries");
  refuseUnknown(entity, name);
}

// In quotes, as messages have it.
std::string entryText(const FieldStep& step) {
  std::string text = "'";
  return text.append(step.name).append("[").append(*step.key).append("]'");
}

// What a key cannot hold everywhere.
bool isSpecial(char c) {
  return c == '[' || c == ']' || c == '\\';
}

bool isBalanced(std::string_view key) {
  std::size_t depth = 0;
  for (const char c : key) {
    if (c == '\\' || (c == ']' && depth == 0)) return false;
    if (c == '[') ++depth;
    if (c == ']') --depth;
  }
  return depth == 0;
}

// Takes "[KEY]" off the beginning; nothing when the bracket is never closed.
std::optional<std::string> takeKey(std::string_view& text) {
  std::string key;
  std::size_t depth = 1;
  for (std::size_t i = 1; i < text.size(); ++i) {
    if (text[i] == '[') ++depth;
    if (text[i] == ']' && --depth == 0) {
      text.remove_prefix(i + 1);
      return key;
    }
    if (text[i] == '\\' && ++i == text.size()) break;
    key += text[i];
  }
  return std::nullopt;
}

const std::string& keyOf(const FieldStep& step) {
  if (!step.key) refuse("'" + step.name + "' wants a key: " + step.name + "[KEY]");
  return *step.key;
}

// The way from an entity to the one that holds the last step's field.
struct Way {
  std::vector<std::shared_ptr<Entity>> entities;
  std::function<void()> undo;  // takes away the first child that was made on the way
};

Way walkTo(const std::shared_ptr<Entity>& entity, const std::vector<FieldStep>& steps, bool make) {
  Way way{{entity}, nullptr};
  for (std::size_t i = 0; i + 1 < steps.size(); ++i) {
    const std::shared_ptr<Entity> holder = way.entities.back();
    const CollectionField& collection = collectionOf(*holder, steps[i].name);
    const std::string& key = keyOf(steps[i]);
    if (!collection.child) refuse(entryText(steps[i]) + " is a value, it has no fields");
    std::shared_ptr<Entity> child = collection.child(*holder, key);
    if (!child && (!make || !collection.childIs)) refuse("no entry " + entryText(steps[i]));
    if (!child) {
      child = collection.childIs(*holder, key);
      if (!way.undo) way.undo = [holder, &collection, key] { collection.del(*holder, key); };
    }
    way.entities.push_back(std::move(child));
  }
  return way;
}

// Each of these makes one change and returns what undoes it.
std::function<void()> setAttribute(const std::shared_ptr<Entity>& holder, const FieldStep& step,
                                   const std::optional<std::string>& value) {
  const AttributeField* attribute = holder->entityType().attribute(step.name);
  if (attribute == nullptr) {
    collectionOf(*holder, step.name);  // a field of no such name is told apart
    refuse("'" + step.name + "' wants a key: " + step.name + "[KEY]");
  }
  if (!attribute->set) refuse("'" + step.name + "' is read only");
  if (!value) refuse("'" + step.name + "' wants a value");
  const std::string old = attribute->get(*holder);
  attribute->set(*holder, *value);
  return [holder, attribute, old] { attribute->set(*holder, old); };
}

std::function<void()> setEntry(const std::shared_ptr<Entity>& holder, const FieldStep& step,
                               const std::optional<std::string>& value) {
  const CollectionField& collection = collectionOf(*holder, step.name);
  const std::string& key = *step.key;
  if (collection.childIs) {
    if (value) refuse(entryText(step) + " is an entity: set its fields");
    if (collection.child(*holder, key)) return [] {};
    collection.childIs(*holder, key);
  } else {
    if (!collection.set) refuse("'" + step.name + "' is read only");
    if (!value) refuse(entryText(step) + " wants a value");
    const std::optional<std::string> old = collection.get(*holder, key);
    collection.set(*holder, key, *value);
    if (old) return [holder, &collection, key, old] { collection.set(*holder, key, *old); };
  }
  return [holder, &collection, key] { collection.del(*holder, key); };
}

}  // namespace

std::string entryField(const std::string& collection, const std::string& key) {
  std::string field = collection + "[";
  const bool asItIs = isBalanced(key);
  for (const char c : key) {
    if (!asItIs && isSpecial(c)) field += '\\';
    field += c;
  }
  return field + "]";
}

std::vector<FieldStep> parseField(std::string_view field) {
  const auto bad = [field]() -> BadText {
    return BadText(
        "'" + std::string(field) +
        "' is not a field: ATTRIBUTE or COLLECTION[KEY], children after a dot, a backslash before odd brackets");
  };
  std::vector<FieldStep> steps;
  std::string_view rest = field;
  while (true) {
    const std::size_t end = std::min(rest.find_first_of(".[]"), rest.size());
    if (end == 0) throw bad();
    steps.push_back({std::string(rest.substr(0, end)), std::nullopt});
    rest.remove_prefix(end);
    if (rest.empty()) return steps;
    if (rest.front() != '[') throw bad();
    steps.back().key = takeKey(rest);
    if (!steps.back().key) throw bad();
    if (rest.empty()) return steps;
    if (rest.front() != '.') throw bad();
    rest.remove_prefix(1);
  }
}

void setField(const std::shared_ptr<Entity>& entity, std::string_view field, const std::optional<std::string>& value) {
  const std::vector<FieldStep> steps = parseField(field);
  const Way way = walkTo(entity, steps, true);
  const auto undoWay = [&way] {
    if (way.undo) way.undo();
  };
  std::function<void()> undo;
  try {
    const auto& holder = way.entities.back();
    undo = steps.back().key ? setEntry(holder, steps.back(), value) : setAttribute(holder, steps.back(), value);
  } catch (...) {
    undoWay();
    throw;
  }
  for (const auto& changed : way.entities) {
    const std::string fault = changed->fault();
    if (fault.empty()) continue;
    undo();
    undoWay();
    refuse(fault);
  }
}

FieldFacts fieldFacts(const std::shared_ptr<Entity>& scratch, std::string_view field) {
  FieldFacts facts;
  facts.isSettable = true;
  std::shared_ptr<Entity> holder = scratch;
  std::function<void()> undo;
  try {
    const std::vector<FieldStep> steps = parseField(field);
    for (const FieldStep& step : steps) {
      if (!holder) refuse("'" + facts.canonical + "' is a value, it has no fields");
      if (!facts.canonical.empty()) facts.canonical += '.';
      const AttributeField* attribute = step.key ? nullptr : holder->entityType().attribute(step.name);
      if (attribute != nullptr) {
        facts.canonical += step.name;
        facts.isSettable = facts.isSettable && attribute->set != nullptr;
        facts.unset = attribute->get(*holder);
        holder = nullptr;
        continue;
      }
      const CollectionField& collection = collectionOf(*holder, step.name);
      const std::string& given = keyOf(step);
      const std::string key = collection.keyText ? collection.keyText(given) : given;
      facts.canonical += entryField(collection.name, key);
      facts.isSettable = facts.isSettable && (collection.set || collection.childIs);
      std::shared_ptr<Entity> child = collection.childIs ? collection.childIs(*holder, key) : nullptr;
      if (child && !undo) undo = [holder, &collection, key] { collection.del(*holder, key); };
      holder = std::move(child);
    }
  } catch (const std::exception& error) {
    if (undo) undo();
    throw BadText(error.what());
  }
  if (undo) undo();
  return facts;
}

void delField(const std::shared_ptr<Entity>& entity, std::string_view field) {
  const std::vector<FieldStep> steps = parseField(field);
  const Way way = walkTo(entity, steps, false);
  Entity& holder = *way.entities.back();
  const FieldStep& step = steps.back();
  if (!step.key && holder.entityType().attribute(step.name) != nullptr) {
    refuse("'" + step.name + "' is an attribute, it cannot be deleted");
  }
  const CollectionField& collection = collectionOf(holder, step.name);
  const std::string& key = keyOf(step);
  if (!collection.del) refuse("'" + step.name + "' is read only");
  if (!collection.del(holder, key)) refuse("no entry " + entryText(step));
}

// --- Walking ---------------------------------------------------------------------------------------------------------

FieldWalk::FieldWalk(std::shared_ptr<Entity> entity, std::string_view field) {
  if (field.empty()) {
    frames_.push_back({std::move(entity), "", 0, 0, nullptr, {}, 0});
    return;
  }
  const std::vector<FieldStep> steps = parseField(field);
  const std::shared_ptr<Entity> holder = walkTo(entity, steps, false).entities.back();
  const FieldStep& step = steps.back();
  if (!step.key) {
    if (const AttributeField* attribute = holder->entityType().attribute(step.name)) {
      first_ = Item{std::string(field), attribute->get(*holder)};
      return;
    }
    const CollectionField& collection = collectionOf(*holder, step.name);
    const std::string prefix(field.substr(0, field.size() - step.name.size()));
    const Lattis::EntityType& type = holder->entityType();
    // A frame that has nothing but this collection left.
    frames_.push_back({holder, prefix, type.attributes.size(), type.collections.size(), nullptr, {}, 0});
    enterCollection(frames_.back(), collection);
    return;
  }
  const CollectionField& collection = collectionOf(*holder, step.name);
  if (collection.child) {
    std::shared_ptr<Entity> child = collection.child(*holder, *step.key);
    if (!child) refuse("no entry " + entryText(step));
    first_ = Item{std::string(field), std::nullopt};
    frames_.push_back({std::move(child), std::string(field) + ".", 0, 0, nullptr, {}, 0});
    return;
  }
  auto value = collection.get(*holder, *step.key);
  if (!value) refuse("no entry " + entryText(step));
  first_ = Item{std::string(field), std::move(value)};
}

void FieldWalk::enterCollection(Frame& frame, const CollectionField& collection) {
  frame.collection = &collection;
  frame.keys = collection.keys(*frame.entity);
  frame.nextKey = 0;
}

std::optional<FieldWalk::Item> FieldWalk::next() {
  if (first_) return std::exchange(first_, std::nullopt);
  while (!frames_.empty()) {
    if (auto item = nextOf(frames_.back())) return item;
    frames_.pop_back();
  }
  return std::nullopt;
}

// The next item of this frame itself; when that is a child, its frame stands on top afterwards.
std::optional<FieldWalk::Item> FieldWalk::nextOf(Frame& frame) {
  const Lattis::EntityType& type = frame.entity->entityType();
  if (frame.nextAttribute < type.attributes.size()) {
    const AttributeField& attribute = type.attributes[frame.nextAttribute++];
    return Item{frame.prefix + attribute.name, attribute.get(*frame.entity)};
  }
  while (true) {
    while (frame.nextKey < frame.keys.size()) {
      const std::string& key = frame.keys[frame.nextKey++];
      Item item{frame.prefix + entryField(frame.collection->name, key), std::nullopt};
      if (!frame.collection->child) {
        item.value = frame.collection->get(*frame.entity, key);
        if (item.value) return item;
        continue;
      }
      if (auto child = frame.collection->child(*frame.entity, key)) {
        frames_.push_back({std::move(child), item.field + ".", 0, 0, nullptr, {}, 0});  // `frame` is gone
        return item;
      }
    }
    if (frame.nextCollection == type.collections.size()) return std::nullopt;
    enterCollection(frame, type.collections[frame.nextCollection++]);
  }
}

}  // namespace LinuxPlatform
