// An agent's tables that kill it: after so many writes and removals a Killed is thrown out of the table, in the middle
// of whatever the agent was doing. What it wrote until then stands; what it would do afterwards, on its way out, does
// not.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "platform/services/AgentBase.h"
#include "platform/tables/SharedTable.h"

struct Killed {};

class MortalTables final : public Pondra::TableService {
 public:
  // Both must outlive this. `writesToLive`: 0 is for ever.
  MortalTables(Pondra::TableService& tables, const Platform::TableTypes& types, std::uint64_t writesToLive)
      : tables_(tables), types_(types), writesToLive_(writesToLive) {}

  void mount(const std::string& path, const std::string& typeName, Pondra::MountKind kind,
             const std::optional<Pondra::CollectionInfo>& info = std::nullopt) override;
  void mountWhenReadable(const std::string& path, const std::string& typeName) override {
    tables_.mountWhenReadable(path, typeName);
  }
  void unmount(const std::string& path) override { tables_.unmount(path); }
  std::shared_ptr<Pondra::TableEntity> entity(std::string_view path) const override;
  void corruptionHandlerIs(std::function<void(const std::string&, const std::string&)> handler) override {
    tables_.corruptionHandlerIs(std::move(handler));
  }

 private:
  class Collection;

  Pondra::TableService& tables_;
  const Platform::TableTypes& types_;
  std::uint64_t writesToLive_;
  bool dead_ = false;
  std::map<std::string, std::shared_ptr<Pondra::TableEntity>, std::less<>> written_;
};
