#include <gmock/gmock.h>

#include <map>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "lib/statedb/EmbeddedStateDb.h"
#include "lib/statedb/EntityFields.h"
#include "lib/statedb/PlatformTypes.h"
#include "lib/tasks/SimulatedScheduler.h"
#include "linux/loop/EventLoop.h"
#include "linux/redis/RedisStateDb.h"
#include "platform/state/Hardware.h"
#include "platform/state/Vrf.h"
#include "platform/state/Vxlan.h"
#include "test/support/RedisServer.h"

using Lattis::Entity;
using Lattis::EntityManager;
using Lattis::MountStatus;
using Routing::Hardware::RouteStatus;
using testing::ElementsAre;
using testing::IsEmpty;
using NameToIdMap = Vrf::VrfIdMap::NameToIdMapWrapper;

namespace {

// The promises of the state database's interface, put to every implementation. A driver makes one over these types,
// lets it finish what it is at, and is somebody else who changes a field; nothing: it goes.
struct Embedded {
  explicit Embedded(const Lattis::EntityTypes& types) : db(types, scheduler) {}
  void settle() { scheduler.advance(0); }
  void otherSets(const std::string& path, const std::string& field, const std::optional<std::string>& value) {
    if (value) {
      const bool isChild = value->empty();
      db.fieldIs(path, field, isChild ? std::nullopt : value);
    } else {
      db.fieldDel(path, field);
    }
  }
  LinuxPlatform::SimulatedScheduler scheduler;
  LinuxPlatform::EmbeddedStateDb db;
};

struct InRedis {
  explicit InRedis(const Lattis::EntityTypes& types) : db(types, loop, settings(server.address())) {
    loop.stopOnSignals();
    server.ask("SET leaf|complete 1");
    settle();
  }
  static LinuxPlatform::RedisStateDbSettings settings(const std::string& address) {
    LinuxPlatform::RedisStateDbSettings all;
    all.address = LinuxPlatform::parseRedisAddress(address);
    all.switchName = "leaf";
    all.notice = [](const std::string&) {};
    return all;
  }
  void settle() {
    server.ask("PING");  // with its answer, what was published before is in this process' socket
    for (int turns = 0; turns < 10 || !db.mirror().isSettled(); ++turns) loop.runOnce(turns < 10 ? 0 : 0.01);
  }
  void otherSets(const std::string& path, const std::string& field, const std::optional<std::string>& value) const {
    if (value) {
      server.command({"HSET", "leaf|" + path, field, *value});
    } else {
      for (const auto& [name, old] : server.hash("leaf|" + path)) {
        if (name == field || name.starts_with(field + ".")) server.command({"HDEL", "leaf|" + path, name});
      }
    }
    server.command({"PUBLISH", "leaf", path});
  }
  RedisServer server;
  LinuxPlatform::EventLoop loop;
  LinuxPlatform::RedisStateDb db;
};

// Whose fault() is the only one to say what its value must not be.
class Limits final : public Entity {
 public:
  using Entity::Entity;
  std::uint32_t low() const { return low_; }
  void lowIs(std::uint32_t low) { low_ = low; }
  std::string fault() const override { return low_ > 10 ? "low is above 10" : ""; }
  const Lattis::EntityType& entityType() const override {
    static const Lattis::EntityType type{"Limits",
                                         {Lattis::attributeField<Limits, &Limits::low, &Limits::lowIs>("low"),
                                          Lattis::readOnlyField<Limits, &Limits::low>("twin")},
                                         {}};
    return type;
  }

 private:
  std::uint32_t low_ = 1;
};

template <class Driver>
class StateDbTest : public testing::Test {
 protected:
  StateDbTest() {
    Platform::TableTypes tables;
    LinuxPlatform::addPlatformTypes(types, tables);
    types.typeIs<Limits>("Limits");
  }
  struct Request {
    std::string path, type, mode = "r";
  };
  // What comes of a group with these mounts; `completions` counts the answers.
  std::shared_ptr<EntityManager> mounted(const std::vector<Request>& requests) {
    const auto group = db.mountGroup();
    for (const auto& [path, type, mode] : requests) group->mount(path, type, mode);
    std::shared_ptr<EntityManager> manager;
    group->close([&](MountStatus newStatus, std::shared_ptr<EntityManager> newManager) {
      ++completions;
      status = newStatus;
      manager = std::move(newManager);
    });
    EXPECT_EQ(manager, nullptr) << "never from inside close()";
    driver.settle();
    return manager;
  }

  Lattis::EntityTypes types;
  Driver driver{types};
  Lattis::StateDb& db = driver.db;
  int completions = 0;
  MountStatus status = MountStatus::mountFailed;
};
template <class Driver>
using StateDbDeathTest = StateDbTest<Driver>;

using Databases = testing::Types<Embedded, InRedis>;
TYPED_TEST_SUITE(StateDbTest, Databases);
TYPED_TEST_SUITE(StateDbDeathTest, Databases);

TYPED_TEST(StateDbTest, GroupCompletesLaterWithWhatStandsAndWhatIsMadeForIt) {
  const auto placed = std::make_shared<Limits>("placed");
  this->db.entitiesAre({{"limits", placed}});
  const auto manager = this->mounted({{"limits", "Limits"},
                                      {"names", "Vrf::VrfIdMap::NameToIdMapWrapper", "rS"},
                                      {"vrfs", "Routing::Hardware::RouteStatus", "w"},
                                      {"more", "Limits", "wS"}});
  ASSERT_EQ(this->completions, 1);
  EXPECT_EQ(this->status, Lattis::mountSuccess_);
  EXPECT_EQ(manager->entity("limits"), placed);
  EXPECT_NE(manager->template get<NameToIdMap>("names"), nullptr);
  EXPECT_NE(manager->template get<RouteStatus>("vrfs"), nullptr);
  EXPECT_NE(manager->template get<Limits>("more"), nullptr);
  EXPECT_EQ(manager->entity("elsewhere"), nullptr);
  for (const std::string path : {"limits", "more", "names", "vrfs"}) {
    EXPECT_EQ(manager->entity(path), this->db.entity(path)) << "one object, whoever looks";
  }
  EXPECT_THAT(this->db.paths(), ElementsAre("limits", "more", "names", "vrfs"));
  EXPECT_EQ(this->mounted({{"vrfs", "Routing::Hardware::RouteStatus"}})->entity("vrfs"), manager->entity("vrfs"));
  EXPECT_NE(this->mounted({}), nullptr);
}

TYPED_TEST(StateDbTest, AnotherTypeIsDeliveredAndAnUnknownOneFailsTheGroup) {
  this->db.entitiesAre({{"limits", std::make_shared<Limits>("placed")}});
  auto manager = this->mounted({{"limits", "Vrf::VrfIdMap::NameToIdMapWrapper"}});
  EXPECT_EQ(this->status, Lattis::mountSuccess_);
  EXPECT_NE(manager->entity("limits"), nullptr);
  EXPECT_EQ(manager->template get<NameToIdMap>("limits"), nullptr);

  this->mounted({{"names", "Vrf::VrfIdMap::NameToIdMapWrapper"}, {"nothing", "No::Such::Type"}});
  EXPECT_EQ(this->completions, 2);
  EXPECT_EQ(this->status, Lattis::mountFailed_);
  EXPECT_EQ(this->db.entityOrNew("nothing", "No::Such::Type"), nullptr);
  EXPECT_EQ(this->db.entity("nothing"), nullptr);
}

TYPED_TEST(StateDbTest, WhatIsPutInReplacesForLaterMountsOnly) {
  const auto first = this->db.entityOrNew("limits", "Limits");
  EXPECT_EQ(this->db.entityOrNew("limits", "Limits"), first);
  const auto manager = this->mounted({{"limits", "Limits"}});
  const auto second = std::make_shared<Limits>("second");
  this->db.entitiesAre({{"limits", second}, {"names", std::make_shared<NameToIdMap>("names")}});
  EXPECT_EQ(manager->entity("limits"), first);
  EXPECT_EQ(this->mounted({{"limits", "Limits"}})->entity("limits"), second);
  EXPECT_THAT(this->db.paths(), ElementsAre("limits", "names"));
}

TYPED_TEST(StateDbTest, LocalEntitiesAreForOperatorsOnly) {
  const auto machine = std::make_shared<Limits>("machine");
  this->db.localEntityIs("agent/Sm", machine);
  this->db.entitiesAre({{"limits", std::make_shared<Limits>("placed")}});
  EXPECT_THAT(this->db.paths(), ElementsAre("agent/Sm", "limits"));
  EXPECT_EQ(this->db.entity("agent/Sm"), machine);
  const auto manager = this->mounted({{"agent/Sm", "Limits"}});
  const auto mounted = manager->template get<Limits>("agent/Sm");
  EXPECT_NE(mounted, machine);
  EXPECT_EQ(this->db.entity("agent/Sm"), machine) << "before one that was mounted there";
  this->db.fieldIs("agent/Sm", "low", "7");
  EXPECT_EQ(machine->low(), 7U);
  EXPECT_EQ(mounted->low(), 1U);
  this->db.localEntityIs("agent/Sm", nullptr);
  EXPECT_EQ(this->db.entity("agent/Sm"), mounted);
}

TYPED_TEST(StateDbTest, ChangesByTextReachWhoHasMounted) {
  struct Names final : NameToIdMap::Reactor {
    using NameToIdMap::Reactor::Reactor;
    void handleNameToId(const std::string& name) override { told.push_back(name); }
    std::vector<std::string> told;
  };
  struct Vrfs final : RouteStatus::Reactor {
    using RouteStatus::Reactor::Reactor;
    void handleVrfStatus(const L3::VrfName& name) override { told.push_back(Platform::toText(name)); }
    std::vector<std::string> told;
  };
  const auto manager =
      this->mounted({{"names", "Vrf::VrfIdMap::NameToIdMapWrapper"}, {"vrfs", "Routing::Hardware::RouteStatus"}});
  const auto vrfs = manager->template get<RouteStatus>("vrfs");
  const auto names = manager->template get<NameToIdMap>("names");
  const Vrfs vrfReactor(vrfs);
  const Names nameReactor(names);
  this->db.fieldIs("names", "nameToId[red]", "2");
  this->db.fieldIs("names", "nameToId[red]", "2");
  this->db.fieldIs("vrfs", "vrfStatus[red]", std::nullopt);
  this->db.fieldIs("vrfs", "vrfStatus[blue].hwVrfId", "7");  // made on the way
  this->driver.settle();
  EXPECT_EQ(names->nameToId("red"), 2U);
  EXPECT_EQ(vrfs->vrfStatus("red")->hwVrfId(), 0U);
  EXPECT_EQ(vrfs->vrfStatus("blue")->hwVrfId(), 7U);
  this->db.fieldDel("names", "nameToId[red]");
  this->db.fieldDel("vrfs", "vrfStatus[red]");
  this->driver.settle();
  EXPECT_EQ(vrfs->vrfStatus("red"), nullptr);
  EXPECT_THAT(nameReactor.told, ElementsAre("red", "red")) << "nobody is told of a value that stands already";
  EXPECT_THAT(vrfReactor.told, ElementsAre("red", "blue", "red"));
}

TYPED_TEST(StateDbTest, WhatIsRefusedChangesNothing) {
  const auto manager = this->mounted({{"limits", "Limits"}, {"vrfs", "Routing::Hardware::RouteStatus"}});
  const struct {
    const char *what, *path, *field, *value;
  } cases[] = {
      {"no such path", "nowhere", "low", "2"},
      {"no such field", "limits", "high", "2"},
      {"a bad value", "limits", "low", "two"},
      {"values that do not go together", "limits", "low", "11"},
      {"for reading only", "limits", "twin", "2"},
      {"no field", "vrfs", "vrfStatus[red", "2"},
      {"a child is no value", "vrfs", "vrfStatus[red]", "2"},
      {"the child on the way goes again", "vrfs", "vrfStatus[red].hwVrfId", "two"},
  };
  for (const auto& c : cases) EXPECT_ANY_THROW(this->db.fieldIs(c.path, c.field, c.value)) << c.what;
  EXPECT_ANY_THROW(this->db.fieldDel("nowhere", "low"));
  EXPECT_ANY_THROW(this->db.fieldDel("limits", "low")) << "attributes stay";
  EXPECT_ANY_THROW(this->db.fieldDel("vrfs", "vrfStatus[red]")) << "there is none";
  this->driver.settle();
  EXPECT_EQ(manager->template get<Limits>("limits")->low(), 1U);
  EXPECT_THAT(manager->template get<RouteStatus>("vrfs")->vrfStatus(), IsEmpty());
  EXPECT_THAT(this->db.paths(), ElementsAre("limits", "vrfs"));
}

using Fields = std::map<std::string, std::string>;

Fields fieldsOf(const std::shared_ptr<Entity>& entity) {
  Fields fields;
  LinuxPlatform::FieldWalk walk(entity, "");
  while (const auto item = walk.next()) fields[item->field] = item->value.value_or("");
  return fields;
}

TYPED_TEST(StateDbTest, EveryKindOfFieldIsChangedByAnybody) {
  const std::string path = "interface/status/eth/vxlan";
  const auto manager = this->mounted({{path, "Vxlan::VtiStatusDir"}, {"limits", "Limits", "w"}});
  const auto interfaces = manager->entity(path);
  const Fields made{{"vtiStatus[Vxlan1]", ""},
                    {"vtiStatus[Vxlan1].operStatus", "up"},
                    {"vtiStatus[Vxlan1].ipv4Addr", "192.0.2.1"},
                    {"vtiStatus[Vxlan1].ipv6Addr", "::"},
                    {"vtiStatus[Vxlan1].extendedVlanToVniMap[10]", "10010"},
                    {"vtiStatus[Vxlan2]", ""},
                    {"vtiStatus[Vxlan2].operStatus", "down"},
                    {"vtiStatus[Vxlan2].ipv4Addr", "0.0.0.0"},
                    {"vtiStatus[Vxlan2].ipv6Addr", "::"}};
  for (const char* field : {"vtiStatus[Vxlan1].operStatus", "vtiStatus[Vxlan1].ipv4Addr", "vtiStatus[Vxlan2]",
                            "vtiStatus[Vxlan1].extendedVlanToVniMap[10]"}) {
    this->driver.otherSets(path, field, made.at(field));
    this->driver.settle();
  }
  EXPECT_EQ(fieldsOf(interfaces), made);
  this->db.fieldDel(path, "vtiStatus[Vxlan1].extendedVlanToVniMap[10]");
  this->driver.otherSets(path, "vtiStatus[Vxlan2]", std::nullopt);
  this->driver.settle();
  EXPECT_EQ(fieldsOf(interfaces).size(), 4U);
  this->db.fieldIs(path, "vtiStatus[Vxlan2]", std::nullopt);
  this->driver.settle();
  this->driver.otherSets(path, "vtiStatus[Vxlan1]", std::nullopt);
  this->driver.settle();
  EXPECT_EQ(fieldsOf(interfaces).size(), 4U);
  this->db.fieldDel(path, "vtiStatus[Vxlan2]");
  this->driver.settle();
  EXPECT_THAT(fieldsOf(interfaces), IsEmpty());

  this->driver.otherSets("limits", "low", "7");
  this->driver.settle();
  EXPECT_EQ(manager->template get<Limits>("limits")->low(), 7U);
}

TYPED_TEST(StateDbTest, TwoWritersEndWithWhatWasWrittenLast) {
  const auto names = this->mounted({{"names", "Vrf::VrfIdMap::NameToIdMapWrapper"}})->entity("names");
  std::mt19937 random(1);
  const auto pick = [&random](std::size_t below) { return random() % below; };
  Fields expected;
  for (int round = 0; round < 40; ++round) {
    // Each of them twice in a row, before anybody has heard of the other.
    for (int change = 0; change < 10; ++change) {
      const std::string field = "nameToId[vrf" + std::to_string(pick(8)) + "]";
      const bool goes = expected.contains(field) && pick(3) == 0;
      const auto value = goes ? std::nullopt : std::optional(std::to_string(1 + pick(100)));
      if (pick(2) == 0) {
        this->driver.otherSets("names", field, value);
      } else if (fieldsOf(names).contains(field) || value) {
        value ? this->db.fieldIs("names", field, value) : this->db.fieldDel("names", field);
        this->driver.settle();
      } else {
        continue;  // it has not come yet
      }
      if (value) {
        expected[field] = *value;
      } else {
        expected.erase(field);
      }
    }
    this->driver.settle();
    ASSERT_EQ(fieldsOf(names), expected);
  }
}

TYPED_TEST(StateDbDeathTest, MisuseOfAGroup) {
  const auto group = this->db.mountGroup();
  EXPECT_DEATH(group->mount("limits", "Limits", "rw"), "assertion failed");
  group->close([](MountStatus, const auto&) {});
  EXPECT_DEATH(group->mount("limits", "Limits", "r"), "assertion failed");
}

// Who starts two agents here may count on more than the interface says.
TEST(EmbeddedStateDbTest, GroupsCompleteInTheOrderOfTheirClosingEvenFromInsideOne) {
  const Lattis::EntityTypes types;
  Embedded embedded(types);
  std::vector<std::string> order;
  const auto close = [&](const std::string& name, std::function<void()> then) {
    embedded.db.mountGroup()->close([&order, name, then](MountStatus, const std::shared_ptr<EntityManager>&) {
      order.push_back(name);
      if (then) then();
    });
  };
  close("first", [&] { close("third", nullptr); });
  close("second", nullptr);
  embedded.settle();
  EXPECT_THAT(order, ElementsAre("first", "second", "third"));
}

}  // namespace
