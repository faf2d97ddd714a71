#include "tools/commandline/StateDbOptions.h"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <utility>

#include "host/StatePaths.h"
#include "linux/files/InputFile.h"
#include "platform/values/Paths.h"
#include "platform/values/Text.h"

namespace Tools {

using Platform::BadText;

namespace {

constexpr std::size_t mostPasswordBytes = 4096;

std::string hostName() {
  char name[256] = "";
  if (gethostname(name, sizeof name - 1) != 0 || name[0] == '\0') return "switch";
  return name;
}

// The first line: editors put an end to it.
std::string passwordOf(const std::string& file) {
  std::string text = LinuxPlatform::readInput(file, mostPasswordBytes);
  text.erase(std::min(text.find_first_of("\r\n"), text.size()));
  if (text.empty()) throw BadText(file + ": there is no password in its first line");
  return text;
}

void checkSwitchName(const std::string& name) {
  if (Platform::isPrintable(name) && name.find_first_of(" |") == std::string::npos) return;
  throw BadText("--switch: '" + Platform::printable(name) + "' is no name of a switch, without spaces and bars");
}

}  // namespace

LinuxPlatform::RedisStateDbSettings StateDbOptions::settings(
    std::function<void(const std::string& line)> notice) const {
  LinuxPlatform::RedisStateDbSettings settings;
  settings.address = LinuxPlatform::parseRedisAddress(address);
  checkSwitchName(switchName);
  settings.switchName = switchName;
  if (!passwordFile.empty()) settings.credentials = {user, passwordOf(passwordFile)};
  settings.notice = std::move(notice);
  settings.privatePaths = derivedPaths();
  settings.offeredPaths = {Paths::vrfIdMap};
  return settings;
}

CLI::Option* addStateDbOptions(CLI::App& command, StateDbOptions& options) {
  options.switchName = hostName();
  CLI::Option* address =
      command.add_option("--state-db", options.address,
                         "The state database in a Redis server: unix:/PATH or tcp://HOST:PORT; none: the agent's own");
  address->type_name("ADDRESS");
  command.add_option("--switch", options.switchName, "Whose content it is there, as others may have theirs")
      ->type_name("NAME")
      ->capture_default_str()
      ->needs(address);
  CLI::Option* password = command.add_option("--state-db-password-file", options.passwordFile,
                                             "File with the server's password in its first line");
  password->type_name("FILE")->needs(address);
  command.add_option("--state-db-user", options.user, "The server's user; none: its default user")
      ->type_name("NAME")
      ->needs(password);
  return address;
}

}  // namespace Tools
