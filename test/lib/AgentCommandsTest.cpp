#include <gmock/gmock.h>

#include <functional>
#include <future>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "lib/control/AgentCommands.h"
#include "linux/control/ControlClient.h"
#include "linux/control/ControlOperations.h"
#include "linux/files/RunDirectory.h"
#include "platform/values/Text.h"
#include "test/support/Peer.h"
#include "test/support/TemporaryDirectory.h"

using Agent::AgentAsyncCommandRequestSm;
using Agent::AgentCommandRequest;
using Agent::CommandSocket;
using Agent::OutputFormat;
using LinuxPlatform::AgentCommands;
using LinuxPlatform::ControlSocket;
using testing::HasSubstr;
using Json = nlohmann::ordered_json;

namespace {

// What the commands under way have been through.
struct Counters {
  int calls = 0;
  int alive = 0;
};

// Writes entries with a number and a text of about 50 bytes each, asking after every one whether to pause.
class ListingSm final : public AgentAsyncCommandRequestSm {
 public:
  ListingSm(Counters& counters, int entries) : counters_(counters), entries_(entries) { ++counters_.alive; }
  ~ListingSm() override { --counters_.alive; }
  void handleAsyncCommand(CommandSocket& socket, OutputFormat format) override {
    ++counters_.calls;
    auto& out = socket.renderer(format);
    if (written_ == 0) {
      out.start();
      out.startDict("entries");
    }
    while (written_ < entries_) {
      write(out);
      if (written_ < entries_ && socket.shouldYield()) return;
    }
    out.endDict();
    out.end();
    out.ioflush();
    executionCompletedIs(true);
  }

  int throwsAt = -1;  // this entry cannot be written

 private:
  void write(Platform::Renderer& out) {
    out.startDictEntry(std::to_string(written_));
    if (written_ == throwsAt) throw std::runtime_error("the shelf is empty");
    out.addAttributes("%6d %-40s\n", {{"number", written_}, {"text", "one of many"}});
    out.endDictEntry();
    ++written_;
  }

  Counters& counters_;
  int entries_;
  int written_ = 0;
};

// "list N", "throw N" at entry 10 of N, "fail", "fail badly"; anything else is not known.
class ListingCallback final : public Agent::AsyncCommandCallbackWithFormat {
 public:
  explicit ListingCallback(Counters& counters)
      : AsyncCommandCallbackWithFormat("listing", "Listing"), counters_(counters) {}
  const Lattis::EntityType& entityType() const override {
    static const Lattis::EntityType type{"ListingCallback", {}, {}};
    return type;
  }
  std::shared_ptr<AgentAsyncCommandRequestSm> createAgentAsyncCommandRequestSm(
      const std::shared_ptr<const AgentCommandRequest>& request) override {
    class FailingSm final : public AgentAsyncCommandRequestSm {
     public:
      explicit FailingSm(std::string text) : error(std::move(text)) {}
      const std::string error;
      void handleAsyncCommand(CommandSocket& socket, OutputFormat format) override {
        socket.renderer(format).start();
        socket.renderer(format).addAttributes("%s\n", {{"cmdErr", error}});
        socket.renderer(format).end();
        executionCompletedIs(true);
      }
    };
    const std::string& command = request->command();
    if (command == "fail") return std::make_shared<FailingSm>("there is no such shelf");
    if (command == "fail badly") return std::make_shared<FailingSm>(std::string("no shelf a\0b either", 19));
    const bool throws = command.starts_with("throw ");
    if (!throws && !command.starts_with("list ")) return nullptr;
    auto sm = std::make_shared<ListingSm>(counters_, Platform::fromText<int>(command.substr(throws ? 6 : 5)));
    if (throws) sm->throwsAt = 10;
    return sm;
  }

 private:
  Counters& counters_;
};

// A reply as its reader gets it.
struct Reply {
  std::string content;  // of the frames that have arrived
  std::string ending;   // the line behind them
};
Reply replyOf(std::string_view bytes) {
  Reply reply;
  while (!bytes.empty()) {
    const std::size_t end = bytes.find('\n');
    const Json line = Json::parse(bytes.substr(0, end), nullptr, false);
    EXPECT_TRUE(line.is_object()) << bytes.substr(0, 100);
    bytes.remove_prefix(end + 1);
    if (!line.contains("bytes")) {
      EXPECT_EQ(bytes, "");
      reply.ending = line.dump();
      break;
    }
    const std::size_t count = line["bytes"];
    EXPECT_LE(count, bytes.size());
    reply.content += bytes.substr(0, count);
    bytes.remove_prefix(std::min(count, bytes.size()));
  }
  return reply;
}

class AgentCommandsTest : public testing::Test {
 protected:
  // By default only the output says when to pause.
  explicit AgentCommandsTest(double timeSlice = 60) : loop(timeSlice) {
    LinuxPlatform::addCommandOperation(control, commands);
    commands.commandCallbackWithFormatIs(std::make_shared<ListingCallback>(counters));
    turn(1);
  }
  void turn(int times) {
    for (int i = 0; i < times; ++i) loop.runOnce(0);
  }
  static std::string request(const std::string& command, const std::string& format = "json",
                             const std::string& type = "Listing") {
    return R"({"op": "command", "type": ")" + type + R"(", "command": ")" + command + R"(", "format": ")" + format +
           "\"}\n";
  }
  Reply ask(const std::string& line) {
    Peer peer(path);
    peer.send(line);
    return rest(peer, {});
  }
  // The whole reply, whose first bytes may have been received.
  Reply rest(Peer& peer, std::string bytes) {
    for (int turns = 0; turns < 100'000 && !hasEnded(bytes); ++turns) {
      turn(1);
      bytes += peer.receive();
    }
    return replyOf(bytes);
  }
  static bool hasEnded(const std::string& bytes) {
    return bytes.ends_with("{\"done\":true}\n") || bytes.ends_with("\"}\n");
  }

  const TemporaryDirectory directory;
  const std::string path = LinuxPlatform::RunDirectory::controlPath(directory.path());
  Counters counters;
  LinuxPlatform::EventLoop loop;
  AgentCommands commands{loop};
  ControlSocket control{loop, path};
};

constexpr const char* done = R"({"done":true})";

// Its time slices are spent as soon as somebody asks.
class HastyAgentCommandsTest : public AgentCommandsTest {
 protected:
  HastyAgentCommandsTest() : AgentCommandsTest(0) {}
};

TEST_F(HastyAgentCommandsTest, CommandThatPausesAThousandTimesLeavesOneOutput) {
  const Reply json = ask(request("list 1000"));
  EXPECT_EQ(counters.calls, 1000);
  EXPECT_EQ(json.ending, done);
  const Json entries = Json::parse(json.content)["entries"];
  EXPECT_EQ(entries.size(), 1000U);
  EXPECT_EQ(entries["999"]["number"], 999);

  const Reply text = ask(request("list 1000", "text"));
  EXPECT_EQ(text.content.size(), 1000U * 48);
  EXPECT_EQ(counters.alive, 0);
}

TEST_F(AgentCommandsTest, EveryEndIsToldAndLeavesClosedOutput) {
  const struct {
    const char* what;
    std::string request;
    Json content;  // null: nothing
    std::string ending;
  } cases[] = {
      {"unknown type", request("list 1", "json", "Shelf"), nullptr,
       R"({"error":"nobody answers commands of the type 'Shelf'"})"},
      {"unknown command", request("dance"), nullptr, R"({"error":"nothing is known of the command 'dance'"})"},
      {"unknown format", request("list 1", "xml"), nullptr,
       R"({"error":"'xml' is not an output format: text or json"})"},
      {"no command",
       R"({"op": "command", "type": "Listing"})"
       "\n",
       nullptr, R"({"error":"command wants a command"})"},
      {"a command that makes no sense", request("list x"), nullptr, R"({"error":"'x' is not a number of 32 bits"})"},
      {"completed", request("list 1"), {{"entries", {{"0", {{"number", 0}, {"text", "one of many"}}}}}}, done},
      {"failed", request("fail"), {{"cmdErr", "there is no such shelf"}}, R"({"error":"there is no such shelf"})"},
      {"failed, as text", request("fail", "text"), nullptr, R"({"error":"there is no such shelf"})"},
      {"a zero byte in the error", request("fail badly", "text"), nullptr, R"({"error":"no shelf a?b either"})"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const Reply reply = ask(c.request);
    EXPECT_EQ(reply.ending, c.ending);
    EXPECT_EQ(reply.content.empty() ? Json() : Json::parse(reply.content), c.content);
  }

  const Reply thrown = ask(request("throw 100"));
  EXPECT_EQ(thrown.ending, R"({"error":"the shelf is empty"})");
  EXPECT_EQ(Json::parse(thrown.content)["entries"].size(), 11U) << "with the one that was begun";
  EXPECT_EQ(counters.alive, 0);
}

TEST_F(AgentCommandsTest, StalledReaderStopsItsCommandUntilItReadsOn) {
  Peer reader(path);
  const int room = reader.sendBuffer();  // of either end, in the kernel
  const int entries = 100'000 + room / 24;
  reader.send(request("list " + std::to_string(entries), "text"));
  // How much fits on the way is the system's affair; that it comes to a stand, and that each call has left its 32 KiB,
  // is ours.
  int calls = -1;
  while (calls != counters.calls) {
    calls = counters.calls;
    turn(10);
  }
  EXPECT_GT(calls, 0);
  EXPECT_LT(calls, room / (32 << 10) + 10) << "each leaves at least 32 KiB";
  EXPECT_EQ(counters.alive, 1) << "it is not done";
  EXPECT_EQ(ask(request("list 1")).ending, done) << "others are served";
  EXPECT_EQ(counters.calls, calls + 1);

  const Reply reply = rest(reader, {});
  EXPECT_EQ(reply.ending, done);
  EXPECT_EQ(reply.content.size(), static_cast<std::size_t>(entries) * 48);
  EXPECT_THAT(reply.content.substr(reply.content.size() - 48), HasSubstr(std::to_string(entries - 1)));
}

TEST_F(HastyAgentCommandsTest, CommandGoesWithItsReader) {
  constexpr int untilStalled = 5000;
  for (const int turns : {5, untilStalled}) {
    SCOPED_TRACE(turns);
    Peer reader(path);
    reader.send(request("list 1000000", "text"));
    turn(turns);
    EXPECT_EQ(counters.alive, 1);
    reader.leave();
    turn(2);
    EXPECT_EQ(counters.alive, 0);
  }
}

TEST_F(AgentCommandsTest, WithdrawnCommandsEndAtOnceAndTheirReadersAreTold) {
  Peer stalled(path);
  stalled.send(request("list 1000000"));
  turn(20);
  ASSERT_EQ(counters.alive, 1);
  commands.commandCallbackWithFormatDel("Shelf");
  EXPECT_EQ(counters.alive, 1) << "another family";
  commands.commandCallbackWithFormatDel("Listing");
  EXPECT_EQ(counters.alive, 0);
  EXPECT_EQ(commands.commandCallbackWithFormat("Listing"), nullptr);

  const Reply reply = rest(stalled, {});
  EXPECT_EQ(reply.ending, R"({"error":"the agent has withdrawn its commands"})");
  EXPECT_TRUE(Json::accept(reply.content));
  EXPECT_THAT(ask(request("list 1")).ending, HasSubstr("nobody answers"));
}

// The command's side, on a thread of its own.
class ControlClientTest : public AgentCommandsTest {
 protected:
  // What the client hands over, or the error it throws.
  std::string askForBytes(const Json& what) {
    auto client = std::async(std::launch::async, [&]() -> std::string {
      std::string all;
      try {
        Tools::askAgentForBytes(directory.path(), what, [&all](std::string_view bytes) { all += bytes; });
      } catch (const Platform::BadText& error) {
        return all + "refused: " + error.what();
      } catch (const std::exception& error) {
        return std::string("failed: ") + error.what();
      }
      return all;
    });
    while (client.wait_for(std::chrono::seconds(0)) != std::future_status::ready) loop.runOnce(0.001);
    return client.get();
  }
  static Json command(const std::string& text) {
    return {{"op", "command"}, {"type", "Listing"}, {"command", text}, {"format", "text"}};
  }
};

TEST_F(ControlClientTest, BytesAreHandedOverAsTheyAre) {
  const std::string all = askForBytes(command("list 50000"));
  EXPECT_EQ(all.size(), 50'000U * 48);
  EXPECT_THAT(all.substr(all.size() - 48), HasSubstr("49999"));
  EXPECT_THAT(askForBytes(command("throw 11")), HasSubstr("refused: the shelf is empty"));
  EXPECT_EQ(askForBytes(command("dance")), "refused: nothing is known of the command 'dance'");

  LinuxPlatform::addTaskOperation(control, loop);
  EXPECT_THAT(askForBytes({{"op", "tasks"}}), HasSubstr("its answer makes no sense")) << "lines, no bytes";
}

}  // namespace
