// routecache table check, table stat: whether a table agrees with itself, and what it is filled with. Read from the
// file, beside its writer or long after.
#include <sys/stat.h>

#include <CLI/CLI.hpp>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <iomanip>
#include <iostream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "host/Progress.h"
#include "lib/tables/TableInspection.h"
#include "linux/tables/SharedTableService.h"
#include "linux/tables/TableFile.h"
#include "platform/values/Printable.h"
#include "tools/commandline/Commands.h"
#include "tools/commandline/Common.h"

namespace Tools {

namespace {

using Json = nlohmann::ordered_json;
using LinuxPlatform::TableFile;
using LinuxPlatform::TableFindings;
using LinuxPlatform::TableInspection;
using LinuxPlatform::TableShape;
using Platform::printable;

struct InspectOptions {
  std::string runDir;
  std::string path;
  bool json = false;
};

std::string fileOf(const InspectOptions& options) {
  constexpr std::string_view suffix = ".table";
  std::error_code error;
  if (options.path.ends_with(suffix) && std::filesystem::exists(options.path, error)) return options.path;
  std::string name = LinuxPlatform::tableDirectory(options.runDir) + "/" + LinuxPlatform::tableFileName(options.path) +
                     std::string(suffix);
  if (std::filesystem::exists(name, error)) return name;
  throw std::runtime_error("there is no table " + options.path + " in " + options.runDir +
                           ", and no file of this name");
}

// The bytes that the filesystem has given the file.
std::uint64_t bytesOnDisk(const std::string& fileName) {
  struct stat status {};
  if (stat(fileName.c_str(), &status) != 0) throw std::runtime_error(fileName + ": " + std::strerror(errno));
  constexpr std::uint64_t block = 512;  // of st_blocks, on every filesystem
  return static_cast<std::uint64_t>(status.st_blocks) * block;
}

void refuseBroken(const TableFile& file, const std::string& name) {
  if (file.broken()) throw std::runtime_error(name + ": the file was cut short while it was read");
}

void print(const Json& object) {
  std::cout << object.dump(-1, ' ', false, Json::error_handler_t::replace) << '\n';
}

// --- check -----------------------------------------------------------------------------------------------------------

void check(const InspectOptions& options, ToolContext& context) {
  const std::string name = fileOf(options);
  const auto file = TableFile::openFile(name);
  Progress progress("slots looked at");
  const TableFindings found = TableInspection(file->image()).check([&] { progress.step(); });
  refuseBroken(*file, name);
  if (!found.faults.empty()) context.exitCode = 1;
  if (options.json) {
    return print({{"path", file->image().header().path},
                  {"sound", found.faults.empty()},
                  {"entries", found.entries},
                  {"changing", found.changing},
                  {"faults", found.faults},
                  {"faultsNotTold", found.more},
                  {"notes", found.notes}});
  }
  const std::string path = printable(file->image().header().path);
  for (const std::string& fault : found.faults) std::cout << path << ": " << fault << '\n';
  if (found.more > 0) std::cout << path << ": and " << counted(found.more, "fault") << " more\n";
  for (const std::string& note : found.notes) std::cout << path << ": " << note << '\n';
  std::cout << path << ": " << found.entries << (found.entries == 1 ? " whole entry" : " whole entries")
            << (found.faults.empty() ? ", sound" : "")
            << (found.changing ? "; it changed meanwhile, so sums were not compared" : "") << '\n';
}

// --- stat ------------------------------------------------------------------------------------------------------------

Json statJson(const TableFile& file, const TableShape& shape, std::uint64_t onDisk) {
  Json heap = Json::array();
  for (const auto& places : shape.heap) {
    heap.push_back({{"size", places.size}, {"used", places.used}, {"taken", places.taken}});
  }
  return {{"path", file.image().header().path},
          {"type", file.image().header().typeName},
          {"entries", shape.entries},
          {"capacity", file.capacity()},
          {"slots", {{"size", shape.slotSize}, {"used", shape.slotsUsed}, {"count", shape.slots}}},
          {"hash",
           {{"lines", shape.bucketLines},
            {"overflown", shape.linesOverflown},
            {"meanWay", shape.meanWay},
            {"longestWay", shape.longestWay}}},
          {"nodes", shape.nodes},
          {"heap", heap},
          {"bytesInUse", shape.bytesInUse},
          {"bytesOnDisk", onDisk},
          {"largestFile", shape.largestFile}};
}

void row(const char* what, const std::ostringstream& text) {
  std::cout << "  " << std::left << std::setw(12) << what << text.str() << '\n';
}

void statText(const TableFile& file, const TableShape& shape, std::uint64_t onDisk) {
  const auto line = [](const char* what, auto... parts) {
    std::ostringstream text;
    text << std::fixed << std::setprecision(2);
    (text << ... << parts);
    row(what, text);
  };
  std::cout << printable(file.image().header().path) << "  " << printable(file.image().header().typeName) << '\n';
  line("entries", shape.entries, " of ", file.capacity());
  line("slots", shape.slotSize, " bytes each; ", shape.slotsUsed, " ever used, of ", shape.slots);
  line("hash index", shape.bucketLines, " lines, ", shape.linesOverflown,
       " of them with entries behind; a search takes ", shape.meanWay, " lines, at most ", shape.longestWay);
  line("order", "nodes of 4, 16, 48, 256 places: ", shape.nodes[0], ", ", shape.nodes[1], ", ", shape.nodes[2], ", ",
       shape.nodes[3]);
  for (const auto& places : shape.heap) {
    if (places.used == 0) continue;
    line("heap", places.size, " bytes each; ", places.used, " ever used, ", places.taken, " taken");
  }
  const auto each = [&](std::uint64_t bytes) {
    return shape.entries == 0 ? 0.0 : static_cast<double>(bytes) / static_cast<double>(shape.entries);
  };
  line("in use", shape.bytesInUse, " bytes, ", each(shape.bytesInUse), " an entry");
  line("on disk", onDisk, " bytes, ", each(onDisk), " an entry; ", shape.largestFile, " at most");
}

void stat(const InspectOptions& options) {
  const std::string name = fileOf(options);
  const auto file = TableFile::openFile(name);
  Progress progress("slots looked at");
  const TableShape shape = TableInspection(file->image()).shape([&] { progress.step(); });
  refuseBroken(*file, name);
  if (options.json) return print(statJson(*file, shape, bytesOnDisk(name)));
  statText(*file, shape, bytesOnDisk(name));
}

}  // namespace

void addTableInspectCommands(CLI::App& table, ToolContext& context) {
  const auto options = std::make_shared<InspectOptions>();
  const auto add = [&](const char* name, const char* what, const char* example) {
    CLI::App* command = table.add_subcommand(name, what);
    command->add_option("PATH", options->path, "The table's mount path, or the name of a file that ends with .table")
        ->required();
    addRunDirOption(*command, options->runDir);
    command->add_flag("--json", options->json, "Print JSON");
    command->footer(example);
    return command;
  };
  add("check", "Whether a table's entries, indexes and counts agree; exit code 1 when they do not",
      "Example: routecache table check routecache/route/hw/ipv4")
      ->callback([options, &context] { check(*options, context); });
  add("stat", "What a table is filled with and what it costs",
      "Example: routecache table stat routecache/route/hw/ipv4 --json")
      ->callback([options] { stat(*options); });
}

}  // namespace Tools
