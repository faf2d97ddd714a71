// Completion as a shell asks for it.
#include <gmock/gmock.h>

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "test/support/Command.h"
#include "test/support/TemporaryDirectory.h"
#include "tools/commandline/TypedLine.h"

using nlohmann::json;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;
using testing::UnorderedElementsAreArray;

namespace {

constexpr const char* breaks = " \t\n\"'><=;|&(:";  // bash's own

TEST(CompletionTest, ALineIsReadAsAShellReadsIt) {
  ::setenv("HOME", "/home/leaf", 1);
  const struct {
    const char* what;
    std::string line;
    std::vector<std::string> words;
    std::string word;      // what the last one is to become
    std::string inserted;  // for that, in bash
  } cases[] = {
      {"plain words", "routecache  show s", {"routecache", "show", "s"}, "summary", "summary"},
      {"a new word", "routecache ", {"routecache", ""}, "show", "show"},
      {"a blank in a word", "r blue\\ o", {"r", "blue o"}, "blue one", "blue\\ one"},
      {"what a shell would take for its own", "r ", {"r", ""}, "a;`b`$c*'\"~#", "a\\;\\`b\\`\\$c\\*\\'\\\"\\~\\#"},
      {"letters of other alphabets", "r r", {"r", "r"}, "réd", "réd"},
      {"an open double quote", "r \"blue o", {"r", "blue o"}, "blue one", "blue one"},
      {"an open double quote, and no way to go on", "r \"", {"r", ""}, "$x", ""},
      {"an open single quote", "r 'a$", {"r", "a$"}, "a$x", "a$x"},
      {"an open single quote, and no way to go on", "r '", {"r", ""}, "it's", ""},
      {"a closed quote", "r \"a b\"c", {"r", "a bc"}, "a bcd", "a\\ bcd"},
      {"an empty word in quotes", "r '' x", {"r", "", "x"}, "xy", "xy"},
      {"the line editor begins after a break", "r --vrf=a:b", {"r", "--vrf=a:b"}, "--vrf=a:bc", "bc"},
      {"but not after a quoted one", "r a\\:b", {"r", "a:b"}, "a:bc", "a:bc"},
      {"breaks of an earlier word", "r a=b c", {"r", "a=b", "c"}, "cd", "cd"},
      {"a home directory", "r ~/x '~/x' a~/", {"r", "/home/leaf/x", "~/x", "a~/"}, "a~/b", "a\\~/b"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const auto line = Tools::typedLine(c.line, breaks);
    EXPECT_EQ(line.words, c.words);
    EXPECT_EQ(Tools::insertedByBash(line, c.word), c.inserted);
  }
}

// What `routecache complete` says.
struct Answer {
  std::vector<std::string> words;
  int exitCode;  // 3: the shell is to offer files
};
Answer completed(const std::string& line) {
  const Outcome outcome = Command("complete -- '" + line + "'").wait();
  EXPECT_EQ(outcome.err, "") << line;
  return {linesOf(outcome.out), outcome.exitCode};
}

TEST(CompletionTest, TheCommandLineKnowsWhatMayFollow) {
  const std::vector<std::string> routesOptions{"--help", "--vrf", "--ipv6", "--json", "--run-dir"};
  const std::string nobody = " --run-dir /nowhere";
  const struct {
    const char* what;
    std::string line;
    std::vector<std::string> words;
    int exitCode;
  } cases[] = {
      {"subcommands", "show ", {"threshold", "summary", "routes"}, 0},
      {"of those, the ones that begin so", "t", {"table", "tasks", "trace"}, 0},
      {"none that is hidden", "compl", {"completion"}, 0},
      {"options", "show routes -", routesOptions, 0},
      {"options where nothing else can be offered", "show routes --json ", routesOptions, 0},
      {"an option's value", "tasks --run-dir ", {}, 3},
      {"an option's value behind a sign of equality", "tasks --run-dir=/t", {}, 3},
      {"a value that only a person knows", "rib add --vrf ", {}, 0},
      {"a file", "rib load ", {}, 3},
      {"behind the file", "rib load file --vteps 7 --vt", {"--vtep-base", "--vteps", "--vti"}, 0},
      {"no subcommand", "mow ", {}, 0},
      {"VRFs without an agent", "show routes" + nobody + " --vrf ", {}, 1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const Answer answer = completed("routecache " + c.line);
    EXPECT_EQ(answer.words, c.words);
    EXPECT_EQ(answer.exitCode, c.exitCode);
  }
}

class VrfCompletionTest : public testing::Test {
 protected:
  void SetUp() override {
    json nameToId;
    for (const auto& name : names) nameToId[name] = nameToId.size() + 1;
    nameToId["two\nlines"] = 99;
    std::ofstream(scenario) << json{{"vrf/vrfNameStatus", {{"nameToId", nameToId}}}};
    agent.emplace("run --scenario " + scenario + " --run-dir " + runDir + " --agent " ROUTECACHE_AGENT);
    ASSERT_TRUE(agent->says("ready: "));
  }
  // What bash makes of the candidates for this line, with the script that it is given.
  std::vector<std::string> wordsInBash(const std::string& line) const {
    const std::string script = directory.path() + "/complete.bash";
    std::ofstream(script) << R"sh(
      source <("$1" completion bash)
      complete -p routecache >&2 || exit
      COMP_WORDBREAKS=$' \t\n"\'><=;|&(:'
      COMP_LINE=$2 COMP_POINT=${#2}
      _routecache "$1"
      for candidate in "${COMPREPLY[@]}"; do
        eval "words=($candidate)"
        printf '%s\n' "${words[@]}"
      done
    )sh";
    return linesOfShell("bash --norc " + script + " " ROUTECACHE_COMMAND " '" + line + "'");
  }
  // What zsh's completion would be given for these words, of which the last one is being typed.
  std::vector<std::string> wordsInZsh(const std::string& arguments) const {
    const std::string script = directory.path() + "/complete.zsh";
    std::ofstream(script) << R"sh(
      compdef() { : }
      compadd() { shift; print -rl -- "$@" }
      _files() { print -r -- "(files)" }
      source <($1 completion zsh) || exit
      words=("$@") CURRENT=$# PREFIX=${@[-1]} QIPREFIX=
      _routecache
    )sh";
    return linesOfShell("zsh -f " + script + " " ROUTECACHE_COMMAND " " + arguments);
  }
  static std::vector<std::string> linesOfShell(const std::string& command) {
    const Outcome shell = Command(command, "", nullptr, "/usr/bin/env").wait();
    EXPECT_EQ(shell.exitCode, 0) << command;
    return linesOf(shell.out);
  }

  const std::vector<std::string> names{"default", "red",  "re;ls", "blue one", "$HOME", "`id`",
                                       "it's",    "q\"x", "a:b",   "[x]y]",    "a[b",   "a\\b]"};
  const TemporaryDirectory directory;
  const std::string scenario = directory.path() + "/leaf.json";
  const std::string runDir = directory.path() + "/run";
  std::optional<Command> agent;
};

TEST_F(VrfCompletionTest, NamesComeFromTheRunningAgentAndAreSafeInTheShell) {
  const std::string show = "routecache show routes --run-dir " + runDir;
  EXPECT_THAT(completed(show + " --vrf ").words, UnorderedElementsAreArray(names));
  EXPECT_THAT(completed(show + " --vrf re").words, UnorderedElementsAre("red", "re;ls"));
  EXPECT_THAT(completed(show + " --vrf=re").words, UnorderedElementsAre("--vrf=red", "--vrf=re;ls"));
  EXPECT_THAT(completed("routecache show summary --run-dir=" + runDir + " --vrf a").words,
              UnorderedElementsAre("a:b", "a[b", "a\\b]", "all"));

  EXPECT_THAT(wordsInBash(show + " --vrf "), UnorderedElementsAreArray(names));
  EXPECT_THAT(wordsInBash(show + " --vrf=re"), UnorderedElementsAre("red", "re;ls"));
  EXPECT_THAT(wordsInBash(show + " --vrf a:"), ElementsAre("b"));

  const std::string words = "show routes --run-dir " + runDir + " --vrf ";
  EXPECT_THAT(wordsInZsh(words + "''"), UnorderedElementsAreArray(names));
  EXPECT_THAT(wordsInZsh(words + "re"), UnorderedElementsAre("red", "re;ls"));
  EXPECT_THAT(wordsInZsh("tasks --run-dir ''"), ElementsAre("(files)"));

  // Neither an agent that does not answer nor one that is not there keeps anybody waiting.
  agent->signal(SIGSTOP);
  EXPECT_THAT(wordsInBash(show + " --vrf "), IsEmpty());
  agent->stop(SIGKILL);
  EXPECT_THAT(wordsInBash(show + " --vrf "), IsEmpty());
}

}  // namespace
