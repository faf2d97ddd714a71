#include "lib/statedb/EntityContent.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "platform/values/Assert.h"

namespace LinuxPlatform {

using Lattis::Entity;

namespace {

bool hasOutputsOf(const Lattis::EntityType& type) {
  return std::any_of(type.attributes.begin(), type.attributes.end(), [](const auto& field) { return !field.set; }) ||
         std::any_of(type.collections.begin(), type.collections.end(),
                     [](const auto& field) { return !field.set && !field.childIs; });
}

// The texts of the entries on the way to a field, the outermost first, and the field itself.
std::vector<std::string> wayTo(const std::string& canonical) {
  std::vector<std::string> way;
  std::string text;
  for (const FieldStep& step : parseField(canonical)) {
    if (!text.empty()) text += '.';
    text += step.key ? entryField(step.name, *step.key) : step.name;
    way.push_back(text);
  }
  return way;
}

// Nothing: the type has no such field.
std::optional<FieldFacts> factsOrNone(const std::shared_ptr<Entity>& scratch, const std::string& field) {
  try {
    return fieldFacts(scratch, field);
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

}  // namespace

EntityContent::EntityContent(std::shared_ptr<Entity> entity, std::shared_ptr<Entity> scratch, Refused refused)
    : entity_(std::move(entity)),
      scratch_(std::move(scratch)),
      refused_(std::move(refused)),
      hasOutputs_(hasOutputsOf(entity_->entityType())) {}

// --- A reading -------------------------------------------------------------------------------------------------------

void EntityContent::readingBegins(bool ofEverything) {
  reading_ = true;
  ofEverything_ = ofEverything;
  passedOver_.clear();
  outputs_.reset();
  outputSweep_.reset();
  ++round_;
}

void EntityContent::heard(std::string field, std::optional<std::string> value) {
  if (passedOver_.contains(field)) return;
  const auto found = known_.find(field);
  if (found == known_.end()) {
    if (value) {
      heard_.insert_or_assign(std::move(field), std::move(value));
    } else {
      heard_.erase(field);
    }
    return;
  }
  found->second.seen = round_;
  if (value == found->second.value) {
    heard_.erase(field);  // it was heard before, with another value
  } else {
    heard_.insert_or_assign(std::move(field), std::move(value));
  }
}

void EntityContent::readingEnds() {
  reading_ = false;
  passedOver_.clear();
  if (ofEverything_) sweeping_.emplace();
}

void EntityContent::readingIsDropped() {
  reading_ = false;
  passedOver_.clear();
  heard_.clear();
}

// --- Carrying out ----------------------------------------------------------------------------------------------------

bool EntityContent::step() {
  if (reading_) return false;
  if (sweeping_) {
    sweepStep();
  } else if (!heard_.empty()) {
    foldStep();
  } else if (!toCarry_.empty()) {
    carryStep();
  } else if (!toRetry_.empty() || !retried_.empty()) {
    retryStep();
  } else {
    return false;
  }
  return true;
}

EntityContent::KnownFields::iterator EntityContent::Sweep::next(KnownFields& fields) {
  const auto found = last_ ? fields.upper_bound(*last_) : fields.begin();
  if (found != fields.end()) last_ = found->first;
  return found;
}

// A field that the reading of everything has not met is gone.
void EntityContent::sweepStep() {
  const auto next = sweeping_->next(known_);
  if (next == known_.end()) {
    sweeping_.reset();
  } else if (next->second.seen != round_) {
    heard_.emplace(next->first, std::nullopt);
  }
}

// All is known before anything is carried out: whether a child goes depends on all of its fields.
void EntityContent::foldStep() {
  auto node = heard_.extract(heard_.begin());
  const std::string& field = node.key();
  forget(field);
  standing_.erase(field);
  if (toCarry_.empty()) retryContradictions();
  if (node.mapped()) {
    known_.insert_or_assign(field, Known{*node.mapped(), round_});
  } else {
    known_.erase(field);
  }
  toCarry_.insert(std::move(node));
}

void EntityContent::retryContradictions() {
  for (const auto& [field, refused] : standing_) {
    if (refused.contradicts) toRetry_.insert_or_assign(field, refused.value);
  }
}

// Of what is still to be carried out.
void EntityContent::forget(const std::string& field) {
  toCarry_.erase(field);
  toRetry_.erase(field);
  retried_.erase(field);
}

void EntityContent::carryStep() {
  const auto node = toCarry_.extract(toCarry_.begin());
  try {
    carry(node.key(), node.mapped());
  } catch (const std::exception&) {
    toRetry_.insert_or_assign(node.key(), node.mapped());
  }
}

// Round after round for as long as one helps: a value that the others did not allow may be good by now.
void EntityContent::retryStep() {
  if (toRetry_.empty()) {
    if (!std::exchange(retryHelped_, false)) return refuseRetried();
    toRetry_.swap(retried_);
  }
  const auto node = toRetry_.extract(toRetry_.begin());
  try {
    carry(node.key(), node.mapped());
    standing_.erase(node.key());
    retryHelped_ = true;
  } catch (const std::exception&) {
    retried_.insert_or_assign(node.key(), node.mapped());
  }
}

void EntityContent::refuseRetried() {
  const auto node = retried_.extract(retried_.begin());
  const auto refuse = [&](const std::exception& error, bool contradicts) {
    const auto [standing, isNew] = standing_.try_emplace(node.key(), Standing{node.mapped(), contradicts});
    if (isNew) refused_(node.key() + ": " + error.what());
  };
  try {
    carry(node.key(), node.mapped());
    standing_.erase(node.key());
  } catch (const Platform::BadText& error) {
    refuse(error, false);
  } catch (const std::exception& error) {
    refuse(error, true);
  }
}

bool EntityContent::isCarriedOut() const {
  return !sweeping_ && heard_.empty() && toCarry_.empty() && toRetry_.empty() && retried_.empty();
}

void EntityContent::carry(const std::string& field, const std::optional<std::string>& value) {
  const std::optional<FieldFacts> facts = value ? fieldFacts(scratch_, field) : factsOrNone(scratch_, field);
  if (!facts) return;  // it has never been taken, and is gone
  if (facts->canonical != field) {
    if (!value) return;
    throw Platform::BadText("it is to be called '" + facts->canonical + "'");
  }
  if (!facts->isSettable) return;
  if (value) {
    carryValue(field, *value);
  } else {
    carryRemoval(field, *facts);
  }
}

void EntityContent::carryValue(const std::string& field, const std::string& value) {
  const FieldStep last = parseField(field).back();
  // A child entity stands for itself by an empty text; no value of an attribute or an entry is refused for it.
  const bool mayBeChild = value.empty() && last.key;
  if (mayBeChild) {
    try {
      return setField(entity_, field, std::nullopt);
    } catch (const std::exception&) {
      // It is a value, then.
    }
  }
  setField(entity_, field, value);
}

void EntityContent::carryRemoval(const std::string& field, const FieldFacts& facts) {
  const std::vector<std::string> way = wayTo(field);
  const auto goes = std::find_if(way.begin(), way.end(), [this](const auto& entry) { return !hasFieldOf(entry); });
  if (goes == way.end()) return;  // a child that has other fields
  if (facts.unset && *goes == way.back()) return setField(entity_, field, *facts.unset);
  try {
    delField(entity_, *goes);
  } catch (const std::exception&) {
    // It has never been taken, or has gone with an earlier field.
  }
}

bool EntityContent::hasFieldOf(const std::string& child) const {
  if (known_.contains(child)) return true;
  const std::string prefix = child + ".";
  const auto first = known_.lower_bound(prefix);
  return first != known_.end() && first->first.starts_with(prefix);
}

void EntityContent::checkInvariants() const {
  for (const auto& field : passedOver_) PLATFORM_ASSERT(!heard_.contains(field));
  for (const Changes* changes : {&toCarry_, &toRetry_, &retried_}) {
    for (const auto& [field, value] : *changes) PLATFORM_ASSERT(known(field) == value);
  }
}

// --- Written by this process -----------------------------------------------------------------------------------------

void EntityContent::written(const std::string& field, std::optional<std::string> value) {
  if (reading_) passedOver_.insert(field);
  heard_.erase(field);
  forget(field);
  standing_.erase(field);
  retryContradictions();
  if (value) {
    known_.insert_or_assign(field, Known{*std::move(value), round_});
  } else {
    known_.erase(field);
  }
}

std::vector<std::string> EntityContent::fieldsOf(const std::string& field) const {
  std::vector<std::string> fields;
  if (known_.contains(field)) fields.push_back(field);
  const std::string prefix = field + ".";
  for (auto next = known_.lower_bound(prefix); next != known_.end() && next->first.starts_with(prefix); ++next) {
    fields.push_back(next->first);
  }
  return fields;
}

std::optional<std::string> EntityContent::bareWithout(const std::string& field,
                                                      const std::vector<std::string>& deleted) const {
  const std::vector<std::string> way = wayTo(field);
  if (way.size() < 2) return std::nullopt;
  const std::string& holder = way[way.size() - 2];
  for (const auto& other : fieldsOf(holder)) {
    if (std::find(deleted.begin(), deleted.end(), other) == deleted.end()) return std::nullopt;
  }
  return holder;
}

std::optional<std::string> EntityContent::known(const std::string& field) const {
  const auto found = known_.find(field);
  return found == known_.end() ? std::nullopt : std::optional(found->second.value);
}

// --- The entity's own fields -----------------------------------------------------------------------------------------

void EntityContent::outputsBegin() {
  outputs_.emplace(entity_, "");
  outputSweep_.reset();
  ++round_;
}

bool EntityContent::outputStep(Changes& toWrite) {
  if (outputs_) {
    const auto item = outputs_->next();
    if (!item) {
      outputs_.reset();
      outputSweep_.emplace();
      return true;
    }
    if (!item->value || fieldFacts(scratch_, item->field).isSettable) return true;
    const auto found = known_.find(item->field);
    if (found != known_.end()) found->second.seen = round_;
    if (found == known_.end() || found->second.value != *item->value) toWrite[item->field] = item->value;
    return true;
  }
  if (!outputSweep_) return false;
  const auto next = outputSweep_->next(known_);
  if (next == known_.end()) {
    outputSweep_.reset();
    return false;
  }
  if (next->second.seen == round_) return true;
  const auto facts = factsOrNone(scratch_, next->first);  // none: somebody else's mistake, which has been told
  if (facts && !facts->isSettable) toWrite[next->first] = std::nullopt;
  return true;
}

}  // namespace LinuxPlatform
