// An entity that a database holds as fields by text, and how it follows the database.
//
//   nameToId[red] = 2                      an entry
//   vtiStatus[Vxlan1] =                    a child entity, for one that has no field of its own in the database
//   vtiStatus[Vxlan1].operStatus = up      a child's attribute
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "lib/statedb/EntityFields.h"
#include "platform/state/Entity.h"

namespace LinuxPlatform {

// What is read of the database is first heard, field by field, and compared with what was known; when the reading has
// proved good, the differences are carried out on the entity, in steps, as an operator's changes would be. Fields that
// cannot be set from outside are the entity's own: they go the other way (outputStep).
//
// A field that the entity refuses stays as it is in the entity and is told once. Some are good only together with
// others: what contradicts others is tried again after them, and whenever others change.
//
// An attribute that is gone from the database has what it has when nobody sets it; a child entity goes with the last of
// its fields.
//
// Invariants (checkInvariants): `known_`, with what is still in heard_, is what the database held at the last good
// reading and what has been written to it since; what is to be carried out is what `known_` has; of a field that was
// written since a reading began nothing is heard.
class EntityContent {
 public:
  // A field and its value; nothing: it is gone.
  using Changes = std::map<std::string, std::optional<std::string>>;
  // One line for each field that the entity does not take.
  using Refused = std::function<void(const std::string& line)>;

  // `scratch` is another entity of the same type, of which only the type's own values are asked.
  EntityContent(std::shared_ptr<Lattis::Entity> entity, std::shared_ptr<Lattis::Entity> scratch, Refused refused);
  const std::shared_ptr<Lattis::Entity>& entity() const { return entity_; }

  // --- A reading: begin, hear, end or drop ---
  // Of everything (what is not heard until the end is gone) or of some fields.
  void readingBegins(bool ofEverything);
  void heard(std::string field, std::optional<std::string> value);
  void readingEnds();
  void readingIsDropped();

  // Carries the next piece out; false: nothing is left to do. Not while a reading is under way.
  bool step();
  bool isCarriedOut() const;
  // Fields of the database that the entity has not taken.
  std::size_t refusedFields() const { return standing_.size(); }

  void checkInvariants() const;

  // --- Written to the database by this process ---
  // What a reading that is under way has heard of the field, or hears, is older.
  void written(const std::string& field, std::optional<std::string> value);
  // The fields that go with this one when it is deleted, as the database has them: itself, and those of a child.
  std::vector<std::string> fieldsOf(const std::string& field) const;
  // The child that would have no field any more without these, of which `field` is one: it stays, and is to be told of.
  std::optional<std::string> bareWithout(const std::string& field, const std::vector<std::string>& deleted) const;
  std::optional<std::string> known(const std::string& field) const;
  std::size_t size() const { return known_.size(); }

  // --- The entity's own fields ---
  bool isSettable(const std::string& field) const { return fieldFacts(scratch_, field).isSettable; }
  // Whether the type has any.
  bool hasOutputs() const { return hasOutputs_; }
  // Starts to compare them with what the database holds; a reading that begins ends it.
  void outputsBegin();
  bool comparesOutputs() const { return outputs_ || outputSweep_; }
  // Looks at the next field and adds it when the database has to be told; false: all have been looked at.
  bool outputStep(Changes& toWrite);

 private:
  struct Known {
    std::string value;
    std::uint32_t seen = 0;  // number of the round (a reading, or of the outputs) that met it last
  };
  using KnownFields = std::map<std::string, Known, std::less<>>;
  // A walk through known_, which may change meanwhile.
  class Sweep {
   public:
    // fields.end() at the end.
    KnownFields::iterator next(KnownFields& fields);

   private:
    std::optional<std::string> last_;
  };
  // A value that has been refused, and told.
  struct Standing {
    std::optional<std::string> value;
    bool contradicts = false;  // others; else it is none by itself
  };

  void sweepStep();
  void foldStep();
  void retryContradictions();
  void forget(const std::string& field);
  void carryStep();
  void retryStep();
  void carry(const std::string& field, const std::optional<std::string>& value);
  void carryValue(const std::string& field, const std::string& value);
  void carryRemoval(const std::string& field, const FieldFacts& facts);
  bool hasFieldOf(const std::string& child) const;
  void refuseRetried();

  std::shared_ptr<Lattis::Entity> entity_;
  std::shared_ptr<Lattis::Entity> scratch_;
  Refused refused_;
  bool hasOutputs_ = false;
  KnownFields known_;
  std::uint32_t round_ = 0;

  bool reading_ = false;
  bool ofEverything_ = false;
  std::set<std::string> passedOver_;  // written since the reading began
  Changes heard_;                     // what differs, not in known_ yet
  std::optional<Sweep> sweeping_;     // for what is gone
  Changes toCarry_;                   // in known_, not in the entity
  Changes toRetry_;                   // refused so far
  Changes retried_;                   // refused again in this round of retries
  bool retryHelped_ = false;
  std::map<std::string, Standing> standing_;

  std::optional<FieldWalk> outputs_;
  std::optional<Sweep> outputSweep_;
};

}  // namespace LinuxPlatform
