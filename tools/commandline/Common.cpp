#include "tools/commandline/Common.h"

#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "linux/files/InputFile.h"
#include "linux/files/OwnFiles.h"
#include "platform/values/Printable.h"

namespace Tools {

namespace {

// In a place where anybody may have been first.
std::string directoryOfOwn() {
  return "/tmp/routecache-" + std::to_string(::geteuid());
}

void checkDirectoryOfOwn() {
  struct stat status {};
  const std::string path = directoryOfOwn();
  if (::lstat(path.c_str(), &status) == 0) LinuxPlatform::checkOwnDirectory(path);
}

}  // namespace

std::string defaultRunDir() {
  if (const char* given = std::getenv("ROUTECACHE_RUN_DIR"); given != nullptr && *given != '\0') return given;
  std::string system = "/run/routecache";
  if (::access(system.c_str(), F_OK) == 0 || ::access("/run", W_OK) == 0) return system;
  if (const char* own = std::getenv("XDG_RUNTIME_DIR"); own != nullptr && *own == '/') {
    return std::string(own) + "/routecache";
  }
  return directoryOfOwn();
}

void addRunDirOption(CLI::App& command, std::string& runDir) {
  runDir = defaultRunDir();
  command.add_option("--run-dir", runDir, "Directory of the shared tables and the control socket")
      ->type_name("DIR")
      ->capture_default_str();
  command.parse_complete_callback([&runDir] {
    if (runDir == directoryOfOwn()) checkDirectoryOfOwn();
  });
}

LinuxPlatform::FileDescriptor onlyOne(const std::string& path, const std::string& complaint) {
  auto file = LinuxPlatform::openOrCreate(path, LinuxPlatform::lockMode);
  if (!file.fd) throw std::runtime_error(file.fault);
  if (flock(file.fd.get(), LOCK_EX | LOCK_NB) != 0) throw std::runtime_error(complaint);
  return std::move(file.fd);
}

bool hangupIsIgnored() {
  struct sigaction hangup {};
  return sigaction(SIGHUP, nullptr, &hangup) == 0 && hangup.sa_handler == SIG_IGN;
}

LineReader linesOf(const std::string& file) {
  if (file == "-") return {"standard input", STDIN_FILENO};
  return {file, LinuxPlatform::openInput(file).get()};
}

std::pair<std::uint32_t, std::uint32_t> numberPair(const char* option, const std::string& text, std::uint32_t mostFirst,
                                                   std::uint32_t mostSecond) {
  if (const auto sign = text.find('='); sign != std::string::npos) {
    const auto first = Platform::TextForm<std::uint32_t>::from(std::string_view(text).substr(0, sign));
    const auto second = Platform::TextForm<std::uint32_t>::from(std::string_view(text).substr(sign + 1));
    if (first && second && *first <= mostFirst && *second <= mostSecond) return {*first, *second};
  }
  throw Platform::BadText(std::string(option) + ": '" + Platform::printable(text) + "' is not 0 to " +
                          std::to_string(mostFirst) + ", =, 0 to " + std::to_string(mostSecond));
}

std::pair<std::string, std::uint32_t> namedNumber(const char* option, const std::string& text) {
  const auto equals = text.rfind('=');
  if (equals == std::string::npos || equals == 0) {
    throw Platform::BadText(std::string(option) + ": '" + Platform::printable(text) + "' is not NAME=NUMBER");
  }
  const auto number = optionValue<std::uint32_t>(option, std::string_view(text).substr(equals + 1));
  return {optionValue<L3::VrfName>(option, text.substr(0, equals)).text(), number};
}

std::vector<IpGenPrefix> prefixesOf(const std::vector<std::string>& texts) {
  std::vector<IpGenPrefix> prefixes;
  for (const std::string& text : texts) {
    prefixes.push_back(Platform::fromText<IpGenPrefix>(text));
    if (prefixes.back().isEmpty()) throw Platform::BadText("'' is not an IP prefix");
  }
  return prefixes;
}

std::string counted(std::size_t count, const std::string& what) {
  return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

void tell(bool json, const nlohmann::ordered_json& summary, const std::string& text) {
  std::cout << (json ? summary.dump() : Platform::printable(text)) << '\n';
}

}  // namespace Tools
