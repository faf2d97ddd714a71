// `routecache completion`: scripts that make bash and zsh complete this command. A script only hands over the line that
// is being typed, to `routecache complete`; what may come next is read off the command line's own description, so that
// no subcommand is described twice.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <exception>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "lib/statedb/EntityFields.h"
#include "linux/control/ControlClient.h"
#include "platform/values/Paths.h"
#include "platform/values/Printable.h"
#include "tools/commandline/Commands.h"
#include "tools/commandline/Common.h"
#include "tools/commandline/TypedLine.h"

namespace Tools {

namespace {

constexpr int fileWanted = 3;  // exit code of `complete`: the shell knows files best

constexpr const char* bashScript = R"(# bash completion for routecache: source <(routecache completion bash)
_routecache() {
  local candidates
  COMPREPLY=()
  candidates=$("${1/#\~\//$HOME/}" complete --bash "$COMP_WORDBREAKS" -- "${COMP_LINE:0:COMP_POINT}" 2>/dev/null)
  case $? in
    0) [[ -z $candidates ]] || mapfile -t COMPREPLY <<<"$candidates" ;;
    3) compopt -o default ;;
  esac
}
complete -F _routecache routecache
)";

constexpr const char* zshScript = R"(#compdef routecache
# zsh completion for routecache, after compinit: source <(routecache completion zsh)
_routecache() {
  local candidates
  candidates=$(${~words[1]} complete -- "${(j: :)words[1,CURRENT-1]} $QIPREFIX$PREFIX" 2>/dev/null)
  case $? in
    0) [[ -z $candidates ]] || compadd -- ${(f)candidates} ;;
    3) _files ;;
  esac
}
compdef _routecache routecache
)";

struct CompleteOptions {
  bool forBash = false;
  std::string breaks;  // bash's
  std::string line;
};

struct Candidates {
  std::vector<std::string> words;
  bool files = false;  // any file, instead
};

bool takesValue(const CLI::Option& option) {
  return option.get_items_expected_max() > 0;
}

bool isFile(const std::string& typeName) {
  return typeName == "FILE" || typeName == "DIR" || typeName == "LIB";
}

// Those of the running agent.
std::vector<std::string> vrfNames(const std::string& runDir) {
  constexpr std::string_view collection = "nameToId";
  std::vector<std::string> names;
  askAgent(runDir, {{"op", "get"}, {"path", Paths::vrfNames}, {"field", collection}}, [&](const Json& line) {
    const std::string field = line.value("field", "");  // nameToId[NAME]
    const auto steps = LinuxPlatform::parseField(field);
    if (steps.back().key) names.push_back(*steps.back().key);
  });
  return names;
}

// Follows the words of a command line through the commands that they name.
class Completer {
 public:
  explicit Completer(const CLI::App& program) : command_(&program), runDir_(defaultRunDir()) {}

  // A word that is complete.
  void follow(const std::string& word) {
    if (wanting_ != nullptr) {
      take(*std::exchange(wanting_, nullptr), word);
    } else if (word.starts_with('-')) {
      followOption(word);
    } else if (const auto* command = named(word)) {
      command_ = command;
    } else {
      ++positionals_;
    }
  }

  // What the word that begins like this may become.
  Candidates candidates(const std::string& begun) const {
    if (wanting_ != nullptr) return values(*wanting_);
    if (begun.starts_with('-')) return begun.find('=') == std::string::npos ? options() : assignments(begun);
    Candidates found = subcommands();
    if (found.words.empty()) return positional();
    if (positionals_ > 0) found.words.clear();  // behind a word that is none of them
    return found;
  }

 private:
  // The subcommand of this name; null: none.
  const CLI::App* named(const std::string& word) const {
    const auto found = command_->get_subcommands([&](const CLI::App* command) { return command->check_name(word); });
    return found.empty() ? nullptr : found.front();
  }
  void followOption(const std::string& word) {
    const auto assigned = word.find('=');
    const auto* option = command_->get_option_no_throw(word.substr(0, assigned));
    if (option == nullptr || !takesValue(*option)) return;
    if (assigned == std::string::npos) {
      wanting_ = option;
    } else {
      take(*option, word.substr(assigned + 1));
    }
  }
  void take(const CLI::Option& option, const std::string& value) {
    if (option.check_lname("run-dir")) runDir_ = value;
  }

  Candidates subcommands() const {
    Candidates found;
    for (const auto* command : command_->get_subcommands([](const CLI::App*) { return true; })) {
      if (!command->get_group().empty()) found.words.push_back(command->get_name());  // without a group it is hidden
    }
    return found;
  }
  Candidates options() const {
    Candidates found;
    for (const auto* option : command_->get_options()) {
      for (const std::string& name : option->get_lnames()) found.words.push_back("--" + name);
    }
    return found;
  }
  // A file where one comes next, else the options.
  Candidates positional() const {
    std::size_t passed = 0;
    for (const auto* option : command_->get_options()) {
      if (!option->get_positional() || passed++ != positionals_) continue;
      if (isFile(option->get_name(true))) return {{}, true};
    }
    return options();
  }
  Candidates values(const CLI::Option& option) const {
    const std::string type = option.get_type_name();
    if (isFile(type)) return {{}, true};
    Candidates found;
    if (type == "VRF" || type == "VRF|all") found.words = vrfNames(runDir_);
    if (type == "VRF|all") found.words.emplace_back("all");
    return found;
  }
  Candidates assignments(const std::string& begun) const {
    const std::string name = begun.substr(0, begun.find('='));
    const auto* option = command_->get_option_no_throw(name);
    Candidates found;
    if (option != nullptr && takesValue(*option)) found = values(*option);
    for (std::string& word : found.words) word.insert(0, name + "=");
    return found;
  }

  const CLI::App* command_;
  const CLI::Option* wanting_ = nullptr;  // an option without its value
  std::size_t positionals_ = 0;           // that went by
  std::string runDir_;
};

int complete(const CLI::App& program, const CompleteOptions& options) {
  constexpr unsigned patience = 2;                // seconds: a person waits
  std::signal(SIGALRM, [](int) { ::_exit(0); });  // for an agent that does not answer
  ::alarm(patience);
  const TypedLine line = typedLine(options.line, options.breaks);
  Completer completer(program);
  for (std::size_t i = 1; i + 1 < line.words.size(); ++i) completer.follow(line.words[i]);
  const Candidates found = completer.candidates(line.words.back());
  if (found.files) return fileWanted;
  for (const std::string& word : found.words) {
    // One line each; a name that does not fit on a line stays away.
    if (!word.starts_with(line.words.back()) || !Platform::isPrintable(word)) continue;
    const std::string shown = options.forBash ? insertedByBash(line, word) : word;
    if (!shown.empty()) std::printf("%s\n", shown.c_str());
  }
  return 0;
}

}  // namespace

void addCompletionCommands(CLI::App& app, ToolContext& context) {
  CLI::App* completion = app.add_subcommand("completion", "Print a script that completes this command in a shell");
  completion->require_subcommand(1);
  completion->footer("Example: source <(routecache completion bash)");
  for (const auto& [shell, script] : {std::pair("bash", bashScript), std::pair("zsh", zshScript)}) {
    CLI::App* command = completion->add_subcommand(shell, "For " + std::string(shell) + ", to be sourced");
    command->footer("Example: source <(routecache completion " + std::string(shell) + ")");
    command->callback([script = script] { std::fputs(script, stdout); });
  }

  const auto options = std::make_shared<CompleteOptions>();
  CLI::App* command = app.add_subcommand("complete", "What may follow on a command line, one candidate a line");
  command->group("");
  const auto* bash =
      command->add_option("--bash", options->breaks, "Print what bash inserts; these are its COMP_WORDBREAKS");
  command->add_option("LINE", options->line, "The line up to the cursor")->required();
  command->callback([options, bash, &app, &context] {
    options->forBash = bash->count() > 0;
    try {
      context.exitCode = complete(app, *options);
    } catch (const std::exception&) {
      context.exitCode = 1;  // no agent, no candidates, and no words about it between what is being typed
    }
  });
}

}  // namespace Tools
