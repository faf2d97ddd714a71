#include "lib/statedb/Scenario.h"

#include <algorithm>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>
#include <utility>
#include <vector>

#include "platform/values/Printable.h"

namespace LinuxPlatform {

using Lattis::AttributeField;
using Lattis::CollectionField;
using Lattis::Entity;

namespace {

// The parser's objects, in the order in which the file has their fields, for that is the order in which they are set. A
// new key is not looked for among those before it, a hundred thousand of them in a large object: `parsed` has.
template <class Key, class Value, class Less = std::less<Key>,
          class Allocator = std::allocator<std::pair<const Key, Value>>>
struct FileObject : nlohmann::ordered_map<Key, Value, Less, Allocator> {
  using Base = nlohmann::ordered_map<Key, Value, Less, Allocator>;
  using Base::Base;
  Value& operator[](const Key& key) { return this->emplace_back(key, Value()).second; }
  Value& operator[](Key&& key) { return this->emplace_back(std::move(key), Value()).second; }
};
using Json = nlohmann::basic_json<FileObject>;

[[noreturn]] void refuse(const std::string& place, const std::string& reason) {
  throw ScenarioError(Platform::printable(place + ": " + reason));
}

// Parses, and refuses a key that stands twice in one object: the parser by itself would keep the last one.
Json parsed(std::string_view text, const std::string& fileName) {
  std::vector<std::set<std::string>> open;
  const auto watch = [&](int, Json::parse_event_t event, Json& value) {
    if (event == Json::parse_event_t::object_start) open.emplace_back();
    if (event == Json::parse_event_t::object_end) open.pop_back();
    if (event == Json::parse_event_t::key && !open.back().insert(value.get<std::string>()).second) {
      refuse(fileName, "the key '" + value.get<std::string>() + "' stands twice in one object");
    }
    return true;
  };
  try {
    return Json::parse(text, watch);
  } catch (const Json::parse_error& error) {
    const auto end = text.begin() + static_cast<std::ptrdiff_t>(std::min(error.byte, text.size()));
    const auto line = 1 + std::count(text.begin(), end, '\n');
    std::string reason = error.what();  // "[json.exception...] parse error at line 1, column 2: what is wrong"
    const auto colon = reason.find(": ");
    if (colon != std::string::npos) reason.erase(0, colon + 2);
    refuse(fileName + ": line " + std::to_string(line), reason);
  } catch (const Json::out_of_range& error) {  // a number that is none: "[json.exception...] number overflow ..."
    const std::string_view reason = error.what();
    refuse(fileName, std::string(reason.substr(reason.find("] ") + 2)));
  }
}

class EntityBuilder {
 public:
  EntityBuilder(Entity& entity, std::string place) : entity_(entity), place_(std::move(place)) {}

  void fill(const Json& object, bool topLevel) {
    if (!object.is_object()) refuse(place_, "an object of fields is wanted here");
    for (const auto& [name, value] : object.items()) {
      if (topLevel && name == "type") continue;
      field(name, value);
    }
    const std::string fault = entity_.fault();
    if (!fault.empty()) refuse(place_, fault);
  }

 private:
  void field(const std::string& name, const Json& value) {
    const Lattis::EntityType& type = entity_.entityType();
    if (const AttributeField* attribute = type.attribute(name)) {
      const std::string at = place_ + "." + name;
      if (!attribute->set) refuse(at, "is read only");
      apply(at, [&] { attribute->set(entity_, text(at, value)); });
    } else if (const CollectionField* collection = type.collection(name)) {
      if (!value.is_object()) refuse(place_ + "." + name, "an object of entries is wanted here");
      for (const auto& [key, entry] : value.items()) collectionEntry(*collection, key, entry);
    } else {
      refuse(place_, type.name + " has no field '" + name + "'");
    }
  }

  void collectionEntry(const CollectionField& collection, const std::string& key, const Json& value) {
    const std::string at = place_ + "." + collection.name + "[" + key + "]";
    if (collection.childIs) {
      std::shared_ptr<Entity> child;
      apply(at, [&] {
        if (collection.child(entity_, key)) refuse(at, "the same key stands here twice");
        child = collection.childIs(entity_, key);
      });
      EntityBuilder(*child, at).fill(value, false);
    } else {
      if (!collection.set) refuse(at, "is read only");
      apply(at, [&] {
        if (collection.get(entity_, key)) refuse(at, "the same key stands here twice");
        collection.set(entity_, key, text(at, value));
      });
    }
  }

  static std::string text(const std::string& at, const Json& value) {
    if (value.is_string()) return value.get<std::string>();
    if (value.is_number() || value.is_boolean()) return value.dump();
    refuse(at, "a text, a number, true or false is wanted here");
  }

  template <class Change>
  static void apply(const std::string& at, Change&& change) {
    try {
      change();
    } catch (const ScenarioError&) {
      throw;
    } catch (const std::exception& error) {
      refuse(at, error.what());
    }
  }

  Entity& entity_;
  std::string place_;
};

std::string typeNameFor(const std::string& place, const std::string& path, const Json& object,
                        const PathTypes& pathTypes) {
  const auto known = pathTypes.find(path);
  if (object.is_object() && object.contains("type")) {
    const Json& type = object["type"];
    if (!type.is_string()) refuse(place + ".type", "a type name is wanted here");
    if (known != pathTypes.end() && type != known->second) {
      refuse(place + ".type", "what stands here is always a " + known->second);
    }
    return type.get<std::string>();
  }
  if (known == pathTypes.end()) refuse(place, "nothing is known of this path; an entity there needs a \"type\"");
  return known->second;
}

}  // namespace

Lattis::Entities parseScenario(std::string_view text, const std::string& fileName, const Lattis::EntityTypes& types,
                               const PathTypes& pathTypes) {
  const Json scenario = parsed(text, fileName);
  if (!scenario.is_object()) refuse(fileName, "an object of mount paths is wanted");
  Lattis::Entities entities;
  for (const auto& [path, object] : scenario.items()) {
    const std::string place = fileName + ": " + path;
    const std::string typeName = typeNameFor(place, path, object, pathTypes);
    const std::shared_ptr<Entity> entity = types.make(typeName, path);
    if (!entity) refuse(place, "no type is named '" + typeName + "'");
    EntityBuilder(*entity, place).fill(object, true);
    entities[path] = entity;
  }
  return entities;
}

}  // namespace LinuxPlatform
