#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "RouteCache/model/CliConfig.h"
#include "lib/statedb/EmbeddedStateDb.h"
#include "lib/statedb/PlatformTypes.h"
#include "linux/control/ControlClient.h"
#include "linux/control/ControlOperations.h"
#include "linux/control/ControlSocket.h"
#include "linux/files/RunDirectory.h"
#include "platform/state/Nexthop.h"
#include "platform/state/Vxlan.h"
#include "test/support/Eventually.h"
#include "test/support/OtherUser.h"
#include "test/support/Peer.h"
#include "test/support/TemporaryDirectory.h"

using LinuxPlatform::ControlReply;
using LinuxPlatform::ControlSocket;
using testing::HasSubstr;

namespace {

class ControlSocketTest : public testing::Test {
 protected:
  ControlSocketTest() {
    LinuxPlatform::addPlatformTypes(types, tables);
    types.typeIs<RouteCache::CliConfig>("RouteCache::CliConfig");
    LinuxPlatform::addEntityOperations(control, db);
    LinuxPlatform::addTaskOperation(control, loop);
    vtis = std::dynamic_pointer_cast<Vxlan::VtiStatusDir>(db.entityOrNew("vxlan", "Vxlan::VtiStatusDir"));
  }
  void turn(int times = 8) {
    for (int i = 0; i < times; ++i) loop.runOnce(0);
  }
  // The whole reply to one request.
  std::string ask(const std::string& request) {
    Peer peer(path);
    peer.send(request + "\n");
    turn();
    return peer.receive();
  }
  std::string set(const std::string& field, const std::string& value) {
    return ask(R"({"op": "set", "path": "vxlan", "field": ")" + field + R"(", "value": ")" + value + R"("})");
  }
  std::string get(const std::string& field) {
    return ask(R"({"op": "get", "path": "vxlan", "field": ")" + field + R"("})");
  }

  // An operation that is answered by calling this as long as it says that there is more.
  static void replyIs(ControlSocket& socket, const std::string& op, const std::function<bool(std::string&)>& produce) {
    class Reply final : public ControlReply {
     public:
      explicit Reply(std::function<bool(std::string&)> produce) : produce_(std::move(produce)) {}
      bool produce(std::string& lines) override { return produce_(lines); }

     private:
      std::function<bool(std::string&)> produce_;
    };
    socket.opIs(op, ControlSocket::Access::ask, [produce](const auto&) { return std::make_unique<Reply>(produce); });
  }
  static bool addPiece(std::string& lines, int& pieces) {
    ++pieces;
    lines += std::string(1000, 'x') + "\n";
    return true;
  }

  const TemporaryDirectory directory;
  const std::string path = LinuxPlatform::RunDirectory::controlPath(directory.path());
  Lattis::EntityTypes types;
  Platform::TableTypes tables;
  LinuxPlatform::EventLoop loop{60};  // no slice ends by itself, however slow the machine
  LinuxPlatform::EmbeddedStateDb db{types, loop};
  ControlSocket control{loop, path};
  std::shared_ptr<Vxlan::VtiStatusDir> vtis;
};

constexpr const char* done = "{\"done\":true}\n";

TEST_F(ControlSocketTest, FieldsAreSetReadAndDeletedAtAnyDepth) {
  EXPECT_EQ(set("vtiStatus[Vxlan1].operStatus", "up"), done) << "children on the way are made";
  EXPECT_EQ(set("vtiStatus[Vxlan1].extendedVlanToVniMap[10]", "10010"), done);
  EXPECT_EQ(ask(R"({"op": "set", "path": "vxlan", "field": "vtiStatus[Vxlan2]"})"), done);
  EXPECT_EQ(vtis->vtiStatus(IntfId("Vxlan1"))->extendedVlanToVniMap().at(10), Vxlan::Vni(10010));

  EXPECT_EQ(get("vtiStatus[Vxlan1].operStatus"),
            std::string("{\"field\":\"vtiStatus[Vxlan1].operStatus\",\"value\":\"up\"}\n") + done);
  EXPECT_THAT(get("vtiStatus[Vxlan1].extendedVlanToVniMap"),
              HasSubstr(R"({"field":"vtiStatus[Vxlan1].extendedVlanToVniMap[10]","value":"10010"})"));
  const std::string all = ask(R"({"op": "get", "path": "vxlan"})");
  EXPECT_THAT(all, HasSubstr(R"({"field":"vtiStatus[Vxlan1].extendedVlanToVniMap[10]","value":"10010"})"));
  EXPECT_THAT(all, HasSubstr("{\"field\":\"vtiStatus[Vxlan2]\"}\n"));
  EXPECT_THAT(ask(R"({"op": "get"})"), HasSubstr(R"({"path":"vxlan","type":"Vxlan::VtiStatusDir"})"));

  EXPECT_EQ(ask(R"({"op": "del", "path": "vxlan", "field": "vtiStatus[Vxlan1].extendedVlanToVniMap[10]"})"), done);
  EXPECT_TRUE(vtis->vtiStatus(IntfId("Vxlan1"))->extendedVlanToVniMap().empty());
  EXPECT_THAT(ask(R"({"op": "tasks"})"), HasSubstr("\"name\":\"controlAcceptTask\",\"priority\":\"1\""));

  // Keys end at their own bracket, whatever they hold.
  db.entityOrNew("names", "Vrf::VrfIdMap::NameToIdMapWrapper");
  EXPECT_EQ(ask(R"({"op": "set", "path": "names", "field": "nameToId[a.b/c[1].d]", "value": 5})"), done);
  EXPECT_THAT(ask(R"({"op": "get", "path": "names"})"), HasSubstr(R"("nameToId[a.b/c[1].d]","value":"5")"));
}

TEST_F(ControlSocketTest, WhatCannotBeDoneIsOneErrorAndNoChange) {
  const auto config = db.entityOrNew("config", "RouteCache::CliConfig");
  const struct {
    const char* what;
    const char* request;
    const char* error;
  } cases[] = {
      {"unknown operation", R"({"op": "mow"})", "'mow'"},
      {"unknown path", R"({"op": "get", "path": "nowhere"})", "'nowhere'"},
      {"unknown field", R"({"op": "get", "path": "vxlan", "field": "mtu"})", "vxlan mtu: Vxlan::VtiStatusDir has no"},
      {"no field to set", R"({"op": "set", "path": "vxlan"})", "set wants a field"},
      {"no field at all", R"({"op": "get", "path": "vxlan", "field": "vtiStatus[Vxlan1"})", "is not a field"},
      {"no such entry", R"({"op": "get", "path": "vxlan", "field": "vtiStatus[Vxlan9]"})", "no entry"},
      {"a bad value, the child on the way goes again",
       R"({"op": "set", "path": "vxlan", "field": "vtiStatus[Vxlan9].operStatus", "value": "sideways"})", "sideways"},
      {"a collection wants a key", R"({"op": "set", "path": "vxlan", "field": "vtiStatus", "value": "1"})", "[KEY]"},
      {"an attribute has no entries", R"({"op": "del", "path": "config", "field": "lowThresholdIdleTime[1]"})",
       "no entries"},
      {"an attribute cannot be deleted", R"({"op": "del", "path": "config", "field": "lowThresholdIdleTime"})",
       "cannot be deleted"},
      {"values that do not go together are put back",
       R"({"op": "set", "path": "config", "field": "lowThresholdHwUtilPercentage", "value": 99})", "config lowThres"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const std::string reply = ask(c.request);
    EXPECT_THAT(reply, testing::StartsWith("{\"error\":"));
    EXPECT_THAT(reply, HasSubstr(c.error));
    EXPECT_EQ(reply.find('\n'), reply.size() - 1);
  }
  EXPECT_TRUE(vtis->vtiStatus().empty());
  EXPECT_EQ(std::dynamic_pointer_cast<RouteCache::CliConfig>(config)->lowThresholdHwUtilPercentage(), 85);
  EXPECT_EQ(control.statistics()->dropped(), 0U) << "a mistake is answered, not punished";
}

TEST_F(ControlSocketTest, RequestsMayComeInPiecesAndSeveralAtOnce) {
  Peer peer(path);
  peer.send(R"({"op": "get", "pa)");
  turn();
  EXPECT_EQ(peer.receive(), "");
  peer.send("th\": \"nowhere\"}\n{\"op\": \"mow\"}\n{\"op\"");
  turn();
  const std::string replies = peer.receive();
  EXPECT_LT(replies.find("nowhere"), replies.find("mow"));
  EXPECT_FALSE(peer.closed);
}

TEST_F(ControlSocketTest, BadBytesCostTheirSenderTheConnectionAndNobodyElse) {
  const std::string nested(10'000, '[');
  const std::vector<std::string> bad = {"hello\n",
                                        "[1]\n",
                                        "{\"path\": \"vxlan\"}\n",
                                        "{\"op\": [\"get\"]}\n",
                                        "{\"op\": \"get\", \"path\": \"\xff\"}\n",
                                        nested + "\n",
                                        std::string(ControlSocket::maxRequestSize + 1, 'x'),
                                        "{\"op\": \"" + std::string(ControlSocket::maxRequestSize, 'x') + "\"}\n"};
  Peer bystander(path);
  turn();
  for (const auto& bytes : bad) {
    SCOPED_TRACE(bytes.substr(0, 20));
    Peer peer(path);
    peer.send(bytes);
    turn();
    EXPECT_EQ(peer.receive(), "");
    EXPECT_TRUE(peer.closed);
  }
  EXPECT_EQ(control.statistics()->dropped(), bad.size());
  bystander.send("{\"op\": \"get\", \"path\": \"vxlan\"}\n");
  turn();
  EXPECT_EQ(bystander.receive(), done);
}

TEST_F(ControlSocketTest, StalledReaderHoldsAPieceOfItsReplyAndDelaysNobody) {
  int pieces = 0;
  const auto held = std::make_shared<int>();
  replyIs(control, "endless", [&pieces, held](std::string& lines) { return addPiece(lines, pieces); });
  const auto unasked = held.use_count();
  Peer stalled(path);
  stalled.send("{\"op\": \"endless\"}\n");
  turn(200);
  const int produced = pieces;
  EXPECT_GT(produced, 10);
  turn(200);
  EXPECT_EQ(pieces, produced) << "nothing is produced that nobody takes";
  EXPECT_EQ(ask(R"({"op": "get", "path": "vxlan"})"), done);
  EXPECT_GT(stalled.receive().size(), 0U);
  turn(20);
  EXPECT_GT(pieces, produced) << "it goes on when the reader does";
  EXPECT_GT(held.use_count(), unasked);
  stalled.leave();
  turn();
  EXPECT_EQ(held.use_count(), unasked) << "the reply goes with its reader";
}

TEST_F(ControlSocketTest, TurnOfOneClientEndsWithItsTimeSlice) {
  LinuxPlatform::EventLoop hastyLoop(0);  // a slice is spent as soon as somebody asks
  const std::string hastyPath = path + "-hasty";
  ControlSocket hasty(hastyLoop, hastyPath);
  hastyLoop.runOnce(0);
  int pieces = 0;
  replyIs(hasty, "endless", [&](std::string& lines) { return addPiece(lines, pieces); });
  Peer peer(hastyPath);
  peer.send("{\"op\": \"endless\"}\n");
  for (int i = 0; i < 10; ++i) {
    const int before = pieces;
    hastyLoop.runOnce(0);
    EXPECT_LE(pieces, before + 1);
  }
  EXPECT_GT(pieces, 5);
}

TEST_F(ControlSocketTest, ReplyThatNeedsTimeTakesItsTurns) {
  int asked = 0;
  int needed = 5;
  replyIs(control, "slow", [&](std::string&) { return ++asked < needed; });
  Peer peer(path);
  peer.send("{\"op\": \"slow\"}\n");
  turn(2);
  EXPECT_LT(asked, 5);
  EXPECT_GT(asked, 0);
  turn(10);
  EXPECT_EQ(peer.receive(), done);

  // Nobody works for a reader that is gone.
  needed = 1'000'000;
  peer.send("{\"op\": \"slow\"}\n");
  turn(2);
  peer.leave();
  turn(2);
  const int before = asked;
  turn(10);
  EXPECT_EQ(asked, before);
}

TEST_F(ControlSocketTest, WhoFindsNoPlaceWaitsForOne) {
  constexpr std::size_t crowd = 400;
  std::vector<std::unique_ptr<Peer>> peers;
  for (std::size_t i = 0; i < crowd; ++i) {
    peers.push_back(std::make_unique<Peer>(path));
    peers.back()->send("{\"op\": \"get\", \"path\": \"vxlan\"}\n");
  }
  // Each goes when he has his answer.
  for (int turns = 0; turns < 10'000 && !peers.empty(); ++turns) {
    turn(1);
    std::erase_if(peers, [](auto& peer) {
      const std::string reply = peer->receive();
      EXPECT_THAT(reply, testing::AnyOf("", done));
      EXPECT_FALSE(reply.empty() && peer->closed) << "sent away";
      return !reply.empty() || peer->closed;
    });
  }
  EXPECT_TRUE(peers.empty());
  EXPECT_EQ(control.statistics()->clients(), crowd);
  EXPECT_EQ(control.statistics()->evicted(), 0U);

  for (int i = 0; i < 100; ++i) Peer(path).send("{\"op\": \"get\"}\n");  // gone before the answer
  turn(50);
  EXPECT_EQ(ask(R"({"op": "get", "path": "vxlan"})"), done);
}

// With patience for nothing: of those who could do something the one that has been silent longest.
TEST_F(ControlSocketTest, WhoKeepsAPlaceForNothingLosesIt) {
  LinuxPlatform::EventLoop impatientLoop;
  const std::string impatientPath = path + "-impatient";
  ControlSocket impatient(impatientLoop, impatientPath, 0);
  bool busy = true;
  replyIs(impatient, "work", [&](std::string&) { return busy; });
  const auto turns = [&] {
    for (int i = 0; i < 4; ++i) impatientLoop.runOnce(0);
  };
  const auto looks = [&] {
    std::uint64_t runs = 0;
    for (const auto& task : impatientLoop.statistics()) runs += task.name == "controlAcceptTask" ? task.runs : 0;
    return runs;
  };
  std::vector<std::unique_ptr<Peer>> peers;
  for (std::size_t i = 0; i < ControlSocket::maxClients; ++i) {
    peers.push_back(std::make_unique<Peer>(impatientPath));
    if (i == 0) peers.back()->send("{\"op\": \"work\"}\n");
    turns();
  }
  peers[1]->send("{\"op\"");  // a sign of life
  const std::uint64_t before = looks();
  EXPECT_TRUE(eventually([&] { return turns(), looks() > before; }));
  const auto isClosed = [&](std::size_t i) { return peers[i]->receive().empty() && peers[i]->closed; };
  EXPECT_EQ(impatient.statistics()->evicted(), 0U) << "nobody wants a place";

  Peer newcomer(impatientPath);
  newcomer.send("{\"op\": \"mow\"}\n");
  EXPECT_TRUE(eventually([&] { return turns(), impatient.statistics()->evicted() > 0; }));
  turns();
  EXPECT_THAT(newcomer.receive(), HasSubstr("error"));
  for (std::size_t i = 0; i < peers.size(); ++i) EXPECT_EQ(isClosed(i), i == 2) << i;
  busy = false;
  turns();
  EXPECT_EQ(peers[0]->receive(), done) << "it was being answered";
}

TEST_F(ControlSocketTest, WithoutADescriptorForThemClientsWait) {
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  turn();
  Peer waiting(path);
  waiting.send("{\"op\": \"get\", \"path\": \"vxlan\"}\n");
  const int next = dup(0);
  close(next);
  rlimit none = before;
  none.rlim_cur = static_cast<rlim_t>(next);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  turn();
  EXPECT_EQ(control.statistics()->clients(), 0U);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
  EXPECT_TRUE(eventually([&] {
    turn(1);
    return waiting.receive() == done;
  }));
}

TEST_F(ControlSocketTest, WhatIsNoSocketInItsPlaceIsToldForWhatItIs) {
  const std::string file = directory.path() + "/file";
  ASSERT_EQ(mkfifo(file.c_str(), 0600), 0);
  EXPECT_THAT([&] { ControlSocket(loop, file); },
              testing::ThrowsMessage<std::runtime_error>(file + ": what stands there is not a socket"));
}

TEST_F(ControlSocketTest, TheOwnerSetsTheGroupLooksAndOthersDoNothing) {
  struct stat status {};
  ASSERT_EQ(stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0660U);
  SKIP_UNLESS_ROOT();
  ASSERT_EQ(chmod(directory.path().c_str(), 0755), 0);
  const auto askAs = [&](gid_t group, const std::string& request) {
    const auto peer = [&] {
      const OtherUser user(group);
      return std::make_unique<Peer>(path);
    }();
    peer->send(request + "\n");
    turn();
    return peer->receive();
  };
  const auto refused =
      HasSubstr("is not for you: user 0, who runs the agent, and root may do all, group 0 may only look");
  const std::string look = R"({"op": "get", "path": "vxlan"})";
  EXPECT_EQ(askAs(status.st_gid, look), done);
  EXPECT_THAT(askAs(status.st_gid, R"({"op": "tasks"})"), HasSubstr(done));
  EXPECT_THAT(askAs(status.st_gid, R"({"op": "set", "path": "vxlan", "field": "vtiStatus[V]"})"), refused);
  EXPECT_THAT(askAs(status.st_gid, R"({"op": "del", "path": "vxlan", "field": "vtiStatus[V]"})"), refused);
  EXPECT_TRUE(vtis->vtiStatus().empty());

  const auto askAsStranger = [&] {
    const OtherUser stranger(OtherUser::id);
    Tools::askAgent(directory.path(), {{"op", "get"}}, [](const auto&) {});
  };
  EXPECT_THAT(askAsStranger, testing::ThrowsMessage<std::runtime_error>(HasSubstr("its own user and group only")));
  ASSERT_EQ(chmod(path.c_str(), 0666), 0);  // somebody knew better
  EXPECT_THAT(askAs(OtherUser::id, look), refused);
  EXPECT_THAT(askAs(OtherUser::id, R"({"op": "mow"})"), refused);
  EXPECT_EQ(control.statistics()->refused(), 4U);
}

}  // namespace
