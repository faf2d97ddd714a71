// routecache table: reads shared tables from outside, whoever writes them and whether or not he lives.
#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <iomanip>
#include <iostream>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>

#include "host/Output.h"
#include "host/TableTypes.h"
#include "linux/tables/SharedTableService.h"
#include "platform/values/Printable.h"
#include "tools/commandline/Commands.h"
#include "tools/commandline/Common.h"
#include "tools/commandline/OptionChecks.h"

namespace Tools {

namespace {

using Json = nlohmann::ordered_json;
using Platform::printable;
using Pondra::TableEntity;

struct TableOptions {
  std::string runDir;
  bool json = false;
  std::string path;
  std::string key;
  std::string from;
  std::uint64_t limit = 0;  // entries shown; 0: all
  std::uint64_t count = 0;  // changes to wait for; 0: until interrupted
};

// --- JSON ------------------------------------------------------------------------------------------------------------

// Numbers and truth values as JSON's own when their text is the canonical one.
Json fieldValue(const std::string& text) {
  if (text == "true" || text == "false") return text == "true";
  const auto number = Platform::TextForm<std::uint64_t>::from(text);
  if (number && Platform::toText(*number) == text) return *number;
  return text;
}

Json entryJson(const TableEntity::TextEntry& entry) {
  Json object = Json::object();
  for (const auto& [name, value] : entry.fields) object[name] = fieldValue(value);
  return object;
}

// One array, written element by element, each on a line of its own.
class JsonArray {
 public:
  JsonArray() { std::cout << '['; }
  void add(const Json& element) {
    std::cout << (empty_ ? "\n" : ",\n") << element.dump(-1, ' ', false, Json::error_handler_t::replace);
    empty_ = false;
  }
  void close() { std::cout << "\n]\n"; }

 private:
  bool empty_ = true;
};

// --- list ------------------------------------------------------------------------------------------------------------

void list(const TableOptions& options) {
  std::error_code error;
  if (!std::filesystem::is_directory(options.runDir, error)) {
    throw std::runtime_error(options.runDir + ": " + (error ? error.message() : std::strerror(ENOTDIR)));
  }
  const auto tables = LinuxPlatform::tableFiles(options.runDir);
  if (options.json) {
    JsonArray array;
    for (const auto& table : tables) {
      if (!table.fault.empty()) {
        array.add({{"path", table.path}, {"fault", table.fault}});
        continue;
      }
      array.add({{"path", table.path},
                 {"type", table.typeName},
                 {"entries", table.size},
                 {"capacity", table.capacity},
                 {"writer", table.writerAlive ? Json(*table.writerAlive) : Json()},
                 {"generation", table.generation},
                 {"reconciled", table.reconciled}});
    }
    array.close();
    return;
  }
  std::size_t width = 4;
  std::size_t typeWidth = 4;
  for (const auto& table : tables) {
    width = std::max(width, table.path.size());
    typeWidth = std::max(typeWidth, table.typeName.size());
  }
  const auto row = [&](const std::string& path, const std::string& type, const std::string& entries,
                       const std::string& capacity, const std::string& writer, const std::string& reconciled) {
    std::cout << std::left << std::setw(static_cast<int>(width) + 2) << printable(path)
              << std::setw(static_cast<int>(typeWidth) + 2) << type << std::right << std::setw(10) << entries
              << std::setw(10) << capacity << "  " << std::left << std::setw(8) << writer << reconciled << '\n';
  };
  row("PATH", "TYPE", "ENTRIES", "CAPACITY", "WRITER", "RECONCILED");
  for (const auto& table : tables) {
    if (!table.fault.empty()) {
      std::cout << printable(table.path) << "  " << printable(table.fault) << '\n';
      continue;
    }
    row(table.path, table.typeName, std::to_string(table.size), std::to_string(table.capacity),
        !table.writerAlive   ? "unknown"
        : *table.writerAlive ? "alive"
                             : "none",
        table.reconciled ? "yes" : "no");
  }
}

// --- show ------------------------------------------------------------------------------------------------------------

// The type that stands in the table's file.
std::string tableTypeOf(const TableOptions& options) {
  for (const auto& table : LinuxPlatform::tableFiles(options.runDir)) {
    if (table.fault.empty() && table.path == options.path) return table.typeName;
    if (!table.fault.empty() && table.path == LinuxPlatform::tableFileName(options.path) + ".table") {
      throw std::runtime_error(options.path + ": " + table.fault);
    }
  }
  throw std::runtime_error("there is no table " + options.path + " in " + options.runDir);
}

// A table opened as a reader. Damage is told on standard error, each kind once.
class OpenTable {
 public:
  OpenTable(const TableOptions& options, Pondra::MountKind kind)
      : typeName_(tableTypeOf(options)), types_(allTableTypes()), service_(options.runDir, types_) {
    service_.corruptionHandlerIs([this](const std::string& path, const std::string& what) {
      if (told_.insert(what).second) std::cerr << printable(path + ": " + what) << std::endl;
    });
    service_.mount(options.path, typeName_, kind);
    table_ = service_.entity(options.path);
  }
  TableEntity& table() { return *table_; }
  LinuxPlatform::SharedTableService& service() { return service_; }

 private:
  std::string typeName_;
  Platform::TableTypes types_;
  std::set<std::string> told_;
  LinuxPlatform::SharedTableService service_;
  std::shared_ptr<TableEntity> table_;
};

void showOne(TableEntity& table, const TableOptions& options) {
  const auto entry = table.findText(options.key);
  if (!entry) throw std::runtime_error(options.path + ": there is no entry " + options.key);
  std::cout << (options.json ? entryJson(*entry).dump(-1, ' ', false, Json::error_handler_t::replace)
                             : printable(entry->text))
            << '\n';
}

void show(const TableOptions& options) {
  if (!options.key.empty() && !options.from.empty()) throw Platform::BadText("give either KEY or --from");
  OpenTable open(options, Pondra::MountKind::keyedReader);
  if (!options.key.empty()) return showOne(open.table(), options);
  std::optional<JsonArray> array;
  if (options.json) array.emplace();
  std::uint64_t shown = 0;
  open.table().visitText(options.from, [&](const TableEntity::TextEntry& entry) {
    if (array) {
      array->add(entryJson(entry));
    } else {
      std::cout << printable(entry.text) << '\n';
    }
    return std::cout && ++shown != options.limit;
  });
  if (array) array->close();
}

// --- watch -----------------------------------------------------------------------------------------------------------

// SIGINT, SIGTERM and SIGHUP as a descriptor, while it exists.
class Interrupt {
 public:
  Interrupt() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    if (!hangupIsIgnored()) sigaddset(&signals, SIGHUP);
    ::sigprocmask(SIG_BLOCK, &signals, &before_);
    fd_ = ::signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
    if (fd_ < 0) throw std::runtime_error(std::string("signalfd: ") + std::strerror(errno));
  }
  Interrupt(const Interrupt&) = delete;
  Interrupt& operator=(const Interrupt&) = delete;
  ~Interrupt() {
    signalfd_siginfo taken;  // or it would strike once it is let through again
    while (::read(fd_, &taken, sizeof taken) > 0) {
    }
    ::close(fd_);
    ::sigprocmask(SIG_SETMASK, &before_, nullptr);
  }
  int fd() const { return fd_; }

 private:
  sigset_t before_{};
  int fd_ = -1;
};

// Writes changes as they come, until there were enough of them.
class ChangeWriter {
 public:
  ChangeWriter(const TableEntity& table, const TableOptions& options) : table_(table), left_(options.count) {
    limited_ = options.count != 0;
    if (options.json) array_.emplace();
  }
  bool done() const { return limited_ && left_ == 0; }
  void changed(const std::string& key) {
    if (done()) return;
    --left_;
    const auto entry = table_.findText(key);
    if (array_) {
      array_->add(entry ? Json{{"key", key}, {"value", entryJson(*entry)}} : Json{{"key", key}, {"removed", true}});
    } else {
      std::cout << printable(key) << ' ' << (entry ? printable(entry->text) : "removed") << '\n';
    }
  }
  void close() {
    if (array_) array_->close();
  }

 private:
  const TableEntity& table_;
  std::optional<JsonArray> array_;
  std::uint64_t left_;
  bool limited_;
};

void watch(const TableOptions& options) {
  constexpr int lookAfter = 1000;  // milliseconds; a writer that died rings no bell
  const Interrupt interrupt;
  OpenTable open(options, Pondra::MountKind::reader);
  LinuxPlatform::SharedTableService& service = open.service();
  std::optional<ChangeWriter> changes;
  const auto watcher = open.table().watchText([&](const std::string& key) { changes->changed(key); });
  changes.emplace(open.table(), options);  // opens its array once every change is heard of
  pollfd events[] = {{interrupt.fd(), POLLIN, 0}, {service.wakeupFd(), POLLIN, 0}};
  for (;;) {
    unsigned delivered = 0;  // an interrupt must get through a flood of changes
    const bool idle = service.deliverChanges([&] { return changes->done() || ++delivered == 1024; });
    flushOutput();
    if (changes->done()) break;
    if (::poll(events, std::size(events), idle ? lookAfter : 0) < 0 && errno != EINTR) {
      throw std::runtime_error(std::string("poll: ") + std::strerror(errno));
    }
    if (events[0].revents != 0) break;
    service.handleWakeup();
  }
  changes->close();
}

void addCommonOptions(CLI::App& command, TableOptions& options) {
  addRunDirOption(command, options.runDir);
  command.add_flag("--json", options.json, "Print JSON");
}

}  // namespace

void addTableCommand(CLI::App& app, ToolContext& context) {
  CLI::App* table = app.add_subcommand("table", "Read shared tables, without asking their writers");
  table->require_subcommand(1);
  table->footer("Example: routecache table show routecache/route/hw/ipv4 --limit 5");
  const auto options = std::make_shared<TableOptions>();

  CLI::App* listing = table->add_subcommand("list", "The tables of the run directory");
  addCommonOptions(*listing, *options);
  listing->footer("Example: routecache table list --json");
  listing->callback([options] { list(*options); });

  CLI::App* showing = table->add_subcommand("show", "The entries of a table, in key order");
  showing->add_option("PATH", options->path, "The table's mount path")->required();
  showing->add_option("KEY", options->key, "Show only this entry");
  showing->add_option("--from", options->from, "Begin with the first key that is not below this one");
  showing->add_option("--limit", options->limit, "Show at most this many entries")->check(wholeNumber(1));
  addCommonOptions(*showing, *options);
  showing->footer("Example: routecache table show routecache/adj/ipv4 1 --json");
  showing->callback([options] { show(*options); });

  CLI::App* watching = table->add_subcommand("watch", "The changes of a table as they come, until interrupted");
  watching->add_option("PATH", options->path, "The table's mount path")->required();
  watching->add_option("--count", options->count, "End after this many changes")->check(wholeNumber(1));
  addCommonOptions(*watching, *options);
  watching->footer("Example: routecache table watch routecache/route/hw/ipv4 --count 10");
  watching->callback([options] { watch(*options); });

  addTableInspectCommands(*table, context);
}

}  // namespace Tools
