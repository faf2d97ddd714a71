#include "lib/statedb/ScenarioText.h"

#include <nlohmann/json.hpp>
#include <optional>

namespace LinuxPlatform {

using Lattis::AttributeField;
using Lattis::CollectionField;

namespace {

std::string quoted(const std::string& text) {
  using Json = nlohmann::json;
  return Json(text).dump(-1, ' ', false, Json::error_handler_t::replace);
}

}  // namespace

bool ScenarioText::step(std::string& text) {
  if (!begun_) {
    begun_ = true;
    text += "{";
    depth_ = 1;
  }
  if (!frames_.empty()) {
    if (!stepIn(frames_.back(), text)) {
      frames_.pop_back();
      close(text);
    }
    return true;
  }
  if (nextEntity_ == entities_.size()) {
    close(text);
    text += "\n";
    return false;
  }
  const auto& [path, entity] = entities_[nextEntity_++];
  open(text, path);
  member(text, "type", entity->entityType().name);
  frames_.push_back({entity, 0, 0, nullptr, {}, 0});
  return true;
}

// False: there is nothing more of this entity.
bool ScenarioText::stepIn(Frame& frame, std::string& text) {
  const Lattis::EntityType& type = frame.entity->entityType();
  if (frame.nextAttribute < type.attributes.size()) {
    const AttributeField& attribute = type.attributes[frame.nextAttribute++];
    if (attribute.set) member(text, attribute.name, attribute.get(*frame.entity));
    return true;
  }
  if (frame.collection == nullptr) {
    if (frame.nextCollection == type.collections.size()) return false;
    const CollectionField& collection = type.collections[frame.nextCollection++];
    if (!collection.set && !collection.childIs) return true;
    frame.keys = collection.keys(*frame.entity);
    frame.nextKey = 0;
    if (frame.keys.empty()) return true;
    frame.collection = &collection;
    open(text, collection.name);
    return true;
  }
  if (frame.nextKey == frame.keys.size()) {
    frame.collection = nullptr;
    close(text);
    return true;
  }
  const std::string& key = frame.keys[frame.nextKey++];
  if (!frame.collection->child) {
    if (const auto value = frame.collection->get(*frame.entity, key)) member(text, key, *value);
  } else if (auto child = frame.collection->child(*frame.entity, key)) {
    open(text, key);
    frames_.push_back({std::move(child), 0, 0, nullptr, {}, 0});  // `frame` is gone
  }
  return true;
}

void ScenarioText::lineBreak(std::string& text) {
  text.append("\n").append(2 * depth_, ' ');
}

void ScenarioText::member(std::string& text, const std::string& name, const std::string& value) {
  if (!isFirst_) text += ",";
  isFirst_ = false;
  lineBreak(text);
  text.append(quoted(name)).append(": ").append(quoted(value));
}

void ScenarioText::open(std::string& text, const std::string& name) {
  if (!isFirst_) text += ",";
  lineBreak(text);
  text.append(quoted(name)).append(": {");
  isFirst_ = true;
  ++depth_;
}

void ScenarioText::close(std::string& text) {
  --depth_;
  if (!isFirst_) lineBreak(text);
  isFirst_ = false;
  text += "}";
}

}  // namespace LinuxPlatform
