#include <gmock/gmock.h>

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "RouteCache/model/Capability.h"
#include "RouteCache/model/CliConfig.h"
#include "RouteCache/model/Config.h"
#include "lib/statedb/EntityFields.h"
#include "lib/statedb/PlatformTypes.h"
#include "lib/statedb/Scenario.h"
#include "lib/statedb/ScenarioText.h"
#include "platform/state/Hardware.h"
#include "platform/state/Nexthop.h"
#include "platform/state/Vrf.h"
#include "platform/state/Vxlan.h"

using LinuxPlatform::ScenarioError;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

class ScenarioTest : public testing::Test {
 protected:
  ScenarioTest() {
    Platform::TableTypes tables;
    LinuxPlatform::addPlatformTypes(types, tables);
    types.typeIs<RouteCache::CliConfig>("RouteCache::CliConfig");
    paths["routecache/cliconfig"] = "RouteCache::CliConfig";
  }
  Lattis::Entities parse(const std::string& text) const {
    return LinuxPlatform::parseScenario(text, "leaf.json", types, paths);
  }
  std::string complaint(const std::string& text) const {
    try {
      parse(text);
    } catch (const ScenarioError& error) {
      return error.what();
    }
    return "(none)";
  }

  Lattis::EntityTypes types;
  LinuxPlatform::PathTypes paths = LinuxPlatform::platformPathTypes();
};

TEST_F(ScenarioTest, FillsAttributesCollectionsAndChildren) {
  const auto entities = parse(R"({
    "routing/hardware/status": {"hwRouteCachingEnabled": true},
    "vrf/vrfNameStatus": {"nameToId": {"default": 1, "red": "2"}},
    "interface/status/eth/vxlan": {"vtiStatus": {"Vxlan1": {
        "operStatus": "up", "ipv4Addr": "10.0.0.1", "extendedVlanToVniMap": {"10": 10010, "11": "none"}}}},
    "routing/underlay/route": {"route": {"10.0.0.0/8": 5, "2001:db8::/32": "0x7"}},
    "somewhere/else": {"type": "Routing::Hardware::RouteStatus", "vrfStatus": {"red": {"hwVrfId": 7}, "blue": {}}}
  })");
  const auto get = [&]<class T>(const char* path) { return std::dynamic_pointer_cast<T>(entities.at(path)); };
  EXPECT_TRUE(get.operator()<Routing::Hardware::Status>("routing/hardware/status")->hwRouteCachingEnabled());
  EXPECT_EQ(get.operator()<Vrf::VrfIdMap::NameToIdMap>("vrf/vrfNameStatus")->nameToId("red"), 2U);
  const auto vti = get.operator()<Vxlan::VtiStatusDir>("interface/status/eth/vxlan")->vtiStatus(IntfId("Vxlan1"));
  EXPECT_EQ(vti->operStatus(), Vxlan::OperStatus::up);
  EXPECT_EQ(vti->extendedVlanToVniMap().at(10), Vxlan::Vni(10010));
  EXPECT_FALSE(vti->extendedVlanToVniMap().at(11).isPresent());
  const auto underlay = get.operator()<Routing::UnderlayRouteConfig>("routing/underlay/route");
  EXPECT_EQ(underlay->longestMatch(Platform::fromText<IpGenAddr>("2001:db8::9")), Fib::FecId(7));
  const auto vrfs = get.operator()<Routing::Hardware::RouteStatus>("somewhere/else");
  EXPECT_EQ(vrfs->vrfStatus("red")->hwVrfId(), 7U);
  EXPECT_NE(vrfs->vrfStatus("blue"), nullptr);
}

TEST_F(ScenarioTest, EntitiesBecomeAScenarioThatMakesThemAgain) {
  const auto textOf = [](const Lattis::Entities& entities) {
    LinuxPlatform::ScenarioText scenario(entities);
    std::string text;
    while (scenario.step(text)) {
    }
    return text;
  };
  const std::string text = R"({
    "routecache/cliconfig": {"lowThresholdHwUtilPercentage": 10},
    "vrf/vrfNameStatus": {"nameToId": {"default": 1, "a \"b\" \\ c[1]] \u00e9\n": 2}},
    "interface/status/eth/vxlan": {"vtiStatus": {"Vxlan1": {
        "operStatus": "up", "ipv4Addr": "10.0.0.1", "extendedVlanToVniMap": {"10": 10010, "11": "none"}}, "Vxlan2": {}}},
    "routing/underlay/route": {},
    "somewhere/else": {"type": "Routing::Hardware::RouteStatus", "vrfStatus": {"red": {"hwVrfId": 7}, "blue": {}}}
  })";
  const std::string made = textOf(parse(text));
  EXPECT_EQ(textOf(parse(made)), made);
  for (const char* part : {R"("lowThresholdHwUtilPercentage": "10")", R"("a \"b\" \\ c[1]] é\n": "2")",
                           R"("11": "none")", R"("hwVrfId": "7")", R"("blue": {)", R"("routing/underlay/route": {)"}) {
    EXPECT_THAT(made, HasSubstr(part));
  }
  EXPECT_EQ(textOf({}), "{}\n");
  EXPECT_EQ(textOf(parse("{}")), "{}\n");
}

TEST_F(ScenarioTest, BadOnesAreOneLineThatSaysWhere) {
  const struct {
    const char* what;
    const char* text;
    const char* start;
    const char* reason;
  } cases[] = {
      {"not JSON", "{\n  \"a\": {},\n  oops\n}", "leaf.json: line 3: ", "invalid literal"},
      {"cut off", "{\"vrf/vrfNameStatus\": {", "leaf.json: line 1: ", "unexpected end of input"},
      {"not an object", "[]", "leaf.json: ", "an object of mount paths is wanted"},
      {"the same path twice", R"({"vrf/vrfNameStatus": {}, "vrf/vrfNameStatus": {}})",
       "leaf.json: ", "'vrf/vrfNameStatus' stands twice"},
      {"unknown path", R"({"no/such/path": {}})", "leaf.json: no/such/path: ", "nothing is known of this path"},
      {"another type than stands here", R"({"vrf/vrfNameStatus": {"type": "RouteCache::CliConfig"}})",
       "leaf.json: vrf/vrfNameStatus.type: ", "always a Vrf::VrfIdMap::NameToIdMapWrapper"},
      {"a name that ends early", R"({"routing/hardware/route/status": {"vrfStatus": {"a\u0000b": {}}}})",
       "leaf.json: routing/hardware/route/status.vrfStatus[a", "is not a VRF name"},
      {"unknown type", R"({"no/such/path": {"type": "T"}})", "leaf.json: no/such/path: ", "no type is named 'T'"},
      {"entity that is no object", R"({"vrf/vrfNameStatus": 1})", "leaf.json: vrf/vrfNameStatus: ", "object of fields"},
      {"unknown field", R"({"vrf/vrfNameStatus": {"names": {}}})",
       "leaf.json: vrf/vrfNameStatus: ", "has no field 'names'"},
      {"unknown field of a child", R"({"interface/status/eth/vxlan": {"vtiStatus": {"Vxlan1": {"mtu": 1}}}})",
       "leaf.json: interface/status/eth/vxlan.vtiStatus[Vxlan1]: ", "has no field 'mtu'"},
      {"bad attribute", R"({"interface/status/eth/vxlan": {"vtiStatus": {"Vxlan1": {"ipv4Addr": "10.0.0"}}}})",
       "leaf.json: interface/status/eth/vxlan.vtiStatus[Vxlan1].ipv4Addr: ", "'10.0.0' is not"},
      {"bad key", R"({"routing/underlay/route": {"route": {"10.0.0.0/33": 5}}})",
       "leaf.json: routing/underlay/route.route[10.0.0.0/33]: ", "'10.0.0.0/33' is not"},
      {"bad child key", R"({"interface/status/eth/vxlan": {"vtiStatus": {"a very long name": {}}}})",
       "leaf.json: interface/status/eth/vxlan.vtiStatus[a very long name]: ", "is not"},
      {"one key in two spellings", R"({"routing/underlay/route": {"route": {"10.0.0.0/8": 5, "10.1.2.3/8": 6}}})",
       "leaf.json: routing/underlay/route.route[10.1.2.3/8]: ", "stands here twice"},
      {"out of range", R"({"vrf/vrfNameStatus": {"nameToId": {"red": -1}}})",
       "leaf.json: vrf/vrfNameStatus.nameToId[red]: ", "'-1' is not a number of 32 bits"},
      {"null", R"({"vrf/vrfNameStatus": {"nameToId": {"red": null}}})",
       "leaf.json: vrf/vrfNameStatus.nameToId[red]: ", "a text, a number, true or false"},
      {"value where a child is wanted", R"({"interface/status/eth/vxlan": {"vtiStatus": {"Vxlan1": "up"}}})",
       "leaf.json: interface/status/eth/vxlan.vtiStatus[Vxlan1]: ", "an object of fields"},
      {"values that do not go together", R"({"routecache/cliconfig": {"lowThresholdHwUtilPercentage": 99}})",
       "leaf.json: routecache/cliconfig: ", ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const std::string complaintText = complaint(c.text);
    EXPECT_THAT(complaintText, StartsWith(c.start));
    EXPECT_THAT(complaintText, HasSubstr(c.reason));
    EXPECT_EQ(complaintText.find('\n'), std::string::npos);
  }
}

TEST_F(ScenarioTest, FaultIsAskedWhenAllOfTheEntityIsThere) {
  EXPECT_EQ(complaint(R"({"routecache/cliconfig": {"lowThresholdHwUtilPercentage": 96,
      "mediumThresholdHwUtilPercentage": 97, "highThresholdHwUtilPercentage": 98}})"),
            "(none)");
}

// --- Fields by text --------------------------------------------------------------------------------------------------

// What is told of an entry can be asked for, whatever its key is.
TEST(EntityFieldsTest, EveryKeyHasAFieldOfItsOwn) {
  const auto names = std::make_shared<Vrf::VrfIdMap::NameToIdMap>("names");
  const std::vector<std::string> keys{"",    "[",  "[[a]", "[x]y]",  "\\",  "\\[",  "]",
                                      "a.b", "a[", "a[b",  "a[b].c", "a]b", "a]b[", "a.b/c[1].d"};
  std::set<std::string> fields;
  for (const auto& key : keys) {
    const std::string field = LinuxPlatform::entryField("nameToId", key);
    EXPECT_TRUE(fields.insert(field).second) << field;
    LinuxPlatform::setField(names, field, "5");
    EXPECT_EQ(names->nameToId(key), 5U) << field;
    EXPECT_EQ(LinuxPlatform::parseField(field + ".x").front().key, key);
  }
  LinuxPlatform::FieldWalk walk(names, "");
  while (const auto item = walk.next()) EXPECT_EQ(fields.erase(item->field), 1U) << item->field;
  EXPECT_TRUE(fields.empty());
  for (const char* odd : {"nameToId[a[b]", "nameToId[a]b]", "nameToId[a\\]", "nameToId[a\\"}) {
    EXPECT_THROW(LinuxPlatform::parseField(odd), Platform::BadText) << odd;
  }
}

}  // namespace
