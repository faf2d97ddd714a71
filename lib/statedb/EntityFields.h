// Fields of an entity by text, for operators and scenario files. Everything goes through the generic value interface.
//
//   ATTRIBUTE               one attribute
//   COLLECTION              all of a collection (reading only)
//   COLLECTION[KEY]         one entry: a value, or a child entity
//   COLLECTION[KEY].FIELD   a field of a child entity, and so on
//
// A key ends at the bracket that matches its own; it may hold dots, slashes and balanced brackets. A key with other
// brackets or a backslash has a backslash before each of them: COLLECTION[a\[b].
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/state/Entity.h"

namespace LinuxPlatform {

struct FieldStep {
  std::string name;
  std::optional<std::string> key;
};

// Throws BadText.
std::vector<FieldStep> parseField(std::string_view field);
// "COLLECTION[KEY]", as parseField reads it.
std::string entryField(const std::string& collection, const std::string& key);

// Sets an attribute or an entry; children on the way to it are made. No value: the child entity itself is made.
// Whatever the entities on the way then say is wrong (Entity::fault) undoes the change. Throws with one line that names
// the field when there is no such field, it cannot be set, the value is bad or does not fit; nothing has changed then.
void setField(const std::shared_ptr<Lattis::Entity>& entity, std::string_view field,
              const std::optional<std::string>& value);

// What a field is to its type, whatever an entity holds at the moment.
struct FieldFacts {
  std::string canonical;             // as FieldWalk has it: each key in the one text that its collection tells it in
  bool isSettable = false;           // from outside
  std::optional<std::string> unset;  // of an attribute: what it has when nobody has set it
};
// `scratch` is an entity of the type that nobody sets anything in; it is as before afterwards. Throws with one line
// when the type has no such field or a key is none.
FieldFacts fieldFacts(const std::shared_ptr<Lattis::Entity>& scratch, std::string_view field);

// Removes an entry of a collection. Throws with one line when there is none, or the field is no entry.
void delField(const std::shared_ptr<Lattis::Entity>& entity, std::string_view field);

// Walks the fields below one field (of the whole entity when the field is empty), children included, in declaration and
// key order. It remembers where it is and holds nothing but the keys of the collections it is inside of, so a walk may
// be as long as it likes and the entities may change meanwhile: an entry that is gone when its turn comes is left out.
class FieldWalk {
 public:
  // Throws with one line when there is no such field now.
  FieldWalk(std::shared_ptr<Lattis::Entity> entity, std::string_view field);
  struct Item {
    std::string field;                 // from the entity that the walk began at
    std::optional<std::string> value;  // nothing: a child entity, whose fields follow
  };
  // Nothing at the end.
  std::optional<Item> next();

 private:
  // One entity that the walk is inside of; `collection` while it is inside of one of its collections.
  struct Frame {
    std::shared_ptr<Lattis::Entity> entity;
    std::string prefix;
    std::size_t nextAttribute = 0;
    std::size_t nextCollection = 0;
    const Lattis::CollectionField* collection = nullptr;
    std::vector<std::string> keys;
    std::size_t nextKey = 0;
  };
  void enterCollection(Frame& frame, const Lattis::CollectionField& collection);
  std::optional<Item> nextOf(Frame& frame);

  std::optional<Item> first_;
  std::vector<Frame> frames_;
};

}  // namespace LinuxPlatform
