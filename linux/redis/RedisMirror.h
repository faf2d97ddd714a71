// Entities that follow their content in Redis, and write what is their own there.
//
//   SWITCH|MOUNT PATH      a hash: the fields of the entity at the path, named as `routecache get` names them
//   SWITCH|complete        any value: the content of this switch is all there; another value: it is another content
//   channel SWITCH         "PATH" or "PATH FIELD": what has changed, told after the change
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "lib/statedb/EntityContent.h"
#include "linux/redis/RedisSession.h"
#include "platform/services/TaskScheduler.h"

struct redisReply;

namespace LinuxPlatform {

// No change is missed: the session listens first, then everything is read, and what is told meanwhile is read again;
// the same whenever the session opens again. What is read is compared with what was known, and differences alone are
// carried out, a time slice at a time.
//
// What is read counts only when the switch's content has the same mark after it was read: a server that came back empty
// has none, and then what is known stays until a writer has put the content back and the mark with it.
//
// A hash is read in pieces. Somebody who puts another one in its place meanwhile tells of the whole path, and then it
// is read again; a change of single fields is read afterwards.
//
// Invariants: one reading at a time, and none while differences are carried out; a field that this process has written
// since a reading began is not taken from it. While there is something to do, and the session can do it, the task is
// scheduled or an answer is on its way.
class RedisMirror {
 public:
  RedisMirror(EventLoop& loop, RedisSettings settings);
  RedisMirror(const RedisMirror&) = delete;
  RedisMirror& operator=(const RedisMirror&) = delete;
  ~RedisMirror();

  // From now on the entity has the content of its path, and its own fields go there. Takes the place of another entity
  // of this path. `scratch`: as EntityContent has it. The entity's change hook is taken.
  void follow(const std::string& path, std::shared_ptr<Lattis::Entity> entity, std::shared_ptr<Lattis::Entity> scratch);
  void unfollow(const std::string& path);
  bool follows(std::string_view path) const { return followed_.contains(path); }
  // Everything that is followed has been read, and the entities have it.
  bool isSynced() const;
  // Calls back from the event loop as soon as that is so.
  void whenSynced(std::function<void()> call);

  // Throws std::invalid_argument with one line when nothing can be written now.
  void checkWritable() const;
  // After the entity has been changed so: the database has it as soon as it can be reached, and others are told.
  void fieldIsWritten(const std::string& path, const std::string& field);
  // Calls back when the server has answered all of these until now; perhaps at once. `fault`: why the last was refused.
  void whenTaken(std::function<void(const std::string& fault)> call);
  // Why the path cannot be read; empty: it can, or is not followed.
  std::string faultOf(std::string_view path) const;
  // What belongs to the field, to be asked before it goes from the entity; and after it has gone.
  std::vector<std::string> fieldsOf(const std::string& path, const std::string& field) const;
  void fieldsAreDeleted(const std::string& path, const std::string& field, const std::vector<std::string>& fields);
  // Puts all of an entity that is followed there, in the place of what is there.
  void contentIsWritten(const std::string& path);
  // The content of this switch is all there.
  void completeIs();

  // What cannot be set from outside is this process' to write from now on (RedisSettings::ownsOutputs).
  void outputsAreOwned();

  // Nothing is on its way, in either direction.
  bool isSettled() const;
  const RedisSession& session() const { return session_; }
  bool isComplete() const { return mark_.has_value(); }
  // Why the server has refused a change of this process, the last one; empty: it has taken all.
  const std::string& writeFault() const { return writeFault_; }
  // A field that cannot be set from outside, as its owner has put it there.
  std::optional<std::string> outputOf(const std::string& path, const std::string& field) const;
  // It has been looked for, and is not there.
  bool markIsMissing() const { return missingMarkIsTold_; }
  std::uint64_t refusals() const { return refusals_; }
  std::uint64_t refusedFields() const;
  std::uint64_t readings() const { return readings_; }

 private:
  struct Followed {
    std::uint64_t number = 0;  // no other has or had it
    EntityContent content;
    std::set<std::string> fieldsWanted{};  // to be read
    bool allWanted = true;
    bool wasRead = false;
    bool outputsAreDue = false;
    bool isWriting = false;  // its own fields, a piece at a time
    bool hasWritten = false;
    std::string fault{};        // why the last reading came to nothing
    unsigned disturbances = 0;  // readings in a row that were of no use
  };
  using Path = std::map<std::string, Followed, std::less<>>::iterator;
  // Of an operator: it stands here, and is written again to a server that was lost before it answered.
  struct Change {
    std::string path;
    EntityContent::Changes fields;
    std::string message;
    std::string fault{};  // why the server has refused some of it
    std::vector<std::function<void(const std::string& fault)>> waiting{};
  };
  struct Reading {
    std::string path;
    std::uint64_t number = 0;  // of the one that is read
    bool isDisturbed = false;
    bool fencePassed = false;
    bool markIsRead = false;
    std::optional<std::string> mark{};  // after everything else
  };

  std::string keyOf(const std::string& path) const { return session_.settings().switchName + "|" + path; }
  void handleOpened();
  void handleClosed();
  void handleMessage(const std::string& text);
  void handleRefill();
  void proceed();
  void work();
  bool carryOut();
  void askForMark();
  void handleMark(std::optional<std::string> mark);
  bool readNext();
  // Null: it is not followed any more.
  Followed* beingRead();
  void readAll(const std::string& path, const std::string& cursor);
  void handlePage(const redisReply& reply);
  void readFields(Path followed);
  void askWhetherItCounts(bool withFence);
  void endReading();
  void dropReading(const std::string& why);
  void handleChange(const std::string& path);
  bool ownsOutputs(const Followed& followed) const;
  double restOfOutputs() const;
  void compareOutputs(Followed& followed);
  bool writeOutputs();
  void carryOver(Change change);
  void write(const std::string& path, const EntityContent::Changes& changes, bool isOperators);
  void command(const std::string& path, const std::vector<std::string>& words, bool isOperators = false);
  void changeIsAnswered(const redisReply& reply);
  void handleWritten(const std::string& path, const redisReply& reply);
  void publish(const std::string& text);
  void tellRefusal(const std::string& path, const std::string& line);
  void notice(const std::string& line) const;

  std::uint64_t refusals_ = 0;
  std::string writeFault_;
  std::optional<double> writeRefusedAt_;  // last
  std::uint64_t readings_ = 0;
  std::uint64_t linesInARow_ = 0;  // without a pause between them
  double lastRefusalAt_ = 0;
  std::optional<std::string> mark_;  // nothing: the content is not complete, or that is not known
  bool markIsAsked_ = false;
  bool missingMarkIsTold_ = false;
  std::map<std::string, Followed, std::less<>> followed_;
  std::uint64_t nextNumber_ = 0;
  std::optional<Reading> reading_;
  std::size_t unansweredWrites_ = 0;
  std::deque<Change> unconfirmed_;
  bool ownsOutputs_;
  std::map<std::string, unsigned> ownMessages_;  // published by this process and not heard yet
  std::vector<std::function<void()>> waiting_;   // for everything to be read
  EventLoop& loop_;
  RedisSession session_;
  std::unique_ptr<Platform::Task> task_;
  std::unique_ptr<Platform::Task> outputsTask_;
};

}  // namespace LinuxPlatform
