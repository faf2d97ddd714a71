#include "tools/commandline/StateAccess.h"

#include <cstdio>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "host/AgentLibrary.h"
#include "host/SharedState.h"
#include "lib/statedb/EntityFields.h"
#include "linux/control/ControlClient.h"

namespace Tools {

namespace {

class AgentAccess final : public StateAccess {
 public:
  AgentAccess(const std::string& runDir, double patience) : agent_(runDir, patience) {}
  void fieldsOf(const std::string& path, const TakeField& take) override {
    agent_.ask({{"op", "get"}, {"path", path}}, [&](const Json& line) {
      const auto value = line.find("value");
      take(line.value("field", ""), value == line.end() ? std::nullopt : std::optional(value->get<std::string>()));
    });
  }
  void fieldIs(const std::string& path, const std::string& field, const std::optional<std::string>& value) override {
    Json request{{"op", "set"}, {"path", path}, {"field", field}};
    if (value) request["value"] = *value;
    agent_.ask(request, [](const Json&) {});
  }
  void fieldDel(const std::string& path, const std::string& field) override {
    agent_.ask({{"op", "del"}, {"path", path}, {"field", field}}, [](const Json&) {});
  }
  void waitUntilTaken() override {}  // each answer says it

 private:
  AgentConnection agent_;
};

class SharedAccess final : public StateAccess {
 public:
  explicit SharedAccess(const StateDbOptions& options)
      : state_(options.settings([](const std::string& line) { std::fprintf(stderr, "%s\n", line.c_str()); }),
               defaultAgentLibrary()) {}
  void fieldsOf(const std::string& path, const TakeField& take) override {
    LinuxPlatform::FieldWalk walk(state_.entity(path), "");
    while (const auto item = walk.next()) take(item->field, item->value);
  }
  void fieldIs(const std::string& path, const std::string& field, const std::optional<std::string>& value) override {
    change([&] { state_.stateDb().fieldIs(path, field, value); });
  }
  void fieldDel(const std::string& path, const std::string& field) override {
    change([&] { state_.stateDb().fieldDel(path, field); });
  }
  void waitUntilTaken() override { state_.waitUntilWritten(); }

 private:
  template <class Change>
  static void change(Change&& change) {
    try {
      change();
    } catch (const std::logic_error& error) {
      throw Platform::BadText(error.what());
    }
  }
  SharedState state_;
};

}  // namespace

std::unique_ptr<StateAccess> stateAccess(const std::string& runDir, const StateDbOptions& options, double patience) {
  if (options.isShared()) return std::make_unique<SharedAccess>(options);
  return std::make_unique<AgentAccess>(runDir, patience);
}

}  // namespace Tools
