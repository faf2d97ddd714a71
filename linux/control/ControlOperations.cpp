#include "linux/control/ControlOperations.h"

#include <chrono>
#include <memory>
#include <optional>
#include <stdexcept>

#include "lib/statedb/EntityFields.h"

namespace LinuxPlatform {

namespace {

using Platform::toText;

// A reply that has all its lines from the start: for what is small.
class LinesReply final : public ControlReply {
 public:
  explicit LinesReply(std::string lines) : lines_(std::move(lines)) {}
  bool produce(std::string& lines) override {
    lines += lines_;
    return false;
  }

 private:
  std::string lines_;
};

class FieldsReply final : public ControlReply {
 public:
  FieldsReply(std::shared_ptr<Lattis::Entity> entity, std::string_view field) : walk_(std::move(entity), field) {}
  bool produce(std::string& lines) override {
    constexpr int itemsPerPiece = 32;
    for (int i = 0; i < itemsPerPiece; ++i) {
      const auto item = walk_.next();
      if (!item) return false;
      lines += item->value ? controlLine({{"field", item->field}, {"value", *item->value}})
                           : controlLine({{"field", item->field}});
    }
    return true;
  }

 private:
  FieldWalk walk_;
};

// Of a change: when the database has taken it.
class TakenReply final : public ControlReply {
 public:
  // Null: it has.
  static std::unique_ptr<ControlReply> after(Lattis::StateDb& stateDb) {
    auto reply = std::make_unique<TakenReply>();
    stateDb.whenTaken([outcome = std::weak_ptr(reply->outcome_)](const std::string& fault) {
      if (const auto held = outcome.lock()) *held = fault;
    });
    if (*reply->outcome_ == "") return nullptr;
    return reply;
  }
  bool produce(std::string&) override {
    if (*outcome_ && !(*outcome_)->empty()) throw std::runtime_error("the state database refuses it: " + **outcome_);
    if (*outcome_) return false;
    if (std::chrono::steady_clock::now() - begun_ < longest) return true;
    throw std::runtime_error("the change is made here, but the state database has not taken it yet");
  }
  bool isWaiting() const override { return true; }

 private:
  static constexpr std::chrono::seconds longest{5};
  using Outcome = std::optional<std::string>;  // nothing: not yet; else why it was refused, or nothing
  const std::shared_ptr<Outcome> outcome_ = std::make_shared<Outcome>();
  const std::chrono::steady_clock::time_point begun_ = std::chrono::steady_clock::now();
};

std::optional<std::string> optionalOf(const ControlSocket::Request& request, std::string_view name) {
  const auto found = request.find(name);
  return found == request.end() ? std::nullopt : std::optional(found->second);
}

std::string requiredOf(const ControlSocket::Request& request, std::string_view name) {
  auto value = optionalOf(request, name);
  if (!value) throw std::invalid_argument(request.at("op") + " wants a " + std::string(name));
  return *std::move(value);
}

std::shared_ptr<Lattis::Entity> entityAt(const Lattis::StateDb& stateDb, const std::string& path) {
  auto entity = stateDb.entity(path);
  if (!entity) throw std::invalid_argument("nothing is at the path '" + path + "'");
  return entity;
}

std::string pathLines(const Lattis::StateDb& stateDb) {
  std::string lines;
  for (const auto& path : stateDb.paths()) {
    lines += controlLine({{"path", path}, {"type", stateDb.entity(path)->entityType().name}});
  }
  return lines;
}

Platform::OutputFormat outputFormatOf(const std::string& name) {
  if (name == "text") return Platform::OutputFormat::text;
  if (name == "json") return Platform::OutputFormat::json;
  throw std::invalid_argument("'" + name + "' is not an output format: text or json");
}

// Carries out what is asked of one field; its errors name the place.
template <class Action>
void atField(const std::string& path, const std::string& field, Action&& action) {
  try {
    action();
  } catch (const std::exception& error) {
    throw std::invalid_argument(path + (field.empty() ? "" : " " + field) + ": " + error.what());
  }
}

}  // namespace

void addEntityOperations(ControlSocket& socket, Lattis::StateDb& stateDb) {
  using Request = ControlSocket::Request;
  using Reply = std::unique_ptr<ControlReply>;
  using Access = ControlSocket::Access;

  socket.opIs("get", Access::ask, [&stateDb](const Request& request) -> Reply {
    const auto path = optionalOf(request, "path");
    if (!path) return std::make_unique<LinesReply>(pathLines(stateDb));
    const auto entity = entityAt(stateDb, *path);
    const std::string field = optionalOf(request, "field").value_or("");
    Reply reply;
    atField(*path, field, [&] { reply = std::make_unique<FieldsReply>(entity, field); });
    return reply;
  });

  socket.opIs("set", Access::change, [&stateDb](const Request& request) -> Reply {
    const std::string path = requiredOf(request, "path");
    const std::string field = requiredOf(request, "field");
    entityAt(stateDb, path);
    atField(path, field, [&] { stateDb.fieldIs(path, field, optionalOf(request, "value")); });
    return TakenReply::after(stateDb);
  });

  socket.opIs("del", Access::change, [&stateDb](const Request& request) -> Reply {
    const std::string path = requiredOf(request, "path");
    const std::string field = requiredOf(request, "field");
    entityAt(stateDb, path);
    atField(path, field, [&] { stateDb.fieldDel(path, field); });
    return TakenReply::after(stateDb);
  });
}

void addTaskOperation(ControlSocket& socket, const Platform::TaskScheduler& scheduler) {
  using Reply = std::unique_ptr<ControlReply>;
  socket.opIs("tasks", ControlSocket::Access::ask, [&scheduler](const ControlSocket::Request&) -> Reply {
    std::string lines;
    for (const auto& task : scheduler.statistics()) {
      lines += controlLine({{"name", task.name},
                            {"priority", toText(static_cast<unsigned>(task.priority))},
                            {"runs", toText(task.runs)},
                            {"workDone", toText(task.workDone)},
                            {"workPending", toText(task.workPending)},
                            {"longestRun", toText(task.longestRun)},
                            {"totalRun", toText(task.totalRun)},
                            {"longestWait", toText(task.longestWait)}});
    }
    return std::make_unique<LinesReply>(std::move(lines));
  });
}

void addCommandOperation(ControlSocket& socket, AgentCommands& commands) {
  socket.opIs("command", ControlSocket::Access::ask, [&commands](const ControlSocket::Request& request) {
    const std::string type = requiredOf(request, "type");
    const std::string command = requiredOf(request, "command");
    return commands.commandReply(type, command, outputFormatOf(requiredOf(request, "format")));
  });
}

}  // namespace LinuxPlatform
