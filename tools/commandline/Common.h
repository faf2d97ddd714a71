// What several subcommands need.
#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "linux/files/FileDescriptor.h"
#include "platform/values/Net.h"
#include "platform/values/Text.h"
#include "simulator/input/LineReader.h"

namespace CLI {
class App;
}  // namespace CLI

namespace Tools {

// Where tables and control sockets lie unless --run-dir says otherwise: $ROUTECACHE_RUN_DIR when it is set and not
// empty, else /run/routecache where that exists or this user can make it, else a directory of this user's own.
std::string defaultRunDir();

// Adds --run-dir to a subcommand; `runDir` is set to the default at once and outlives the parsing. A directory of this
// user's own that is somebody else's is refused: std::runtime_error.
void addRunDirOption(CLI::App& command, std::string& runDir);

// Holds a file for this process alone, as long as the descriptor is open: std::runtime_error with `complaint` while
// another one holds it. The file stays.
LinuxPlatform::FileDescriptor onlyOne(const std::string& path, const std::string& complaint);

// Whether this process was started to outlive its terminal.
bool hangupIsIgnored();

// The lines of a file that a person has named; "-" is standard input. Throws BadText for one that cannot be opened, as
// openInput() has it.
LineReader linesOf(const std::string& file);

// Text to value; the option is named in what is thrown (BadText).
template <class T>
T optionValue(const char* option, std::string_view text) {
  if (auto value = Platform::TextForm<T>::from(text)) return *std::move(value);
  throw Platform::BadText(std::string(option) + ": '" + Platform::printable(text) + "' is not " +
                          Platform::TextForm<T>::what);
}

// "NUMBER=NUMBER" to the two, each from 0 on. Throws BadText likewise.
std::pair<std::uint32_t, std::uint32_t> numberPair(const char* option, const std::string& text, std::uint32_t mostFirst,
                                                   std::uint32_t mostSecond);

// "NAME=NUMBER" to the two; the name of a VRF.
std::pair<std::string, std::uint32_t> namedNumber(const char* option, const std::string& text);

// Texts to prefixes, in their order. Throws BadText for one that is none.
std::vector<IpGenPrefix> prefixesOf(const std::vector<std::string>& texts);

// "1 route", "2 routes".
std::string counted(std::size_t count, const std::string& what);

// What a command has done, on standard output: as one line of JSON or of text.
void tell(bool json, const nlohmann::ordered_json& summary, const std::string& text);

// Throws when not every route that was named for removal was there.
template <class Key>
void checkNoneMissing(const std::set<Key>& missing) {
  if (missing.empty()) return;
  const std::string others = missing.size() == 1 ? "" : ", nor " + counted(missing.size() - 1, "other");
  throw std::runtime_error("there was no route " + Platform::toText(*missing.begin()) + others);
}

}  // namespace Tools
