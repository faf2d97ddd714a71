#include <gmock/gmock.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "lib/statedb/EmbeddedStateDb.h"
#include "lib/statedb/PlatformTypes.h"
#include "lib/tasks/SimulatedScheduler.h"
#include "platform/state/Hardware.h"
#include "platform/state/Vrf.h"

using Lattis::EntityManager;
using Lattis::MountStatus;
using LinuxPlatform::EmbeddedStateDb;
using testing::ElementsAre;

namespace {

class StateDbTest : public testing::Test {
 protected:
  StateDbTest() { LinuxPlatform::addPlatformTypes(types, tables); }

  // Closes a group with these (path, type) mounts; the outcome lies in `status` and `manager` once it is called.
  void mount(const std::vector<std::pair<std::string, std::string>>& requests) {
    const auto group = db.mountGroup();
    for (const auto& [path, type] : requests) group->mount(path, type, "r");
    group->close([this](MountStatus newStatus, std::shared_ptr<EntityManager> newManager) {
      ++completions;
      status = newStatus;
      manager = std::move(newManager);
    });
  }

  Lattis::EntityTypes types;
  Platform::TableTypes tables;
  LinuxPlatform::SimulatedScheduler scheduler;
  EmbeddedStateDb db{types, scheduler};
  int completions = 0;
  MountStatus status = MountStatus::mountFailed;
  std::shared_ptr<EntityManager> manager;
};

TEST_F(StateDbTest, GroupCompletesLaterWithWhatStandsAndWhatIsMadeForIt) {
  const auto hardware = std::make_shared<Routing::Hardware::Status>("placed");
  db.entitiesAre({{"hardware", hardware}});
  mount({{"hardware", "Routing::Hardware::Status"}, {"vrf", "Vrf::VrfIdMap::NameToIdMapWrapper"}});
  EXPECT_EQ(completions, 0) << "never from inside close()";
  scheduler.advance(0);
  ASSERT_EQ(completions, 1);
  EXPECT_EQ(status, Lattis::mountSuccess_);
  EXPECT_EQ(manager->entity("hardware"), hardware);
  EXPECT_NE(manager->get<Vrf::VrfIdMap::NameToIdMap>("vrf"), nullptr);
  EXPECT_EQ(manager->entity("vrf"), db.entity("vrf")) << "one object, whoever looks";
  EXPECT_EQ(manager->entity("elsewhere"), nullptr);
}

TEST_F(StateDbTest, AnotherTypeIsDeliveredAndAnUnknownOneFailsTheGroup) {
  db.entitiesAre({{"hardware", std::make_shared<Routing::Hardware::Status>("placed")}});
  mount({{"hardware", "Vrf::VrfIdMap::NameToIdMapWrapper"}});
  scheduler.advance(0);
  EXPECT_EQ(status, Lattis::mountSuccess_);
  EXPECT_NE(manager->entity("hardware"), nullptr);
  EXPECT_EQ(manager->get<Vrf::VrfIdMap::NameToIdMap>("hardware"), nullptr);

  mount({{"vrf", "Vrf::VrfIdMap::NameToIdMapWrapper"}, {"nothing", "No::Such::Type"}});
  scheduler.advance(0);
  EXPECT_EQ(completions, 2);
  EXPECT_EQ(status, Lattis::mountFailed_);
}

TEST_F(StateDbTest, GroupsCompleteInTheOrderOfTheirClosingEvenFromInsideOne) {
  std::vector<std::string> order;
  const auto close = [&](const std::string& name, std::function<void()> then) {
    db.mountGroup()->close([&order, name, then](MountStatus, const std::shared_ptr<EntityManager>&) {
      order.push_back(name);
      if (then) then();
    });
  };
  close("first", [&] { close("third", nullptr); });
  close("second", nullptr);
  scheduler.advance(0);
  EXPECT_THAT(order, ElementsAre("first", "second", "third"));
}

TEST_F(StateDbTest, LocalEntitiesAreForOperatorsOnly) {
  const auto machine = std::make_shared<Routing::Hardware::Status>("machine");
  db.localEntityIs("agent/Sm", machine);
  db.entitiesAre({{"hardware", std::make_shared<Routing::Hardware::Status>("placed")}});
  EXPECT_THAT(db.paths(), ElementsAre("agent/Sm", "hardware"));
  EXPECT_EQ(db.entity("agent/Sm"), machine);
  mount({{"agent/Sm", "Routing::Hardware::Status"}});
  scheduler.advance(0);
  EXPECT_NE(manager->entity("agent/Sm"), machine);
  EXPECT_EQ(db.entity("agent/Sm"), machine) << "before one that was mounted there";
  db.localEntityIs("agent/Sm", nullptr);
  EXPECT_EQ(db.entity("agent/Sm"), manager->entity("agent/Sm"));
}

}  // namespace
