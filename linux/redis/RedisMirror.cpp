#include "linux/redis/RedisMirror.h"

#include <hiredis/hiredis.h>

#include <algorithm>
#include <chrono>
#include <stdexcept>
#include <utility>

#include "lib/statedb/EntityFields.h"
#include "platform/values/Printable.h"

namespace LinuxPlatform {

using Lattis::Entity;
using Platform::printable;
using Platform::TaskPriority;

namespace {

constexpr double markPoll = 1;                 // seconds between two looks for the mark, should nobody tell of it
constexpr double outputsPause = 0.2;           // seconds for which changes of an entity's own fields are gathered
constexpr std::size_t pieceFields = 512;       // of a hash, in one answer or command: some tenths of a millisecond
constexpr std::size_t mostSingleFields = 256;  // of one hash; more of them, and all of it is read
constexpr unsigned mostDisturbances = 3;
constexpr double outputsRest = 5;  // seconds for which a server that has refused a change is spared the next
constexpr std::uint64_t mostRefusalLines = 20;  // in a row; all are counted
constexpr std::size_t mostUnanswered = 4096;    // commands; then changes by text are refused

// Nothing: there is none.
std::optional<std::string> valueOf(const redisReply& reply) {
  return reply.type == REDIS_REPLY_STRING ? std::optional(textOf(reply)) : std::nullopt;
}

}  // namespace

RedisMirror::RedisMirror(EventLoop& loop, RedisSettings settings)
    : ownsOutputs_(settings.ownsOutputs),
      loop_(loop),
      session_(loop, std::move(settings),
               {[this] { handleOpened(); }, [this] { handleClosed(); },
                [this](const std::string& text) { handleMessage(text); }}),
      task_(loop.taskIs("stateDbTask", TaskPriority::processing, [this] { work(); })),
      outputsTask_(loop.taskIs("stateDbOutputsTask", TaskPriority::processing, [this] {
        for (auto& [path, followed] : followed_) followed.isWriting |= std::exchange(followed.outputsAreDue, false);
        proceed();
      })) {}

RedisMirror::~RedisMirror() {
  for (const auto& [path, followed] : followed_) followed.content.entity()->changeHookIs(nullptr);
}

// --- What is followed ------------------------------------------------------------------------------------------------

void RedisMirror::follow(const std::string& path, std::shared_ptr<Entity> entity, std::shared_ptr<Entity> scratch) {
  unfollow(path);
  entity->changeHookIs([this, path] { handleChange(path); });
  EntityContent content(std::move(entity), std::move(scratch),
                        [this, path](const std::string& line) { tellRefusal(path, line); });
  followed_.emplace(path, Followed{.number = nextNumber_++, .content = std::move(content)});
  proceed();
}

void RedisMirror::unfollow(const std::string& path) {
  const auto found = followed_.find(path);
  if (found == followed_.end()) return;
  found->second.content.entity()->changeHookIs(nullptr);
  followed_.erase(found);
}

bool RedisMirror::isSynced() const {
  return !reading_ && std::all_of(followed_.begin(), followed_.end(), [](const auto& entry) {
    return entry.second.wasRead && entry.second.content.isCarriedOut();
  });
}

void RedisMirror::whenSynced(std::function<void()> call) {
  waiting_.push_back(std::move(call));
  proceed();
}

bool RedisMirror::isSettled() const {
  return session_.isOpen() && isSynced() && session_.unanswered() == 0 && ownMessages_.empty() && waiting_.empty() &&
         std::all_of(followed_.begin(), followed_.end(), [](const auto& entry) {
           const Followed& followed = entry.second;
           return !followed.allWanted && followed.fieldsWanted.empty() && !followed.outputsAreDue &&
                  !followed.isWriting;
         });
}

std::string RedisMirror::faultOf(std::string_view path) const {
  const auto found = followed_.find(path);
  return found == followed_.end() ? std::string() : found->second.fault;
}

std::uint64_t RedisMirror::refusedFields() const {
  std::uint64_t fields = 0;
  for (const auto& [path, followed] : followed_) fields += followed.content.refusedFields();
  return fields;
}

// --- The session -----------------------------------------------------------------------------------------------------

void RedisMirror::handleOpened() {
  for (auto& [path, followed] : followed_) followed.allWanted = true;
  mark_.reset();
  markIsAsked_ = false;
  for (auto& change : std::exchange(unconfirmed_, {})) carryOver(std::move(change));
  proceed();
}

void RedisMirror::handleClosed() {
  if (reading_) dropReading({});
  ownMessages_.clear();
  unansweredWrites_ = 0;
}

void RedisMirror::handleMessage(const std::string& text) {
  const auto own = ownMessages_.find(text);
  if (own != ownMessages_.end()) {
    if (--own->second == 0) ownMessages_.erase(own);
    return;
  }
  if (!mark_) return askForMark();
  if (text == "complete") return handleRefill();
  const std::size_t pathEnd = text.find(' ');
  const auto found = followed_.find(text.substr(0, pathEnd));
  if (found == followed_.end()) return;
  Followed& followed = found->second;
  if (pathEnd != std::string::npos && followed.fieldsWanted.size() < mostSingleFields) {
    followed.fieldsWanted.insert(text.substr(pathEnd + 1));
  } else {
    followed.allWanted = true;
    if (reading_ && reading_->path == found->first && pathEnd == std::string::npos) reading_->isDisturbed = true;
  }
  proceed();
}

// All of it may be another one, whether this process has seen it without the mark or not.
void RedisMirror::handleRefill() {
  for (auto& [path, followed] : followed_) followed.allWanted = true;
  if (reading_) reading_->isDisturbed = true;
  proceed();
}

void RedisMirror::proceed() {
  task_->scheduleWithin(0);
}

void RedisMirror::work() {
  if (carryOut()) return proceed();
  if (isSynced() && !waiting_.empty()) {
    for (const auto& call : std::exchange(waiting_, {})) call();
  }
  if (!session_.isOpen() || reading_) return;
  if (!mark_) return askForMark();
  if (readNext()) return;
  if (!writeOutputs()) proceed();
}

// False: there was nothing to do. Else what comes next has a time slice of its own.
bool RedisMirror::carryOut() {
  std::uint64_t steps = 0;
  for (auto& [path, followed] : followed_) {
    while (followed.content.step()) {
      task_->workCountIs(++steps);
      if (task_->shouldYield()) return true;
    }
  }
  return steps > 0;
}

// --- The mark --------------------------------------------------------------------------------------------------------

void RedisMirror::askForMark() {
  if (markIsAsked_ || !session_.isOpen()) return;
  markIsAsked_ = true;
  session_.command({"GET", keyOf("complete")}, [this](const redisReply& reply) {
    markIsAsked_ = false;
    if (reply.type == REDIS_REPLY_ERROR) return session_.fail(textOf(reply));
    handleMark(valueOf(reply));
  });
}

void RedisMirror::handleMark(std::optional<std::string> mark) {
  if (mark && mark == mark_) return;
  mark_ = std::move(mark);
  if (mark_) {
    if (std::exchange(missingMarkIsTold_, false)) notice("its content is complete again");
    for (auto& [path, followed] : followed_) followed.allWanted = true;
    return proceed();
  }
  if (!std::exchange(missingMarkIsTold_, true)) {
    notice("the content of switch '" + session_.settings().switchName + "' is not complete, it has no key '" +
           keyOf("complete") + "'; what is known stays until it has");
  }
  task_->scheduleWithin(markPoll);
}

// --- Reading ---------------------------------------------------------------------------------------------------------

// False: there is nothing to read.
bool RedisMirror::readNext() {
  const auto wanted = std::find_if(followed_.begin(), followed_.end(), [](const auto& entry) {
    return entry.second.allWanted || !entry.second.fieldsWanted.empty();
  });
  if (wanted == followed_.end()) return false;
  Followed& followed = wanted->second;
  reading_ = Reading{.path = wanted->first, .number = followed.number};
  ++readings_;
  followed.content.readingBegins(followed.allWanted);
  if (followed.allWanted) {
    followed.allWanted = false;
    followed.fieldsWanted.clear();
    readAll(wanted->first, "0");
  } else {
    readFields(wanted);
  }
  return true;
}

void RedisMirror::readAll(const std::string& path, const std::string& cursor) {
  session_.command({"HSCAN", keyOf(path), cursor, "COUNT", std::to_string(pieceFields)},
                   [this](const redisReply& reply) { handlePage(reply); });
}

RedisMirror::Followed* RedisMirror::beingRead() {
  const auto found = followed_.find(reading_->path);
  return found != followed_.end() && found->second.number == reading_->number ? &found->second : nullptr;
}

void RedisMirror::handlePage(const redisReply& reply) {
  Followed* followed = beingRead();
  if (followed == nullptr) return dropReading({});
  if (reply.type == REDIS_REPLY_ERROR) return dropReading(textOf(reply));
  if (reply.type != REDIS_REPLY_ARRAY || reply.elements != 2 || reply.element[1]->type != REDIS_REPLY_ARRAY) {
    return dropReading("an answer that HSCAN does not give");
  }
  const redisReply& fields = *reply.element[1];
  for (std::size_t i = 0; i + 1 < fields.elements; i += 2) {
    followed->content.heard(textOf(*fields.element[i]), textOf(*fields.element[i + 1]));
  }
  const std::string cursor = textOf(*reply.element[0]);
  if (cursor != "0") return readAll(reading_->path, cursor);
  askWhetherItCounts(true);
}

void RedisMirror::readFields(Path wanted) {
  const auto fields = std::make_shared<std::vector<std::string>>();
  auto& names = wanted->second.fieldsWanted;
  std::vector<std::string> words{"HMGET", keyOf(wanted->first)};
  while (!names.empty()) {
    fields->push_back(std::move(names.extract(names.begin()).value()));
    words.push_back(fields->back());
  }
  session_.command(words, [this, fields](const redisReply& reply) {
    Followed* followed = beingRead();
    if (followed == nullptr) return dropReading({});
    if (reply.type == REDIS_REPLY_ERROR) return dropReading(textOf(reply));
    if (reply.type != REDIS_REPLY_ARRAY || reply.elements != fields->size()) {
      return dropReading("an answer that HMGET does not give");
    }
    for (std::size_t i = 0; i < reply.elements; ++i) {
      followed->content.heard((*fields)[i], valueOf(*reply.element[i]));
    }
    askWhetherItCounts(false);
  });
}

// With a fence: after everything has been heard that was published before.
void RedisMirror::askWhetherItCounts(bool withFence) {
  reading_->fencePassed = !withFence;
  session_.command({"GET", keyOf("complete")}, [this](const redisReply& reply) {
    if (reply.type == REDIS_REPLY_ERROR) return session_.fail(textOf(reply));
    reading_->markIsRead = true;
    reading_->mark = valueOf(reply);
    endReading();
  });
  if (!withFence) return;
  session_.fence([this] {
    reading_->fencePassed = true;
    endReading();
  });
}

void RedisMirror::endReading() {
  if (!reading_->markIsRead || !reading_->fencePassed) return;
  const bool counts = reading_->mark && reading_->mark == mark_;
  Followed* followed = beingRead();
  if (!counts || followed == nullptr || (reading_->isDisturbed && ++followed->disturbances < mostDisturbances)) {
    const std::optional<std::string> mark = reading_->mark;
    dropReading({});
    if (!counts) handleMark(mark);
    return;
  }
  followed->disturbances = 0;
  followed->wasRead = true;
  followed->fault.clear();
  followed->content.readingEnds();
  if (ownsOutputs(*followed)) compareOutputs(*followed);
  reading_.reset();
  proceed();
}

// It will be read anew; after a fault of its own with the next change or session, lest it is asked again for ever.
void RedisMirror::dropReading(const std::string& why) {
  Followed* followed = beingRead();
  if (!why.empty()) tellRefusal(reading_->path, why + "; what is known of it stays");
  reading_.reset();
  if (followed != nullptr) {
    followed->content.readingIsDropped();
    if (why.empty()) followed->allWanted = true;  // and what was told meanwhile stays wanted
    followed->fault = why;
  }
  proceed();
}

// --- Writing ---------------------------------------------------------------------------------------------------------

void RedisMirror::handleChange(const std::string& path) {
  const auto found = followed_.find(path);
  if (found == followed_.end() || !ownsOutputs(found->second)) return;
  found->second.outputsAreDue = true;
  outputsTask_->scheduleWithin(std::max(outputsPause, restOfOutputs()));
}

bool RedisMirror::ownsOutputs(const Followed& followed) const {
  return ownsOutputs_ && followed.content.hasOutputs();
}

void RedisMirror::outputsAreOwned() {
  ownsOutputs_ = true;
  for (auto& [path, followed] : followed_) {
    if (followed.wasRead && ownsOutputs(followed)) compareOutputs(followed);
  }
  proceed();
}

std::optional<std::string> RedisMirror::outputOf(const std::string& path, const std::string& field) const {
  const auto found = followed_.find(path);
  if (found == followed_.end() || found->second.content.isSettable(field)) return std::nullopt;
  return found->second.content.known(field);
}

double RedisMirror::restOfOutputs() const {
  return writeRefusedAt_ ? std::max(*writeRefusedAt_ + outputsRest - loop_.now(), 0.0) : 0;
}

// They have been read: what differs is written at once.
void RedisMirror::compareOutputs(Followed& followed) {
  const double rest = restOfOutputs();
  if (rest == 0) {
    followed.isWriting = true;
    return;
  }
  followed.outputsAreDue = true;
  outputsTask_->scheduleWithin(rest);
}

// The entities' own fields, a piece at a time, as the server answers. False: there is more to do at once.
bool RedisMirror::writeOutputs() {
  for (auto& [path, followed] : followed_) {
    if (!followed.isWriting) continue;
    if (unansweredWrites_ > 0) return true;  // an answer calls again
    if (!followed.content.comparesOutputs()) followed.content.outputsBegin();
    EntityContent::Changes changes;
    bool isMore = true;
    bool isSpent = false;
    while (isMore && !isSpent && changes.size() < pieceFields) {
      isMore = followed.content.outputStep(changes);
      isSpent = task_->shouldYield();
    }
    if (!changes.empty()) {
      followed.hasWritten = true;
      write(path, changes, false);
    }
    if (isMore) return false;
    followed.isWriting = false;
    if (std::exchange(followed.hasWritten, false)) publish(path);
    if (isSpent) return false;
  }
  return true;
}

void RedisMirror::checkWritable() const {
  const std::string where = "the state database at " + session_.settings().address.text;
  if (!session_.isOpen()) throw std::invalid_argument(where + " cannot be reached, it takes no changes");
  if (session_.unanswered() > mostUnanswered)
    throw std::invalid_argument(where + " does not answer, it takes no changes");
}

void RedisMirror::fieldIsWritten(const std::string& path, const std::string& field) {
  const auto found = followed_.find(path);
  if (found == followed_.end()) return;
  const auto item = FieldWalk(found->second.content.entity(), field).next();
  carryOver({path, {{field, item->value.value_or("")}}, path + " " + field});
}

std::vector<std::string> RedisMirror::fieldsOf(const std::string& path, const std::string& field) const {
  const auto found = followed_.find(path);
  return found == followed_.end() ? std::vector<std::string>{} : found->second.content.fieldsOf(field);
}

void RedisMirror::fieldsAreDeleted(const std::string& path, const std::string& field,
                                   const std::vector<std::string>& fields) {
  if (fields.empty()) return;
  EntityContent::Changes changes;
  for (const auto& deleted : fields) changes.emplace(deleted, std::nullopt);
  if (const auto bare = followed_.find(path)->second.content.bareWithout(field, fields)) changes.emplace(*bare, "");
  const std::string message = changes.size() == 1 ? path + " " + changes.begin()->first : path;
  carryOver({path, std::move(changes), message});
}

void RedisMirror::whenTaken(std::function<void(const std::string& fault)> call) {
  if (unconfirmed_.empty()) return call({});
  unconfirmed_.back().waiting.push_back(std::move(call));
}

void RedisMirror::carryOver(Change change) {
  if (!follows(change.path)) {
    for (const auto& call : change.waiting) call({});
    return;
  }
  write(change.path, change.fields, true);
  ++ownMessages_[change.message];
  ++unansweredWrites_;
  session_.command({"PUBLISH", session_.settings().switchName, change.message},
                   [this](const redisReply& reply) { changeIsAnswered(reply); });
  change.fault.clear();
  unconfirmed_.push_back(std::move(change));
  session_.flush();
}

// The oldest, and this is the last answer to it.
void RedisMirror::changeIsAnswered(const redisReply& reply) {
  const Change change = std::move(unconfirmed_.front());
  unconfirmed_.pop_front();
  handleWritten(change.path, reply);
  const std::string fault = reply.type == REDIS_REPLY_ERROR ? textOf(reply) : change.fault;
  for (const auto& call : change.waiting) call(fault);
}

void RedisMirror::write(const std::string& path, const EntityContent::Changes& changes, bool isOperators) {
  EntityContent& content = followed_.find(path)->second.content;
  std::vector<std::string> set{"HSET", keyOf(path)};
  std::vector<std::string> del{"HDEL", keyOf(path)};
  for (const auto& [field, value] : changes) {
    auto& words = value ? set : del;
    words.push_back(field);
    if (value) words.push_back(*value);
    content.written(field, value);
  }
  if (set.size() > 2) command(path, set, isOperators);
  if (del.size() > 2) command(path, del, isOperators);
}

void RedisMirror::command(const std::string& path, const std::vector<std::string>& words, bool isOperators) {
  ++unansweredWrites_;
  session_.command(words, [this, path, isOperators](const redisReply& reply) {
    if (isOperators && reply.type == REDIS_REPLY_ERROR) unconfirmed_.front().fault = textOf(reply);
    handleWritten(path, reply);
  });
}

void RedisMirror::handleWritten(const std::string& path, const redisReply& reply) {
  --unansweredWrites_;
  if (reply.type == REDIS_REPLY_ERROR) {
    writeFault_ = textOf(reply);
    writeRefusedAt_ = loop_.now();
    tellRefusal(path, "a change by this process: " + writeFault_);
    const auto found = followed_.find(path);
    if (found != followed_.end()) found->second.allWanted = true;
  }
  proceed();
}

void RedisMirror::publish(const std::string& text) {
  ++ownMessages_[text];
  command(text.substr(0, text.find(' ')), {"PUBLISH", session_.settings().switchName, text});
}

void RedisMirror::contentIsWritten(const std::string& path) {
  EntityContent& content = followed_.find(path)->second.content;
  const std::string key = keyOf(path);
  command(path, {"MULTI"});
  command(path, {"DEL", key});
  std::vector<std::string> words{"HSET", key};
  std::string child;  // one of which no field has been met
  const auto add = [&](const std::string& field, const std::string& value) {
    words.push_back(field);
    words.push_back(value);
    content.written(field, value);
    if (words.size() < 2 * pieceFields) return;
    command(path, words);
    words.resize(2);
  };
  FieldWalk walk(content.entity(), "");
  while (const auto item = walk.next()) {
    if (!child.empty() && !item->field.starts_with(child + ".")) add(child, "");
    child.clear();
    if (!item->value) {
      child = item->field;
    } else if (content.isSettable(item->field)) {
      add(item->field, *item->value);
    }
  }
  if (!child.empty()) add(child, "");
  if (words.size() > 2) command(path, words);
  command(path, {"EXEC"});
  publish(path);
}

void RedisMirror::completeIs() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  command("complete", {"SET", keyOf("complete"), std::to_string(now.count())});
  publish("complete");
}

// --- Telling ---------------------------------------------------------------------------------------------------------

void RedisMirror::tellRefusal(const std::string& path, const std::string& line) {
  constexpr double pause = 10;  // seconds without refusals, and the next ones are told again
  ++refusals_;
  if (loop_.now() - lastRefusalAt_ > pause) linesInARow_ = 0;
  lastRefusalAt_ = loop_.now();
  if (++linesInARow_ < mostRefusalLines) return notice(keyOf(path) + " " + line + "; refused");
  if (linesInARow_ == mostRefusalLines) notice("more is refused; platform/stateDb counts it");
}

void RedisMirror::notice(const std::string& line) const {
  session_.settings().notice(printable("state database at " + session_.settings().address.text + ": " + line));
}

}  // namespace LinuxPlatform
