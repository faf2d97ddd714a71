#include <gmock/gmock.h>

#include <algorithm>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "RouteCache/model/CliConfig.h"
#include "RouteCache/model/Config.h"
#include "lib/statedb/EntityContent.h"
#include "platform/state/Vxlan.h"

using LinuxPlatform::EntityContent;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using Changes = EntityContent::Changes;
using Fields = std::map<std::string, std::string>;

namespace {

template <class E>
class Followed {
 public:
  std::shared_ptr<E> entity = std::make_shared<E>("followed");
  std::vector<std::string> refused;
  int changes = 0;
  EntityContent content{entity, std::make_shared<E>("scratch"),
                        [this](const std::string& line) { refused.push_back(line); }};

  Followed() {
    entity->changeHookIs([this] { ++changes; });
  }
  void carryOut() {
    while (content.step()) {
    }
    EXPECT_TRUE(content.isCarriedOut());
  }
  // A reading of everything finds these.
  void everythingIs(const Fields& fields) {
    content.readingBegins(true);
    for (const auto& [field, value] : fields) content.heard(field, value);
    content.readingEnds();
    carryOut();
  }
  void fieldIs(const std::string& field, const std::optional<std::string>& value) {
    content.readingBegins(false);
    content.heard(field, value);
    content.readingEnds();
    carryOut();
  }
  // What the entity says.
  Fields fields() const {
    Fields all;
    LinuxPlatform::FieldWalk walk(entity, "");
    while (const auto item = walk.next()) all[item->field] = item->value.value_or("");
    return all;
  }
};

using Tunnels = Followed<Vxlan::VtiStatusDir>;
using Levels = Followed<RouteCache::CliConfig>;

const std::string operStatus = "vtiStatus[Vxlan1].operStatus";
const std::string vlan = "vtiStatus[Vxlan1].extendedVlanToVniMap[10]";

TEST(EntityContentTest, ChildrenComeWithTheirFirstFieldAndGoWithTheLast) {
  Tunnels tunnels;
  tunnels.everythingIs({{operStatus, "up"}, {vlan, "10010"}, {"vtiStatus[Vxlan2]", ""}});
  EXPECT_THAT(tunnels.refused, IsEmpty());
  EXPECT_EQ(tunnels.fields().at(vlan), "10010");
  EXPECT_EQ(tunnels.fields().at("vtiStatus[Vxlan2].operStatus"), "down");
  const auto first = tunnels.entity->vtiStatus(IntfId("Vxlan1"));
  tunnels.fieldIs(operStatus, std::nullopt);
  EXPECT_EQ(tunnels.fields().at(operStatus), "down") << "what nobody has set";
  tunnels.fieldIs(operStatus, "up");
  tunnels.fieldIs(vlan, std::nullopt);
  EXPECT_EQ(tunnels.entity->vtiStatus(IntfId("Vxlan1")), first);
  EXPECT_FALSE(tunnels.fields().contains(vlan));
  tunnels.fieldIs(operStatus, std::nullopt);
  EXPECT_EQ(tunnels.entity->vtiStatus(IntfId("Vxlan1")), nullptr);
  tunnels.everythingIs({});
  EXPECT_THAT(tunnels.fields(), IsEmpty());
}

TEST(EntityContentTest, OnlyWhatIsGoodTogetherIsTaken) {
  const auto levels = [](const char* low, const char* medium, const char* high) {
    return Fields{{"lowThresholdHwUtilPercentage", low},
                  {"mediumThresholdHwUtilPercentage", medium},
                  {"highThresholdHwUtilPercentage", high}};
  };
  Levels config;
  const auto have = [&](const Fields& some) {
    const Fields all = config.fields();
    for (const auto& [field, value] : some) EXPECT_EQ(all.at(field), value) << field;
  };
  for (const auto& next : {levels("10", "20", "30"), levels("70", "80", "90"), levels("71", "72", "73"),
                           levels("5", "75", "99"), levels("1", "2", "3")}) {
    config.everythingIs(next);
    have(next);
    EXPECT_THAT(config.refused, IsEmpty());
  }
  config.fieldIs("lowThresholdHwUtilPercentage", "50");
  EXPECT_THAT(config.refused, ElementsAre(HasSubstr("lowThresholdHwUtilPercentage: ")));
  have(levels("1", "2", "3"));
  EXPECT_EQ(config.content.refusedFields(), 1U);
  config.fieldIs("highThresholdHwUtilPercentage", "90");
  EXPECT_EQ(config.refused.size(), 1U) << "told once";
  config.fieldIs("mediumThresholdHwUtilPercentage", "60");
  have(levels("50", "60", "90"));
  EXPECT_EQ(config.content.refusedFields(), 0U) << "the others have made way";
  EXPECT_EQ(config.refused.size(), 1U);
}

TEST(EntityContentTest, WhatCannotBeIsRefusedByField) {
  Tunnels tunnels;
  tunnels.everythingIs({{operStatus, "up"}});
  const Fields bad{{operStatus, "sideways"},
                   {"vtiStatus[Vxlan1]", "up"},
                   {"vtiStatus[Vxlan1].extendedVlanToVniMap[010]", "10010"},
                   {"vtiStatus[Vxlan1].colour", "red"},
                   {"vtiStatus[Vxlan1", "red"},
                   {"", ""},
                   {"vtiStatus[Vxlan1].extendedVlanToVniMap[10].more", "1"}};
  tunnels.everythingIs(bad);
  EXPECT_EQ(tunnels.refused.size(), bad.size());
  EXPECT_EQ(tunnels.content.refusedFields(), bad.size());
  EXPECT_EQ(tunnels.fields().at(operStatus), "up") << "the last good value";
  tunnels.everythingIs(bad);
  EXPECT_EQ(tunnels.refused.size(), bad.size()) << "told once";
  tunnels.everythingIs({{operStatus, "down"}});
  EXPECT_EQ(tunnels.content.refusedFields(), 0U);
  EXPECT_EQ(tunnels.fields().at(operStatus), "down");
}

TEST(EntityContentTest, OwnFieldsGoTheOtherWay) {
  Followed<RouteCache::Config> config;
  const auto toWrite = [&] {
    Changes changes;
    config.content.outputsBegin();
    while (config.content.outputStep(changes)) {
    }
    for (const auto& [field, value] : changes) config.content.written(field, value);
    return changes;
  };
  ASSERT_TRUE(config.content.hasOutputs());
  config.everythingIs({{"cachingEnabled", "true"}, {"ageingKeepsRoute", "true"}, {"else", "1"}});
  EXPECT_FALSE(config.entity->cachingEnabled()) << "nobody else's to say";
  EXPECT_TRUE(config.entity->ageingKeepsRoute());
  EXPECT_THAT(toWrite(),
              ElementsAre(testing::Pair("cachingEnabled", "false"), testing::Pair("ipv4PrefixHwSpaceLeft", "0")));
  EXPECT_THAT(toWrite(), IsEmpty());
  config.entity->ipv4PrefixHwSpaceLeftIs(7);
  EXPECT_THAT(toWrite(), ElementsAre(testing::Pair("ipv4PrefixHwSpaceLeft", "7")));
  config.everythingIs({});
  EXPECT_EQ(toWrite().size(), 2U) << "the database has lost them";
}

// Against a plain map: readings of everything and of some fields, good ones and dropped ones, with this process' own
// writes at any moment.
class Model {
 public:
  explicit Model(unsigned seed) : random_(seed) {}

  void step() {
    switch (number(7)) {
      case 0:
        return readAll();
      case 1:
        return write(known_);
      default:
        return readSome();
    }
  }
  void checkInvariants() const { tunnels_.content.checkInvariants(); }
  void check() {
    tunnels_.carryOut();
    Fields expected;
    for (const auto& [field, value] : known_) {
      expected[field] = value;
      const std::string child = field.substr(0, field.find("]") + 1);
      for (const auto& [name, unset] :
           Fields{{"", ""}, {".operStatus", "down"}, {".ipv4Addr", "0.0.0.0"}, {".ipv6Addr", "::"}}) {
        expected.try_emplace(child + name, unset);
      }
    }
    ASSERT_EQ(tunnels_.fields(), expected);
    ASSERT_THAT(tunnels_.refused, IsEmpty());
  }
  // A world that has not changed tells nobody.
  void readUnchanged() {
    tunnels_.everythingIs(known_);
    const int before = tunnels_.changes;
    tunnels_.everythingIs(known_);
    ASSERT_EQ(tunnels_.changes, before);
  }

 private:
  std::size_t number(std::size_t below) { return std::uniform_int_distribution<std::size_t>(0, below - 1)(random_); }
  std::string field() {
    const std::string child = "vtiStatus[Vxlan" + std::to_string(1 + number(4)) + "]";
    const std::string fields[] = {"", ".operStatus", ".ipv4Addr", ".extendedVlanToVniMap[1]",
                                  ".extendedVlanToVniMap[2]"};
    return child + fields[number(5)];
  }
  std::optional<std::string> value(const std::string& name) {
    if (number(3) == 0) return std::nullopt;
    if (name.ends_with("operStatus")) return number(2) == 0 ? "up" : "down";
    if (name.ends_with("Addr")) return "192.0.2." + std::to_string(number(4));
    return name.find('.') == std::string::npos ? "" : std::to_string(10 + number(4));
  }
  static void put(Fields& fields, const std::string& name, const std::optional<std::string>& to) {
    if (to) {
      fields[name] = *to;
    } else {
      fields.erase(name);
    }
  }
  // As an operator's change: the entity has it first.
  void write(Fields& database) {
    const std::string name = field();
    if (number(4) == 0) {
      const std::string child = name.substr(0, name.find(']') + 1);
      const auto gone = tunnels_.content.fieldsOf(child);
      tunnels_.entity->vtiStatusDel(IntfId(child.substr(10, 6)));
      for (const auto& each : gone) {
        tunnels_.content.written(each, std::nullopt);
        put(database, each, std::nullopt);
        put(known_, each, std::nullopt);
      }
      return;
    }
    const auto to = value(name);
    if (!to) return;
    const bool isChild = name.find('.') == std::string::npos;
    LinuxPlatform::setField(tunnels_.entity, name, isChild ? std::nullopt : to);
    tunnels_.content.written(name, to);
    put(database, name, to);
    put(known_, name, to);
  }
  void readAll() {
    tunnels_.carryOut();
    Fields database = known_;
    for (std::size_t changes = number(8); changes > 0; --changes) {
      const std::string name = field();
      put(database, name, value(name));
    }
    tunnels_.content.readingBegins(true);
    std::vector<std::pair<std::string, std::string>> pages(database.begin(), database.end());
    std::shuffle(pages.begin(), pages.end(), random_);
    for (const auto& [name, to] : pages) {
      if (number(10) == 0) tunnels_.content.heard(name, value(name).value_or(to));  // twice, by a hash that grows
      tunnels_.content.heard(name, to);
      if (number(20) == 0) write(database);
    }
    if (number(4) == 0) return tunnels_.content.readingIsDropped();
    tunnels_.content.readingEnds();
    known_ = database;
    for (std::size_t steps = number(20); steps > 0; --steps) tunnels_.content.step();
  }
  void readSome() {
    tunnels_.carryOut();
    Fields database = known_;
    tunnels_.content.readingBegins(false);
    Changes some;
    for (std::size_t changes = number(4); changes > 0; --changes) {
      const std::string name = field();
      some[name] = value(name);
      put(database, name, some[name]);
    }
    for (const auto& [name, to] : some) {
      if (number(4) == 0) write(database);
      tunnels_.content.heard(name, to);
    }
    if (number(4) == 0) return tunnels_.content.readingIsDropped();
    tunnels_.content.readingEnds();
    known_ = database;
  }

  std::mt19937 random_;
  Tunnels tunnels_;
  Fields known_;  // what the database holds
};

TEST(EntityContentTest, FollowsAnyReadings) {
  for (unsigned seed = 1; seed <= 50; ++seed) {
    SCOPED_TRACE(seed);
    Model model(seed);
    for (int i = 0; i < 200; ++i) {
      model.step();
      model.checkInvariants();
      if (i % 4 == 0) model.check();
      if (testing::Test::HasFatalFailure()) return;
    }
    model.readUnchanged();
    model.check();
  }
}

}  // namespace
