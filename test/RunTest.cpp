// The launcher as a person meets it: a process of its own.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

using testing::HasSubstr;
using testing::StartsWith;

namespace {

// One `routecache` process; its two outputs come as one text.
class Command {
 public:
  explicit Command(const std::vector<std::string>& arguments) {
    std::array<int, 2> ends{};
    EXPECT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
    output_ = ends[0];
    process_ = fork();
    if (process_ == 0) {
      std::vector<char*> argv{const_cast<char*>(ROUTECACHE_COMMAND)};
      for (const auto& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
      argv.push_back(nullptr);
      dup2(ends[1], STDOUT_FILENO);
      dup2(ends[1], STDERR_FILENO);
      execv(argv[0], argv.data());
      _exit(127);
    }
    close(ends[1]);
  }
  ~Command() {
    if (process_ > 0) stop(SIGKILL);
    close(output_);
  }
  Command(const Command&) = delete;
  Command& operator=(const Command&) = delete;

  // The next line, or what there is at the end of the output.
  std::string line() {
    std::string text;
    char character = 0;
    pollfd wait{output_, POLLIN, 0};
    while (poll(&wait, 1, 30'000) == 1 && read(output_, &character, 1) == 1 && character != '\n') text += character;
    return text;
  }
  // Signal 0 waits for its own end. The exit code, or minus the signal that ended it.
  int stop(int signal) {
    if (signal != 0) kill(process_, signal);
    int status = 0;
    waitpid(process_, &status, 0);
    process_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }

 private:
  pid_t process_ = -1;
  int output_ = -1;
};

class RunTest : public testing::Test {
 protected:
  RunTest() {
    std::filesystem::create_directories(directory);
    scenarioIs(R"({"routecache/capability": {"hwRouteTableSize": 64, "sfeRouteTableSize": 64, "adjacencyTableSize": 64},
                   "vrf/vrfNameStatus": {"nameToId": {"red": 2}}})");
  }
  ~RunTest() override { std::filesystem::remove_all(directory); }

  void scenarioIs(const std::string& text) const { std::ofstream(scenario) << text; }
  std::vector<std::string> runArguments() const {
    return {"run", "--scenario", scenario, "--run-dir", runDir, "--agent", ROUTECACHE_AGENT};
  }
  // The one line that a command says, and its exit code.
  static std::pair<std::string, int> outcome(const std::vector<std::string>& arguments) {
    Command command(arguments);
    std::string line = command.line();
    EXPECT_EQ(command.line(), "") << "one line only";
    return {std::move(line), command.stop(0)};
  }

  const std::string directory = "/tmp/run-test-" + std::to_string(getpid());
  const std::string scenario = directory + "/leaf.json";
  const std::string runDir = directory + "/run";
};

TEST_F(RunTest, OneAgentRunsAnswersAndStopsInOrder) {
  Command agent(runArguments());
  ASSERT_THAT(agent.line(), StartsWith("ready: "));
  const std::pair<std::string, int> two{"2", 0};
  EXPECT_EQ(outcome({"get", "vrf/vrfNameStatus", "nameToId[red]", "--run-dir", runDir}), two);

  const auto second = outcome(runArguments());
  EXPECT_THAT(second.first, HasSubstr("another agent runs in this directory"));
  EXPECT_EQ(second.second, 1);
  EXPECT_EQ(outcome({"get", "vrf/vrfNameStatus", "nameToId[red]", "--run-dir", runDir}), two) << "it did no harm";

  EXPECT_EQ(agent.stop(SIGTERM), 0);
  EXPECT_FALSE(std::filesystem::exists(runDir + "/control"));
}

TEST_F(RunTest, AKilledAgentLeavesRoomForTheNext) {
  Command killed(runArguments());
  ASSERT_THAT(killed.line(), StartsWith("ready: "));
  EXPECT_EQ(killed.stop(SIGKILL), -SIGKILL);
  const auto unanswered = outcome({"get", "--run-dir", runDir});
  EXPECT_THAT(unanswered.first, HasSubstr("Connection refused"));
  EXPECT_EQ(unanswered.second, 1);
  Command next(runArguments());
  EXPECT_THAT(next.line(), StartsWith("ready: "));
}

TEST_F(RunTest, MisuseIsOneLineAndExitCodeTwo) {
  scenarioIs(R"({"vrf/vrfNameStatus": {"nameToId": {"red": "two"}}})");
  const struct {
    const char* what;
    std::vector<std::string> arguments;
    std::string reason;
  } cases[] = {
      {"a bad scenario", runArguments(), scenario + ": vrf/vrfNameStatus.nameToId[red]: 'two' is not a number"},
      {"no scenario", {"run", "--run-dir", runDir}, "--scenario is required"},
      {"an unknown subcommand", {"mow"}, "mow"},
      {"no subcommand", {}, "a subcommand is wanted"},
      {"a bad trace level", {"run", "--scenario", scenario, "--run-dir", runDir, "--trace", "loud"}, "'loud'"},
      {"a time slice of nothing", {"run", "--scenario", scenario, "--time-slice", "0"}, "--time-slice"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const auto [line, exitCode] = outcome(c.arguments);
    EXPECT_THAT(line, StartsWith("routecache: "));
    EXPECT_THAT(line, HasSubstr(c.reason));
    EXPECT_EQ(exitCode, 2);
  }
  EXPECT_FALSE(std::filesystem::exists(runDir + "/tables/routecache.route.hw.ipv4.table"));
}

}  // namespace
