// Random changes to the texts that come from outside: each is taken or refused with one line, and the agent goes on.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <random>

#include "lib/statedb/EntityFields.h"
#include "lib/statedb/PlatformTypes.h"
#include "lib/statedb/Scenario.h"
#include "linux/control/ControlOperations.h"
#include "test/support/Content.h"
#include "test/support/Peer.h"
#include "test/support/SimulatedSwitch.h"

namespace {

using Json = nlohmann::ordered_json;

class Mutator {
 public:
  Mutator(unsigned seed, std::vector<std::string> texts) : random_(seed), texts_(std::move(texts)) {}
  std::size_t pick(std::size_t below) { return random_() % below; }
  std::string next() {
    std::string text = texts_[pick(texts_.size())];
    for (std::size_t i = pick(5); i > 0; --i) change(text);
    return text;
  }

 private:
  void change(std::string& text) {
    static const std::string words[] = {"-1",  "0",    "4294967296", "1e999", "nan", "inf", "null",    "true",
                                        "{}",  "[",    "]",          "\"",    ".",   "#V",  "#P",      "\\u0000",
                                        "\\n", "\xff", "\n",         "'",     ",",   ":",   "::/0",    "10.0.0.0/33",
                                        "{",   "}",    "[red]",      "red",   "%s",  "all", "default", "Vxlan1"};
    const std::string& other = texts_[pick(texts_.size())];
    const std::size_t at = pick(text.size() + 1);
    switch (pick(6)) {
      case 0:
        text.insert(at, 1, static_cast<char>(pick(256)));
        break;
      case 1:
        text.erase(at, 1 + pick(12));
        break;
      case 2:
        text.replace(at, pick(4), words[pick(std::size(words))]);
        break;
      case 3:
        text.insert(at, text.substr(pick(text.size() + 1), pick(40)));
        break;
      case 4:
        text = text.substr(0, at) + other.substr(pick(other.size() + 1));
        break;
      default:
        if (at < text.size()) text[at] = static_cast<char>(text[at] ^ (1 << pick(8)));
    }
  }

  std::mt19937 random_;
  std::vector<std::string> texts_;
};

bool isOneLine(const std::string& text) {
  return !text.empty() && std::ranges::none_of(text, [](char c) { return c >= 0 && c < ' '; });
}

TEST(FuzzTest, AScenarioIsReadOrRefusedWithOneLine) {
  Lattis::EntityTypes types;
  Platform::TableTypes tables;
  LinuxPlatform::addPlatformTypes(types, tables);
  types.typeIs<RouteCache::CliConfig>("RouteCache::CliConfig");
  auto paths = LinuxPlatform::platformPathTypes();
  paths["routecache/cliconfig"] = "RouteCache::CliConfig";
  Mutator mutator(1, {contentOf(ROUTECACHE_EXAMPLES "/leaf.json"),
                      R"({"interface/status/eth/vxlan": {"vtiStatus": {"Vxlan1": {"operStatus": "up",
                      "ipv4Addr": "10.0.0.1", "extendedVlanToVniMap": {"10": 10010, "11": "none"}}}}})",
                      R"({"routecache/cliconfig": {"lowThresholdHwUtilPercentage": 80, "lowThresholdIdleTime": 600}})",
                      R"({"a/b": {"type": "Routing::Hardware::RouteStatus", "vrfStatus": {"red": {"hwVrfId": 7}}}})",
                      R"({"routing/underlay/route": {"route": {"10.0.0.0/8": 5, "2001:db8::/32": "0x7"}}})"});
  int read = 0, refused = 0;
  for (int i = 0; i < 10'000; ++i) {
    const std::string text = mutator.next();
    SCOPED_TRACE(text);
    try {
      for (const auto& [path, entity] : LinuxPlatform::parseScenario(text, "leaf.json", types, paths)) {
        EXPECT_EQ(entity->fault(), "");
        for (LinuxPlatform::FieldWalk walk(entity, ""); walk.next();) {
        }
      }
      ++read;
    } catch (const LinuxPlatform::ScenarioError& error) {
      EXPECT_THAT(error.what(), testing::StartsWith("leaf.json: "));
      EXPECT_TRUE(isOneLine(error.what())) << error.what();
      ++refused;
    }
    if (HasFailure()) return;
  }
  EXPECT_GT(read, 1000);
  EXPECT_GT(refused, 1000);
}

// An agent at work, and an operator who means it no good.
class OperatorFuzzTest : public testing::Test {
 protected:
  OperatorFuzzTest() {
    sw.hwRouteCaching(true);
    sw.vrf("default", 1, 0);
    sw.vrf("red", 2, 7);
    sw.vti("Vxlan1", "192.0.2.1", "2001:db8::1");
    sw.underlay("10.255.0.0/16", 5);
    sw.via(1, {sw.nexthop("10.255.0.1")});
    for (const char* prefix : {"0.0.0.0/0", "10.0.0.0/8", "10.1.0.0/16", "2001:db8::/32"}) {
      sw.route(prefix, 1, 1);
      sw.route(prefix, 2, 1);
    }
    sw.start();
    sw.advance(10);
    LinuxPlatform::addEntityOperations(control, *sw.stateDb);
    LinuxPlatform::addTaskOperation(control, sw.scheduler);
    LinuxPlatform::addCommandOperation(control, sw.commands);
  }

  // Everything that comes back for these bytes.
  std::string reply(const std::string& bytes) {
    if (!peer || peer->closed) peer = std::make_unique<Peer>(path);
    peer->send(bytes);
    std::string all;
    for (int quiet = 0; quiet < 4 && !peer->closed; ++quiet) {
      loop.runOnce(0);
      const std::string some = peer->receive();
      if (!some.empty()) quiet = 0;
      all += some;
    }
    return all;
  }
  // Whether these are whole replies of the agreed form; how many is added.
  void expectReplies(std::string bytes, bool json, std::size_t& replies) {
    std::string content;
    while (!bytes.empty()) {
      const std::size_t end = bytes.find('\n');
      ASSERT_NE(end, std::string::npos) << bytes;
      const Json line = Json::parse(bytes.substr(0, end), nullptr, false);
      bytes.erase(0, end + 1);
      ASSERT_TRUE(line.is_object());
      if (line.contains("bytes")) {
        const auto count = line["bytes"].get<std::size_t>();
        ASSERT_LE(count, bytes.size());
        content += bytes.substr(0, count);
        bytes.erase(0, count);
      }
      const bool failed = line.contains("error");
      ASSERT_TRUE(!failed || isOneLine(line["error"].get<std::string>())) << line;
      if (!failed && !line.contains("done")) continue;
      ASSERT_TRUE(!json || content.empty() || Json::accept(content)) << content;
      content.clear();
      ++replies;
    }
  }

  SimulatedSwitch sw;
  const std::string path = sw.directory.path() + "/control";
  LinuxPlatform::EventLoop loop;
  LinuxPlatform::ControlSocket control{loop, path};
  std::unique_ptr<Peer> peer;
};

TEST_F(OperatorFuzzTest, EveryRequestIsAnsweredOrCostsTheConnection) {
  Mutator lines(2, {R"({"op": "get"})", R"({"op": "get", "path": "vrf/vrfNameStatus"})", R"({"op": "tasks"})",
                    R"({"op": "get", "path": "agent/routecache/hwRouteSm", "field": "hwSpaceBuffer"})",
                    R"({"op": "del", "path": "vrf/vrfNameStatus", "field": "nameToId[red]"})",
                    R"({"op": "command", "type": "RouteCacheWithFormat", "command": "showRouteCacheSummary#Vall",
                        "format": "json"})"});
  Mutator shows(3, {"showRouteCacheThreshold", "showRouteCacheSummary#Vall", "showRouteCacheVrf#Vred#P10.0.0.0/8",
                    "showRouteCacheVrfV6#Vdefault#P2001:db8::/32", "showRouteCacheVrf#Vred"});
  Mutator fields(4, {"vrf/vrfNameStatus nameToId[red]", "routing/hardware/route/status vrfStatus[red].hwVrfId",
                     "interface/status/eth/vxlan vtiStatus[Vxlan1].extendedVlanToVniMap[10]",
                     "interface/status/eth/vxlan vtiStatus[Vxlan1].ipv4Addr", "interface/status/eth/vxlan vtiStatus",
                     "interface/status/eth/vxlan vtiStatus[Vxlan1].operStatus", "routecache/config ageingKeepsRoute",
                     "routing/underlay/route route[10.255.0.0/16]", "routecache/cliconfig lowThresholdIdleTime",
                     "agent/routecache/hwRouteSm hwSpaceBuffer", "agent/routecache/hwRouteSm enableRouteCache"});
  Mutator values(5, {"1", "7", "10010", "up", "down", "192.0.2.1", "true", "false", "0.5", "none"});
  const char* const ops[] = {"get", "set", "del"};
  std::size_t replies = 0, dropped = 0;
  for (int i = 0; i < 6'000; ++i) {
    std::string request;
    bool json = false;
    if (i % 3 == 0) {
      request = lines.next();
      std::erase(request, '\n');
    } else if (i % 3 == 1) {
      json = lines.pick(2) == 0;
      request = Json({{"op", "command"},
                      {"type", "RouteCacheWithFormat"},
                      {"command", shows.next()},
                      {"format", json ? "json" : "text"}})
                    .dump(-1, ' ', false, Json::error_handler_t::replace);
    } else {
      const std::string place = fields.next();
      const std::size_t blank = std::min(place.find(' '), place.size());
      request = Json({{"op", ops[fields.pick(3)]},
                      {"path", place.substr(0, blank)},
                      {"field", place.substr(std::min(blank + 1, place.size()))},
                      {"value", values.next()}})
                    .dump(-1, ' ', false, Json::error_handler_t::replace);
    }
    SCOPED_TRACE(request);
    const std::size_t before = replies;
    expectReplies(reply(request + "\n"), json, replies);
    ASSERT_EQ(replies - before, peer->closed ? 0U : 1U);
    if (peer->closed) ++dropped;
    if (HasFatalFailure()) return;
    sw.advance(i % 100 == 0 ? 20 : 0.01);  // its invariants hold whatever was set
  }
  EXPECT_EQ(control.statistics()->dropped(), dropped);
  EXPECT_GT(dropped, 100U);
  EXPECT_EQ(reply(R"({"op": "get", "path": "vrf/vrfNameStatus", "field": "none[0]"})"
                  "\n")
                .find("{\"error\":"),
            0U);
}

}  // namespace
